// Moves that can be killed at any point and repeated, also across file systems.
#pragma once

#include <string>

#include "platform/Error.h"
#include "platform/FileSystem.h"

namespace quorvel::onlinux {

// Moves the item `from` to `to` as rename does: replaces a file or an empty directory there,
// fails with ENOTEMPTY, EISDIR or ENOTDIR for what it cannot replace. The parent of `to` exists.
//
// Within one file system this is one rename, which the caller flushes when that is needed. Across
// file systems the source goes as with every such move (platform/MoveRemains.h). The copy does not
// grow under its own name, though: nobody here clears a part of one away before a repeat, so it
// grows as a hidden sibling of `to` (".<name>.incoming"), is flushed and takes its place. A second
// sibling, ".<name>.moving", is there from before that rename until the source is gone. So at every
// instant `from` or `to` is whole, and a call repeated after a kill or a power cut completes the
// move: with `from` gone and `to` there it succeeds; with both missing it fails with ENOENT.
// Remains of the source that cannot be removed do not fail a move that is complete. Failures are
// PosixErrorDomain records. Any thread may call, one at a time for each directory that holds a
// `from` or a `to`.
bool MoveItem(FileSystem& files, const char* from, const char* to, Error* error);

// Removes what interrupted moves left of their sources in the directory, as far as it can be.
void RemoveRemainsOfMoves(FileSystem& files, const std::string& directory);

}  // namespace quorvel::onlinux
