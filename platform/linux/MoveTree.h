// Moves across file systems that can be killed at any point and repeated.
#pragma once

#include "platform/Error.h"
#include "platform/FileSystem.h"

namespace quorvel::onlinux {

// Moves the item `from` to `to`, which it replaces whatever is there; the parent of `to` exists.
// Within one file system it is one rename, which the caller flushes when that is needed. Across
// file systems the copy grows as the hidden sibling ".<name>.incoming" of `to`, is flushed, takes
// its place, and only then the source is renamed to its own sibling ".<name>.outgoing" and
// removed. So at every instant `from` or `to` is whole, and a call repeated after a kill
// completes the move: with `from` gone and `to` there it only clears what is left of the source
// and succeeds; with both missing it fails with ENOENT. Remains of the source that cannot be
// removed after the move do not fail it. Failures are PosixErrorDomain records.
bool MoveItem(FileSystem& files, const char* from, const char* to, Error* error);

}  // namespace quorvel::onlinux
