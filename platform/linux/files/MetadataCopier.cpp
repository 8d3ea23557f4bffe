// Copies in the order in which nothing is ever more accessible than its source.
#include "platform/linux/files/MetadataCopier.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace quorvel::onlinux {
namespace {

constexpr const char* kAccessList = "system.posix_acl_access";
constexpr const char* kDefaultAccessList = "system.posix_acl_default";

// A change of owner clears capabilities, and an access-control list would meanwhile open the item
// to the group of the process instead of the source's.
bool FollowsOwner(std::string_view name) {
  return name == kAccessList || name == kDefaultAccessList || name == "security.capability";
}

// Whether an attribute may be left out when it is refused: what belongs to the file system or to
// a security module rather than to the item's owner.
bool MayBeRefused(std::string_view name, int number) {
  if (number != EPERM && number != ENOTSUP) return false;
  return !name.starts_with("user.") && !name.starts_with("trusted.") &&
         !name.starts_with("system.");
}

// EINVAL: the number has no meaning in this user namespace.
bool MeansNotPermitted(int number) { return number == EPERM || number == EINVAL; }

// Sets what the privileges allow. `current` is what the item has, and has then.
bool GiveOwner(int descriptor, const Owners& wanted, Owners* current) {
  if (wanted.user == current->user && wanted.group == current->group) return true;
  if (::fchownat(descriptor, "", wanted.user, wanted.group, AT_EMPTY_PATH) == 0) {
    *current = wanted;
    return true;
  }
  if (!MeansNotPermitted(errno)) return false;
  constexpr uid_t kKeep = static_cast<uid_t>(-1);
  if (wanted.group == current->group) return true;
  if (::fchownat(descriptor, "", kKeep, wanted.group, AT_EMPTY_PATH) == 0) {
    current->group = wanted.group;
    return true;
  }
  return MeansNotPermitted(errno);
}

// A foreign owner must not lend its identity, a foreign group gets no more than everybody.
mode_t ModeFor(const ItemStatus& status, const Owners& owner) {
  mode_t mode = status.mode & 07777;
  const bool sameUser = owner.user == status.owner.user;
  const bool sameGroup = owner.group == status.owner.group;
  if (!sameUser || !sameGroup) mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
  if (!sameGroup) mode &= ~static_cast<mode_t>(S_IRWXG) | ((mode & S_IRWXO) << 3);
  return mode;
}

}  // namespace

ItemStatus::ItemStatus(const struct stat& info)
    : mode(info.st_mode), owner{info.st_uid, info.st_gid}, times{info.st_atim, info.st_mtim} {}

bool MetadataCopier::copy(int input, int output, const ItemStatus& status, const Owners& current,
                          bool inherits) {
  std::size_t size = 0;
  if (!listAttributes(input, &size)) return false;
  if (size > 0 && !copyAttributes(input, output, size, Stage::beforeOwner)) return false;
  Owners owner = current;
  if (!GiveOwner(output, status.owner, &owner)) return false;
  if (inherits && !removeInherited(output, size)) return false;
  if (size > 0 && !copyAttributes(input, output, size, Stage::afterOwner)) return false;
  // After the owner, a change of which clears setuid; after the list, whose mask the mode is.
  if (::fchmod(output, ModeFor(status, owner)) != 0) return false;
  return ::futimens(output, status.times) == 0;
}

bool MetadataCopier::copyPinned(const PinnedItem& input, const PinnedItem& output,
                                const ItemStatus& status, const Owners& current) {
  Owners owner = current;
  if (!GiveOwner(output.descriptor, status.owner, &owner)) return false;
  if (!copyPinnedAttributes(input.descriptor, output.descriptor)) return false;
  const bool link = S_ISLNK(status.mode);
  if (!link && modes_.changePinned(output.descriptor, ModeFor(status, owner)) != 0) return false;
  if (::utimensat(output.descriptor, "", status.times, AT_EMPTY_PATH) == 0) return true;
  // Kernels before 5.8 want a name.
  if (errno != EINVAL && errno != ENOENT) return false;
  return ::utimensat(output.directory, output.name, status.times, AT_SYMLINK_NOFOLLOW) == 0;
}

