// Values that live in preferences and survive the process. Nothing is cached, nothing is logged.
#include "platform/DeviceNames.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr PreferencesScope kScope = PreferencesScope::currentUserCurrentHost;

}  // namespace

// Without a store nothing is stored, and what is written goes nowhere.
bool QVGlobalConfiguration::haveUpdatedPluginContainersWithParentID() noexcept {
  if (QVPlatform().preferences == nullptr) return false;
  const auto value =
      QVPlatform().preferences->copyValue(UpdatedPluginContainersKey, QVPreferencesDomain, kScope);
  return value && *value != PlistValue(false);
}

void QVGlobalConfiguration::setHaveUpdatedPluginContainersWithParentID(bool flag) noexcept {
  if (QVPlatform().preferences == nullptr) return;
  QVPlatform().preferences->setValue(UpdatedPluginContainersKey, PlistValue(flag),
                                     QVPreferencesDomain, kScope);
  QVPlatform().preferences->synchronize(QVPreferencesDomain, kScope);
}

std::optional<std::string> QVGlobalConfiguration::alternateThinningModelIdentifier() noexcept {
  if (QVPlatform().preferences == nullptr) return std::nullopt;
  return QVPlatform().preferences->stringFromUserDefaults(ThinnedAppVariantKey,
                                                          StorePreferencesDomain);
}

}  // namespace quorvel
