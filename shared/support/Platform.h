// The one way to the platform: the process-wide set of services.
#pragma once

#include "platform/Services.h"
#include "shared/support/Export.h"

namespace quorvel {

// Installs the set, once, before any other operation of the system is called and before other
// threads exist. The caller keeps the set and its services alive; a test installs its own set
// and puts the previous one back. Null uninstalls.
QV_EXPORT void QVInstallPlatformServices(const PlatformServices* services);

// The installed set. Reaching for a service without one ends the process with a message: it is
// a fault of the program's start, not of its input.
QV_EXPORT const PlatformServices& QVPlatform();

// The installed set, or null.
QV_EXPORT const PlatformServices* QVInstalledPlatformServices();

}  // namespace quorvel
