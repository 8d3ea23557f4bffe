// Reads directories by system call, without a stream of the C library.
#include "platform/linux/files/DirectoryReader.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Uninterrupted.h"

namespace quorvel::onlinux {
namespace {

// About 1,000 entries a call; the C library's own reader takes 32 KiB as well but keeps one
// buffer for each open directory.
constexpr std::size_t kListingSize = 32 * 1024;

bool IsDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

bool DirectoryReader::fill(int descriptor) {
  if (seek_ && ::lseek(descriptor, position_, SEEK_SET) < 0) return false;
  seek_ = false;
  if (buffer_ == nullptr) buffer_ = std::make_unique_for_overwrite<char[]>(kListingSize);
  ssize_t count =
      Uninterrupted([&] { return ::getdents64(descriptor, buffer_.get(), kListingSize); });
  // A directory that was removed meanwhile reads as ENOENT; it has no entries any more.
  if (count < 0 && errno == ENOENT) count = 0;
  if (count < 0) return false;
  offset_ = 0;
  end_ = static_cast<std::size_t>(count);
  if (end_ == 0) {
    errno = 0;
  } else {
    ++blocks_;
    last_ = end_;
  }
  return end_ > 0;
}

const DirectoryEntry* DirectoryReader::next(int descriptor) {
  for (;;) {
    if (offset_ == end_ && !fill(descriptor)) return nullptr;
    // The kernel aligns the records within the buffer, which operator new aligns.
    const auto* record = reinterpret_cast<const dirent64*>(buffer_.get() + offset_);
    offset_ += record->d_reclen;
    position_ = record->d_off;
    if (IsDotOrDotDot(record->d_name)) continue;
    entry_ = {record->d_name, record->d_type};
    return &entry_;
  }
}

void DirectoryReader::rewind() {
  position_ = 0;
  offset_ = end_ = 0;
  blocks_ = 0;
  seek_ = true;
}

// After the end the buffer still has the last block; the only one, in nearly every directory.
void DirectoryReader::repeat() {
  if (blocks_ != 1 || buffer_ == nullptr) return rewind();
  offset_ = 0;
  end_ = last_;
}

void DirectoryReader::suspend() {
  buffer_.reset();
  offset_ = end_ = 0;
  // What was given so far is in no buffer any more.
  blocks_ = 2;
  seek_ = true;
}

int NamesIn(int directory, std::vector<std::string>& names) {
  DirectoryReader reader;
  while (const DirectoryEntry* entry = reader.next(directory)) names.emplace_back(entry->name);
  return errno;
}

}  // namespace quorvel::onlinux
