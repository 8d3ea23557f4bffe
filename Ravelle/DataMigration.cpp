// What the user made: the data items of a container, the app groups' containers, safe harbors.
#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "Ravelle/Ravelle.h"
#include "Ravelle/RavelleAccount.h"
#include "Ravelle/RavelleLog.h"
#include "Ravelle/ReplaceItem.h"
#include "shared/support/Errors.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kData = "-[QVRavelle _migrateDataContainerForIdentifier:fromURL:toURL:]";
constexpr const char* kGroups = "-[QVRavelle _migrateGroupContainersForIdentifier:]";
constexpr const char* kOneGroup =
    "__50-[QVRavelle _migrateGroupContainersForIdentifier:]_block_invoke";
constexpr const char* kGroupItems =
    "-[QVRavelle _moveAllItemsInGroupContainerURL:toGroupContainerURL:]";
constexpr const char* kHarbors = "-[QVRavelle _migrateSafeHarbors]";

// The service's type of a data container that is kept for an app no longer there.
constexpr int kHarborContainerType = 2;

// The line in the log and the account's problem are told together, so that neither lacks what the
// other has.
void LogFailedDataMove(const Path& from, const Path& to, const std::string& identifier,
                       const Error& error) {
  RAVELLE_LOG(LogLevelError, kData, "QVRavelle: Failed to move %@ to %@ migrating for %@ : %@",
              from, to, identifier, error);
  TellProblem(MigrationStep::data, MigrationReason::notMoved, from, error);
}

enum class Presence { present, absent, unknown };

// An item that only could not be looked at must not be passed over: a placeholder's container is
// removed without a further look.
Presence LookAt(QVFileManager& files, const Path& item, Error* error) {
  struct stat info {};
  if (::lstat(item.fileSystemRepresentation().c_str(), &info) == 0) return Presence::present;
  const int number = errno;
  if (number == ENOENT) return Presence::absent;
  // What cannot be told is looked at once more, by the operation that logs why.
  if (files.itemExistsAtURL(item)) return Presence::present;
  SetError(error, _CreateError(kData, __LINE__, PosixErrorDomain, number, "stat of %@ failed: %s",
                               item, ErrnoDescription(number)));
  return Presence::unknown;
}

// The path of an entry of the harbor map; null, and logged, when the entry is damaged.
const std::string* HarborPathOf(const std::string& identifier, const PlistValue& entry) {
  if (entry.dictionary() == nullptr) {
    RAVELLE_LOG(LogLevelError, kHarbors, "QVRavelle: Failed to get harbor info for identifier %@",
                identifier);
    return nullptr;
  }
  const std::string* path = entry.dictionary()->findString(HarborPathKey);
  if (path == nullptr) {
    RAVELLE_LOG(LogLevelError, kHarbors,
                "QVRavelle: Failed to get harbor path from harbor entry for %@ : %@", identifier,
                entry);
  }
  return path;
}

// The directory stays where it is; the service takes it over by its path.
bool RegisterHarbor(const std::string& identifier, const std::string& path) {
  MigratedDirectory told{.identifier = identifier, .path = path};
  RAVELLE_LOG(LogLevelNotice, kHarbors, "QVRavelle: Migrating safe harbor for %@ at %@", identifier,
              path);
  const bool registered =
      QVPlatform().installationService->QuorvelRegisterSafeHarborForContainerType(
          path, identifier, kHarborContainerType, nullptr) != 0;
  if (!registered) {
    RAVELLE_LOG(LogLevelError, kHarbors,
                "QVRavelle: Failed to migrate safe harbor for identifier %@ at %@ : %@", identifier,
                path, nullptr);
    told.outcome = MigrationOutcome::failed;
    told.reason = MigrationReason::harborRefused;
  }
  Account().harborEnded(told);
  return registered;
}

}  // namespace

// In the order of the configuration's names, the first failure ending the step: what was moved
// stays moved, and a later run passes over it.
bool QVRavelle::_migrateDataContainerForIdentifier(const std::string& identifier, const Path& from,
                                                   const Path& to) {
  // An interrupted run may have copied a directory whole and been killed while removing it.
  if (AreOnDifferentFileSystems(from, to)) _files.removeRemainsOfMovesInDirectory(from);
  Error error;
  for (const std::string& name : _configuration.appUserDataItemNames()) {
    const Path source = from.child(name);
    const Path destination = to.child(name);
    const Presence presence = LookAt(_files, source, &error);
    if (presence == Presence::absent) continue;
    if (presence == Presence::unknown ||
        !ReplaceAndTellLoss(_files, source, destination, MigrationStep::data, &error)) {
      LogFailedDataMove(source, destination, identifier, error);
      return false;
    }
  }
  return true;
}

