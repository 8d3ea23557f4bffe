// Values that live in preferences and survive the process. Nothing is cached, nothing is logged.
#include "platform/DeviceNames.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/support/Services.h"

namespace quorvel {

namespace {

constexpr PreferencesScope kScope = PreferencesScope::currentUserCurrentHost;

}  // namespace

// Without a store nothing is stored, and what is written goes nowhere.
bool QVGlobalConfiguration::haveUpdatedPluginContainersWithParentID() noexcept {
  if (FindService(kPreferences) == nullptr) return false;
  const auto value = RequiredService(kPreferences)
                         .copyValue(UpdatedPluginContainersKey, QVPreferencesDomain, kScope);
  return value && *value != PlistValue(false);
}

void QVGlobalConfiguration::setHaveUpdatedPluginContainersWithParentID(bool flag) noexcept {
  if (FindService(kPreferences) == nullptr) return;
  RequiredService(kPreferences)
      .setValue(UpdatedPluginContainersKey, PlistValue(flag), QVPreferencesDomain, kScope);
  RequiredService(kPreferences).synchronize(QVPreferencesDomain, kScope);
}

std::optional<std::string> QVGlobalConfiguration::alternateThinningModelIdentifier() noexcept {
  if (FindService(kPreferences) == nullptr) return std::nullopt;
  return RequiredService(kPreferences)
      .stringFromUserDefaults(ThinnedAppVariantKey, StorePreferencesDomain);
}

}  // namespace quorvel
