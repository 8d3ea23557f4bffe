// Walks over trees of any depth with a bounded number of descriptors.
//
// As in fts, a directory is delivered before it is opened, so a visitor may make it readable. One
// that still may not be read is delivered again as unreadableDirectory, in place of directoryAfter.
// A directory on another device is delivered before and after, but not entered, under FTS_XDEV. An
// entry that cannot be looked at is of kind noStat with the number, which is ENOENT for one that
// vanished between being listed and being looked at. Any other failure to open a directory or to
// read on in it ends the walk, as does a directory that was moved or exchanged (ESTALE, ENOTDIR):
// nothing is left out silently. Trailing slashes of the root are dropped, so that they follow no
// link. Names come in the order of the file system.
//
// Needs FTS_PHYSICAL (EINVAL otherwise); never changes the current directory.
#pragma once

#include "platform/TreeWalker.h"

namespace quorvel::onlinux {

// Any thread may call; a walk belongs to one thread at a time.
class TreeWalkerLinux final : public TreeWalker {
 public:
  std::unique_ptr<TreeWalk> open(const char* root, int options) override;
};

}  // namespace quorvel::onlinux