// Before a container goes without the registry having flushed anything: what this run or an earlier
// one moved must not come undone by a power cut. What is not there needs no flush.
bool QVRavelle::_storeMovedData(const std::string& identifier, const Path& from, const Path& to) {
  std::vector<Path> items;
  for (const Path& item : {from, to}) {
    if (!_files.itemDoesNotExistAtURL(item)) items.push_back(item);
  }
  Error error;
  if (_files.syncFileSystemsOfItems(items, &error)) return true;
  LogFailedDataMove(from, to, identifier, error);
  return false;
}

// A group belongs to several apps and goes with the first that lists it; for the others its entry
// is gone. Only what the registry cannot tell is the app's own failure.
bool QVRavelle::_migrateGroupContainersForIdentifier(const std::string& identifier) {
  if (!_groupContainerMap || _groupContainerMap->empty()) return true;
  const std::optional<BundleProxy> proxy =
      QVPlatform().workspace->bundleProxyForIdentifier(identifier);
  if (!proxy) {
    RAVELLE_LOG(LogLevelError, kGroups, "QVRavelle: Failed to get bundle proxy for %@", identifier);
    TellProblem(MigrationStep::groups, MigrationReason::noRecord, {});
    return false;
  }
  if (!proxy->groupContainerPaths) {
    RAVELLE_LOG(LogLevelError, kGroups,
                "QVRavelle: Failed to get group container URLs for installed %@", identifier);
    TellProblem(MigrationStep::groups, MigrationReason::groupsUnknown, {});
    return false;
  }
  if (proxy->groupContainerPaths->empty()) {
    RAVELLE_LOG(LogLevelNotice, kGroups, "QVRavelle: No group containers to migrate for %@",
                identifier);
    return true;
  }
  for (const auto& [group, newContainer] : *proxy->groupContainerPaths) {
    _migrateGroup(identifier, group, newContainer);
  }
  return true;
}

// One group of one app. Its failures are logged and never those of the app.
void QVRavelle::_migrateGroup(const std::string& identifier, const std::string& group,
                              const Path& newContainer) {
  _claimedGroups.insert(group);
  const auto entry = _groupContainerMap->find(group);
  if (entry == _groupContainerMap->end() || entry->second.dictionary() == nullptr) {
    RAVELLE_LOG(LogLevelNotice, kOneGroup,
                "QVRavelle: No group container entry to migrate for %@[%@]", identifier, group);
    if (entry != _groupContainerMap->end()) {
      Account().groupEnded({.identifier = group,
                            .outcome = MigrationOutcome::left,
                            .reason = MigrationReason::entryDamaged});
    }
    return;
  }
  const std::string* container = entry->second.dictionary()->findString(InstallMapContainerKey);
  if (container == nullptr) {
    RAVELLE_LOG(LogLevelNotice, kOneGroup,
                "QVRavelle: Failed to get path to group container for %@[%@]", identifier, group);
    Account().groupEnded({.identifier = group,
                          .outcome = MigrationOutcome::left,
                          .reason = MigrationReason::entryDamaged});
    return;
  }
  const Path oldContainer = Path::directory(*container);
  if (!_files.itemExistsAtURL(oldContainer)) {
    RAVELLE_LOG(LogLevelError, kOneGroup, "QVRavelle: Missing source group container at %@",
                oldContainer.string());
    Account().groupEnded({.identifier = group,
                          .path = oldContainer.string(),
                          .outcome = MigrationOutcome::left,
                          .reason = MigrationReason::notThere});
    return;
  }
  RAVELLE_LOG(LogLevelNotice, kOneGroup, "QVRavelle: Migrating group container %@ at %@ to %@",
              group, oldContainer.string(), newContainer.string());
  MigratedDirectory told{
      .identifier = group, .path = oldContainer.string(), .destination = newContainer.string()};
  bool allMoved = false;
  // What could not be moved is still in the old directory: it and its entry are kept.
  if (!_moveAllItemsInGroupContainerURL(oldContainer, newContainer, &allMoved) || !allMoved) {
    told.outcome = MigrationOutcome::failed;
    told.reason = MigrationReason::notMoved;
    Account().groupEnded(told);
    Account().leftBehind({oldContainer.string(), MigrationReason::notMoved});
    return;
  }
  // The entry goes before the directory: all items have arrived, and a directory that cannot be
  // removed has nothing left that another app would need.
  _groupContainerMap->erase(entry);
  if (!_files.removeItemAtURL(oldContainer, &told.error)) {
    RAVELLE_LOG(LogLevelError, kOneGroup,
                "QVRavelle: Failed to remove old group container at %@ : %@", oldContainer.string(),
                told.error);
    told.reason = MigrationReason::notRemoved;
    Account().leftBehind({oldContainer.string(), MigrationReason::notRemoved});
  }
  Account().groupEnded(told);
}

