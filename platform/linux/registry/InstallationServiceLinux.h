// The installation service's records, kept beside the registry's.
//
// What is recorded is on stable storage when an operation answers with success. Neither operation
// has an Error to hand back: why one failed is not told.
#pragma once

#include <string>

#include "platform/InstallationService.h"
#include "platform/linux/registry/RegistryCore.h"

namespace quorvel::onlinux {

// One thread at a time, as the core.
class InstallationServiceLinux final : public InstallationService {
 public:
  explicit InstallationServiceLinux(RegistryCore& core) : core_(core) {}

  // The path must be a directory and no link. It is recorded as it is given.
  int QuorvelRegisterSafeHarborForContainerType(const std::string& path,
                                                const std::string& identifier, int containerType,
                                                const PlistDictionary* options) override;

  // Class 4 for every data container; those of built-in apps are left out when the option is the
  // boolean false. A file system without attributes holds no classes: such containers are
  // counted in the record of the run and are no failure. Nor is a container that is gone.
  int QuorvelUpdateContainerDataProtectionForMigratorOnly(const PlistDictionary& options) override;

 private:
  enum class Outcome { done, unsupported, failed };
  // Of one data container, by name.
  Outcome protect(const std::string& container);

  RegistryCore& core_;
};

}  // namespace quorvel::onlinux
