// The names in one directory.
#pragma once

#include <string>
#include <vector>

#include "platform/Path.h"

namespace quorvel::host {

// The entries' texts (FileSystemRepresentation.h) in the order in which the directory yields them,
// "." and ".." left out. 0, or the error number; ENOTDIR for anything but a directory, ELOOP or
// ENOTDIR for a link. Does not set the directory's access time where that can be avoided.
int ListDirectory(const Path& directory, std::vector<std::string>& names);

// The item's type bits (S_IFMT), 0 when it cannot be told. A link is itself.
unsigned ItemType(const Path& item);

}  // namespace quorvel::host