// The calls on descriptors refuse pins. The names in /proc lead to the pinned item itself, and no
// further where it is a link.
bool MetadataCopier::copyPinnedAttributes(int input, int output) {
  const std::string from = "/proc/self/fd/" + std::to_string(input);
  const std::string to = "/proc/self/fd/" + std::to_string(output);
  if (names_ == nullptr) names_ = std::make_unique_for_overwrite<char[]>(XATTR_LIST_MAX);
  const ssize_t count = ::listxattr(from.c_str(), names_.get(), XATTR_LIST_MAX);
  if (count < 0) return errno == ENOTSUP || errno == ENOENT || errno == EACCES;
  if (count > 0 && value_ == nullptr) {
    value_ = std::make_unique_for_overwrite<char[]>(XATTR_SIZE_MAX);
  }
  const char* const end = names_.get() + count;
  for (const char* name = names_.get(); name < end; name += std::strlen(name) + 1) {
    const ssize_t size = ::getxattr(from.c_str(), name, value_.get(), XATTR_SIZE_MAX);
    const bool done = size >= 0 ? ::setxattr(to.c_str(), name, value_.get(),
                                             static_cast<std::size_t>(size), 0) == 0
                                : errno == ENODATA;
    if (!done && !MayBeRefused(name, errno)) return false;
  }
  return true;
}

bool MetadataCopier::HandsDownAccess(int directory) {
  return ::fgetxattr(directory, kDefaultAccessList, nullptr, 0) > 0;
}

bool MetadataCopier::listAttributes(int input, std::size_t* size) {
  // The kernel's own limits: a list or a value that grows between two calls still fits.
  if (names_ == nullptr) names_ = std::make_unique_for_overwrite<char[]>(XATTR_LIST_MAX);
  const ssize_t count = ::flistxattr(input, names_.get(), XATTR_LIST_MAX);
  if (count < 0 && errno != ENOTSUP) return false;
  *size = count < 0 ? 0 : static_cast<std::size_t>(count);
  return true;
}

bool MetadataCopier::copyAttributes(int input, int output, std::size_t listSize, Stage stage) {
  for (std::size_t at = 0; at < listSize; at += std::strlen(&names_[at]) + 1) {
    const char* name = &names_[at];
    if (FollowsOwner(name) != (stage == Stage::afterOwner)) continue;
    if (!copyAttribute(input, output, name)) return false;
  }
  return true;
}

bool MetadataCopier::copyAttribute(int input, int output, const char* name) {
  if (value_ == nullptr) value_ = std::make_unique_for_overwrite<char[]>(XATTR_SIZE_MAX);
  const ssize_t size = ::fgetxattr(input, name, value_.get(), XATTR_SIZE_MAX);
  if (size < 0) return errno == ENODATA || MayBeRefused(name, errno);  // ENODATA: gone meanwhile
  const auto length = static_cast<std::size_t>(size);
  return ::fsetxattr(output, name, value_.get(), length, 0) == 0 || MayBeRefused(name, errno);
}

// Access-control lists that the source does not have.
bool MetadataCopier::removeInherited(int output, std::size_t listSize) {
  for (const char* name : {kAccessList, kDefaultAccessList}) {
    if (listed(name, listSize) || ::fremovexattr(output, name) == 0) continue;
    if (errno != ENODATA && errno != ENOTSUP && errno != EACCES) return false;
  }
  return true;
}

bool MetadataCopier::listed(std::string_view name, std::size_t listSize) const {
  for (std::size_t at = 0; at < listSize; at += std::strlen(&names_[at]) + 1) {
    if (name == &names_[at]) return true;
  }
  return false;
}

}  // namespace quorvel::onlinux
