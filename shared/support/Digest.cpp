// Reads in bounded chunks and feeds the platform's digest.
#include "shared/support/Digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "platform/Uninterrupted.h"
#include "platform/UniqueDescriptor.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"
#include "shared/support/Services.h"

namespace quorvel {

namespace {

constexpr const char* kReadFile = "_ReadFile";
constexpr const char* kDigest = "QVCreateSHA256Digest";
constexpr std::int64_t kChunk = 65536;
constexpr std::int64_t kLargestFile = INT32_MAX;  // sizes are 32-bit signed counts

// Writing a line may change errno, which the caller still wants to report.
class KeepErrno {
 public:
  ~KeepErrno() { errno = number_; }
  int number() const { return number_; }

 private:
  int number_ = errno;
};

// Fewer bytes than were asked for are not an error: the caller goes on with the rest.
ssize_t ReadOnce(int descriptor, std::uint8_t* buffer, std::size_t size) {
  return Uninterrupted([&] { return ::read(descriptor, buffer, size); });
}

// The size to read up to, 0 for pipes and devices; -1 with errno set when there is none, or it is
// too large.
std::int64_t SizeToRead(int descriptor) {
  struct stat info {};
  if (::fstat(descriptor, &info) != 0) return -1;
  // Reading a directory is what tells that it cannot be read, whatever size the file system gives.
  if (S_ISDIR(info.st_mode)) return 1;
  if (info.st_size <= kLargestFile) return info.st_size;
  errno = EFBIG;
  return -1;
}

// Reads `size` bytes in chunks through the buffer.
bool ReadChunks(int descriptor, const char* path, std::int64_t size, std::uint8_t* buffer,
                const ReadFileCallback& callback) {
  std::int64_t done = 0;
  while (done < size) {
    const std::int64_t wanted = std::min(kChunk, size - done);
    const ssize_t count = ReadOnce(descriptor, buffer, static_cast<std::size_t>(wanted));
    const KeepErrno kept;
    if (count < 0) {
      QV_LOG(LogLevelError, kReadFile, "read failed for %s : %s", path,
             ErrnoDescription(kept.number()));
      return false;
    }
    // The file was cut shorter since its size was taken. A digest of what is left would be one of a
    // file that never was.
    if (count == 0) {
      QV_LOG(LogLevelError, kReadFile, "read failed for %s, got %lld bytes", path,
             static_cast<long long>(count));
      return false;
    }
    if (callback(buffer, static_cast<std::size_t>(count)) != 1) return false;
    done += count;
  }
  return true;
}

std::string Hexadecimal(const Sha256Digest& digest) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * digest.size());
  for (const std::uint8_t byte : digest) {
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xFU];
  }
  return text;
}

}  // namespace

// Links are followed: the digest is that of what the name leads to.
bool _ReadFile(const char* path, const ReadFileCallback& callback) {
  // Not blocking: a pipe without a writer would never open.
  const UniqueDescriptor descriptor(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!descriptor) {
    const KeepErrno kept;
    QV_LOG(LogLevelError, kReadFile, "failed to open %s : %s", path,
           ErrnoDescription(kept.number()));
    return false;
  }
  const std::int64_t size = SizeToRead(descriptor.get());
  if (size < 0) {
    const KeepErrno kept;
    QV_LOG(LogLevelError, kReadFile, "failed to stat %s : %s", path,
           ErrnoDescription(kept.number()));
    return false;
  }
  if (size == 0) return true;
  const auto bufferSize = static_cast<std::size_t>(std::min(kChunk, size));
  const std::unique_ptr<std::uint8_t[]> buffer(new (std::nothrow) std::uint8_t[bufferSize]);
  if (!buffer) {
    errno = ENOMEM;
    const KeepErrno kept;
    QV_LOG(LogLevelError, kReadFile, "malloc failed for %ld bytes: %s",
           static_cast<long>(bufferSize), ErrnoDescription(kept.number()));
    return false;
  }
  return ReadChunks(descriptor.get(), path, size, buffer.get(), callback);
}

std::optional<std::string> QVCreateSHA256Digest(const std::string& path) try {
  const std::unique_ptr<Sha256> computation = RequiredService(kSha256).start();
  const FileSystemRepresentation representation(path);
  const bool read =
      _ReadFile(representation.c_str(), [&](const std::uint8_t* bytes, std::size_t count) {
        computation->update({bytes, count});
        return 1;
      });
  const int number = errno;
  Sha256Digest digest{};
  const bool finished = computation->finish(digest);
  if (!read || !finished) {
    QV_LOG(LogLevelError, kDigest, "Failed to read %@ : %s", path, ErrnoDescription(number));
    return std::nullopt;
  }
  return Hexadecimal(digest);
} catch (const std::bad_alloc&) {
  return std::nullopt;
}

}  // namespace quorvel
