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

void TellMarkerNotWritten(const Path& marker, const Error& error) {
  RAVELLE_LOG(LogLevelError, kMigrate,
              "QVRavelle: Failed to write out container marker dictionary... hopefully we don't "
              "need it to recover.");
  TellNote(MigrationStep::marker, MigrationReason::markerNotWritten, marker, error);
}

// The marker is what an interrupted run is resumed from, once the bundle has left its place.
// Without one the sequence still goes on: most likely nobody will need it.
//
// A new one needs no flush of its own: while a power cut may still undo it or leave it empty, the
// bundle is in its place and says the same. One that was there already may be the only thing that
// tells of a staged bundle, and is never without its content.
bool WriteMarker(QVFileManager& files, const ContainerRecord& record, const Path& marker) {
  PropertyListStore& lists = *QVPlatform().propertyLists;
  constexpr PropertyListFormat format = PropertyListFormat::xml;
  Error error;
  const bool written = files.itemDoesNotExistAtURL(marker)
                           ? lists.writeDictionaryBeforeFlush(record, marker, format, &error)
                           : lists.writeDictionary(record, marker, format, &error);
  if (!written) TellMarkerNotWritten(marker, error);
  return written;
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

// Brings the marker to stable storage, before the bundle is staged: from then on nothing else tells
// what the container was.
void StoreMarker(QVFileManager& files, const Path& container) {
  Error error;
  if (files.syncFileSystemsOfItems({container}, &error)) return;
  if (error.is(PosixErrorDomain, ENOENT)) return;  // the whole container is gone
  TellMarkerNotWritten(container.child(MigrationMarkerName), error);
}

// Makes sure that the registry knows the app. *flushed is set where that took an installation.
bool RegisterApp(QVRavelle& plugin, const RecordFields& fields, bool* flushed) {
  if (QVPlatform().workspace->applicationIsInstalled(fields.identifier)) {
    RAVELLE_LOG(LogLevelNotice, kMigrate,
                "QVRavelle: App %@ is already installed, so not creating placeholder.",
                fields.identifier);
    return true;
  }
  *flushed = plugin._stageAndInstallPlaceholderForBundleAtURL(fields.bundle, fields.identifier,
                                                              fields.container);
  return *flushed;
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

}  // namespace

// The sequence of one container. Data goes before the bundle, so that whatever fails later has lost
// no document; the container goes last, and stays where something in it is not accounted for.
bool QVRavelle::_migrateContainerWithInfo(const ContainerRecord& record) {
  const RecordFields fields = FieldsOf(record);
  // Before anything on disk changes: the bundle will be moved.
  const bool isPlaceholder = _files.bundleAtURLIsPlaceholder(fields.bundle);
  InStep(MigrationStep::marker,
         [&] { return WriteMarker(_files, record, fields.container.child(MigrationMarkerName)); });
  bool flushed = false;
  const std::optional<Path> dataContainer =
      InStep(MigrationStep::placeholder, [&]() -> std::optional<Path> {
        if (fields.isApp() && !RegisterApp(*this, fields, &flushed)) return std::nullopt;
        return FindDataContainer(fields.identifier);
      });
  if (!dataContainer) return false;
  RAVELLE_LOG(LogLevelNotice, kMigrate, "QVRavelle: Moving data from container %@ to %@",
              fields.container.string(), dataContainer->string());
  // The registry has flushed what it worked on, which usually is all there is.
  if (!flushed || AreOnDifferentFileSystems(fields.container, *dataContainer)) {
    StoreMarker(_files, fields.container);
  }
  const bool dataMoved = InStep(MigrationStep::data, [&] {
    return _migrateDataContainerForIdentifier(fields.identifier, fields.container, *dataContainer);
  });
  if (!dataMoved) return false;
  const Outcome outcome = isPlaceholder ? Outcome::migrated : InstallAndCheck(*this, fields);
  if (outcome == Outcome::keptBack) return false;
  const bool isWhole = !isPlaceholder && outcome == Outcome::migrated;
  // With an installed bundle the registry has flushed the data too.
  if (!isWhole && !_storeMovedData(fields.identifier, fields.container, *dataContainer)) {
    return false;
  }
  std::vector<Path> except;
  if (isPlaceholder) except.push_back(fields.bundle);
  RAVELLE_LOG(LogLevelNotice, kMigrate, "QVRavelle: Removing container for %@ at %@",
              fields.identifier, fields.container.string());
  _removeContainer(fields.container, isWhole ? nullptr : &except);
  return outcome == Outcome::migrated;
}

// `except` is what of the container is no loss; null when it was looked through to its end and
// holds nothing that would be lost. A failure changes nothing for the app, which has its data.
void QVRavelle::_removeContainer(const Path& container, const std::vector<Path>* except) {
  Error error;
  const bool removed = InStep(MigrationStep::removal, [&] {
    if (!IsLegacyContainer(_files, container, _configuration.oldContainerPath(), &error)) {
      return false;
    }
    return except == nullptr ? _files.removeItemAtURL(container, &error)
                             : RemoveAndTellLoss(_files, container, *except, &error);
  });
  if (removed) return;
  TellProblem(MigrationStep::removal, MigrationReason::notRemoved, container, error);
  RAVELLE_LOG(LogLevelError, kMigrate, "QVRavelle: Failed to remove container %@ : %@",
              container.string(), error);
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
