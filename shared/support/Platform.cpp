// Holds the installed set.
#include "shared/support/Platform.h"

#include <cstdio>
#include <cstdlib>

namespace quorvel {

namespace {
const PlatformServices* gServices = nullptr;
}  // namespace

void QVInstallPlatformServices(const PlatformServices* services) { gServices = services; }

const PlatformServices* QVInstalledPlatformServices() { return gServices; }

const PlatformServices& QVPlatform() {
  if (gServices == nullptr) {
    std::fputs("quorvel: no platform services are installed\n", stderr);
    std::abort();
  }
  return *gServices;
}

}  // namespace quorvel
