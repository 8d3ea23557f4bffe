// Copies, flushes, renames the source aside and only then removes it.
#include "platform/linux/files/MoveTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

#include "platform/Path.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::onlinux {
namespace {

constexpr std::uint32_t kCopyFlags = CLONETREE_DATA_STAT_XATTR_ACL | CLONETREE_RECURSIVE |
                                     CLONETREE_NOFOLLOW_SRC | CLONETREE_NOFOLLOW_DST;

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The hidden sibling ".<name>.<suffix>"; a name too long for that is told by its hash.
std::string SiblingOf(const std::string& path, std::string_view suffix) {
  constexpr std::size_t kLongestName = 240;
  const std::size_t begin = path.rfind('/') + 1;  // 0 without a slash
  std::string name = path.substr(begin);
  if (name.size() > kLongestName) {
    name = name.substr(0, 200) + "." + std::to_string(std::hash<std::string>{}(name));
  }
  return path.substr(0, begin) + "." + name + "." + std::string(suffix);
}

bool Exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

bool IsMissing(const std::string& path) { return !Exists(path) && errno == ENOENT; }

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
        incoming_(SiblingOf(to_, "incoming")),
        moving_(SiblingOf(to_, "moving")),
        outgoing_(SiblingOf(from_, "outgoing")) {}

  int run();

 private:
  int moveAcross();
  int copyIntoPlace();
  int copyAndPlace();
  int retireSource();
  void tidy();
  int clear(const std::string& path);
  bool wasPlaced() const;
  int writeMark() const;

  FileSystem& files_;
  std::string from_;
  std::string to_;
  std::string incoming_;
  std::string moving_;
  std::string outgoing_;
};

int Move::run() {
  if (Rename(from_, to_)) return 0;
  const int number = errno;
  // Between file systems rename does not look whether there is anything to move.
  if (!IsMissing(from_)) return number == EXDEV ? moveAcross() : number;
  if (!Exists(to_)) return ENOENT;
  // An earlier call moved it, and may have been killed while it cleaned up.
  tidy();
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
  const UniqueDescriptor mark(::open(moving_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!mark || Exists(incoming_) || !Exists(to_)) return false;
  std::string origin(from_.size() + 1, '\0');
  const ssize_t count = ::pread(mark.get(), origin.data(), origin.size(), 0);
  return count == static_cast<ssize_t>(from_.size()) && origin.starts_with(from_);
}

int Move::writeMark() const {
  const UniqueDescriptor mark(
      ::open(moving_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!mark) return errno;
  const ssize_t count = ::pwrite(mark.get(), from_.data(), from_.size(), 0);
  if (count < 0) return errno;
  return count == static_cast<ssize_t>(from_.size()) ? 0 : ENOSPC;
}

int Move::copyIntoPlace() {
  ::unlink(moving_.c_str());
  int number = clear(incoming_);
  if (number != 0) return number;
  number = copyAndPlace();
  if (number == 0) return 0;
  ::unlink(moving_.c_str());
  clear(incoming_);
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

// From here on the move is done; a failure leaves source and destination both whole.
int Move::retireSource() {
  if (files_.SyncDirectory(ParentOf(to_).c_str()) != 0) return errno;
  const int number = clear(outgoing_);
  if (number != 0) return number;
  if (!Rename(from_, outgoing_)) return errno;
  // Were the mark to go first, a power cut could bring the source back beside its copy.
  if (files_.SyncDirectory(ParentOf(from_).c_str()) != 0) return errno;
  tidy();
  return 0;
}

// Removes the mark, then what is left of the source. The move is done whatever comes of it, so a
// failure is none of the caller's; but hardly anyone looks here again, so one is not accepted yet.
void Move::tidy() {
  if (::unlink(moving_.c_str()) != 0 && errno != ENOENT) ::unlink(moving_.c_str());
  if (clear(outgoing_) != 0) clear(outgoing_);
}

int KeepFirst(WipeTreeState& state, const char*, void* context) {
  auto* first = static_cast<int*>(context);
  int number = 0;
  if (*first == 0 && state.getErrorNumber(&number)) *first = number;
  return WIPETREE_PROCEED;
}

int Move::clear(const std::string& path) {
  const std::unique_ptr<WipeTreeState> state = files_.allocateWipeTreeState();
  if (state == nullptr) return errno;
  int first = 0;
  if (!state->setErrorCallback(KeepFirst) || !state->setErrorContext(&first)) return errno;
  if (files_.RemoveTree(path.c_str(), WIPETREE_RECURSIVE, *state) != 0 && first == 0) {
    first = errno;
  }
  return first == ENOENT ? 0 : first;
}

}  // namespace

bool MoveItem(FileSystem& files, const char* from, const char* to, Error* error) {
  const int number = Move(files, from, to).run();
  if (number == 0) return true;
  return SetError(error, PosixFailure(number, std::string("moving ") + from + " to " + to));
}

}  // namespace quorvel::onlinux
