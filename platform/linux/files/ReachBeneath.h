// Reaches an item below a directory without ever leaving that directory.
#pragma once

#include <string>
#include <string_view>

#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {

// Opens the item with O_PATH: 0, or the number of the failure. EXDEV for a way that leads out of
// `base` at any step, by "..", by a link or by an absolute link wherever that leads. Links inside
// are followed, the last one included. `relative` may be empty: the base itself. What the
// descriptor names was inside when it was reached; a move afterwards takes it along.
int ReachBeneath(int base, std::string_view relative, UniqueDescriptor* item);
// The same without the kernel's help, which early ones and some filters refuse.
int WalkBeneath(int base, std::string_view relative, UniqueDescriptor* item);

// Opens a file of the directory to read; `name` is a plain file name. Links are followed as above.
// No descriptor with errno: ENOENT only when there is nothing of that name, EXDEV for a link that
// leads out, ELOOP for one that leads nowhere or in a circle. May throw std::bad_alloc.
UniqueDescriptor OpenBeneath(int directory, const std::string& name);

// Opens a file to read by a path that holds no link at all, in one call. No descriptor where there
// is one, where the kernel cannot tell, or for any other reason: the caller then opens directory
// and file one after the other, which tells why.
UniqueDescriptor OpenWithoutLinks(const char* path);

}  // namespace quorvel::onlinux
