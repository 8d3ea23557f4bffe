// The entries of one directory, in large pieces and in little memory.
//
// Why not the C library's streams: each of those keeps a descriptor and a buffer of its own, and a
// walk that is hundreds of directories deep would hold hundreds of both.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace quorvel::onlinux {

struct DirectoryEntry {
  const char* name = nullptr;  // valid until the next call on the reader
  unsigned char type = 0;      // DT_*; DT_UNKNOWN where the file system does not tell
};

// Does not own the descriptor: the directory may be closed and opened anew between calls. A new one
// reads from where the descriptor stands, which for a descriptor just opened is the first entry.
// Whether entries that come or go meanwhile are seen is the file system's to say. Belongs to one
// thread.
class DirectoryReader {
 public:
  // The next entry other than "." and ".."; null at the end (errno 0) or on failure (errno set). A
  // directory that was removed meanwhile is at its end. The entry belongs to the reader. May throw
  // std::bad_alloc.
  const DirectoryEntry* next(int descriptor);
  // Reads from the first entry again.
  void rewind();
  // Gives once more what was given so far, without asking the file system again where the buffer
  // still holds it all. At the end only.
  void repeat();
  // Gives up the buffer; reading goes on after the last entry that next() gave, also with another
  // descriptor of the same directory.
  void suspend();

 private:
  // The next block of entries into the buffer. False at the end (errno 0) or on failure.
  bool fill(int descriptor);

  std::unique_ptr<char[]> buffer_;
  std::size_t offset_ = 0;  // of the next record in the buffer
  std::size_t end_ = 0;
  std::size_t blocks_ = 0;  // read since the first entry
  std::size_t last_ = 0;    // size of the last block that held entries
  off_t position_ = 0;      // the directory's own cookie of where the last entry given ends
  bool seek_ = false;       // the descriptor is elsewhere
  DirectoryEntry entry_;
};

// Adds the names of the open directory's entries, in its order. 0, or an errno value.
int NamesIn(int directory, std::vector<std::string>& names);

}  // namespace quorvel::onlinux
