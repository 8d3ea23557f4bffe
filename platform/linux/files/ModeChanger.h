// Changes of permission bits that never go through a link.
//
// Why a class: kernels without fchmodat2 reach a pinned item only through /proc/self/fd, which
// must be opened before the process is confined to another root.
#pragma once

#include <sys/types.h>

#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {

class ModeChanger {
 public:
  ModeChanger();  // opens /proc/self/fd where there is one

  // The item `name` in `directory` (AT_FDCWD for a whole path). A link is EOPNOTSUPP.
  int change(int directory, const char* name, mode_t mode) const;
  // The item that `descriptor` pins, which may be open with O_PATH.
  int changePinned(int descriptor, mode_t mode) const;

 private:
  // `refusal` is why the direct way was refused.
  int changeThroughProc(int descriptor, mode_t mode, int refusal) const;

  UniqueDescriptor procDescriptors_;
};

}  // namespace quorvel::onlinux
