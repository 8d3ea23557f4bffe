// Looking at a device without a trace of it.
#pragma once

#include <fcntl.h>

#include <cerrno>

#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

// What `open(flags)` opens, if possible without a change of the item's access time: only its owner
// and the privileged may ask for that. None with errno.
// `open` is called once, or a second time after EPERM, and returns a UniqueDescriptor with errno
// set on failure. Any other failure is not tried again.
template <class Open>
UniqueDescriptor LeavingAccessTime(int flags, Open&& open) {
  UniqueDescriptor item = open(flags | O_NOATIME);
  if (!item && errno == EPERM) item = open(flags);
  return item;
}

}  // namespace quorvel::host
