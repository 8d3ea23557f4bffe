// Asks the kernel once an item: its statx record says nearly everything.
#include "host/preflight/ItemFacts.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "platform/Error.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

namespace {

constexpr std::uint64_t kFixedAttributes = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;

// For file systems that keep the flags and do not tell them with the other facts.
bool HasFixedFlag(int directory, const char* name, mode_t mode) {
  if (!S_ISDIR(mode) && !S_ISREG(mode)) return false;
  const UniqueDescriptor item(::openat(directory, *name != '\0' ? name : ".",
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  int flags = 0;
  return item && ::ioctl(item.get(), FS_IOC_GETFLAGS, &flags) == 0 &&
         (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)) != 0;
}

// 0 when the process has the rights, also where only the view of the tree is read-only.
int DeniedAccess(int directory, const char* name, int wanted) {
  const char* item = *name != '\0' ? name : ".";
  if (::faccessat(directory, item, wanted, AT_EACCESS | AT_SYMLINK_NOFOLLOW) == 0) return 0;
  return errno == EROFS ? 0 : errno;
}

// Does not change while the process looks, and is asked for with every item.
uid_t User() {
  static const uid_t user = ::geteuid();
  return user;
}

// A remedy is a command or a step that removes the obstacle, never a general advice.
std::string OwnedBy(const ItemFacts& item) {
  return "Run as root or as its owner, user " + std::to_string(item.owner);
}

std::string OwnerOrMode(const ItemFacts& item, const char* rights) {
  if (item.owner != User()) return OwnedBy(item);
  return std::string("Give yourself the right to it: chmod u+") + rights;
}

const Obstacle kFixedObstacle = {"it is immutable or append-only",
                                 "Take the flag from it: chattr -ia"};

}  // namespace

std::optional<ItemFacts> FactsAt(int directory, const char* name) {
  struct statx info {};
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (*name == '\0' ? AT_EMPTY_PATH : 0);
  if (::statx(directory, name, flags, STATX_TYPE | STATX_MODE | STATX_UID | STATX_MNT_ID, &info) !=
      0) {
    return std::nullopt;
  }
  ItemFacts facts;
  facts.mode = info.stx_mode;
  facts.owner = info.stx_uid;
  facts.device = makedev(info.stx_dev_major, info.stx_dev_minor);
  // An older kernel has no mount's number: the file system's tells most.
  facts.mount = (info.stx_mask & STATX_MNT_ID) != 0 ? info.stx_mnt_id : facts.device;
  facts.mountRoot = (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  facts.fixed = (info.stx_attributes & kFixedAttributes) != 0;
  if ((info.stx_attributes_mask & kFixedAttributes) != kFixedAttributes && !facts.fixed) {
    facts.fixed = HasFixedFlag(directory, name, facts.mode);
  }
  return facts;
}

// In the order in which the kernel refuses a rename, so that mending what is told helps.
std::optional<Obstacle> WhatKeeps(int directory, const char* name, const ItemFacts& item,
                                  const ItemFacts& holder) {
  if (item.fixed) return kFixedObstacle;
  if (item.mountRoot) {
    return Obstacle{"something is mounted on it", "Unmount it, after a copy of what it holds"};
  }
  const uid_t user = User();
  if ((holder.mode & S_ISVTX) != 0 && user != 0 && user != item.owner && user != holder.owner) {
    return Obstacle{"it belongs to another user and its directory is sticky", OwnedBy(item)};
  }
  // A directory that gets another parent is itself written.
  if (!S_ISDIR(item.mode)) return std::nullopt;
  const int denied = DeniedAccess(directory, name, W_OK);
  if (denied == 0) return std::nullopt;
  return Obstacle{"it may not be moved: " + ErrnoDescription(denied), OwnerOrMode(item, "w")};
}

// All three rights: entries are listed, reached by name, and taken out.
std::optional<Obstacle> WhatSeals(int directory, const char* name, const ItemFacts& item) {
  if (item.fixed) return kFixedObstacle;
  const int denied = DeniedAccess(directory, name, R_OK | W_OK | X_OK);
  if (denied == 0) return std::nullopt;
  return Obstacle{"its entries may not be moved: " + ErrnoDescription(denied),
                  OwnerOrMode(item, "rwx")};
}

}  // namespace quorvel::host
