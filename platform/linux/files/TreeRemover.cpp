// Empties directories from below, files before directories, across any depth.
#include "platform/linux/files/TreeRemover.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <utility>

namespace quorvel::onlinux {
namespace {

// A directory that others keep filling, or that fills itself when files in use are removed (as
// network file systems do), must not hold the walk for ever.
constexpr unsigned kMostPasses = 64;

// One call for the identity and the mount; the mount tells apart bind mounts of the same device
// and does not take a subvolume, which has a device number of its own, for a mount.
bool Locate(int descriptor, TreeRemover::Place* place) {
  struct statx info;
  if (::statx(descriptor, "", AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID, &info) == 0) {
    place->identity = {makedev(info.stx_dev_major, info.stx_dev_minor), info.stx_ino};
    place->mount = (info.stx_mask & STATX_MNT_ID) != 0 ? info.stx_mnt_id : 0;
    return true;
  }
  // Some system-call filters do not know the call.
  struct stat plain;
  if (::fstat(descriptor, &plain) != 0) return false;
  place->identity = IdentityOf(plain);
  return true;
}

bool IsDirectory(int directory, const char* name) {
  struct stat info;
  return ::fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

bool WipeTreeStateLinux::setErrorCallback(ErrorCallback callback) {
  callback_ = callback;
  return true;
}

bool WipeTreeStateLinux::setErrorContext(void* context) {
  context_ = context;
  return true;
}

bool WipeTreeStateLinux::getErrorNumber(int* number) const {
  if (number_ == 0) return false;
  *number = number_;
  return true;
}

bool WipeTreeStateLinux::report(const std::string& path, int number) {
  if (callback_ == nullptr) return false;
  number_ = number;
  const int answer = callback_(*this, path.c_str(), context_);
  number_ = 0;
  return answer == WIPETREE_PROCEED;
}

TreeRemover::TreeRemover(ItemPath item, bool recursive, WipeTreeStateLinux& state)
    : item_(std::move(item)),
      recursive_(recursive),
      state_(state),
      stack_(item_.parent.get(), item_.name, item_.path) {}

int TreeRemover::run() {
  if (const int number = begin(); number != 0) return number;
  while (stack_.depth() > 0 && ended_ == 0) {
    const int directory = stack_.descriptor();
    if (const DirectoryEntry* entry = stack_.reader().next(directory)) {
      visit(directory, entry->name, entry->type);
    } else {
      finishDirectory(errno);
    }
  }
  // Last, and to a listener only: a vanished item must not pass for the cause of a failure.
  if (ended_ == 0 && !firstVanished_.empty() && state_.hasCallback() &&
      !state_.report(firstVanished_, ENOENT)) {
    ended_ = ENOENT;
  }
  return ended_;
}

// Nearly always a directory on its parent's mount, which one call tells. Anything else is looked
// at.
int TreeRemover::begin() {
  const int parent = item_.parent.get();
  const char* name = item_.name.c_str();
  if (recursive_) {
    UniqueDescriptor directory = stack_.openDirectoryHereAt(parent, name);
    if (directory) {
      enter(std::move(directory), {}, name);
      return 0;
    }
    if (errno == ENOENT) return ENOENT;
    tellsMounts_ = errno != ENOSYS;
  }
  struct stat info;
  if (::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  Place base;
  if (!tellsMounts_ && !Locate(parent, &base)) return errno;
  baseMount_ = base.mount;
  baseDevice_ = base.identity.device;
  visit(parent, name, S_ISDIR(info.st_mode) ? DT_DIR : DT_UNKNOWN);
  return 0;
}

void TreeRemover::visit(int directory, const char* name, unsigned char type) {
  if (stack_.depth() == 1 && isForOtherPass(directory, name, type)) return;
  if (type != DT_DIR && visitFile(directory, name, type)) return;
  if (recursive_) return visitDirectory(directory, name);
  if (::unlinkat(directory, name, AT_REMOVEDIR) != 0) failed(stack_.pathOf(name), errno);
}

// The root's own files go before its directories: whoever keeps a note beside the directories that
// it speaks of finds them whole as long as the note is there.
bool TreeRemover::isForOtherPass(int directory, const char* name, unsigned char type) {
  if (rootPass_ == RootPass::everything) return false;
  const bool isDirectory = type == DT_DIR || (type == DT_UNKNOWN && IsDirectory(directory, name));
  if (rootPass_ == RootPass::directories) return !isDirectory;
  if (isDirectory) directoriesWait_ = true;
  return isDirectory;
}

// False when it turned out to be a directory. What the reader said was true when it was read: the
// kernel refuses to unlink a directory, so there is no need to look first.
bool TreeRemover::visitFile(int directory, const char* name, unsigned char type) {
  if (::unlinkat(directory, name, 0) == 0) {
    gone();
    return true;
  }
  const int number = errno;
  if (number == EISDIR) return false;
  // Permission is checked before the kind.
  const bool refused = number == EACCES || number == EPERM;
  if (refused && type == DT_UNKNOWN && IsDirectory(directory, name)) return false;
  if (number == ENOENT) {
    vanished(name);
  } else {
    failed(stack_.pathOf(name), number);
  }
  return true;
}

void TreeRemover::visitDirectory(int directory, const char* name) {
  UniqueDescriptor descriptor = tellsMounts_ ? stack_.openDirectoryHereAt(directory, name)
                                             : stack_.openDirectoryAt(directory, name);
  if (descriptor) {
    return tellsMounts_ ? enter(std::move(descriptor), {}, name)
                        : enterLocated(std::move(descriptor), name);
  }
  if (errno == ENOENT) return vanished(name);
  if (errno == EXDEV) return failed(stack_.pathOf(name), EBUSY);
  if (errno != ENOTDIR) return removeUnreadable(directory, name, errno);
  // It was exchanged with a link or a file, which is now what is to be removed.
  if (!visitFile(directory, name, DT_LNK)) failed(stack_.pathOf(name), EBUSY);
}

// An empty directory can be removed without being read.
void TreeRemover::removeUnreadable(int directory, const char* name, int openError) {
  if (::unlinkat(directory, name, AT_REMOVEDIR) == 0) return gone();
  const bool holdsEntries = errno == ENOTEMPTY || errno == EEXIST;
  failed(stack_.pathOf(name), holdsEntries ? openError : errno);
}

// Without the kernel's word that it is no mount point.
void TreeRemover::enterLocated(UniqueDescriptor descriptor, const char* name) {
  Place place;
  if (!Locate(descriptor.get(), &place)) return failed(stack_.pathOf(name), errno);
  const std::uint64_t outerMount = levels_.empty() ? baseMount_ : levels_.back().mount;
  const bool otherMount = place.mount != 0 && outerMount != 0
                              ? place.mount != outerMount
                              : place.identity.device != baseDevice_;
  if (otherMount) return failed(stack_.pathOf(name), EBUSY);
  enter(std::move(descriptor), place, name);
}

void TreeRemover::enter(UniqueDescriptor descriptor, const Place& place, const char* name) {
  stack_.enter(std::move(descriptor), place.identity, name);
  levels_.push_back({});
  levels_.back().mount = place.mount;
}

void TreeRemover::finishDirectory(int readError) {
  if (readError != 0) levels_.back().readError = readError;
  if (stack_.depth() == 1 && rootPass_ != RootPass::everything) {
    const bool again = rootPass_ == RootPass::files && directoriesWait_;
    rootPass_ = again ? RootPass::directories : RootPass::everything;
    if (again) return stack_.reader().repeat();
  }
  if (!stack_.openParent()) {
    // Somebody moved it, or a directory above it. What is still reachable by name goes on.
    failed(stack_.path(), errno);
    stack_.recover();
    levels_.resize(stack_.depth());
    for (Level& level : levels_) level.incomplete = true;
    return;
  }
  const int parent = stack_.parentDescriptor();
  int number = ::unlinkat(parent, stack_.name(), AT_REMOVEDIR) == 0 ? 0 : errno;
  // The name was given to a link or a file meanwhile.
  if (number == ENOTDIR) number = ::unlinkat(parent, stack_.name(), 0) == 0 ? 0 : errno;
  if ((number == ENOTEMPTY || number == EEXIST) && mayHoldMore()) {
    levels_.back().removed = false;
    ++levels_.back().passes;
    stack_.reader().rewind();
    return;
  }
  const int readFailure = levels_.back().readError;
  if (number == ENOENT && firstVanished_.empty()) firstVanished_ = stack_.path();
  const bool remains = number != 0 && number != ENOENT;
  if (remains) failed(stack_.path(), readFailure != 0 ? readFailure : number);
  levels_.pop_back();
  stack_.leave();
  if (number == 0) gone();
  if (remains && !levels_.empty()) levels_.back().incomplete = true;
}

// Some file systems pass over entries of a directory that shrinks while it is read. Another pass
// is worth it only while it finds something, and would report again what has been reported.
bool TreeRemover::mayHoldMore() const {
  const Level& level = levels_.back();
  return level.removed && !level.incomplete && level.readError == 0 && level.passes < kMostPasses;
}

// Something in the deepest directory was removed.
void TreeRemover::gone() {
  if (!levels_.empty()) levels_.back().removed = true;
}

void TreeRemover::vanished(const char* name) {
  if (firstVanished_.empty()) firstVanished_ = stack_.pathOf(name);
}

// The item is in the deepest directory, or is that directory.
void TreeRemover::failed(const std::string& path, int number) {
  if (!levels_.empty()) levels_.back().incomplete = true;
  if (!state_.report(path, number)) ended_ = number;
}

}  // namespace quorvel::onlinux
