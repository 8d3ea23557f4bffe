// Copies extents where they are, by the kernel where it can, and leaves holes as holes.
#include "platform/linux/files/DataCopier.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/Uninterrupted.h"

namespace quorvel::onlinux {
namespace {

constexpr std::size_t kBufferSize = 256 * 1024;
// Up to here a read and a write cost less than asking for anything cleverer.
constexpr off_t kSmall = 64 * 1024;
// One call's worth; a round that is too large only delays an interruption.
constexpr std::size_t kLargestRound = 1 << 30;
// Files that say 0 and are not empty are made up by the kernel, and are short. This one grows.
constexpr off_t kLargestUnsized = 64 << 20;
constexpr off_t kBlock = 512;  // the unit of st_blocks
constexpr off_t kLeastData = 4096;

// The bytes read from `offset` on, fewer than `length` only at the end of the file.
ssize_t ReadAt(int input, char* buffer, std::size_t length, off_t offset) {
  return Uninterrupted([&] { return ::pread(input, buffer, length, offset); });
}

bool WriteAt(int output, const char* buffer, std::size_t length, off_t offset) {
  while (length > 0) {
    const ssize_t count = Uninterrupted([&] { return ::pwrite(output, buffer, length, offset); });
    if (count < 0) return false;
    if (count == 0) {
      errno = EIO;
      return false;
    }
    buffer += count;
    offset += count;
    length -= static_cast<std::size_t>(count);
  }
  return true;
}

// Whether the failure says that the call is not to be had here, rather than that the copy failed.
bool MeansUnsupported(int number) {
  return number == EOPNOTSUPP || number == EXDEV || number == ENOTTY || number == EINVAL ||
         number == ENOSYS || number == EPERM || number == ETXTBSY || number == EBADF;
}

bool FailWith(int number) {
  errno = number;
  return false;
}

}  // namespace

char* DataCopier::buffer() {
  if (buffer_ == nullptr) buffer_ = std::make_unique_for_overwrite<char[]>(kBufferSize);
  return buffer_.get();
}

bool DataCopier::copy(int input, int output, const struct stat& info) {
  // Empty, or a file that the kernel makes up as it is read.
  if (info.st_size == 0) return copyUnsized(input, output, 0);
  // Fewer blocks than its size needs: there are holes, or it is compressed.
  const bool sparse = info.st_blocks * kBlock < info.st_size;
  if (info.st_size <= kSmall && !sparse) return copySmall(input, output, info.st_size);
  if (mayShare_ && shareBlocks(input, output)) return true;
  if (sparse) return copySparse(input, output, info.st_size);
  off_t reached = 0;
  return copyRange(input, output, 0, info.st_size, &reached);
}

bool DataCopier::shareBlocks(int input, int output) {
  if (::ioctl(output, FICLONE, input) == 0) return true;
  // Also a failure of this one file falls back to copying, which tells what is really wrong.
  if (MeansUnsupported(errno) && errno != EINVAL) mayShare_ = false;
  return false;
}

bool DataCopier::copySmall(int input, int output, off_t size) {
  const ssize_t count = ReadAt(input, buffer(), kBufferSize, 0);
  if (count < 0) return false;
  if (!WriteAt(output, buffer(), static_cast<std::size_t>(count), 0)) return false;
  if (count >= size || count == 0) return true;
  off_t reached = count;  // a short read, or a file cut off meanwhile
  return copyRange(input, output, count, size, &reached);
}

bool DataCopier::copyUnsized(int input, int output, off_t offset) {
  while (offset < kLargestUnsized) {
    const ssize_t count = ReadAt(input, buffer(), kBufferSize, offset);
    if (count <= 0) return count == 0;
    if (!WriteAt(output, buffer(), static_cast<std::size_t>(count), offset)) return false;
    offset += count;
  }
  return FailWith(EFBIG);
}

bool DataCopier::copySparse(int input, int output, off_t size) {
  off_t offset = 0;
  while (offset < size) {
    const off_t data = ::lseek(input, offset, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;  // a hole to the end
    if (data < 0 && errno != EINVAL) return false;
    const off_t begin = data < 0 ? offset : data;
    if (begin >= size) break;
    off_t end = data < 0 ? size : ::lseek(input, begin, SEEK_HOLE);
    if (end < 0) end = size;  // cut off meanwhile: the read will tell
    // A hole punched between the two calls must not stop the progress.
    end = std::min(std::max(end, begin + kLeastData), size);
    if (!copyRange(input, output, begin, end, &offset)) return false;
    if (offset < end) return ::ftruncate(output, offset) == 0;  // the file ends here now
  }
  return ::ftruncate(output, size) == 0;
}

// `reached` is less than `end` only where the file ends earlier.
bool DataCopier::copyRange(int input, int output, off_t offset, off_t end, off_t* reached) {
  while (offset < end) {
    const std::size_t length = std::min(static_cast<std::size_t>(end - offset), kLargestRound);
    ssize_t count = mayCopyInKernel_ ? copyInKernel(input, output, offset, length) : 0;
    // The kernel also says 0 for files whose size it does not know.
    if (count == 0) count = copyThroughBuffer(input, output, offset, length);
    if (count < 0) return false;
    if (count == 0) break;
    offset += count;
  }
  *reached = offset;
  return true;
}

ssize_t DataCopier::copyInKernel(int input, int output, off_t offset, std::size_t length) {
  loff_t from = offset;
  loff_t to = offset;
  const ssize_t count =
      Uninterrupted([&] { return ::copy_file_range(input, &from, output, &to, length, 0); });
  if (count >= 0 || !MeansUnsupported(errno)) return count;
  mayCopyInKernel_ = false;
  return 0;
}

ssize_t DataCopier::copyThroughBuffer(int input, int output, off_t offset, std::size_t length) {
  const ssize_t count = ReadAt(input, buffer(), std::min(length, kBufferSize), offset);
  if (count <= 0) return count;
  return WriteAt(output, buffer(), static_cast<std::size_t>(count), offset) ? count : -1;
}

}  // namespace quorvel::onlinux
