// The one way an item gets into a new container: whatever is at its place goes first.
#pragma once

#include <initializer_list>

#include "platform/Error.h"
#include "platform/Path.h"
#include "shared/filemanager/QVFileManager.h"

namespace quorvel {

// Deletes the destination (its failure is met by the move) and moves the source there. A missing
// source is success. False, with nothing deleted, when the destination is the source or holds it:
// deleting it would delete what is to be moved.
bool ReplaceByMove(QVFileManager& files, const Path& source, const Path& destination, Error* error);

// Whether the item lies somewhere below the directory, which it is not itself, whatever links and
// spellings their paths contain. False where that cannot be found out.
bool LiesBelow(const Path& item, const Path& directory);

// The same, and true also for the directory itself.
bool IsOrLiesBelow(const Path& item, const Path& directory);

// Whether a recorded path can be a group's container: one that holds what is used by all ("/", the
// legacy applications directory) is damage, and moving its items would tear apart the device.
bool IsGroupContainer(const Path& recorded, std::initializer_list<Path> used, Error* error);

}  // namespace quorvel
