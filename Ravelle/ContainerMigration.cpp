// One container's sequence, and the check before its removal.
#include <algorithm>
#include <array>
#include <cerrno>

#include "Ravelle/Ravelle.h"
#include "Ravelle/RavelleAccount.h"
#include "Ravelle/RavelleLog.h"
#include "Ravelle/ReplaceItem.h"
#include "shared/support/Errors.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kMigrate = "-[QVRavelle _migrateContainerWithInfo:]";
constexpr const char* kMissed = "-[QVRavelle _containerHasMissedItems:withIdentifier:]";

// The marker is what an interrupted run is resumed from, once the bundle has left its place.
// Without one the sequence still goes on: most likely nobody will need it.
void WriteMarker(const ContainerRecord& record, const Path& legacy) {
  const Path marker = legacy.child(MigrationMarkerName);
  Error error;
  if (QVPlatform().propertyLists->writeDictionary(record, marker, PropertyListFormat::xml,
                                                  &error)) {
    return;
  }
  RAVELLE_LOG(LogLevelError, kMigrate,
              "QVRavelle: Failed to write out container marker dictionary... hopefully we don't "
              "need it to recover.");
  TellNote(MigrationStep::marker, MigrationReason::markerNotWritten, marker, error);
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

// A record without a data container stops the container before anything of it is moved.
std::optional<Path> FindDataContainer(const std::string& identifier) {
  const std::optional<BundleProxy> proxy =
      QVPlatform().workspace->bundleProxyForIdentifier(identifier);
  if (!proxy) {
    RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Failed to get bundle proxy for identifier %@",
                identifier);
    TellProblem(MigrationStep::placeholder, MigrationReason::noRecord, {});
    return std::nullopt;
  }
  if (proxy->dataContainerPath) {
    Account().dataContainerFound(proxy->dataContainerPath->string());
  } else {
    LogProxyWithoutDataContainer(*proxy, identifier);
    TellProblem(MigrationStep::placeholder, MigrationReason::noDataContainer, {});
  }
  return proxy->dataContainerPath;
}

// Makes sure that the registry knows the app.
bool RegisterApp(QVRavelle& plugin, const RecordFields& fields) {
  if (QVPlatform().workspace->applicationIsInstalled(fields.identifier)) {
    RAVELLE_LOG(LogLevelNotice, kMigrate,
                "QVRavelle: App %@ is already installed, so not creating placeholder.",
                fields.identifier);
    return true;
  }
  return plugin._stageAndInstallPlaceholderForBundleAtURL(fields.bundle, fields.identifier,
                                                          fields.container);
}

enum class Outcome { migrated, notInstalled, keptBack };

// From the bundle on: everything that a bundle which is itself a placeholder does not have.
Outcome InstallAndCheck(QVRavelle& plugin, const RecordFields& fields) {
  std::optional<std::string> secondPath;
  if (fields.secondBundle) secondPath = fields.secondBundle->string();
  RAVELLE_LOG(LogLevelNotice, kMigrate,
              "QVRavelle: Staging and installing app %@ at %@ (and secondary %@)",
              fields.identifier, fields.bundle.string(), secondPath);
  if (!plugin._stageAndInstallBundleAtURL(fields.bundle, fields.identifier, fields.secondBundle,
                                          fields.container)) {
    return Outcome::notInstalled;
  }
  const bool complete =
      InStep(MigrationStep::groups,
             [&] { return plugin._migrateGroupContainersForIdentifier(fields.identifier); }) &&
      InStep(MigrationStep::missedItems,
             [&] { return !plugin._containerHasMissedItems(fields.container, fields.identifier); });
  return complete ? Outcome::migrated : Outcome::keptBack;
}

// A marker is believed in all that it names, but not as far as to delete what is no container. What
// is gone already does no harm.
bool IsLegacyContainer(QVFileManager& files, const Path& legacy, const Path& legacyContainers,
                       Error* error) {
  if (LiesBelow(legacy, legacyContainers) || files.itemDoesNotExistAtURL(legacy)) return true;
  return SetError(error, _CreateError(kMigrate, __LINE__, PosixErrorDomain, EINVAL,
                                      "%@ does not lie in %@", legacy, legacyContainers));
}

