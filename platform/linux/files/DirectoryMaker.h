// Directories with their missing parents.
#pragma once

#include <sys/types.h>

#include "platform/linux/files/ModeChanger.h"

namespace quorvel::onlinux {

// Every directory made gets exactly `mode`, whatever the umask and the parent's set-group-id bit
// or default access-control list. Links in the middle of the path are followed, as mkdir follows
// them. 0 when the directory was made, EEXIST when it was there, ENOTDIR when the path, or a
// component on the way, is something else (the path itself being a link included), or another
// error number. Directories made before a failure stay.
int MakeDirectories(const char* path, mode_t mode, const ModeChanger& modes);

}  // namespace quorvel::onlinux
