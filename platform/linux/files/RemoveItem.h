// Removing an item where only whether it is gone matters.
#pragma once

#include <string>

#include "platform/FileSystem.h"

namespace quorvel::onlinux {

// Removes the item and everything below it, going on where something cannot be removed. 0 when
// nothing is left, also when nothing was there; otherwise the first error number. Any thread.
int RemoveItem(FileSystem& files, const std::string& path);

}  // namespace quorvel::onlinux