bool RemoveContainer(QVFileManager& files, const RecordFields& fields, bool isPlaceholder,
                     bool installed, Error* error) {
  // Only a container that was looked through to its end holds nothing that would be lost.
  if (installed && !isPlaceholder) return files.removeItemAtURL(fields.container, error);
  std::vector<Path> except;
  if (isPlaceholder) except.push_back(fields.bundle);
  return RemoveAndTellLoss(files, fields.container, except, error);
}

}  // namespace

// The sequence of one container. Data goes before the bundle, so that whatever fails later has lost
// no document; the container goes last, and stays where something in it is not accounted for.
bool QVRavelle::_migrateContainerWithInfo(const ContainerRecord& record) {
  const RecordFields fields = FieldsOf(record);
  // Before anything on disk changes: the bundle will be moved.
  const bool isPlaceholder = _files.bundleAtURLIsPlaceholder(fields.bundle);
  WriteMarker(record, fields.container);
  const std::optional<Path> dataContainer =
      InStep(MigrationStep::placeholder, [&]() -> std::optional<Path> {
        if (fields.isApp() && !RegisterApp(*this, fields)) return std::nullopt;
        return FindDataContainer(fields.identifier);
      });
  if (!dataContainer) return false;
  RAVELLE_LOG(LogLevelNotice, kMigrate, "QVRavelle: Moving data from container %@ to %@",
              fields.container.string(), dataContainer->string());
  bool flushed = false;
  const bool dataMoved = InStep(MigrationStep::data, [&] {
    return _migrateDataContainerForIdentifier(fields.identifier, fields.container, *dataContainer,
                                              &flushed);
  });
  if (!dataMoved) return false;
  // Without data nothing has stored the marker's name yet, which must outlive the bundle's place. A
  // failure shows again when the bundle is staged there.
  if (!flushed && !isPlaceholder) _files.syncDirectoryAtURL(fields.container);
  const Outcome outcome = isPlaceholder ? Outcome::migrated : InstallAndCheck(*this, fields);
  if (outcome == Outcome::keptBack) return false;
  RAVELLE_LOG(LogLevelNotice, kMigrate, "QVRavelle: Removing container for %@ at %@",
              fields.identifier, fields.container.string());
  Error error;
  const bool removed = InStep(MigrationStep::removal, [&] {
    return IsLegacyContainer(_files, fields.container, _configuration.oldContainerPath(), &error) &&
           RemoveContainer(_files, fields, isPlaceholder, outcome == Outcome::migrated, &error);
  });
  if (!removed) {
    TellProblem(MigrationStep::removal, MigrationReason::notRemoved, fields.container, error);
    RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Failed to remove container %@ : %@",
                fields.container.string(), error);
  }
  return outcome == Outcome::migrated;
}

// The last look before a removal. A directory that cannot be listed may hold anything.
bool QVRavelle::_containerHasMissedItems(const Path& container, const std::string& identifier) {
  Error error;
  auto items = _files.urlsForItemsInDirectoryAtURL(container, false, &error);
  if (!items) {
    RAVELLE_LOG(LogLevelError, kMissed, "QVRavelle: Failed to enumerate container %@ for %@ : %@",
                container.string(), identifier, error);
    TellProblem(MigrationStep::missedItems, MigrationReason::cannotBeListed, container, error);
    return true;
  }
  std::erase_if(*items, [](const Path& item) {
    return std::find(NeverMissedNames.begin(), NeverMissedNames.end(), item.lastPathComponent()) !=
           NeverMissedNames.end();
  });
  if (items->empty()) return false;
  RAVELLE_LOG(LogLevelError, kMissed, "QVRavelle: Found missed items in %@ for %@: %@",
              container.string(), identifier, *items);
  MigrationProblem problem{.step = MigrationStep::missedItems,
                           .reason = MigrationReason::missedItems,
                           .path = container.string()};
  for (const Path& item : *items) problem.items.emplace_back(item.lastPathComponent());
  Account().problem(problem);
  return true;
}

}  // namespace quorvel
