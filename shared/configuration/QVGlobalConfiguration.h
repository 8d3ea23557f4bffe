// The installation service's configuration: its roots and directories, its preferences, the
// catalogs of what comes with the system, and the legacy layout.
//
// One instance serves the process (sharedInstance); a test builds its own on a temporary root.
// Preferences are read once, when an instance is made. Accessors report no errors: a directory
// that cannot be created is logged and its path returned, what cannot be scanned is missing from
// its catalog. When memory runs out the process ends (noexcept): an answer with less in it than
// there is would decide what is installed.
//
//   const Path legacy = QVGlobalConfiguration::sharedInstance().oldContainerPath();
//
// Any thread may call any operation. Lazy members are filled and discarded under one recursive
// lock per instance; the bundle lock of QVLoadInfoPlist is taken after it, never before.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/DeviceNames.h"
#include "platform/HardwareRegistry.h"
#include "platform/Path.h"
#include "platform/PlistValue.h"
#include "shared/support/Export.h"

namespace quorvel {

// Bundle identifier to info dictionary: "PKBundleIdentifier" and "PKBundleVersion", as far as the
// bundle has them, and under QVBundleURLKey the bundle's path (string).
using QVBundleMap = std::map<std::string, PlistDictionary, std::less<>>;
inline constexpr const char* QVBundleURLKey = "com.velto.Quorvel.bundleURL";

class QV_EXPORT QVGlobalConfiguration {
 public:
  // The process's one instance, made on first use and never destroyed: threads that are still
  // running when the process ends may go on reading it.
  static QVGlobalConfiguration& sharedInstance() noexcept;

  ~QVGlobalConfiguration() = default;
  QVGlobalConfiguration(const QVGlobalConfiguration&) = delete;
  QVGlobalConfiguration& operator=(const QVGlobalConfiguration&) = delete;

  // --- Preferences and fixed values ---------------------------------------------------------

  // True unless the preference says otherwise; the next two the other way round.
  bool lowerInstallPriority() const noexcept { return _lowerInstallPriority; }
  bool skipDeviceFamilyCheck() const noexcept { return _skipDeviceFamilyCheck; }
  bool skipThinningCheck() const noexcept { return _skipThinningCheck; }
  // As stored: 0 and negative numbers included.
  long nSimultaneousInstallations() const noexcept { return _nSimultaneousInstallations; }
  // The daemon's own, fixed numbers.
  std::uint32_t uid() const noexcept { return _uid; }
  std::uint32_t gid() const noexcept { return _gid; }

  // --- Paths and lists that need no disk ----------------------------------------------------

  Path oldContainerPath() const noexcept;      // legacy applications directory
  Path oldInstallMapPath() const noexcept;     // legacy install map, a file
  Path oldDataDirectoryPath() const noexcept;  // holds the legacy harbor map
  Path oldLoggingPath() const noexcept;
  Path oldArchiveDirectory() const noexcept;
  // The device's root and the mobile user's home.
  const Path& rootPath() const noexcept { return _rootPath; }
  const Path& mobileHomePath() const noexcept { return _mobilePath; }
  Path dataDirectoryPath() const noexcept;
  Path roleUserMigrationMarkerFilePath() const noexcept;  // a file
  std::vector<std::string> appBundleMetadataItemNames() const noexcept;
  std::vector<std::string> appUserDataItemNames() const noexcept;
  // Identifiers that are never installed; the same set for every instance.
  const std::set<std::string>& installationBlacklist() const noexcept;

  // --- Working directories of the service: created on every call ----------------------------

  Path carrierBundlesDirectory() noexcept;
  // Protection class 4, as logDirectory() and dataDirectory(); the others have none set.
  Path stagingRoot() noexcept;
  Path logDirectory() noexcept;
  Path dataDirectory() noexcept;
  Path cachesDirectory() noexcept;

  // --- Directories of the system image: computed once, never created ------------------------

  Path coreServicesDirectory() noexcept;
  Path systemAppsDirectory() noexcept;
  Path internalAppsDirectory() noexcept;
  Path developerAppsDirectory() noexcept;
  Path factoryMountDirectory() noexcept;
  Path systemFrameworksRootDirectory() noexcept;
  Path internalFrameworksRootDirectory() noexcept;
  Path developerFrameworksRootDirectory() noexcept;
  std::set<Path> allFrameworksDirectories() noexcept;

  // --- Catalogs: scanned on first use, kept until rescanned ---------------------------------
  // A map is null when its directory does not exist or cannot be listed; the next call looks
  // again. Maps are immutable and stay valid whatever is rescanned.

