// Client of the installation service: what only the service's daemon may do.
//
// Why a service: registration and data protection belong to another process's records.
#pragma once

#include <string>

#include "platform/PlistValue.h"

namespace quorvel {

// Option: whether the data containers of system apps are brought to their protection class.
inline constexpr const char* kQVUpdateSystemAppDataContainerDataProtection =
    "UpdateSystemAppDataContainerDataProtection";

class InstallationService {
 public:
  virtual ~InstallationService() = default;

  // Records a safe harbor durably: the container directory kept for an identifier. Registering
  // again replaces. `options` is reserved and null. Nonzero on success, zero on failure (for one,
  // when the path is no directory).
  virtual int QuorvelRegisterSafeHarborForContainerType(const std::string& path,
                                                        const std::string& identifier,
                                                        int containerType,
                                                        const PlistDictionary* options) = 0;

  // Applies the service's protection class to the data containers, as the options say, and
  // records that it ran. Nonzero on success, zero on failure.
  virtual int QuorvelUpdateContainerDataProtectionForMigratorOnly(
      const PlistDictionary& options) = 0;
};

}  // namespace quorvel
