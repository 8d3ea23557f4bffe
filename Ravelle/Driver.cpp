// The host's protocol: what there is to migrate, the loop over it, and the closing steps.
#include <sys/stat.h>

#include <cerrno>
#include <unordered_set>

#include "Ravelle/NeededServices.h"
#include "Ravelle/Ravelle.h"
#include "Ravelle/RavelleAccount.h"
#include "Ravelle/RavelleLog.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kInit = "-[QVRavelle init]";
constexpr const char* kPerform = "-[QVRavelle performMigration]";

// The host's unit, per plug-in and per container.
constexpr float kBaseDuration = 20.0F;
constexpr float kDurationPerItem = 2.25F;

}  // namespace

QVRavelle::QVRavelle(const QVGlobalConfiguration& configuration)
    : _configuration(configuration), _files(QVFileManager::defaultManager()) {}

// Order matters: a directory that cannot be listed ends the run before any map is read, and an
// empty one takes the install map with it, which therefore is loaded only when there are entries.
MigratorPlugin* QVRavelle::init() {
  if (MigratorPlugin::init() == nullptr) return nullptr;
  if (const char* service = MissingService()) {
    RAVELLE_LOG(LogLevelError, kInit, "QVRavelle: No %s is among the platform's services", service);
    return nullptr;
  }
  const Path legacy = _configuration.oldContainerPath();
  if (!_files.itemDoesNotExistAtURL(legacy)) {
    Error error;
    _itemsToMigrate = _files.urlsForItemsInDirectoryAtURL(legacy, true, &error);
    if (!_itemsToMigrate) {
      TellProblem(MigrationStep::run, MigrationReason::cannotBeListed, legacy, error);
      RAVELLE_LOG(LogLevelError, kInit, "QVRavelle: Failed to get items at %@ : %@", legacy, error);
      return nullptr;
    }
    if (_itemsToMigrate->empty()) {
      if (Selection() == nullptr) _removeEmptyLegacyDirectory();
      _itemsToMigrate.reset();
    } else {
      RAVELLE_LOG(LogLevelNotice, kInit, "QVRavelle: %ld items to migrate",
                  static_cast<long>(_itemsToMigrate->size()));
      Account().itemsFound(_itemsToMigrate->size());
      _loadInstallMap();
    }
  }
  _loadHarborMap();
  return this;
}

// What an earlier run finished but was killed before it could take away. Neither failure stops the
// run: the closing steps meet the same directory again.
void QVRavelle::_removeEmptyLegacyDirectory() {
  const Path legacy = _configuration.oldContainerPath();
  if (!_files.removeItemAtURL(legacy)) {
    RAVELLE_LOG(LogLevelError, kInit, "QVRavelle: Failed to remove %@", legacy.string());
  }
  const Path installMap = _configuration.oldInstallMapPath();
  Error error;
  if (!_files.removeItemAtURL(installMap, &error)) {
    RAVELLE_LOG(LogLevelError, kInit, "QVRavelle: Failed to remove %@ : %@", installMap.string(),
                error);
  }
}

// A map that is missing or damaged means that no group is known, and the apps are migrated all the
// same. One that could not be read is remembered: it must not be removed at the end.
void QVRavelle::_loadInstallMap() {
  const Path file = _configuration.oldInstallMapPath();
  Error error;
  const auto map = QVPlatform().propertyLists->readDictionary(file, &error);
  if (!map) {
    if (!error.is(PosixErrorDomain, ENOENT)) {
      TellNote(MigrationStep::run, MigrationReason::mapUnreadable, file, error);
    }
    if (!IsCertainlyUnusable(error)) _installMapFailure = error;
    RAVELLE_LOG(LogLevelNotice, kInit, "QVRavelle: Old install map not found at %@", file.string());
    return;
  }
  _installMap = std::move(*map);
  const PlistValue* groups = _installMap->find(InstallMapGroupsKey);
  if (groups == nullptr || groups->dictionary() == nullptr) {
    RAVELLE_LOG(LogLevelNotice, kInit, "QVRavelle: No group container map found in install map");
    return;
  }
  // A copy of its own, from which each moved group goes; hinted, since the entries come in order.
  _groupContainerMap.emplace();
  for (const PlistEntry& entry : *groups->dictionary()) {
    _groupContainerMap->emplace_hint(_groupContainerMap->end(), entry.key, entry.value);
  }
}

