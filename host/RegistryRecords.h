// The registry's records as JSON, the same wherever they are shown.
#pragma once

#include "host/console/Json.h"
#include "platform/ApplicationRegistry.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::host {

// Every key is always there: null stands for what the record has not or the registry cannot tell,
// which for groups differs from an empty object. Manifests keep these objects as they are, so that
// a key that changes its meaning changes the format of manifests.
Json BundleAsJson(const BundleProxy& bundle);
Json SafeHarborAsJson(const onlinux::SafeHarborRecord& harbor);

}  // namespace quorvel::host
