// Walks a tree with one sorted list of names per level.
#include "host/proof/SortedWalk.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "host/proof/LeavingAccessTime.h"

namespace quorvel::host {

namespace {

// Without O_NONBLOCK, opening what just became a FIFO could wait for ever.
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// The root alone has no component: it is called by its slash.
std::string LastComponent(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return name.empty() ? "/" : name;
}

}  // namespace

void SortedWalk::Names::add(std::string_view name) {
  offsets_.push_back(text_.size());
  text_.append(name).push_back('\0');
}

// By unsigned bytes, as strcmp compares, and not by any locale: a manifest of one machine is read
// on another.
void SortedWalk::Names::sort() {
  std::sort(offsets_.begin(), offsets_.end(), [this](std::size_t a, std::size_t b) {
    return std::strcmp(text_.c_str() + a, text_.c_str() + b) < 0;
  });
}

const char* SortedWalk::Names::next() {
  return at_ < offsets_.size() ? text_.c_str() + offsets_[at_++] : nullptr;
}

SortedWalk::SortedWalk(std::string root) : root_(std::move(root)), stack_(AT_FDCWD, root_, "") {}

bool SortedWalk::next(WalkedItem& item, int& failure) {
  failure = 0;
  if (!begun_) return first(item, failure);
  if (prepared_) enterPrepared();
  while (stack_.depth() > 0) {
    const char* name = names_.back().next();
    if (name == nullptr) {
      if (!leave(failure)) return false;
      continue;
    }
    if (describe(stack_.descriptor(), name, item, failure)) return true;
    if (failure != 0) return false;
  }
  return false;
}

// A root that vanished has no failure of its own, but nobody expects an empty tree in its place.
bool SortedWalk::first(WalkedItem& item, int& failure) {
  begun_ = true;
  if (!describe(AT_FDCWD, root_.c_str(), item, failure)) {
    if (failure == 0) failure = ENOENT;
    return false;
  }
  item.name = LastComponent(root_);
  return true;
}

// False without a failure when the item is not there any more.
bool SortedWalk::describe(int directory, const char* name, WalkedItem& item, int& failure) {
  item.depth = stack_.depth();
  item.name = name;
  item.problem = 0;
  item.info = {};
  if (::fstatat(directory, name, &item.info, AT_SYMLINK_NOFOLLOW) != 0) {
    item.problem = errno;
    if (item.problem == ENOENT) return false;
  }
  if (!pin(failure)) return false;
  item.parent = pinned_;
  if (S_ISDIR(item.info.st_mode)) prepareDirectory(directory, name, item);
  return true;
}

// Opened before it is delivered, so that its line can say when it cannot be.
void SortedWalk::prepareDirectory(int directory, const char* name, WalkedItem& item) {
  UniqueDescriptor opened = LeavingAccessTime(
      kDirectoryFlags, [&](int flags) { return stack_.openAt(directory, name, flags); });
  struct stat info {};
  if (!opened || ::fstat(opened.get(), &info) != 0) {
    item.problem = errno;
  } else if (onlinux::IdentityOf(info) != onlinux::IdentityOf(item.info)) {
    item.problem = ESTALE;
  } else {
    Names names;
    onlinux::DirectoryReader reader;
    while (const auto* entry = reader.next(opened.get())) names.add(entry->name);
    item.problem = errno;
    names.sort();
    // `name` lies in the list that makes room for this one.
    preparedName_ = name;
    names_.push_back(std::move(names));
    prepared_ = std::move(opened);
    preparedIdentity_ = onlinux::IdentityOf(info);
  }
}

// The pinned descriptor was of the directory above, and its items keep it if they need it.
void SortedWalk::enterPrepared() {
  stack_.enter(std::move(prepared_), preparedIdentity_, preparedName_.c_str());
  pinned_.reset();
}

// The parent is opened again before the level goes: the stack closes descriptors of levels far
// above.
bool SortedWalk::leave(int& failure) {
  if (stack_.depth() > 1 && !stack_.openParent()) {
    failure = errno;
    return false;
  }
  stack_.leave();
  names_.pop_back();
  pinned_.reset();
  return true;
}

// A descriptor of its own for whoever reads the items: the stack closes and reopens its own.
bool SortedWalk::pin(int& failure) {
  if (pinned_ != nullptr) return true;
  if (stack_.depth() == 0) {
    pinned_ = std::make_shared<const UniqueDescriptor>();
    return true;
  }
  UniqueDescriptor own(::fcntl(stack_.descriptor(), F_DUPFD_CLOEXEC, 3));
  if (!own) failure = errno;
  pinned_ = std::make_shared<const UniqueDescriptor>(std::move(own));
  return failure == 0;
}

}  // namespace quorvel::host
