// Hands each entry over with its stat information, directories twice.
#include "platform/linux/files/TreeWalkerLinux.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/files/DirectoryStack.h"

namespace quorvel::onlinux {
namespace {

// A slash after the name of a link would make every call on it follow the link.
std::string WithoutTrailingSlashes(const std::string& path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string::npos) return path.substr(0, 1);
  return path.substr(0, last + 1);
}

class TreeWalkLinux final : public TreeWalk {
 public:
  TreeWalkLinux(std::string root, bool sameDevice)
      : root_(std::move(root)), sameDevice_(sameDevice), stack_(AT_FDCWD, root_, root_) {}

  const TreeWalkEntry* read() override;
  bool close() override { return true; }  // nothing is written, and descriptors close themselves

 private:
  const TreeWalkEntry* readNext();
  const TreeWalkEntry* deliver(TreeWalkKind kind, int parent, const char* name);
  const TreeWalkEntry* deliverRoot();
  const TreeWalkEntry* deliverEntry(const DirectoryEntry& listed);
  const TreeWalkEntry* enterDelivered();
  const TreeWalkEntry* finishDirectory();
  const TreeWalkEntry* end(int number);

  std::string root_;
  bool sameDevice_;
  DirectoryStack stack_;
  // What was told of each directory before its contents is told again after them; its size and
  // times may be others by then.
  std::vector<struct stat> directories_;  // of the levels of the stack
  struct stat info_ {};                   // of the entry
  TreeWalkEntry entry_;
  std::string entryPath_;
  bool begun_ = false;
  bool leave_ = false;  // the last entry was the deepest directory after its contents
  bool ended_ = false;
  int endNumber_ = 0;
};

TreeWalkInfo InfoOf(const struct stat& info) {
  return {.device = info.st_dev,
          .inode = info.st_ino,
          .links = info.st_nlink,
          .size = static_cast<std::uint64_t>(info.st_size),
          .blocks = static_cast<std::uint64_t>(info.st_blocks),
          .mode = info.st_mode,
          .uid = info.st_uid,
          .gid = info.st_gid};
}

TreeWalkKind KindOf(mode_t mode) {
  if (S_ISDIR(mode)) return TreeWalkKind::directoryBefore;
  if (S_ISREG(mode)) return TreeWalkKind::file;
  return S_ISLNK(mode) ? TreeWalkKind::symbolicLink : TreeWalkKind::other;
}

// Whether the failure to open a directory says something about the directory, vanished ones
// included, rather than about this process or a tree that changes under the walk.
bool IsOfTheDirectory(int number) {
  return number != 0 && number != EMFILE && number != ENFILE && number != ENOMEM &&
         number != ESTALE && number != ELOOP && number != ENOTDIR;
}

const TreeWalkEntry* TreeWalkLinux::read() {
  if (!ended_) {
    try {
      if (const TreeWalkEntry* entry = readNext()) return entry;
    } catch (const std::bad_alloc&) {
      end(ENOMEM);
    }
  }
  errno = endNumber_;
  return nullptr;
}

const TreeWalkEntry* TreeWalkLinux::readNext() {
  if (!begun_) return deliverRoot();
  // The visitor has seen it by now, and may have removed or exchanged it.
  if (entry_.kind == TreeWalkKind::directoryBefore) {
    if (const TreeWalkEntry* entry = enterDelivered()) return entry;
    if (ended_) return nullptr;
  } else if (leave_) {
    leave_ = false;
    // Only now: the last entry's name and parent were the stack's.
    stack_.leave();
    directories_.pop_back();
  }
  while (stack_.depth() > 0) {
    const DirectoryEntry* listed = stack_.reader().next(stack_.descriptor());
    if (listed == nullptr) return errno == 0 ? finishDirectory() : end(errno);
    return deliverEntry(*listed);
  }
  return end(0);
}

const TreeWalkEntry* TreeWalkLinux::end(int number) {
  ended_ = true;
  endNumber_ = number;
  return nullptr;
}

const TreeWalkEntry* TreeWalkLinux::deliver(TreeWalkKind kind, int parent, const char* name) {
  entry_.kind = kind;
  entry_.path = entryPath_.c_str();
  entry_.parent = parent;
  entry_.name = name;
  entry_.info = InfoOf(info_);
  return &entry_;
}

// The root is looked at like any entry, so that a missing one is told in the same way.
const TreeWalkEntry* TreeWalkLinux::deliverRoot() {
  begun_ = true;
  entryPath_ = root_;
  const bool seen = ::fstatat(AT_FDCWD, root_.c_str(), &info_, AT_SYMLINK_NOFOLLOW) == 0;
  entry_.errorNumber = seen ? 0 : errno;
  return deliver(seen ? KindOf(info_.st_mode) : TreeWalkKind::noStat, AT_FDCWD, root_.c_str());
}

const TreeWalkEntry* TreeWalkLinux::deliverEntry(const DirectoryEntry& listed) {
  const int parent = stack_.descriptor();
  entry_.errorNumber = 0;
  const bool seen = ::fstatat(parent, listed.name, &info_, AT_SYMLINK_NOFOLLOW) == 0;
  if (!seen) entry_.errorNumber = errno;
  const std::string& directory = stack_.path();
  // One buffer for all paths: assigning keeps its memory.
  entryPath_ = directory;
  if (directory.back() != '/') entryPath_ += '/';
  entryPath_ += listed.name;
  return deliver(seen ? KindOf(info_.st_mode) : TreeWalkKind::noStat, parent, listed.name);
}

// Goes into the directory delivered last. Null when it was entered, or the walk has ended.
const TreeWalkEntry* TreeWalkLinux::enterDelivered() {
  const bool root = stack_.depth() == 0;
  // Measured against the root: nothing below a directory of another device is entered, so that no
  // way leads back to the first one.
  if (sameDevice_ && !root && info_.st_dev != directories_.front().st_dev) {
    return deliver(TreeWalkKind::directoryAfter, entry_.parent, entry_.name);
  }
  UniqueDescriptor descriptor = stack_.openDirectoryAt(entry_.parent, entry_.name);
  struct stat opened {};
  int number = descriptor && ::fstat(descriptor.get(), &opened) == 0 ? 0 : errno;
  // Exchanged meanwhile: the visitor has judged another directory.
  if (number == 0 && IdentityOf(opened) != IdentityOf(info_)) number = ESTALE;
  if (IsOfTheDirectory(number)) {
    entry_.errorNumber = number;
    return deliver(TreeWalkKind::unreadableDirectory, entry_.parent, entry_.name);
  }
  entry_.kind = TreeWalkKind::directoryAfter;  // it is dealt with, whatever follows
  // Anything else would leave out entries without a word.
  if (number != 0) return end(number);
  directories_.push_back(info_);
  stack_.enter(std::move(descriptor), IdentityOf(opened), entry_.name);
  return nullptr;
}

const TreeWalkEntry* TreeWalkLinux::finishDirectory() {
  // Without the way back there is no next entry. Before the directory is delivered, since a visitor
  // that removes it does so in the parent.
  if (!stack_.openParent()) return end(errno);
  leave_ = true;
  info_ = directories_.back();
  entry_.errorNumber = 0;
  if (stack_.depth() == 1) {
    entryPath_ = root_;
    return deliver(TreeWalkKind::directoryAfter, AT_FDCWD, root_.c_str());
  }
  entryPath_ = stack_.path();
  return deliver(TreeWalkKind::directoryAfter, stack_.parentDescriptor(), stack_.name());
}

}  // namespace

std::unique_ptr<TreeWalk> TreeWalkerLinux::open(const char* root, int options) {
  constexpr int kKnown = FTS_PHYSICAL_OPTION | FTS_NOCHDIR_OPTION | FTS_XDEV_OPTION;
  if (root == nullptr || (options & FTS_PHYSICAL_OPTION) == 0 || (options & ~kKnown) != 0) {
    errno = EINVAL;
    return nullptr;
  }
  try {
    return std::make_unique<TreeWalkLinux>(WithoutTrailingSlashes(root),
                                           (options & FTS_XDEV_OPTION) != 0);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

}  // namespace quorvel::onlinux
