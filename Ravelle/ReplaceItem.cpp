#include "Ravelle/ReplaceItem.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "platform/UniqueDescriptor.h"
#include "shared/support/Errors.h"

namespace quorvel {

namespace {

constexpr const char* kReplace = "ReplaceByMove";

bool IsSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The directory that holds the item, open for looking only.
UniqueDescriptor OpenParent(const Path& item) {
  const std::string parent = item.string().substr(0, item.string().rfind('/') + 1);
  const FileSystemRepresentation path(parent);
  return UniqueDescriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// Whether the two paths name one entry of one directory. Two names of one file are two entries:
// deleting one keeps the other.
bool IsSameEntry(const Path& a, const Path& b) {
  struct stat ofA {};
  struct stat ofB {};
  const UniqueDescriptor parentOfA = OpenParent(a);
  const UniqueDescriptor parentOfB = OpenParent(b);
  return a.lastPathComponent() == b.lastPathComponent() && parentOfA && parentOfB &&
         ::fstat(parentOfA.get(), &ofA) == 0 && ::fstat(parentOfB.get(), &ofB) == 0 &&
         IsSame(ofA, ofB);
}

// Whether one of the directories above `item` is `directory`. Climbs by descriptor, so that
// neither links nor different spellings of a path hide the answer.
bool LiesBelow(const Path& item, const struct stat& directory) {
  UniqueDescriptor at = OpenParent(item);
  struct stat here {};
  struct stat above {};
  while (at && ::fstat(at.get(), &here) == 0) {
    if (IsSame(here, directory)) return true;
    UniqueDescriptor up(::openat(at.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!up || ::fstat(up.get(), &above) != 0 || IsSame(here, above)) return false;
    at = std::move(up);
  }
  return false;
}

bool DestinationHoldsSource(const Path& source, const Path& destination) {
  struct stat from {};
  struct stat to {};
  const FileSystemRepresentation sourceBytes = source.fileSystemRepresentation();
  const FileSystemRepresentation destinationBytes = destination.fileSystemRepresentation();
  // The normal case: nothing is there yet.
  if (::lstat(destinationBytes.c_str(), &to) != 0) return false;
  if (::lstat(sourceBytes.c_str(), &from) != 0) return false;
  if (S_ISDIR(to.st_mode)) return IsSame(from, to) || LiesBelow(source, to);
  return IsSame(from, to) && IsSameEntry(source, destination);
}

}  // namespace

bool ReplaceByMove(QVFileManager& files, const Path& source, const Path& destination,
                   Error* error) {
  if (DestinationHoldsSource(source, destination)) {
    return SetError(error,
                    _CreateError(kReplace, __LINE__, PosixErrorDomain, EINVAL,
                                 "%@ is, or lies in, its destination %@", source, destination));
  }
  files.removeItemAtURL(destination);
  return files.moveItemIfExistsAtURL(source, destination, error);
}

}  // namespace quorvel
