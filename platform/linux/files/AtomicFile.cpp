// A temporary file beside the wanted one, locked, flushed and renamed over it.
#include "platform/linux/files/AtomicFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/Uninterrupted.h"
#include "platform/WriteWhole.h"
#include "platform/linux/files/HiddenName.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::onlinux {

namespace {

constexpr std::size_t kReadStep = 65'536;
constexpr mode_t kNewFileMode = 0644;

// Locks are a courtesy between writers. A file system without them has one writer at most, or
// bears the risk: only a lock that another holds counts as a refusal.
bool Lock(int descriptor, int operation) {
  return Uninterrupted([&] { return ::flock(descriptor, operation); }) == 0 || errno != EWOULDBLOCK;
}

// Removes what stands under the temporary name, unless a living writer owns it: a writer holds
// a lock on its file. Waits for such a writer. False with errno.
bool RemoveStale(int directory, const char* name) {
  struct stat found {};
  if (::fstatat(directory, name, &found, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
  if (S_ISDIR(found.st_mode)) {
    errno = EISDIR;
    return false;
  }
  UniqueDescriptor file;
  if (S_ISREG(found.st_mode)) {
    file.reset(Uninterrupted(
        [&] { return ::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
    if (!file) return errno == ENOENT || errno == ELOOP;  // gone, or another: look again
    Lock(file.get(), LOCK_EX);
    struct stat held {};
    if (::fstat(file.get(), &held) != 0) return false;
    if (::fstatat(directory, name, &found, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
    // Its writer finished while this waited: the name is free or someone else's by now.
    if (held.st_ino != found.st_ino || held.st_dev != found.st_dev) return true;
  }
  return ::unlinkat(directory, name, 0) == 0 || errno == ENOENT;
}

// A new file under the name, locked and still linked there. No descriptor with errno.
UniqueDescriptor CreateTemporary(int directory, const char* name, mode_t mode) {
  for (;;) {
    UniqueDescriptor file(Uninterrupted([&] {
      return ::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    }));
    if (!file && errno != EEXIST) return file;
    if (!file) {
      if (!RemoveStale(directory, name)) return file;
      continue;
    }
    // Between creation and lock another writer may have taken the file for a stale one.
    if (!Lock(file.get(), LOCK_EX | LOCK_NB)) continue;
    struct stat status {};
    const bool known = ::fstat(file.get(), &status) == 0;
    if (known && status.st_nlink == 0) continue;
    // The umask may have taken bits away.
    if (known && ((status.st_mode & 07777U) == mode || ::fchmod(file.get(), mode) == 0)) {
      return file;
    }
    const int failure = errno;
    ::unlinkat(directory, name, 0);
    errno = failure;
    return UniqueDescriptor();
  }
}

bool Flush(int file) {
  return Uninterrupted([&] { return ::fsync(file); }) == 0;
}

// Attributes that may not be given are left out: the file's bytes matter more. False when an access
// list is among them, whose mask the mode's group bits then are not.
bool TakeAttributes(int from, int to) {
  bool hasLists = true;
  std::string names(std::size_t{64} << 10U, '\0');
  const ssize_t size = ::flistxattr(from, names.data(), names.size());
  std::vector<char> value(std::size_t{64} << 10U);
  for (std::size_t at = 0; size > 0 && at < static_cast<std::size_t>(size);) {
    const char* name = names.data() + at;
    const ssize_t length = ::fgetxattr(from, name, value.data(), value.size());
    const bool taken = length >= 0 && ::fsetxattr(to, name, value.data(),
                                                  static_cast<std::size_t>(length), 0) == 0;
    if (!taken && std::string_view(name).starts_with("system.")) hasLists = false;
    at += std::strlen(name) + 1;
  }
  return hasLists;
}

// The new file, private until it has its owner, becomes what the old one is.
bool TakeOver(int directory, const std::string& name, int file) {
  const UniqueDescriptor old(Uninterrupted([&] {
    return ::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  }));
  if (!old && errno != ENOENT && errno != ELOOP) return false;
  struct stat info {};
  const bool isFile = old && ::fstat(old.get(), &info) == 0 && S_ISREG(info.st_mode);
  // A new one belongs to whom its directory belongs.
  if (!isFile && ::fstat(directory, &info) != 0) return false;
  // Who may not give a file away keeps it. What the group bits allow is then meant for others.
  const bool isGiven = ::fchown(file, info.st_uid, info.st_gid) == 0;
  if (!isGiven && errno != EPERM) return false;
  if (!isFile) return ::fchmod(file, kNewFileMode) == 0;
  const bool isSame = TakeAttributes(old.get(), file) && isGiven;
  return ::fchmod(file, info.st_mode & (isSame ? 07777U : 0707U)) == 0;
}

// The step that failed; null with success.
const char* Replace(int directory, const std::string& name, std::span<const std::uint8_t> bytes,
                    Durability durability, Ownership ownership) {
  const std::string temporary = TemporaryNameFor(name);
  const bool takesOver = ownership == Ownership::taken;
  const UniqueDescriptor file =
      CreateTemporary(directory, temporary.c_str(), takesOver ? 0600 : kNewFileMode);
  if (!file) return "Creating a temporary file";
  const char* failed = nullptr;
  if (takesOver && !TakeOver(directory, name, file.get())) {
    failed = "Taking over the owner and mode";
  } else if (WriteWhole(file.get(), {reinterpret_cast<const char*>(bytes.data()), bytes.size()}) !=
             0) {
    failed = "Writing";
  } else if (durability == Durability::contentFirst && !Flush(file.get())) {
    failed = "Flushing";
  } else if (::renameat(directory, temporary.c_str(), directory, name.c_str()) != 0) {
    failed = "Renaming";
  }
  if (failed != nullptr) {
    const int failure = errno;
    ::unlinkat(directory, temporary.c_str(), 0);
    errno = failure;
  }
  return failed;
}

// A directory's kind is known only after opening it; nothing but a regular file is read.
int KindFailure(mode_t mode) {
  if (S_ISREG(mode)) return 0;
  return S_ISDIR(mode) ? EISDIR : EINVAL;
}

// Reads to the end of the file, which need not be where it was when its size was asked.
int ReadToEnd(int file, std::size_t expected, std::size_t limit, std::vector<std::uint8_t>& bytes) {
  // One byte more than there should be: a read that gets exactly the expected ones has met the
  // end, and no other read is needed to see it.
  bytes.resize(expected + 1);
  std::size_t filled = 0;
  for (;;) {
    if (filled == bytes.size()) bytes.resize(filled + kReadStep);
    const ssize_t count =
        Uninterrupted([&] { return ::read(file, bytes.data() + filled, bytes.size() - filled); });
    if (count < 0) return errno;
    filled += static_cast<std::size_t>(count);
    if (filled > limit) return EFBIG;
    if (count == 0 || filled == expected) break;
  }
  bytes.resize(filled);
  return 0;
}

}  // namespace

// Some file systems cannot flush a directory and say EINVAL: they need not.
bool FlushDirectory(int directory) { return Flush(directory) || errno == EINVAL; }

std::string TemporaryNameFor(const std::string& name) { return HiddenNameFor(name, ".tmp"); }

UniqueDescriptor OpenParentDirectory(const Path& file) {
  const std::string name = BytesOfFileSystemRepresentation(file.string());
  const std::string parent = ParentOf(name);
  return UniqueDescriptor(
      Uninterrupted([&] { return ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
}

bool ReplaceFileAtomicallyAt(int directory, const std::string& name,
                             std::span<const std::uint8_t> bytes, Durability durability,
                             const Path& file, Error* error, Ownership ownership) {
  const char* failed = Replace(directory, name, bytes, durability, ownership);
  if (failed == nullptr) return true;
  const int failure = errno;
  return SetError(error, PosixFailure(failure, std::string(failed) + " for " + file.string()));
}

bool ReplaceFileAtomically(const Path& file, std::span<const std::uint8_t> bytes,
                           Durability durability, Error* error) {
  const std::string name = BytesOfFileSystemRepresentation(std::string(file.lastPathComponent()));
  if (name.empty() || name == "/" || name == "." || name == "..") {
    return SetError(error, PosixFailure(EINVAL, "Writing " + file.string()));
  }
  const UniqueDescriptor directory = OpenParentDirectory(file);
  if (!directory) {
    const int failure = errno;
    return SetError(error, PosixFailure(failure, "Opening the directory of " + file.string()));
  }
  return ReplaceFileAtomicallyAt(directory.get(), name, bytes, durability, file, error);
}

int ReadRegularFile(int directory, const char* name, std::size_t limit, bool pastCache,
                    std::vector<std::uint8_t>& bytes) {
  // Not blocking: a FIFO without a writer would hold up the opening for ever.
  const UniqueDescriptor file(Uninterrupted(
      [&] { return ::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
  return file ? ReadRegularFile(file.get(), limit, pastCache, bytes) : errno;
}

int ReadRegularFile(int file, std::size_t limit, bool pastCache, std::vector<std::uint8_t>& bytes) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return errno;
  if (const int failure = KindFailure(status.st_mode)) return failure;
  if (static_cast<std::uint64_t>(status.st_size) > limit) return EFBIG;
  int failure = ENOMEM;
  try {
    failure = ReadToEnd(file, static_cast<std::size_t>(status.st_size), limit, bytes);
  } catch (const std::bad_alloc&) {
  }
  // Only advice: whether it is taken makes no difference to the result.
  if (failure == 0 && pastCache) ::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
  return failure;
}

}  // namespace quorvel::onlinux
