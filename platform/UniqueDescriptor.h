// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quorvel {

// Owns a descriptor; -1 is none. Moves, does not copy. Why not a plain int: between an open and a
// failure there are many ways out of a function, and a descriptor that is left open keeps a file
// system busy or, in a long walk, ends it with EMFILE. Belongs to one thread at a time.
class UniqueDescriptor {
 public:
  UniqueDescriptor() = default;
  // Takes over what a system call answered; a failed call's -1 makes an empty one, and errno stays
  // for the caller to look at.
  explicit UniqueDescriptor(int descriptor) : descriptor_(descriptor) {}
  UniqueDescriptor(UniqueDescriptor&& other) noexcept : descriptor_(other.release()) {}
  UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueDescriptor() { reset(); }

  // Whether a descriptor is owned.
  explicit operator bool() const { return descriptor_ >= 0; }
  // Stays owned; release() hands it over.
  int get() const { return descriptor_; }
  // The descriptor is the caller's to close from here on. Empty afterwards.
  int release() { return std::exchange(descriptor_, -1); }

  // Keeps errno: a descriptor is often closed between a failure and its report. Errors of close
  // itself are of no use here; whoever needs them flushes first. The new descriptor is taken over
  // first: resetting to the one that is owned would close it.
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
