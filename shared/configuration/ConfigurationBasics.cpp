// Creation, preferences, and the paths and lists that need no disk.
#include <climits>
#include <cmath>

#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/support/Logging.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kInit = "-[QVGlobalConfiguration init]";
// Shared by the legacy and the current layout, under different bases.
constexpr const char* kDataDirectoryName = "Library/Quorvel";

std::optional<PlistValue> Preference(const char* key) {
  const PreferencesStore* preferences = Platform().preferences;
  if (preferences == nullptr) return std::nullopt;
  return Platform().preferences->copyValue(key, QVPreferencesDomain,
                                           PreferencesScope::currentUserCurrentHost);
}

// The integer value of a number, as far as a long can hold it.
std::optional<long> IntegerValue(const PlistValue& value) {
  if (const bool* flag = value.boolean()) return *flag ? 1 : 0;
  if (const auto* integer = value.signedInteger()) return static_cast<long>(*integer);
  if (value.largeInteger() != nullptr) return LONG_MAX;
  const double* real = value.real();
  if (real == nullptr) return std::nullopt;
  if (std::isnan(*real)) return 0;
  // 2^63, the first double that a long cannot hold.
  constexpr double kBound = 9223372036854775808.0;
  if (*real >= kBound) return LONG_MAX;
  return *real < -kBound ? LONG_MIN : static_cast<long>(*real);
}

}  // namespace

QVGlobalConfiguration& QVGlobalConfiguration::sharedInstance() {
  static QVGlobalConfiguration instance;
  return instance;
}

QVGlobalConfiguration::QVGlobalConfiguration(const Path& root) {
  readPreferences();
  _quorveldPath = root.childDirectory("private/var/quorveld/");
  _mobilePath = root.childDirectory("private/var/mobile/");
  _rootPath = root;
}

void QVGlobalConfiguration::readPreferences() {
  if (Preference("LowerInstallPriority") == PlistValue(false)) {
    _lowerInstallPriority = false;
    QV_LOG(LogLevelNotice, kInit,
           "Not running installation at background priority because of a set default");
  }
  if (Preference("SkipDeviceFamilyCheck") == PlistValue(true)) {
    _skipDeviceFamilyCheck = true;
    QV_LOG(LogLevelNotice, kInit, "Skipping device family check because of a set default");
  }
  if (Preference("SkipThinningCheck") == PlistValue(true)) {
    _skipThinningCheck = true;
    QV_LOG(LogLevelNotice, kInit, "Skipping device thinning check because of a set default");
  }
  const std::optional<PlistValue> installs = Preference("SimultaneousInstallsNumber");
  const std::optional<long> number = installs ? IntegerValue(*installs) : std::nullopt;
  if (number) {
    _nSimultaneousInstallations = *number;
    QV_LOG(LogLevelNotice, kInit, "Setting simultaneous installations allowed to %ld", *number);
  }
}

Path QVGlobalConfiguration::oldContainerPath() const {
  return _mobilePath.childDirectory("Applications");
}

Path QVGlobalConfiguration::oldInstallMapPath() const {
  return _mobilePath.child("Library/Caches/com.velto.quorvel.plist");
}

Path QVGlobalConfiguration::oldDataDirectoryPath() const {
  return _mobilePath.childDirectory(kDataDirectoryName);
}

Path QVGlobalConfiguration::oldLoggingPath() const {
  return _mobilePath.childDirectory("Library/Logs/Quorvel");
}

Path QVGlobalConfiguration::oldArchiveDirectory() const {
  return _mobilePath.childDirectory("Media/ApplicationArchives");
}

Path QVGlobalConfiguration::dataDirectoryPath() const {
  return _quorveldPath.childDirectory(kDataDirectoryName);
}

Path QVGlobalConfiguration::roleUserMigrationMarkerFilePath() const {
  return dataDirectoryPath().child("RoleUserMigration.plist");
}

std::vector<std::string> QVGlobalConfiguration::appBundleMetadataItemNames() const {
  return {"Manifest.plist", "LorvixArtwork", "LorvixMetadata.plist", "GeoJSON"};
}

std::vector<std::string> QVGlobalConfiguration::appUserDataItemNames() const {
  return {"Documents", "Library", "tmp", "Tillkit"};
}

const std::set<std::string>& QVGlobalConfiguration::installationBlacklist() const {
  static const std::set<std::string> blacklist = {"com.velto.Kyo6Updater"};
  return blacklist;
}

}  // namespace quorvel
