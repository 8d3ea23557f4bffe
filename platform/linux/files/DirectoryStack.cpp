// Keeps few directories open and reopens the others by way of their parents.
#include "platform/linux/files/DirectoryStack.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quorvel::onlinux {
namespace {

// Deeper than most trees, so that these never pay for a second opening; few enough for a process
// with the usual 1,024 descriptors.
constexpr std::size_t kOpenLevels = 16;
// The directory that is worked in and its parent.
constexpr std::size_t kLeastOpenLevels = 2;

// Without O_NONBLOCK, opening what just became a FIFO could wait for ever.
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

}  // namespace

DirectoryStack::DirectoryStack(int base, std::string rootName, std::string rootPath)
    : base_(base), rootName_(std::move(rootName)), path_(std::move(rootPath)) {}

std::string DirectoryStack::pathOf(const char* entry) const {
  if (levels_.empty()) return path_;
  const bool slash = !path_.empty() && path_.back() != '/';
  return path_ + (slash ? "/" : "") + entry;
}

const char* DirectoryStack::name() const {
  if (levels_.size() == 1) return rootName_.c_str();
  const std::size_t slash = path_.rfind('/');
  return path_.c_str() + slash + 1;
}

// Names have no memory of their own: the path has them all, and each level the length up to which
// it is the level's.
std::string DirectoryStack::nameOf(std::size_t level) const {
  if (level == 0) return rootName_;
  std::size_t begin = levels_[level - 1].pathLength;
  if (path_[begin] == '/') ++begin;
  return path_.substr(begin, levels_[level].pathLength - begin);
}

template <class Open>
UniqueDescriptor DirectoryStack::openBy(const Open& open) {
  for (;;) {
    const int descriptor = open();
    if (descriptor >= 0) return UniqueDescriptor(descriptor);
    if (errno == EINTR) continue;
    // ENFILE is the whole machine's, and what is given back here may go to somebody else: the loop
    // ends when there is nothing left to give.
    if (errno != EMFILE && errno != ENFILE) return {};
    const int number = errno;
    if (!closeShallowest() && (partner_ == nullptr || !partner_->closeShallowest())) {
      errno = number;
      return {};
    }
  }
}

UniqueDescriptor DirectoryStack::openAt(int directory, const char* name, int flags, mode_t mode) {
  return openBy([&] { return ::openat(directory, name, flags, mode); });
}

UniqueDescriptor DirectoryStack::openDirectoryAt(int directory, const char* name) {
  UniqueDescriptor descriptor = openAt(directory, name, kDirectoryFlags);
  if (!descriptor && errno == ELOOP) errno = ENOTDIR;
  return descriptor;
}

UniqueDescriptor DirectoryStack::openDirectoryHereAt(int directory, const char* name) {
  open_how how{};
  how.flags = static_cast<unsigned>(kDirectoryFlags);
  how.resolve = RESOLVE_NO_XDEV;
  UniqueDescriptor descriptor = openBy(
      [&] { return static_cast<int>(::syscall(SYS_openat2, directory, name, &how, sizeof how)); });
  if (!descriptor && errno == ELOOP) errno = ENOTDIR;
  // No directory is refused so when it is opened to be read; a filter is what refuses.
  if (!descriptor && errno == EPERM) errno = ENOSYS;
  return descriptor;
}

void DirectoryStack::enter(UniqueDescriptor descriptor, const DirectoryIdentity& identity,
                           const char* name) {
  if (!levels_.empty()) {
    if (path_.empty() || path_.back() != '/') path_ += '/';
    path_ += name;
  }
  levels_.push_back({std::move(descriptor), identity, path_.size(), {}});
  if (levels_.size() - firstOpen_ > kOpenLevels) closeShallowest();
}

bool DirectoryStack::closeShallowest() {
  if (levels_.size() - firstOpen_ <= kLeastOpenLevels) return false;
  Level& level = levels_[firstOpen_];
  struct stat info;
  // One that is not known could not be told from another when it is opened again: it stays open.
  if (level.identity == DirectoryIdentity() && ::fstat(level.descriptor.get(), &info) == 0) {
    level.identity = IdentityOf(info);
  }
  if (level.identity == DirectoryIdentity()) return false;
  ++firstOpen_;
  level.descriptor.reset();
  // The place in the directory is kept, the buffer is not.
  level.reader.suspend();
  return true;
}

UniqueDescriptor DirectoryStack::reopen(int directory, const char* name,
                                        const DirectoryIdentity& expected) {
  UniqueDescriptor descriptor = openDirectoryAt(directory, name);
  if (!descriptor) return {};
  struct stat info;
  if (::fstat(descriptor.get(), &info) != 0) return {};
  // A directory that was moved has another one above it, to which ".." would lead out of the tree.
  if (IdentityOf(info) == expected) return descriptor;
  errno = ESTALE;
  return {};
}

bool DirectoryStack::openParent() {
  if (levels_.size() == 1) return true;
  Level& parent = levels_[levels_.size() - 2];
  if (parent.descriptor) return true;
  parent.descriptor = reopen(descriptor(), "..", parent.identity);
  if (!parent.descriptor) return false;
  firstOpen_ = levels_.size() - 2;
  return true;
}

int DirectoryStack::parentDescriptor() const {
  return levels_.size() == 1 ? base_ : levels_[levels_.size() - 2].descriptor.get();
}

void DirectoryStack::leave() {
  levels_.pop_back();
  if (levels_.empty()) return;
  path_.resize(levels_.back().pathLength);
}

// From the root down and by names, since ".." has not led back. The lost directory itself is not
// tried: its end was reached.
void DirectoryStack::recover() {
  std::size_t reached = 0;
  UniqueDescriptor deepest;
  while (reached + 1 < levels_.size()) {
    const int directory = reached == 0 ? base_ : deepest.get();
    UniqueDescriptor next = reopen(directory, nameOf(reached).c_str(), levels_[reached].identity);
    if (!next) break;
    deepest = std::move(next);
    ++reached;
  }
  levels_.resize(reached);
  firstOpen_ = reached == 0 ? 0 : reached - 1;
  if (reached == 0) return;
  path_.resize(levels_.back().pathLength);
  levels_.back().descriptor = std::move(deepest);
}

}  // namespace quorvel::onlinux
