// Confines the process by a change of root, through a user namespace where it must.
#include "host/console/DeviceRoot.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/capability.h>
#include <linux/openat2.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

#include "host/console/NamespaceRefusal.h"
#include "host/console/Output.h"
#include "host/console/ShellWord.h"
#include "host/console/TerminalText.h"
#include "platform/DeviceNames.h"
#include "platform/Error.h"
#include "platform/linux/files/DirectoryReader.h"

namespace quorvel::host {

namespace {

constexpr mode_t kDeviceUmask = 022;
// How far a likely tree is looked for: up from a container in it, and not through a whole disk.
constexpr int kLevelsLookedAt = 6;
constexpr int kEntriesLookedAt = 1000;

__user_cap_header_struct CapabilityHeader() { return {_LINUX_CAPABILITY_VERSION_3, 0}; }

bool MayChangeRoot() {
  __user_cap_header_struct header = CapabilityHeader();
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, sets) != 0) return false;
  return (sets[CAP_TO_INDEX(CAP_SYS_CHROOT)].effective & CAP_TO_MASK(CAP_SYS_CHROOT)) != 0;
}

// A new user namespace grants every capability over what its user owns. The host wants chroot
// alone: a tree must not migrate differently because it was entered this way.
bool DropCapabilities() {
  __user_cap_header_struct header = CapabilityHeader();
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  return ::syscall(SYS_capset, &header, none) == 0;
}

bool WriteKernelFile(const char* file, const std::string& text) {
  const UniqueDescriptor descriptor(::open(file, O_WRONLY | O_CLOEXEC));
  return descriptor && WriteWhole(descriptor.get(), text) == 0;
}

std::string MapToItself(unsigned id) {
  return std::to_string(id) + " " + std::to_string(id) + " 1\n";
}

// Moves from the current directory to a private, read-only view of the mounts below it. The view
// belongs to this process and is attached nowhere.
bool MoveToReadOnlyView() {
  const UniqueDescriptor view(::open_tree(
      AT_FDCWD, ".", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | static_cast<unsigned>(AT_RECURSIVE)));
  if (!view) return false;
  mount_attr attributes = {};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  return ::mount_setattr(view.get(), "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes,
                         sizeof attributes) == 0 &&
         ::fchdir(view.get()) == 0;
}

// With `refused` set when it was the namespace that the process did not get.
bool ChangeRootToCurrentDirectory(DeviceRoot::View view, bool& refused) {
  const bool privileged = MayChangeRoot();
  refused = !privileged && !EnterOwnNamespace();
  if (refused) return false;
  // Where the kernel refuses it (before 5.12, or in a container) the commands still change nothing
  // of their own accord.
  if (view == DeviceRoot::View::readOnly) (void)MoveToReadOnlyView();
  if (::chroot(".") != 0 || ::chdir("/") != 0) return false;
  return privileged || DropCapabilities();
}

