// What a manifest of a device lists: the legacy layout as the plug-in sees it, the containers of
// the current one, and the registry's records.
#pragma once

#include <set>
#include <string>

#include "host/HostServices.h"
#include "host/RunAccount.h"
#include "host/proof/ManifestSection.h"

namespace quorvel::host {

// In the device tree, which is only read. `foreseen` is the plug-in's preview.
ManifestHeader DescribeDevice(HostServices& services, const onlinux::RegistrySnapshot& registry,
                              const RunAccount& foreseen);

// Identifiers of the harbor map, while there is one that can be read.
std::set<std::string> HarborsOfMap(HostServices& services);

}  // namespace quorvel::host
