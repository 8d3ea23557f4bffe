// Directories that outlive a power cut.
#pragma once

#include <string>

#include "platform/Error.h"
#include "platform/FileSystem.h"

namespace quorvel::onlinux {

// Makes the directory (an absolute path, as system calls take it) and its missing parents, mode
// 0755, each flushed in its parent. True when it exists as a directory. A link in place of the last
// component is ENOTDIR; links above it are followed. Directories made before a failure stay. One
// that was there already is taken as it is, neither flushed nor changed.
bool MakeDurableDirectory(FileSystem& fileSystem, const std::string& directory, Error* error);

}  // namespace quorvel::onlinux