// Groups that the install map names and no migrated app has.
void QVRavelle::_tellUnclaimedGroups() {
  if (!_groupContainerMap || QVPlatform().account == nullptr) return;
  for (const auto& [group, record] : *_groupContainerMap) {
    if (_claimedGroups.contains(group)) continue;
    const std::string* path = record.dictionary() != nullptr
                                  ? record.dictionary()->findString(InstallMapContainerKey)
                                  : nullptr;
    MigratedDirectory told{.identifier = group,
                           .path = path != nullptr ? *path : std::string(),
                           .outcome = MigrationOutcome::left,
                           .reason = MigrationReason::unclaimed};
    if (path == nullptr) told.reason = MigrationReason::entryDamaged;
    const bool isThere = path != nullptr && _files.itemExistsAtURL(Path::directory(*path));
    if (path != nullptr && !isThere) told.reason = MigrationReason::notThere;
    Account().groupEnded(told);
    if (isThere) Account().leftBehind({*path, MigrationReason::unclaimed});
  }
}

bool QVRavelle::_moveAllItemsInGroupContainerURL(const Path& oldContainer, const Path& newContainer,
                                                 bool* allMoved) {
  *allMoved = false;
  Error error;
  std::optional<std::vector<Path>> items;
  if (IsGroupContainer(oldContainer, newContainer, _configuration, &error)) {
    items = _files.urlsForItemsInDirectoryAtURL(oldContainer, false, &error);
  }
  if (!items) {
    RAVELLE_LOG(LogLevelError, kGroupItems,
                "QVRavelle: Failed to get all urls in source group container %@ : %@",
                oldContainer.string(), error);
    TellNote(MigrationStep::groups, MigrationReason::cannotBeListed, oldContainer, error);
    return false;
  }
  bool everyItem = true;
  for (const Path& item : *items) {
    // Remains of an interrupted move were copied whole; they go with the old directory.
    if (QVFileManager::isRemainOfMove(item)) continue;
    const Path destination = newContainer.child(item.lastPathComponent());
    if (!ReplaceAndTellLoss(_files, item, destination, MigrationStep::groups, &error)) {
      RAVELLE_LOG(LogLevelError, kGroupItems, "QVRavelle: Failed to move item %@ to %@ : %@",
                  item.string(), destination.string(), error);
      TellNote(MigrationStep::groups, MigrationReason::notMoved, item, error);
      everyItem = false;
    }
  }
  if (everyItem && !_files.syncDirectoryAtURL(newContainer, &error)) {
    RAVELLE_LOG(LogLevelError, kGroupItems, "QVRavelle: Failed to move item %@ to %@ : %@",
                oldContainer.string(), newContainer.string(), error);
    TellNote(MigrationStep::groups, MigrationReason::notFlushed, newContainer, error);
    everyItem = false;
  }
  *allMoved = everyItem;
  return true;
}

// Registered again by a later run if the map stays: the service keeps one record for each
// identifier.
bool QVRavelle::_migrateSafeHarbors() {
  if (!_harborMap) return true;
  bool ok = true;
  for (std::size_t i = 0; i < _harborMap->foreignKeyCount(); ++i) {
    RAVELLE_LOG(LogLevelError, kHarbors,
                "QVRavelle: Identifier in harbor map was not string; skipping");
  }
  for (const auto& [identifier, entry] : *_harborMap) {
    if (const std::string* path = HarborPathOf(identifier, entry)) {
      if (!RegisterHarbor(identifier, *path)) ok = false;
    } else {
      Account().harborEnded({.identifier = identifier,
                             .outcome = MigrationOutcome::left,
                             .reason = MigrationReason::entryDamaged});
    }
  }
  if (ok) _files.removeItemAtURL(_configuration.oldDataDirectoryPath().child(HarborMapName));
  return ok;
}

}  // namespace quorvel
