// Deletes what is in the way, but never what is being moved.
#include "Ravelle/ReplaceItem.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/DeviceNames.h"
#include "platform/Path.h"
#include "shared/support/Errors.h"

namespace quorvel {

namespace {

constexpr const char* kReplace = "ReplaceByMove";
constexpr const char* kIsGroupContainer = "IsGroupContainer";

struct Free {
  void operator()(char* text) const { std::free(text); }
};

// The path without links and ".."; empty, with errno, when it cannot be told. Bytes.
std::string RealPathOf(const char* path) {
  const std::unique_ptr<char, Free> real(::realpath(path, nullptr));
  return real ? std::string(real.get()) : std::string();
}

// Where the item itself lies: a link is not followed, and it need not be there.
std::string RealLocationOf(const Path& item) {
  const FileSystemRepresentation bytes = item.fileSystemRepresentation();
  std::string text = bytes.c_str();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  const std::string name = text.substr(text.rfind('/') + 1);
  if (name.empty() || name == "." || name == "..") return RealPathOf(text.c_str());
  std::string parent = RealPathOf(ParentOf(text).c_str());
  if (parent.empty()) return parent;
  return parent == "/" ? parent + name : parent + "/" + name;
}

bool IsBelow(const std::string& path, const std::string& directory) {
  return directory == "/" ? path.size() > 1 : path.starts_with(directory + "/");
}

// Whether the names alone show that the item lies below: the directory's text, plain names, and no
// link on the way. Spares what is nearly always so the looking up of two whole paths.
bool IsNamedBelow(const Path& item, const Path& directory) {
  const FileSystemRepresentation itemBytes = item.fileSystemRepresentation();
  const FileSystemRepresentation aboveBytes = directory.fileSystemRepresentation();
  std::string above = aboveBytes.c_str();
  if (!above.ends_with('/')) above += '/';
  std::string_view text = itemBytes.c_str();
  while (text.ends_with('/')) text.remove_suffix(1);
  if (!text.starts_with(above)) return false;
  for (std::size_t begin = above.size();;) {
    const std::size_t end = text.find('/', begin);
    const std::string_view name = text.substr(begin, end - begin);
    if (name.empty() || name == "." || name == "..") return false;
    if (end == std::string_view::npos) return true;
    struct stat info {};
    if (::lstat(std::string(text.substr(0, end)).c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
      return false;
    }
    begin = end + 1;
  }
}

// True also when it cannot be told.
bool DestinationHoldsSource(const Path& source, const Path& destination) {
  const std::string from = RealLocationOf(source);
  if (from.empty()) return errno != ENOENT;
  const std::string to = RealLocationOf(destination);
  return to.empty() || from == to || IsBelow(from, to);
}

// Of a directory by its real path. True also when it cannot be told, as for an empty path.
bool OverlapsReal(const std::string& directory, const Path& used) {
  if (directory.empty()) return true;
  const std::string other = RealPathOf(used.fileSystemRepresentation().c_str());
  if (other.empty()) return errno != ENOENT;
  return directory == other || IsBelow(directory, other) || IsBelow(other, directory);
}

// What belongs to the system or the service and to no app or group.
std::vector<Path> DirectoriesInUse(const QVGlobalConfiguration& configuration) {
  const Path& root = configuration.rootPath();
  return {root.childDirectory(DaemonDirectory),
          configuration.mobileHomePath().childDirectory(ContainersPath),
          configuration.oldContainerPath(),
          configuration.oldInstallMapPath(),
          configuration.oldDataDirectoryPath(),
          configuration.oldLoggingPath(),
          configuration.oldArchiveDirectory(),
          root.childDirectory("Applications"),
          root.childDirectory("System"),
          root.childDirectory("VeltoInternal"),
          root.childDirectory("Developer")};
}

// Behind a failed move to where nothing was. What is there now was copied from the source, which a
// move takes away only once the copy is whole and stored, and which must be seen to be there: where
// it is not, the move may have been done in spite of what was said.
void RemoveBeginningOfCopy(QVFileManager& files, const Path& source, const Path& destination) {
  struct stat info {};
  const bool sourceStays = ::lstat(source.fileSystemRepresentation().c_str(), &info) == 0;
  if (sourceStays && !IsCertainlyNotThere(destination)) files.removeItemAtURL(destination);
}

}  // namespace

bool IsCertainlyNotThere(const Path& item) {
  struct stat info {};
  const FileSystemRepresentation path = item.fileSystemRepresentation();
  return ::lstat(path.c_str(), &info) != 0 && errno == ENOENT;
}

bool AreOnDifferentFileSystems(const Path& from, const Path& to) {
  struct stat source {};
  struct stat destination {};
  return ::lstat(from.fileSystemRepresentation().c_str(), &source) == 0 &&
         ::lstat(to.fileSystemRepresentation().c_str(), &destination) == 0 &&
         source.st_dev != destination.st_dev;
}

// Real paths on both sides: a prefix of the texts says nothing where links or ".." are involved.
bool LiesBelow(const Path& item, const Path& directory) {
  if (IsNamedBelow(item, directory)) return true;
  const std::string location = RealLocationOf(item);
  const std::string above = RealPathOf(directory.fileSystemRepresentation().c_str());
  return !location.empty() && !above.empty() && IsBelow(location, above);
}

bool Overlaps(const Path& directory, const Path& used) {
  return OverlapsReal(RealPathOf(directory.fileSystemRepresentation().c_str()), used);
}

bool IsGroupContainer(const Path& recorded, const Path& newContainer,
                      const QVGlobalConfiguration& configuration, Error* error) {
  std::vector<Path> used = DirectoriesInUse(configuration);
  if (!newContainer.isAbsent()) used.push_back(newContainer);
  const std::string real = RealPathOf(recorded.fileSystemRepresentation().c_str());
  for (const Path& directory : used) {
    if (!OverlapsReal(real, directory)) continue;
    return SetError(error, _CreateError(kIsGroupContainer, __LINE__, PosixErrorDomain, EINVAL,
                                        "%@ is in use: %@", recorded, directory));
  }
  return true;
}

// Replacing and never merging: what is at the destination is either the beginning of an interrupted
// copy or the content of a fresh container.
bool ReplaceByMove(QVFileManager& files, const Path& source, const Path& destination,
                   Error* error) {
  // The normal case needs no further look.
  bool isClear = IsCertainlyNotThere(destination);
  if (!isClear) {
    if (DestinationHoldsSource(source, destination)) {
      return SetError(error,
                      _CreateError(kReplace, __LINE__, PosixErrorDomain, EINVAL,
                                   "%@ is, or lies in, its destination %@", source, destination));
    }
    files.removeItemAtURL(destination);
    isClear = IsCertainlyNotThere(destination);
  }
  return isClear ? MoveToFreePlace(files, source, destination, error)
                 : files.moveItemIfExistsAtURL(source, destination, error);
}

bool MoveToFreePlace(QVFileManager& files, const Path& source, const Path& destination,
                     Error* error) {
  if (files.moveItemIfExistsAtURL(source, destination, error)) return true;
  RemoveBeginningOfCopy(files, source, destination);
  return false;
}

}  // namespace quorvel
