// The bytes of one regular file into another.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <memory>

namespace quorvel::onlinux {

// One per tree copy: it remembers what the file systems cannot do. Belongs to one thread.
class DataCopier {
 public:
  // Shares blocks where the file system can, copies in the kernel where that is quicker, and
  // leaves holes unread and unwritten. `output` is empty; `info` is of `input`, just taken. What
  // a file gains meanwhile need not be copied; one that loses bytes ends where it then ends.
  // False with errno set.
  bool copy(int input, int output, const struct stat& info);

 private:
  // Whether all of it is shared now. A file system that cannot is not asked again: mayShare_.
  bool shareBlocks(int input, int output);
  // In one read and one write, which costs less than asking for holes.
  bool copySmall(int input, int output, off_t size);
  bool copyUnsized(int input, int output, off_t offset);
  bool copySparse(int input, int output, off_t size);
  // From `offset` to `end`; `*reached` is where it got to, which is less when the input shrank.
  bool copyRange(int input, int output, off_t offset, off_t end, off_t* reached);
  // Each copies up to `length` bytes: their number, 0 at the input's end (copyInKernel: also where
  // the kernel cannot), -1 with errno.
  ssize_t copyInKernel(int input, int output, off_t offset, std::size_t length);
  ssize_t copyThroughBuffer(int input, int output, off_t offset, std::size_t length);
  // Made at the first use: most copies never need it.
  char* buffer();

  bool mayShare_ = true;
  bool mayCopyInKernel_ = true;
  std::unique_ptr<char[]> buffer_;
};

}  // namespace quorvel::onlinux
