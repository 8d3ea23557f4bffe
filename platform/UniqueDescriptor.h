// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quorvel {

// Owns a descriptor; -1 is none. Moves, does not copy.
class UniqueDescriptor {
 public:
  UniqueDescriptor() = default;
  explicit UniqueDescriptor(int descriptor) : descriptor_(descriptor) {}
  UniqueDescriptor(UniqueDescriptor&& other) noexcept : descriptor_(other.release()) {}
  UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueDescriptor() { reset(); }

  explicit operator bool() const { return descriptor_ >= 0; }
  // Stays owned; release() hands it over.
  int get() const { return descriptor_; }
  // The descriptor is the caller's to close from here on.
  int release() { return std::exchange(descriptor_, -1); }

  // Keeps errno: a descriptor is often closed between a failure and its report. Errors of close
  // itself are of no use here; whoever needs them flushes first.
  void reset(int descriptor = -1) {
    const int previous = std::exchange(descriptor_, descriptor);
    if (previous < 0) return;
    const int savedErrno = errno;
    ::close(previous);
    errno = savedErrno;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace quorvel
