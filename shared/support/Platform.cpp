// Holds the installed set.
#include "shared/support/Platform.h"

#include <cstdio>
#include <cstdlib>

#include "shared/support/Services.h"

namespace quorvel {

namespace {
const PlatformServices* gServices = nullptr;
}  // namespace

void QVInstallPlatformServices(const PlatformServices* services) { gServices = services; }

const PlatformServices* QVInstalledPlatformServices() { return gServices; }

// Whoever forgot to install a set has no log to be told in.
const PlatformServices& QVPlatform() {
  if (gServices == nullptr) {
    std::fputs("quorvel: no platform services are installed\n", stderr);
    std::abort();
  }
  return *gServices;
}

void EndForMissingService(const char* name) {
  std::fprintf(stderr, "quorvel: no %s is among the platform's services\n", name);
  std::abort();
}

}  // namespace quorvel
