// The one way an item gets into a new container: whatever is at its place goes first.
#pragma once

#include "platform/Error.h"
#include "platform/Path.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/filemanager/QVFileManager.h"

namespace quorvel {

// Deletes the destination (its failure is met by the move) and moves the source there. A missing
// source is success. False, with nothing deleted, when the destination is the source or holds it:
// deleting it would delete what is to be moved. Of a copy to another disk that failed no beginning
// is left at the destination, as far as it can be removed; the source stands whole.
bool ReplaceByMove(QVFileManager& files, const Path& source, const Path& destination, Error* error);

// The same where certainly nothing is at the destination, without another look at it.
bool MoveToFreePlace(QVFileManager& files, const Path& source, const Path& destination,
                     Error* error);

// False also where it cannot be told.
bool IsCertainlyNotThere(const Path& item);

// Whether a move from one directory to the other has to copy. False where that cannot be found out:
// the move itself then meets why.
bool AreOnDifferentFileSystems(const Path& from, const Path& to);

// Whether the item itself (a link is not followed) lies somewhere below the directory, whatever
// links and spellings their paths contain. False where that cannot be found out.
bool LiesBelow(const Path& item, const Path& directory);

// Whether one of the two directories is the other, holds it or lies in it. True where that cannot
// be found out; false when what is used does not exist.
bool Overlaps(const Path& directory, const Path& used);

// Whether a recorded path can be a group's container. One that is, holds or lies in what the system
// or the service uses ("/", the registry, the new containers, `newContainer` unless absent) is
// damage: moving its items and removing it would tear the device apart.
bool IsGroupContainer(const Path& recorded, const Path& newContainer,
                      const QVGlobalConfiguration& configuration, Error* error);

}  // namespace quorvel
