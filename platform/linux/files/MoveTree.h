// Moves that can be killed at any point and repeated, also across file systems.
#pragma once

#include "platform/Error.h"
#include "platform/FileSystem.h"

namespace quorvel::onlinux {

// Moves the item `from` to `to` as rename does: replaces a file or an empty directory there,
// fails with ENOTEMPTY, EISDIR or ENOTDIR for what it cannot replace. The parent of `to` exists.
//
// Within one file system this is one rename, which the caller flushes when that is needed. Across
// file systems the copy grows as a hidden sibling of `to` (".<name>.incoming"), is flushed and
// takes its place; only then the source becomes a hidden sibling of itself (".<name>.outgoing")
// and is removed. A third sibling of `to`, ".<name>.moving", is there while the two renames are
// under way. So at every instant `from` or `to` is whole, and a call repeated after a kill or a
// power cut completes the move: with `from` gone and `to` there it only clears the remains and
// succeeds; with both missing it fails with ENOENT. Remains of the source that cannot be removed
// do not fail a move that is complete. Failures are PosixErrorDomain records. Any thread may
// call, one at a time for each `to`.
bool MoveItem(FileSystem& files, const char* from, const char* to, Error* error);

}  // namespace quorvel::onlinux