// Nothing else rests on the harbor map: a damaged one costs the harbors and stays where it is.
void QVRavelle::_loadHarborMap() {
  const Path file = _configuration.oldDataDirectoryPath().child(HarborMapName);
  if (_files.itemDoesNotExistAtURL(file)) return;
  Error error;
  const auto map = QVPlatform().propertyLists->readDictionary(file, &error);
  if (map) {
    _harborMap = std::move(*map);
  } else {
    TellNote(MigrationStep::run, MigrationReason::mapUnreadable, file, error);
    RAVELLE_LOG(LogLevelError, kInit, "QVRavelle: Failed to load existing harbor map from %@",
                file.string());
  }
}

const char* QVRavelle::dataClassName() const { return "QVRavelle"; }

float QVRavelle::estimatedDuration() const {
  if (!_itemsToMigrate) return kBaseDuration;
  return kBaseDuration + kDurationPerItem * static_cast<float>(_itemsToMigrate->size());
}

// Half done, when there is nothing to do, and -1 for a list without entries, are what the host
// expects. Relaxed: the number stands for itself, nothing is read on its account.
float QVRavelle::migrationProgress() const {
  if (!_itemsToMigrate) return 0.5F;
  if (_itemsToMigrate->empty()) return -1.0F;
  const std::uint64_t done = _countItemsMigrated.load(std::memory_order_relaxed);
  return static_cast<float>(done) / static_cast<float>(_itemsToMigrate->size());
}

// Each part is tried whatever became of the others. The legacy directory comes last: by then it
// must be empty.
bool QVRavelle::performMigration() {
  if (const MigrationSelection* selection = Selection()) {
    return !_itemsToMigrate || _migrateChosen(*selection);
  }
  bool result = true;
  if (_itemsToMigrate) result = _migrateRecords(_buildWorkList());
  _tellUnclaimedGroups();
  const bool harborsMigrated = _migrateSafeHarbors();
  const PlistDictionary options = {{kQVUpdateSystemAppDataContainerDataProtection, true}};
  if (QVPlatform().installationService->QuorvelUpdateContainerDataProtectionForMigratorOnly(
          options) == 0) {
    RAVELLE_LOG(LogLevelError, kPerform, "QVRavelle: Failed to update container data protection");
    TellProblem(MigrationStep::run, MigrationReason::protectionRefused, {});
    result = false;
  }
  if (!harborsMigrated) result = false;
  if (!_finishLegacyDirectory()) result = false;
  if (!result) {
    RAVELLE_LOG(LogLevelError, kPerform,
                "QVRavelle: Returning migration failed. Please include the contents of "
                "/var/mobile/Library/Logs/Quorvel and /var/Mobile/Library/Logs/Corvenna in a bug "
                "report.");
  }
  return result;
}

// All entries are looked at before the first is migrated: apps go before plug-ins, which may belong
// to one of them and then find its record. What is removed here is counted here.
std::deque<QVRavelle::WorkItem> QVRavelle::_buildWorkList() {
  std::deque<WorkItem> workList;
  for (std::size_t index = 0; index < _itemsToMigrate->size(); ++index) {
    const Path& item = (*_itemsToMigrate)[index];
    // First, so that all the lines about a container are written while it is at work.
    Account().containerBegan(index, item.string());
    RAVELLE_LOG(LogLevelNotice, kPerform, "QVRavelle: Introspecting %@", item.string());
    if (IsFarewell(item)) {
      Account().containerClassified({.kind = LegacyItemKind::file});
      TellProblem(MigrationStep::introspect, MigrationReason::farewellFile, item);
      RemoveWithAccount(_files, item);
      _countItem();
      continue;
    }
    if (!_addToWorkList(index, workList)) _countItem();
  }
  return workList;
}

// False when there is nothing to migrate; the entry has ended then.
bool QVRavelle::_addToWorkList(std::size_t index, std::deque<WorkItem>& workList) {
  const Path& item = (*_itemsToMigrate)[index];
  bool early = false;
  std::optional<ContainerRecord> record =
      InStep(MigrationStep::introspect, [&] { return _introspectContainer(item, &early); });
  if (!record) return false;
  if (early) {
    workList.push_front({index, std::move(*record)});
  } else {
    workList.push_back({index, std::move(*record)});
  }
  return true;
}

