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

// Whether one of the directories above `item` is `directory`. Climbs by descriptor, so that
// neither links nor different spellings of a path hide the answer.
bool LiesBelow(const Path& item, const struct stat& directory) {
  const std::string parent = item.string().substr(0, item.string().rfind('/') + 1);
  const FileSystemRepresentation start(parent);
  UniqueDescriptor at(::open(start.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
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
  // Two names of one file are two items: deleting one keeps the other.
  if (IsSame(from, to) && (S_ISDIR(from.st_mode) || source.string() == destination.string())) {
    return true;
  }
  return S_ISDIR(to.st_mode) && LiesBelow(source, to);
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
