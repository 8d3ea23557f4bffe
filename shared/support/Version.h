// Which build of the shared code this is.
#pragma once

#include "shared/support/Export.h"

namespace quorvel {

// "VERSION (COMMIT)", for reports; never null. Any thread.
QV_EXPORT const char* QVLibraryVersion();

}  // namespace quorvel
