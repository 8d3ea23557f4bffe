// Writing to a descriptor until everything is there.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace quorvel {

// Writes all of it, through short writes and interruptions; 0, or an errno value. Any thread.
// A file that is full or a reader that went away ends it; part of the bytes is written then. How
// much of them is not told: whoever must know writes to a file of its own and removes it. The errno
// of a failure is also left in errno. The descriptor is a blocking one, and stays the caller's.
// Written at the descriptor's own position, and not flushed.
inline int WriteWhole(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) return errno;
    if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return 0;
}

}  // namespace quorvel
