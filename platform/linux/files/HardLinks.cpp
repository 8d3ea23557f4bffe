// Remembers only items with several names, by device and inode.
#include "platform/linux/files/HardLinks.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace quorvel::onlinux {
namespace {

constexpr int kPinPlace = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Down a path of any length, component by component, so that no link can lead elsewhere.
UniqueDescriptor OpenBelow(DirectoryStack& stack, int base, const std::string& path) {
  UniqueDescriptor directory;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const int from = directory ? directory.get() : base;
    directory = stack.openAt(from, path.substr(begin, end - begin).c_str(), kPinPlace);
    if (!directory) return {};
    begin = end + 1;
  }
  return directory;
}

// The first copy is gone, has too many names, or its file system knows no second ones.
bool MeansCopyAnew(int number) {
  return number == ENOENT || number == ENOTDIR || number == ELOOP || number == EMLINK ||
         number == EPERM || number == EOPNOTSUPP;
}

// A file system without second names says EPERM every time; one refusal alone may have passed by
// the next call, and would part two names of one file without a word.
bool MakeLink(int from, const char* old, int into, const char* name) {
  constexpr int kRefusals = 3;
  for (int refusals = 0;;) {
    if (::linkat(from, old, into, name, 0) == 0) return true;
    const bool isRefusal = errno == EPERM || errno == EOPNOTSUPP;
    if (!isRefusal || ++refusals == kRefusals) return false;
  }
}

}  // namespace

// -1 with errno set.
int HardLinks::directoryOf(const Copy& copy, DirectoryStack& target, int base, int current) {
  if (copy.directory == target.path()) return current;
  if (!last_ || lastPath_ != copy.directory) {
    last_ = OpenBelow(target, base, copy.directory);
    lastPath_ = copy.directory;
  }
  return last_.get();
}

HardLinks::Outcome HardLinks::link(const struct stat& source, DirectoryStack& target, int base,
                                   int directory, const char* name) {
  const auto at = copies_.find(IdentityOf(source));
  // The first of its names.
  if (at == copies_.end()) return Outcome::copyAnew;
  const Copy& copy = at->second;
  const int from = directoryOf(copy, target, base, directory);
  if (from < 0 || !MakeLink(from, copy.name.c_str(), directory, name)) {
    return MeansCopyAnew(errno) ? Outcome::copyAnew : Outcome::failed;
  }
  struct stat made;
  // What cannot be looked at is not known to be another item: a copy would part the two names.
  if (::fstatat(directory, name, &made, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Outcome::copyAnew : Outcome::failed;
  }
  if (IdentityOf(made) == copy.identity) return Outcome::linked;
  // Somebody put another item in the place of the first copy.
  ::unlinkat(directory, name, 0);
  return Outcome::copyAnew;
}

bool HardLinks::remember(const struct stat& source, const DirectoryStack& target, int directory,
                         const char* name) {
  struct stat made;
  if (::fstatat(directory, name, &made, AT_SYMLINK_NOFOLLOW) != 0) return false;
  copies_[IdentityOf(source)] = {target.path(), name, IdentityOf(made)};
  return true;
}

}  // namespace quorvel::onlinux
