// Copies, flushes, puts the copy in its place and only then lets the source go.
#include "platform/linux/files/MoveTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "platform/DeviceNames.h"
#include "platform/MoveRemains.h"
#include "platform/Path.h"
#include "platform/UniqueDescriptor.h"
#include "platform/WriteWhole.h"
#include "platform/linux/files/DirectoryReader.h"
#include "platform/linux/files/HiddenName.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/files/RemoveItem.h"

namespace quorvel::onlinux {
namespace {

constexpr std::uint32_t kCopyFlags = CLONETREE_DATA_STAT_XATTR_ACL | CLONETREE_RECURSIVE |
                                     CLONETREE_NOFOLLOW_SRC | CLONETREE_NOFOLLOW_DST;

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string SiblingOf(const std::string& path, std::string_view suffix) {
  const std::size_t begin = path.rfind('/') + 1;  // 0 without a slash
  return path.substr(0, begin) + HiddenNameFor(path.substr(begin), suffix);
}

bool Exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

bool IsMissing(const std::string& path) { return !Exists(path) && errno == ENOENT; }

bool IsDirectory(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool Rename(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0;
}

// Results are error numbers, 0 for success.
class Move {
 public:
  Move(FileSystem& files, const char* from, const char* to)
      : files_(files),
        from_(WithoutTrailingSlashes(from)),
        to_(WithoutTrailingSlashes(to)),
        incoming_(SiblingOf(to_, MoveIncomingSuffix)),
        moving_(SiblingOf(to_, MovePlacedSuffix)) {}

  int run();

 private:
  int moveAcross();
  int copyIntoPlace();
  int copyAndPlace();
  int retireSource();
  int retireDirectory();
  void removeMark();
  bool wasPlaced() const;
  int writeMark() const;

  FileSystem& files_;
  std::string from_;
  std::string to_;
  std::string incoming_;
  std::string moving_;
};

int Move::run() {
  if (Rename(from_, to_)) return 0;
  const int number = errno;
  // Between file systems rename does not look whether there is anything to move.
  if (!IsMissing(from_)) return number == EXDEV ? moveAcross() : number;
  if (!Exists(to_)) return ENOENT;
  // An earlier call moved it, and may have been killed while it cleaned up.
  removeMark();
  RemoveRemainsOfMoves(files_, ParentOf(from_));
  return 0;
}

int Move::moveAcross() {
  if (!wasPlaced()) {
    const int number = copyIntoPlace();
    if (number != 0) return number;
  }
  return retireSource();
}

// Whether an earlier call put the copy in its place and ended before it took the source away.
// Without the mark an item at `to` is somebody else's.
bool Move::wasPlaced() const {
  const UniqueDescriptor mark(
      ::open(moving_.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!mark || Exists(incoming_) || !Exists(to_)) return false;
  // One byte more than there should be: a longer path that begins with this one is another. A copy
  // still under its first name was never put in its place.
  std::string origin(from_.size() + 1, '\0');
  const ssize_t count = ::pread(mark.get(), origin.data(), origin.size(), 0);
  return count == static_cast<ssize_t>(from_.size()) && origin.starts_with(from_);
}

int Move::writeMark() const {
  const UniqueDescriptor mark(
      ::open(moving_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  return mark ? WriteWhole(mark.get(), from_) : errno;
}

int Move::copyIntoPlace() {
  // The mark before the copy: ended in between, a mark without a copy beside it would say that what
  // stands at `to` is the copy.
  ::unlink(moving_.c_str());
  int number = RemoveItem(files_, incoming_);
  if (number != 0) return number;
  number = copyAndPlace();
  if (number == 0) return 0;
  ::unlink(moving_.c_str());
  RemoveItem(files_, incoming_);
  return number;
}

int Move::copyAndPlace() {
  if (files_.CopyTree(from_.c_str(), incoming_.c_str(), kCopyFlags, nullptr) != 0) return errno;
  const int number = writeMark();
  if (number != 0) return number;
  // Copy and mark are on stable storage before the name, and the name before the source goes.
  if (files_.SyncFileSystem(incoming_.c_str()) != 0 || !Rename(incoming_, to_)) return errno;
  return 0;
}

// From here on the move is done; a failure leaves source and destination both whole. The rename
// that named the copy is no more than memory until its directory is flushed.
int Move::retireSource() {
  if (files_.SyncDirectory(ParentOf(to_).c_str()) != 0) return errno;
  if (IsDirectory(from_)) return retireDirectory();
  const int number = RemoveItem(files_, from_);
  if (number != 0) return number;
  if (files_.SyncDirectory(ParentOf(from_).c_str()) != 0) return errno;
  removeMark();
  return 0;
}

int Move::retireDirectory() {
  const auto flush = [this](const std::string& directory) {
    return files_.SyncDirectory(directory.c_str()) == 0;
  };
  SourceSetAside aside;
  if (!SetMoveSourceAside(files_, from_, flush, &aside)) {
    return aside.number != 0 ? aside.number : errno;
  }
  // Were the mark to go first, a power cut could bring the source back beside its copy.
  removeMark();
  // The move is done whatever comes of this. The own remain is known also where it has no mark;
  // earlier attempts may have left theirs.
  RemoveItem(files_, aside.remain);
  RemoveRemainsOfMoves(files_, ParentOf(from_));
  return 0;
}

// Hardly anyone looks here again, so one failure is not accepted yet.
void Move::removeMark() {
  if (::unlink(moving_.c_str()) != 0 && errno != ENOENT) ::unlink(moving_.c_str());
}

// 0, or an errno value.
int ReadNames(const std::string& directory, std::vector<std::string>& names) {
  const UniqueDescriptor opened(
      ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return opened ? NamesIn(opened.get(), names) : errno;
}

}  // namespace

bool MoveItem(FileSystem& files, const char* from, const char* to, Error* error) {
  const int number = Move(files, from, to).run();
  if (number == 0) return true;
  return SetError(error, PosixFailure(number, std::string("moving ") + from + " to " + to));
}

void RemoveRemainsOfMoves(FileSystem& files, const std::string& directory) {
  const auto isEmpty = [](const std::string& item) {
    std::vector<std::string> names;
    return ReadNames(item, names) == 0 && names.empty();
  };
  std::vector<std::string> names;
  ReadNames(directory, names);
  for (const std::string& name : names) {
    const std::string item = directory + "/" + name;
    if (IsMoveRemain(files, item, isEmpty)) RemoveItem(files, item);
  }
}

}  // namespace quorvel::onlinux
