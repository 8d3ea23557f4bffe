// The directories that the service works in, created on demand, and those it looks into.
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Logging.h"

namespace quorvel {

namespace {

// Protected until the user first unlocks the device.
constexpr std::int32_t kProtectionClass = 4;

// Creates the directory; a failure is left to whoever uses the directory.
// The operations that call this have no way of failing: a path is what they return. Their lines in
// the log are what tells of a directory that could not be made.
void Ensure(const Path& directory, std::int32_t protectionClass, const char* function,
            FormatString<std::string, Error> message) {
  Error error;
  if (QVFileManager::defaultManager().createDirectoryAtURL(
          directory, {.withIntermediateDirectories = true, .protectionClass = protectionClass},
          &error)) {
    return;
  }
  QV_LOG(LogLevelError, function, message, directory.string(), error);
}

}  // namespace

// The path is remembered and the directory made anew with each call: somebody may have removed it
// since.
Path QVGlobalConfiguration::carrierBundlesDirectory() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  if (!_carrierBundlesDir) {
    _carrierBundlesDir = _mobilePath.childDirectory("Library/Carrier Bundles");
  }
  Ensure(*_carrierBundlesDir, QVNoProtectionClass,
         "-[QVGlobalConfiguration carrierBundlesDirectory]",
         "Failed to create carrier bundles directory at \"%@\": %@");
  return *_carrierBundlesDir;
}

// The lock is recursive: this asks for the caches directory while it holds it.
Path QVGlobalConfiguration::stagingRoot() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  if (!_stagingRoot) {
    _stagingRoot = cachesDirectory().childDirectory("com.velto.mobile.quorveld.staging");
  }
  Ensure(*_stagingRoot, kProtectionClass, "-[QVGlobalConfiguration stagingRoot]",
         "Failed to create staging root at \"%@\": %@");
  return *_stagingRoot;
}

// Not remembered and not locked: creating what exists is harmless.
Path QVGlobalConfiguration::logDirectory() noexcept {
  Path directory = _quorveldPath.childDirectory("Library/Logs/Quorvel");
  Ensure(directory, kProtectionClass, "-[QVGlobalConfiguration logDirectory]",
         "Failed to create log directory at \"%@\": %@");
  return directory;
}

Path QVGlobalConfiguration::dataDirectory() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  if (!_dataDir) _dataDir = dataDirectoryPath();
  Ensure(*_dataDir, kProtectionClass, "-[QVGlobalConfiguration dataDirectory]",
         "Failed to create data dir at \"%@\": %@");
  return *_dataDir;
}

Path QVGlobalConfiguration::cachesDirectory() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  if (!_cachesDir) _cachesDir = _quorveldPath.childDirectory("Library/Caches");
  Ensure(*_cachesDir, QVNoProtectionClass, "-[QVGlobalConfiguration cachesDirectory]",
         "Failed to create data dir at \"%@\": %@");
  return *_cachesDir;
}

// Of the system image, so that they are neither created nor given a class. Remembered because they
// are asked for once for each bundle of a catalog.
Path QVGlobalConfiguration::_fixedDirectory(std::optional<Path>& member, const Path& base,
                                            const char* component) {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  if (!member) member = base.childDirectory(component);
  return *member;
}

Path QVGlobalConfiguration::coreServicesDirectory() noexcept {
  return _fixedDirectory(_coreServicesDir, _rootPath, "System/Library/CoreServices");
}

Path QVGlobalConfiguration::systemAppsDirectory() noexcept {
  return _fixedDirectory(_systemAppsDir, _rootPath, "Applications");
}

Path QVGlobalConfiguration::internalAppsDirectory() noexcept {
  return _fixedDirectory(_internalAppsDir, _rootPath, "VeltoInternal/Applications");
}

Path QVGlobalConfiguration::developerAppsDirectory() noexcept {
  return _fixedDirectory(_developerAppsDir, _rootPath, "Developer/Applications");
}

Path QVGlobalConfiguration::factoryMountDirectory() noexcept {
  return _fixedDirectory(_factoryMountDir, _rootPath, "private/var/factory_mount/");
}

Path QVGlobalConfiguration::systemFrameworksRootDirectory() noexcept {
  return _fixedDirectory(_systemFrameworksRootDirectory, _rootPath, "System/Library");
}

Path QVGlobalConfiguration::internalFrameworksRootDirectory() noexcept {
  return _fixedDirectory(_internalFrameworksRootDirectory, _rootPath, "VeltoInternal");
}

Path QVGlobalConfiguration::developerFrameworksRootDirectory() noexcept {
  return _fixedDirectory(_developerFrameworksRootDirectory, _rootPath, "Developer");
}

// Without the developer directory: what an attached image brings is not built in.
std::set<Path> QVGlobalConfiguration::allFrameworksDirectories() noexcept {
  const std::lock_guard<std::recursive_mutex> lock(_lock);
  if (!_allFrameworksDirectories) {
    _allFrameworksDirectories.emplace();
    for (const Path& root : {systemFrameworksRootDirectory(), internalFrameworksRootDirectory()}) {
      _allFrameworksDirectories->insert(root.childDirectory("Frameworks"));
      _allFrameworksDirectories->insert(root.childDirectory("PrivateFrameworks"));
    }
  }
  return *_allFrameworksDirectories;
}

}  // namespace quorvel
