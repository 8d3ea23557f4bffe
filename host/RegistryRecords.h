// The registry's records as JSON, the same wherever they are shown.
#pragma once

#include "host/console/Json.h"
#include "platform/ApplicationRegistry.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::host {

Json BundleAsJson(const BundleProxy& bundle);
Json SafeHarborAsJson(const onlinux::SafeHarborRecord& harbor);

}  // namespace quorvel::host