bool IsDeviceTree(int directory) {
  open_how how = {};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_IN_ROOT;  // the tree's links mean the tree
  long home = ::syscall(SYS_openat2, directory, MobileHomeDirectory, &how, sizeof how);
  if (home < 0 && (errno == ENOSYS || errno == EPERM)) {
    home = ::openat(directory, MobileHomeDirectory, O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  // One that may not be looked into is there all the same.
  return UniqueDescriptor(static_cast<int>(home)) || errno == EACCES;
}

// The only directory below that is a device tree; one of several is nobody's guess.
std::string TreeBelow(int directory, const std::string& path) {
  const UniqueDescriptor own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!own) return {};
  onlinux::DirectoryReader reader;
  std::string found;
  for (int looked = 0; looked < kEntriesLookedAt; ++looked) {
    const onlinux::DirectoryEntry* entry = reader.next(own.get());
    if (entry == nullptr) break;
    const UniqueDescriptor child(
        ::openat(directory, entry->name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!child || !IsDeviceTree(child.get())) continue;
    if (!found.empty()) return {};
    found = path + (path.ends_with('/') ? "" : "/") + entry->name;
  }
  return found;
}

// A device tree that the directory lies in or that lies in it.
std::string LikelyRoot(int directory, const std::string& path) {
  char resolved[PATH_MAX];
  std::string above = ::realpath(path.c_str(), resolved) != nullptr ? resolved : "";
  for (int level = 0; level < kLevelsLookedAt && above.rfind('/') > 0 && !above.empty(); ++level) {
    above.resize(above.rfind('/'));
    const UniqueDescriptor parent(::open(above.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent && IsDeviceTree(parent.get())) return above;
  }
  return TreeBelow(directory, path);
}

}  // namespace

bool EnterOwnNamespace() {
  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  // An unprivileged group map needs setgroups denied first.
  return WriteKernelFile("/proc/self/setgroups", "deny") &&
         WriteKernelFile("/proc/self/uid_map", MapToItself(user)) &&
         WriteKernelFile("/proc/self/gid_map", MapToItself(group));
}

bool KeepChangingRootOnly() {
  __user_cap_header_struct header = CapabilityHeader();
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  auto& set = sets[CAP_TO_INDEX(CAP_SYS_CHROOT)];
  set.effective = set.permitted = CAP_TO_MASK(CAP_SYS_CHROOT);
  return ::syscall(SYS_capset, &header, sets) == 0;
}

bool DeviceRoot::open(const std::string& path, FatalError& error) {
  printable_ = Printable(path);
  directory_.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory_) {
    return Fail(error, ExitRootUnusable, printable_ + ": " + ErrnoDescription(errno),
                "Name a directory that you may read with --root");
  }
  struct stat own {};
  struct stat named {};
  if (::stat("/", &own) != 0 || ::fstat(directory_.get(), &named) != 0) {
    return Fail(error, ExitRootUnusable, printable_ + ": " + ErrnoDescription(errno),
                "Check the file system that holds it");
  }
  // Whatever path was given: a migration of the machine itself is never meant.
  if (own.st_dev == named.st_dev && own.st_ino == named.st_ino) {
    return Fail(error, ExitRootUnusable, printable_ + ": this is the machine's own root",
                "Name the directory that holds the device tree with --root", "own-root");
  }
  return true;
}

bool DeviceRoot::openDevice(const std::string& path, FatalError& error) {
  if (!open(path, error)) return false;
  if (IsDeviceTree(directory_.get())) return true;
  const std::string likely = LikelyRoot(directory_.get(), path);
  return Fail(error, ExitRootUnusable,
              printable_ + ": no device tree, there is no " + MobileHomeDirectory + " in it",
              "Nothing was changed. " +
                  (likely.empty() ? std::string("Name the directory that holds the device's "
                                                "\"private\" with --root")
                                  : "Did you mean --root " + ShellWord(likely) + "?"),
              "no-device-tree");
}

bool DeviceRoot::holds(const std::string& path) const {
  struct stat info {};
  return ::fstatat(directory_.get(), path.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
         info.st_size > 0;
}

bool DeviceRoot::contains(const std::string& directory) const {
  constexpr int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  struct stat own {};
  struct stat before {};
  struct stat at {};
  UniqueDescriptor open(::open(directory.c_str(), flags));
  // True when in doubt: the caller refuses a place inside the tree.
  if (!open || ::fstat(directory_.get(), &own) != 0 || ::fstat(open.get(), &at) != 0) return true;
  do {
    if (at.st_dev == own.st_dev && at.st_ino == own.st_ino) return true;
    before = at;
    open.reset(::openat(open.get(), "..", flags));
    if (!open || ::fstat(open.get(), &at) != 0) return true;
  } while (at.st_dev != before.st_dev || at.st_ino != before.st_ino);
  return false;
}

bool DeviceRoot::openAgain(const std::string& path) {
  UniqueDescriptor again(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat before {};
  struct stat now {};
  if (!again || ::fstat(directory_.get(), &before) != 0 || ::fstat(again.get(), &now) != 0) {
    return false;
  }
  if (before.st_dev != now.st_dev || before.st_ino != now.st_ino) {
    errno = ESTALE;
    return false;
  }
  // The lock belongs to the old descriptor, which is kept for it.
  locked_ = std::exchange(directory_, std::move(again));
  return true;
}

bool DeviceRoot::lock(FatalError& error) {
  // On the tree's own directory: no file is made, and the kernel frees it with the process.
  while (::flock(directory_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno == EWOULDBLOCK) {
      return Fail(error, ExitRootUnusable,
                  printable_ + ": another migration host is at work in this tree",
                  "Wait until it is done, then run this command again", "root-in-use");
    }
    return Fail(error, ExitRootUnusable,
                printable_ + ": the tree cannot be locked: " + ErrnoDescription(errno),
                "Put it on a file system that supports flock");
  }
  return true;
}

// A record lock that belongs to the open directory, beside lock(): only of these can be asked
// without taking one. To read, since a directory cannot be open for writing.
void DeviceRoot::showAtWork() const {
  struct flock whole {};
  whole.l_type = F_RDLCK;
  (void)::fcntl(directory_.get(), F_OFD_SETLK, &whole);
}

bool DeviceRoot::isAtWork() const {
  struct flock wanted {};
  wanted.l_type = F_WRLCK;  // what a reader's lock is in the way of
  return ::fcntl(directory_.get(), F_OFD_GETLK, &wanted) == 0 && wanted.l_type != F_UNLCK;
}

bool DeviceRoot::enter(View view, FatalError& error) {
  bool refused = false;
  if (::fchdir(directory_.get()) != 0 || !ChangeRootToCurrentDirectory(view, refused)) {
    const int failure = errno;
    return Fail(error, ExitRootUnusable,
                printable_ + ": cannot be made the root: " + ErrnoDescription(failure),
                refused ? RemedyForRefusedNamespace(failure)
                        : "Nothing was changed. Name a directory that you may enter with --root",
                refused ? "namespace-refused" : "");
  }
  ::umask(kDeviceUmask);
  return true;
}

}  // namespace quorvel::host
