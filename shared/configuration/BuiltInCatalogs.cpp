// Catalogs of the apps and frameworks that come with the system.
#include <cerrno>

#include "platform/BundleReader.h"
#include "shared/configuration/InfoPlist.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Logging.h"

namespace quorvel {

namespace {

constexpr const char* kScan =
    "-[QVGlobalConfiguration _bundleIDMapForBundlesInDirectory:withExtension:]";

// Adds one bundle to the map, unless it cannot be read or has no identifier.
void AddBundle(const Path& bundle, QVBundleMap& map) {
  static const std::set<std::string> keys = {PKBundleIdentifierKey, PKBundleVersionKey};
  const std::unique_ptr<PlistDictionary> info = QVLoadInfoPlist(bundle, keys);
  if (!info) {
    QV_LOG(LogLevelDebug, kScan, "Failed to load Info.plist from bundle %@", bundle.string());
    return;
  }
  const std::string* identifier = info->findString(PKBundleIdentifierKey);
  if (identifier == nullptr) {
    QV_LOG(LogLevelDebug, kScan, "Failed to get PKBundleIdentifier from bundle %@",
           bundle.string());
    return;
  }
  const std::string key = *identifier;
  info->set(QVBundleURLKey, bundle.string());
  map.insert_or_assign(key, std::move(*info));
}

void InsertIdentifiers(const QVBundleMap* map, std::set<std::string>& identifiers) {
  if (map == nullptr) return;
  for (const auto& [identifier, info] : *map) identifiers.insert(identifier);
}

}  // namespace

// Links are passed over: a catalog must not hold one bundle under two paths. The extension is
// compared byte by byte, as on every other way that a bundle is found.
std::shared_ptr<const QVBundleMap> QVGlobalConfiguration::_bundleIDMapForBundlesInDirectory(
    const Path& directory, const std::string& extension) {
  Error error;
  const auto entries =
      QVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(directory, true, &error);
  if (!entries) {
    if (!error.is(PosixErrorDomain, ENOENT)) {
      QV_LOG(LogLevelError, kScan, "Failed to search for apps in %@ : %@", directory, error);
    }
    return nullptr;
  }
  auto map = std::make_shared<QVBundleMap>();
  for (const Path& entry : *entries) {
    if (entry.pathExtension() == extension) AddBundle(entry, *map);
  }
  return map;
}

std::shared_ptr<const QVBundleMap> QVGlobalConfiguration::_bundleIDMapForAppsInDirectory(
    const Path& directory) {
  return _bundleIDMapForBundlesInDirectory(directory, "app");
}

// A directory that is missing now may be there at the next call, so that only a map is remembered.
// The lock is held while it is scanned: a second thread waits for the map instead of scanning too.
std::shared_ptr<const QVBundleMap> QVGlobalConfiguration::_appMap(
    std::shared_ptr<const QVBundleMap>& member, Path (QVGlobalConfiguration::*directory)()) {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  if (!member) member = _bundleIDMapForAppsInDirectory((this->*directory)());
  return member;
}

std::shared_ptr<const QVBundleMap> QVGlobalConfiguration::systemAppBundleIDToInfoMap() noexcept {
  return _appMap(_systemAppBundleIDToInfoMap, &QVGlobalConfiguration::systemAppsDirectory);
}

std::shared_ptr<const QVBundleMap>
QVGlobalConfiguration::coreServicesAppBundleIDToInfoMap() noexcept {
  return _appMap(_coreServicesAppBundleIDToInfoMap, &QVGlobalConfiguration::coreServicesDirectory);
}

std::shared_ptr<const QVBundleMap> QVGlobalConfiguration::internalAppBundleIDToInfoMap() noexcept {
  return _appMap(_internalAppBundleIDToInfoMap, &QVGlobalConfiguration::internalAppsDirectory);
}

std::set<std::string> QVGlobalConfiguration::builtInFrameworkBundleIDs() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  if (!_builtInFrameworkBundleIDs) {
    std::set<std::string> identifiers;
    for (const Path& directory : allFrameworksDirectories()) {
      InsertIdentifiers(_bundleIDMapForBundlesInDirectory(directory, "framework").get(),
                        identifiers);
    }
    _builtInFrameworkBundleIDs = std::move(identifiers);
  }
  return *_builtInFrameworkBundleIDs;
}

// No lock of its own: each map is consistent, all three together need not be.
std::set<std::string> QVGlobalConfiguration::builtInApplicationBundleIDs() noexcept {
  std::set<std::string> identifiers;
  InsertIdentifiers(systemAppBundleIDToInfoMap().get(), identifiers);
  InsertIdentifiers(internalAppBundleIDToInfoMap().get(), identifiers);
  const QVBundleMap diskImageApps = diskImageAppBundleIDToInfoMap();
  InsertIdentifiers(&diskImageApps, identifiers);
  return identifiers;
}

// The frameworks are discarded with the system and with the internal apps, since they come from
// both images. Maps that were given out live on with whoever has them.
void QVGlobalConfiguration::reScanSystemApps() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  _systemAppBundleIDToInfoMap.reset();
  _builtInFrameworkBundleIDs.reset();
}

void QVGlobalConfiguration::reScanCoreServicesApps() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  _coreServicesAppBundleIDToInfoMap.reset();
}

void QVGlobalConfiguration::reScanInternalApps() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  _internalAppBundleIDToInfoMap.reset();
  _builtInFrameworkBundleIDs.reset();
}

}  // namespace quorvel
