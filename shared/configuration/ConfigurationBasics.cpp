// Creation, preferences, and the paths and lists that need no disk.
#include <climits>
#include <cmath>

#include "platform/DeviceNames.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/support/Logging.h"
#include "shared/support/Services.h"

namespace quorvel {

namespace {

constexpr const char* kInit = "-[QVGlobalConfiguration init]";
// Shared by the legacy and the current layout, under different bases.
constexpr const char* kDataDirectoryName = "Library/Quorvel";

// One scope alone: what is set for any host, or for any user, is not meant for this device.
std::optional<PlistValue> Preference(const char* key) {
  PreferencesStore* preferences = FindService(kPreferences);
  if (preferences == nullptr) return std::nullopt;
  return preferences->copyValue(key, QVPreferencesDomain, PreferencesScope::currentUserCurrentHost);
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

// Never destroyed: a thread that outlives main() must not read freed paths, from which removals are
// made. The language guards the creation.
QVGlobalConfiguration& QVGlobalConfiguration::sharedInstance() noexcept {
  static QVGlobalConfiguration& instance = *new QVGlobalConfiguration(Path::directory("/"));
  return instance;
}

// Preferences first, as they are read once and told in the log before anything else happens.
QVGlobalConfiguration::QVGlobalConfiguration(const Path& root) {
  _readPreferences();
  _quorveldPath = root.childDirectory(DaemonDirectory);
  _mobilePath = root.childDirectory(MobileHomeDirectory);
  _rootPath = root;
}

// A value of another type counts as absent. The two checks are skipped by a true boolean alone and
// the priority is raised by a false one: a number or a text that happens to say so is no decision.
void QVGlobalConfiguration::_readPreferences() {
  if (Preference(LowerInstallPriorityKey) == PlistValue(false)) {
    _lowerInstallPriority = false;
    QV_LOG(LogLevelNotice, kInit,
           "Not running installation at background priority because of a set default");
  }
  if (Preference(SkipDeviceFamilyCheckKey) == PlistValue(true)) {
    _skipDeviceFamilyCheck = true;
    QV_LOG(LogLevelNotice, kInit, "Skipping device family check because of a set default");
  }
  if (Preference(SkipThinningCheckKey) == PlistValue(true)) {
    _skipThinningCheck = true;
    QV_LOG(LogLevelNotice, kInit, "Skipping device thinning check because of a set default");
  }
  const std::optional<PlistValue> installs = Preference(SimultaneousInstallsNumberKey);
  const std::optional<long> number = installs ? IntegerValue(*installs) : std::nullopt;
  if (number) {
    _nSimultaneousInstallations = *number;
    QV_LOG(LogLevelNotice, kInit, "Setting simultaneous installations allowed to %ld", *number);
  }
}

Path QVGlobalConfiguration::oldContainerPath() const noexcept {
  return _mobilePath.childDirectory(LegacyApplicationsName);
}

Path QVGlobalConfiguration::oldInstallMapPath() const noexcept {
  return _mobilePath.child(LegacyInstallMapPath);
}

Path QVGlobalConfiguration::oldDataDirectoryPath() const noexcept {
  return _mobilePath.childDirectory(kDataDirectoryName);
}

Path QVGlobalConfiguration::oldLoggingPath() const noexcept {
  return _mobilePath.childDirectory("Library/Logs/Quorvel");
}

Path QVGlobalConfiguration::oldArchiveDirectory() const noexcept {
  return _mobilePath.childDirectory("Media/ApplicationArchives");
}

Path QVGlobalConfiguration::dataDirectoryPath() const noexcept {
  return _quorveldPath.childDirectory(kDataDirectoryName);
}

Path QVGlobalConfiguration::roleUserMigrationMarkerFilePath() const noexcept {
  return dataDirectoryPath().child("RoleUserMigration.plist");
}

std::vector<std::string> QVGlobalConfiguration::appBundleMetadataItemNames() const noexcept {
  return {StoreMetadataItemNames.begin(), StoreMetadataItemNames.end()};
}

std::vector<std::string> QVGlobalConfiguration::appUserDataItemNames() const noexcept {
  return {UserDataItemNames.begin(), UserDataItemNames.end()};
}

// Not destroyed either, for the same reason as the shared instance.
const std::set<std::string>& QVGlobalConfiguration::installationBlacklist() const noexcept {
  static const std::set<std::string>& blacklist =
      *new std::set<std::string>{"com.velto.Kyo6Updater"};
  return blacklist;
}

}  // namespace quorvel
