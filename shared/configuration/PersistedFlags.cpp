// Values that live in preferences and survive the process. Nothing is cached, nothing is logged.
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kUpdatedKey = "UpdatedPluginContainersWithParentIDWithSafeHarborFix";
// Kept by the media-store daemon in its own domain.
constexpr const char* kStoreDomain = "com.velto.lorvixstored";
constexpr const char* kVariantKey = "ThinnedAppVariantID";
constexpr PreferencesScope kScope = PreferencesScope::currentUserCurrentHost;

}  // namespace

bool QVGlobalConfiguration::haveUpdatedPluginContainersWithParentID() {
  const auto value = Platform().preferences->copyValue(kUpdatedKey, QVPreferencesDomain, kScope);
  return value && *value != PlistValue(false);
}

void QVGlobalConfiguration::setHaveUpdatedPluginContainersWithParentID(bool flag) {
  Platform().preferences->setValue(kUpdatedKey, PlistValue(flag), QVPreferencesDomain, kScope);
  Platform().preferences->synchronize(QVPreferencesDomain, kScope);
}

std::optional<std::string> QVGlobalConfiguration::alternateThinningModelIdentifier() {
  return Platform().preferences->stringFromUserDefaults(kVariantKey, kStoreDomain);
}

}  // namespace quorvel
