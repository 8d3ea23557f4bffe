// An item by the directory that holds it, pinned, and its name there.
#pragma once

#include <string>

#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {

struct ItemPath {
  UniqueDescriptor parent;  // open with O_PATH
  std::string name;         // one component, never empty, "." or ".."
  std::string path;         // as given, without trailing slashes
};

// Splits a path and pins its directory, following links on the way there as every path does, but
// never the item itself. 0 or an error number: EFAULT for a null path, EBUSY for the root
// directory, EINVAL for an empty path and one that ends in "." or "..". The item need not exist. On
// failure *item is of no use. May throw std::bad_alloc.
int OpenItemPath(const char* path, ItemPath* item);

}  // namespace quorvel::onlinux