  std::shared_ptr<const QVBundleMap> systemAppBundleIDToInfoMap() noexcept;
  std::shared_ptr<const QVBundleMap> coreServicesAppBundleIDToInfoMap() noexcept;
  std::shared_ptr<const QVBundleMap> internalAppBundleIDToInfoMap() noexcept;
  std::set<std::string> builtInFrameworkBundleIDs() noexcept;
  // Identifiers of the system, internal and disk-image apps; put together anew on each call.
  std::set<std::string> builtInApplicationBundleIDs() noexcept;
  // Each discards the catalogs that come from there, and what was put together from them.
  void reScanSystemApps() noexcept;
  void reScanCoreServicesApps() noexcept;
  void reScanInternalApps() noexcept;

  // --- Apps on attached disk images: looked up on every call --------------------------------

  // Where the first mounted medium below the entry is mounted.
  std::optional<std::string> mountPointForDevice(HardwareEntry entry) noexcept;
  // One for each drive with a mounted medium, in the hardware registry's order.
  std::vector<std::string> diskImageMountPoints() noexcept;
  std::vector<Path> diskImageApplicationsDirectories() noexcept;
  // Of two apps with one identifier the one on the later image.
  QVBundleMap diskImageAppBundleIDToInfoMap() noexcept;

  // --- Persisted flags: read and written on every call --------------------------------------

  // A stored value that is no boolean counts as set, since somebody wrote it.
  bool haveUpdatedPluginContainersWithParentID() noexcept;
  void setHaveUpdatedPluginContainersWithParentID(bool flag) noexcept;
  // From the store's own preferences; absent when there is none, or no string.
  std::optional<std::string> alternateThinningModelIdentifier() noexcept;

  // Not installed: what others cannot link.
  // --- Steps of the above ------------------------------------------------------------------

  std::shared_ptr<const QVBundleMap> _bundleIDMapForBundlesInDirectory(
      const Path& directory, const std::string& extension);
  std::shared_ptr<const QVBundleMap> _bundleIDMapForAppsInDirectory(const Path& directory);
  // Installed again.

 private:
  // Others are made by tests only (shared/configuration/ConfigurationForRoot.h).
  friend struct ConfigurationForRoot;
  // `root` stands for the system's "/".
  explicit QVGlobalConfiguration(const Path& root);

  // Not installed: what others cannot link.
  // Computes the member at the first call; the lock is held by it.
  Path _fixedDirectory(std::optional<Path>& member, const Path& base, const char* component);
  // The same for a catalog; one that is null is looked for again.
  std::shared_ptr<const QVBundleMap> _appMap(std::shared_ptr<const QVBundleMap>& member,
                                             Path (QVGlobalConfiguration::*directory)());
  std::optional<std::string> _firstMountPointBelow(HardwareEntry entry);
  void _readPreferences();
  // Installed again.

  // Declared in the order of the service's own description of the class.
  Path _quorveldPath;
  Path _mobilePath;
  Path _rootPath;
  std::optional<Path> _carrierBundlesDir;
  std::optional<Path> _stagingRoot;
  std::optional<Path> _coreServicesDir;
  std::optional<Path> _systemAppsDir;
  std::optional<Path> _internalAppsDir;
  std::optional<Path> _developerAppsDir;
  std::optional<Path> _factoryMountDir;
  std::optional<Path> _systemFrameworksRootDirectory;
  std::optional<Path> _internalFrameworksRootDirectory;
  std::optional<Path> _developerFrameworksRootDirectory;
  std::optional<Path> _dataDir;
  std::optional<Path> _cachesDir;
  std::optional<std::set<Path>> _allFrameworksDirectories;
  std::shared_ptr<const QVBundleMap> _systemAppBundleIDToInfoMap;
  std::shared_ptr<const QVBundleMap> _coreServicesAppBundleIDToInfoMap;
  std::shared_ptr<const QVBundleMap> _internalAppBundleIDToInfoMap;
  std::optional<std::set<std::string>> _builtInFrameworkBundleIDs;
  bool _lowerInstallPriority = true;
  bool _skipDeviceFamilyCheck = false;
  bool _skipThinningCheck = false;
  long _nSimultaneousInstallations = 4;
  std::uint32_t _uid = 33;
  std::uint32_t _gid = 33;

  // Recursive: operations that fill one lazy member ask for others while they hold it.
  std::recursive_mutex _lock;
};

}  // namespace quorvel
