// One container's sequence, and the check before its removal.
#include <algorithm>
#include <array>
#include <cerrno>

#include "Ravelle/Ravelle.h"
#include "Ravelle/RavelleLog.h"
#include "Ravelle/ReplaceItem.h"
#include "shared/support/Errors.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kMigrate = "-[QVRavelle _migrateContainerWithInfo:]";
constexpr const char* kMissed = "-[QVRavelle _containerHasMissedItems:withIdentifier:]";

// A record, with its strings as paths.
struct Container {
  Path legacy;
  Path bundle;
  std::optional<Path> second;
  std::string identifier;
  std::string type;
};

std::string StringOf(const ContainerRecord& record, const char* key) {
  const std::string* text = record.findString(key);
  return text != nullptr ? *text : std::string();
}

Container ReadRecord(const ContainerRecord& record) {
  Container container;
  container.legacy = Path::directory(StringOf(record, RecordContainerPathKey));
  container.bundle = Path::directory(StringOf(record, RecordBundlePathKey));
  if (const std::string* second = record.findString(RecordSecondBundlePathKey)) {
    container.second = Path::directory(*second);
  }
  container.identifier = StringOf(record, RecordBundleIdentifierKey);
  container.type = StringOf(record, RecordContainerTypeKey);
  return container;
}

void WriteMarker(const ContainerRecord& record, const Path& legacy) {
  if (!Platform().propertyLists->writeDictionary(record, legacy.child(MigrationMarkerName),
                                                 PropertyListFormat::xml, nullptr)) {
    RAVELLE_LOG(LogLevelError, kMigrate,
                "QVRavelle: Failed to write out container marker dictionary... hopefully we don't "
                "need it to recover.");
  }
}

// The six lines about a record that has no data container.
void LogProxyWithoutDataContainer(const BundleProxy& proxy, const std::string& identifier) {
  RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Failed to get data container URL for %@",
              identifier);
  RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Proxy had bundle identifier %@",
              proxy.bundleIdentifier);
  RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Proxy had bundle type %@", proxy.bundleType);
  RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Proxy had bundle URL %@", proxy.bundlePath);
  RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Proxy had bundle container URL %@",
              proxy.bundleContainerPath);
  RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Proxy %s have backing bundle",
              proxy.foundBackingBundle ? "did" : "did not");
}

std::optional<Path> FindDataContainer(const std::string& identifier) {
  const std::optional<BundleProxy> proxy =
      Platform().workspace->bundleProxyForIdentifier(identifier);
  if (!proxy) {
    RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Failed to get bundle proxy for identifier %@",
                identifier);
    return std::nullopt;
  }
  if (!proxy->dataContainerPath) LogProxyWithoutDataContainer(*proxy, identifier);
  return proxy->dataContainerPath;
}

// Makes sure that the registry knows the app.
bool RegisterApp(QVRavelle& plugin, const Container& container) {
  if (Platform().workspace->applicationIsInstalled(container.identifier)) {
    RAVELLE_LOG(LogLevelNotice, kMigrate,
                "QVRavelle: App %@ is already installed, so not creating placeholder.",
                container.identifier);
    return true;
  }
  return plugin._stageAndInstallPlaceholderForBundleAtURL(container.bundle, container.identifier,
                                                          container.legacy);
}

enum class Outcome { migrated, notInstalled, keptBack };

// From the bundle on: everything that a bundle which is itself a placeholder does not have.
Outcome InstallAndCheck(QVRavelle& plugin, const Container& container) {
  std::optional<std::string> secondPath;
  if (container.second) secondPath = container.second->string();
  RAVELLE_LOG(LogLevelNotice, kMigrate,
              "QVRavelle: Staging and installing app %@ at %@ (and secondary %@)",
              container.identifier, container.bundle.string(), secondPath);
  if (!plugin._stageAndInstallBundleAtURL(container.bundle, container.identifier, container.second,
                                          container.legacy)) {
    return Outcome::notInstalled;
  }
  if (!plugin._migrateGroupContainersForIdentifier(container.identifier)) {
    return Outcome::keptBack;
  }
  if (plugin._containerHasMissedItems(container.legacy, container.identifier)) {
    return Outcome::keptBack;
  }
  return Outcome::migrated;
}

// A marker is believed in all that it names, but not as far as to delete what is no container. What
// is gone already does no harm.
bool IsLegacyContainer(QVFileManager& files, const Path& legacy, const Path& legacyContainers,
                       Error* error) {
  if (LiesBelow(legacy, legacyContainers) || files.itemDoesNotExistAtURL(legacy)) return true;
  return SetError(error, _CreateError(kMigrate, __LINE__, PosixErrorDomain, EINVAL,
                                      "%@ does not lie in %@", legacy, legacyContainers));
}

// A placeholder's container loses its marker first: were the marker left over by a removal that
// fails halfway, the next run would look for a bundle to install that was none.
bool RemoveContainer(QVFileManager& files, const Path& legacy, bool isPlaceholder, Error* error) {
  if (isPlaceholder && !files.removeItemAtURL(legacy.child(MigrationMarkerName), error)) {
    return false;
  }
  return files.removeItemAtURL(legacy, error);
}

}  // namespace

bool QVRavelle::_migrateContainerWithInfo(const ContainerRecord& record) {
  const Container container = ReadRecord(record);
  // Before anything on disk changes: the bundle will be moved.
  const bool isPlaceholder = files_.bundleAtURLIsPlaceholder(container.bundle);
  WriteMarker(record, container.legacy);
  if (container.type == ContainerTypeApp && !RegisterApp(*this, container)) return false;
  const std::optional<Path> dataContainer = FindDataContainer(container.identifier);
  if (!dataContainer) return false;
  RAVELLE_LOG(LogLevelNotice, kMigrate, "QVRavelle: Moving data from container %@ to %@",
              container.legacy.string(), dataContainer->string());
  if (!_migrateDataContainerForIdentifier(container.identifier, container.legacy, *dataContainer)) {
    return false;
  }
  const Outcome outcome = isPlaceholder ? Outcome::migrated : InstallAndCheck(*this, container);
  if (outcome == Outcome::keptBack) return false;
  RAVELLE_LOG(LogLevelNotice, kMigrate, "QVRavelle: Removing container for %@ at %@",
              container.identifier, container.legacy.string());
  Error error;
  if (!IsLegacyContainer(files_, container.legacy, configuration_.oldContainerPath(), &error) ||
      !RemoveContainer(files_, container.legacy, isPlaceholder, &error)) {
    RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Failed to remove container %@ : %@",
                container.legacy.string(), error);
  }
  return outcome == Outcome::migrated;
}

bool QVRavelle::_containerHasMissedItems(const Path& container, const std::string& identifier) {
  Error error;
  auto items = files_.urlsForItemsInDirectoryAtURL(container, false, &error);
  if (!items) {
    RAVELLE_LOG(LogLevelError, kMissed, "QVRavelle: Failed to enumerate container %@ for %@ : %@",
                container.string(), identifier, error);
    return true;
  }
  std::erase_if(*items, [](const Path& item) {
    return std::find(NeverMissedNames.begin(), NeverMissedNames.end(), item.lastPathComponent()) !=
           NeverMissedNames.end();
  });
  if (items->empty()) return false;
  RAVELLE_LOG(LogLevelError, kMissed, "QVRavelle: Found missed items in %@ for %@: %@",
              container.string(), identifier, *items);
  return true;
}

}  // namespace quorvel
