// Deletes what is in the way, but never what is being moved.
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

// Whether the open directory, or one above it, is `directory`. Climbs by descriptor, so that
// neither links nor different spellings of a path hide the answer.
bool ClimbsTo(UniqueDescriptor at, const struct stat& directory) {
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

bool IsCertainlyNotThere(const Path& item) {
  struct stat info {};
  const FileSystemRepresentation path = item.fileSystemRepresentation();
  return ::lstat(path.c_str(), &info) != 0 && errno == ENOENT;
}

bool DestinationHoldsSource(const Path& source, const Path& destination) {
  struct stat from {};
  struct stat to {};
  const FileSystemRepresentation sourceBytes = source.fileSystemRepresentation();
  const FileSystemRepresentation destinationBytes = destination.fileSystemRepresentation();
  if (::lstat(destinationBytes.c_str(), &to) != 0) return false;
  if (::lstat(sourceBytes.c_str(), &from) != 0) return false;
  if (S_ISDIR(to.st_mode)) return IsSame(from, to) || ClimbsTo(OpenParent(source), to);
  return IsSame(from, to) && IsSameEntry(source, destination);
}

// A directory itself, also where its path ends in ".."; anything else by the directory it is in.
UniqueDescriptor OpenEnclosing(const Path& item) {
  const FileSystemRepresentation path = item.fileSystemRepresentation();
  const UniqueDescriptor own(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!own) return OpenParent(item);
  return UniqueDescriptor(::openat(own.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

bool LiesBelow(const Path& item, const Path& directory) {
  struct stat info {};
  const FileSystemRepresentation path = directory.fileSystemRepresentation();
  return ::stat(path.c_str(), &info) == 0 && ClimbsTo(OpenEnclosing(item), info);
}

bool IsOrLiesBelow(const Path& item, const Path& directory) {
  struct stat own {};
  struct stat info {};
  const FileSystemRepresentation ownPath = item.fileSystemRepresentation();
  const FileSystemRepresentation path = directory.fileSystemRepresentation();
  const bool same =
      ::stat(ownPath.c_str(), &own) == 0 && ::stat(path.c_str(), &info) == 0 && IsSame(own, info);
  return same || LiesBelow(item, directory);
}

bool ReplaceByMove(QVFileManager& files, const Path& source, const Path& destination,
                   Error* error) {
  // The normal case needs no further look.
  if (IsCertainlyNotThere(destination)) {
    return files.moveItemIfExistsAtURL(source, destination, error);
  }
  if (DestinationHoldsSource(source, destination)) {
    return SetError(error,
                    _CreateError(kReplace, __LINE__, PosixErrorDomain, EINVAL,
                                 "%@ is, or lies in, its destination %@", source, destination));
  }
  files.removeItemAtURL(destination);
  return files.moveItemIfExistsAtURL(source, destination, error);
}

}  // namespace quorvel
