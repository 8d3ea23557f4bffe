// The app-migration plug-in: carries every app from the legacy layout into the current one.
//
// One container's road: init() lists the legacy applications directory; performMigration() turns
// each entry into a ContainerRecord (_introspectContainer) and takes each record through
// _migrateContainerWithInfo: marker, placeholder, data, bundle, groups, missed items, removal.
// The steps return booleans and log to the host; none hands back an Error. Everything runs on the
// host's calling thread; only migrationProgress() may be called from another one meanwhile.
//
// Safe against being killed anywhere: each step, repeated, passes over what it had done, and the
// marker in the container keeps the record of what the container was.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Ravelle/ContainerRecord.h"
#include "platform/DeviceNames.h"
#include "platform/MigrationHost.h"
#include "platform/Path.h"
#include "platform/PlistValue.h"
#include "platform/Services.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/filemanager/QVFileManager.h"

namespace quorvel {

struct PendingLine;

class QVRavelle final : public MigratorPlugin {
 public:
  // Takes paths from the configuration, which must outlive it; the services from QVPlatform().
  explicit QVRavelle(
      const QVGlobalConfiguration& configuration = QVGlobalConfiguration::sharedInstance());

  // --- The host's protocol ------------------------------------------------------------------

  // Null when the legacy applications directory exists but cannot be listed, or when the platform
  // lacks a service that a migration needs.
  MigratorPlugin* init() override;
  const char* dataClassName() const override;
  float estimatedDuration() const override;
  bool performMigration() override;
  float migrationProgress() const override;

  // --- One container ------------------------------------------------------------------------

  // The record of a legacy container, or none when there is nothing to migrate: it was removed (a
  // regular file, certainly no usable bundle) or must be left alone. Carries out what
  // Classification.h decides. Sets *orderResultEarly, preset to
  // false by the caller, when the record belongs at the front of the work list.
  std::optional<ContainerRecord> _introspectContainer(const Path& container,
                                                      bool* orderResultEarly);
  // The identifier in the bundle's info dictionary. Absent with the Error of the one attempt to
  // read it.
  static std::optional<std::string> _bundleIdentifierForBundle(const Path& bundle, Error* error);
  // The marker's whole dictionary. Absent with an Error when it cannot be loaded, or lacks a
  // required string (PlatformPropertyListReadCorruptError); the line that says so is added.
  static std::optional<ContainerRecord> _loadAndValidateMigrationMarkerAtURL(
      const Path& marker, std::vector<PendingLine>* lines, Error* error);

  // Takes the container through the whole sequence. False when it stopped at a failure; the
  // container is then kept with its marker, unless only its bundle could not be installed.
  bool _migrateContainerWithInfo(const ContainerRecord& record);

  // Moves the user data items; stops at the first that cannot be moved. Nothing is flushed: within
  // one file system a move is a rename, and one to another brings its copy to stable storage
  // itself.
  bool _migrateDataContainerForIdentifier(const std::string& identifier, const Path& from,
                                          const Path& to);
  // Stages the bundle (and plug-in, unless absent) with its store metadata and has the registry
  // install it. True also when a newer copy is built in.
  bool _stageAndInstallBundleAtURL(const Path& bundle, const std::string& identifier,
                                   const std::optional<Path>& vpnPlugin, const Path& container);
  // Has the registry install a bundle made of the app's identity and icon alone.
  bool _stageAndInstallPlaceholderForBundleAtURL(const Path& bundle, const std::string& identifier,
                                                 const Path& container);
  bool _writeIconForBundle(PKBundle& bundle, const Path& destination);
  // False only when the registry cannot say which group containers the app has.
  bool _migrateGroupContainersForIdentifier(const std::string& identifier);
  // False when the old directory cannot be listed. *allMoved tells whether every item was moved
  // and the moves are on stable storage.
  bool _moveAllItemsInGroupContainerURL(const Path& oldContainer, const Path& newContainer,
                                        bool* allMoved);
  // True when something of value is left in the container, or it cannot be listed.
  bool _containerHasMissedItems(const Path& container, const std::string& identifier);

  // Registers every entry of the harbor map; the map goes when none failed.
  bool _migrateSafeHarbors();

 private:
  void _removeEmptyLegacyDirectory();
  void _loadInstallMap();
  void _loadHarborMap();
  // A record, and which of the entries it is of.
  struct WorkItem {
    std::size_t index;
    ContainerRecord record;
  };
  std::deque<WorkItem> _buildWorkList();
  bool _addToWorkList(std::size_t index, std::deque<WorkItem>& workList);
  bool _migrateChosen(const MigrationSelection& selection);
  bool _migrateRecords(std::deque<WorkItem> workList);
  bool _storeMovedData(const std::string& identifier, const Path& from, const Path& to);
  void _removeContainer(const Path& container, const std::vector<Path>* except);
  void _endContainer(const Path& entry, const RecordFields& fields, bool migrated);
  void _tellUnclaimedGroups();
  void _tellRemaining(const std::vector<Path>& remaining);
  bool _finishLegacyDirectory();
  void _countItem() { _countItemsMigrated.fetch_add(1, std::memory_order_relaxed); }
  void _migrateGroup(const std::string& identifier, const std::string& group,
                     const Path& newContainer);

  // Number of entries of the legacy applications directory that are finished with.
  std::atomic<std::uint64_t> _countItemsMigrated{0};
  // Those entries; none when there is no legacy directory.
  std::optional<std::vector<Path>> _itemsToMigrate;
  std::optional<PlistDictionary> _installMap;
  // Why it is not known what the install map holds; none when it was read, is not there or is
  // certain to be damaged.
  std::optional<Error> _installMapFailure;
  std::optional<PlistDictionary> _harborMap;
  // Group identifier to legacy record; an entry goes when its group was moved. A map of its own,
  // because a dictionary loses entries in linear time.
  std::optional<std::map<std::string, PlistValue, std::less<>>> _groupContainerMap;

  // Groups that some migrated app has.
  std::set<std::string> _claimedGroups;

  const QVGlobalConfiguration& _configuration;
  QVFileManager& _files;
};

}  // namespace quorvel
