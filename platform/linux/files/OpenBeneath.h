// Opening what a name in a directory leads to without ever leaving that directory.
#pragma once

#include <string>

#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {

// Opens a file of the directory to read. Links are followed as long as every step stays beneath
// the directory; what others do to the tree meanwhile cannot lead out of it. No descriptor with
// errno: ENOENT only when there is nothing of that name, EXDEV for a link that leads out, ELOOP
// for one that leads nowhere or in a circle. May throw std::bad_alloc.
UniqueDescriptor OpenBeneath(int directory, const std::string& name);

}  // namespace quorvel::onlinux
