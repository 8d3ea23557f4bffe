// Writing to a descriptor until everything is there.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace quorvel {

// Writes all of it, through short writes and interruptions; 0, or an errno value. Any thread.
// A file that is full or a reader that went away ends it; part of the bytes is written then.
inline int WriteWhole(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) return errno;
    if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return 0;
}

}  // namespace quorvel
