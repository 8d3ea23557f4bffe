// Loaded before a program this makes its flushes do nothing, so that a sweep of power cuts can be
// shown to find what a missing flush loses.
#include <sys/types.h>

#include <cstddef>

#define QUORVEL_EXPORTED extern "C" __attribute__((visibility("default")))

QUORVEL_EXPORTED int fsync(int) { return 0; }
QUORVEL_EXPORTED int fdatasync(int) { return 0; }
QUORVEL_EXPORTED int syncfs(int) { return 0; }
QUORVEL_EXPORTED int msync(void*, std::size_t, int) { return 0; }
QUORVEL_EXPORTED int sync_file_range(int, off_t, off_t, unsigned) { return 0; }
QUORVEL_EXPORTED void sync() {}