// Each record goes when it is done with: of ten thousand they are most of what the run remembers.
bool QVRavelle::_migrateRecords(std::deque<WorkItem> workList) {
  bool allMigrated = true;
  for (; !workList.empty(); workList.pop_front()) {
    const auto& [index, record] = workList.front();
    const RecordFields fields = FieldsOf(record);
    const std::string& bundle = fields.bundle.string();
    const Path& entry = (*_itemsToMigrate)[index];
    Account().containerBegan(index, entry.string());
    RAVELLE_LOG(LogLevelNotice, kPerform, "QVRavelle: Migrating %@ at %@", fields.identifier,
                bundle);
    const bool migrated = _migrateContainerWithInfo(record);
    if (!migrated) {
      RAVELLE_LOG(LogLevelError, kPerform, "QVRavelle: Migration of %@ at %@ failed",
                  fields.identifier, bundle);
      allMigrated = false;
    }
    _endContainer(entry, fields, migrated);
    _countItem();
  }
  return allMigrated;
}

// A container that is still there has not been migrated, whatever the sequence says: the run will
// fail on its account.
void QVRavelle::_endContainer(const Path& entry, const RecordFields& fields, bool migrated) {
  if (QVPlatform().account == nullptr) return;
  const bool stays = !_files.itemDoesNotExistAtURL(entry);
  if (migrated && stays && entry.string() != fields.container.string()) {
    TellProblem(MigrationStep::removal, MigrationReason::foreignMarker, fields.container);
  }
  Account().containerEnded(
      migrated && !stays ? MigrationOutcome::migrated : MigrationOutcome::failed, stays);
}

// Of what is left: that which was no entry to begin with. Links are not, and something may have
// been added meanwhile.
void QVRavelle::_tellRemaining(const std::vector<Path>& remaining) {
  if (QVPlatform().account == nullptr) return;
  std::unordered_set<std::string_view> entries;
  if (_itemsToMigrate) {
    for (const Path& item : *_itemsToMigrate) entries.insert(item.lastPathComponent());
  }
  for (const Path& item : remaining) {
    if (entries.contains(item.lastPathComponent())) continue;
    struct stat info {};
    const bool isLink =
        ::lstat(item.fileSystemRepresentation().c_str(), &info) == 0 && S_ISLNK(info.st_mode);
    Account().leftBehind(
        {item.string(), isLink ? MigrationReason::link : MigrationReason::unclaimed});
  }
}

// Removes the legacy directory and install map once nothing is left in the directory. False when
// something is left; what cannot be determined or removed is only logged.
bool QVRavelle::_finishLegacyDirectory() {
  const Path legacy = _configuration.oldContainerPath();
  const Path installMap = _configuration.oldInstallMapPath();
  Error error;
  const auto remaining = _files.urlsForItemsInDirectoryAtURL(legacy, false, &error);
  if (!remaining) {
    if (!error.is(PosixErrorDomain, ENOENT)) {
      RAVELLE_LOG(LogLevelError, kPerform,
                  "QVRavelle: Failed to determine if any items were remaining to migrate: %@",
                  error);
    }
    return true;
  }
  if (!remaining->empty()) {
    RAVELLE_LOG(LogLevelError, kPerform,
                "QVRavelle: Not removing %@ because %lu items remain unmigrated.",
                installMap.string(), static_cast<unsigned long>(remaining->size()));
    _tellRemaining(*remaining);
    return false;
  }
  const auto remove = [&](const Path& item) {
    if (_files.removeItemAtURL(item, &error)) return;
    RAVELLE_LOG(LogLevelError, kPerform, "QVRavelle: Failed to remove %@ : %@", item.string(),
                error);
  };
  remove(legacy);
  if (!_installMapFailure) {
    remove(installMap);
    return true;
  }
  // What could not be read may name groups that nobody else knows of.
  RAVELLE_LOG(LogLevelError, kPerform, "QVRavelle: Failed to remove %@ : %@", installMap.string(),
              *_installMapFailure);
  Account().leftBehind({installMap.string(), MigrationReason::mapUnreadable});
  return true;
}

}  // namespace quorvel
