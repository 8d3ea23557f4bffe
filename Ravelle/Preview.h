// What a migration would do, told without doing it.
#pragma once

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Ravelle/Classification.h"
#include "Ravelle/ContainerRecord.h"
#include "platform/MigrationPreview.h"
#include "platform/PlistValue.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/filemanager/QVFileManager.h"

namespace quorvel {

// Rests on the same classification and goes through the same steps in the same order as QVRavelle;
// of the registry it asks only what changes nothing. What a step would meet only when it acts (a
// full disk, a missing permission) it does not foresee.
class RavellePreview final : public MigrationPreview {
 public:
  explicit RavellePreview(
      const QVGlobalConfiguration& configuration = QVGlobalConfiguration::sharedInstance());
  bool preview(MigrationAccount& account, Error* error) override;

 private:
  struct WorkItem {
    std::size_t index;
    Path entry;
    Classification found;
  };
  // How far a container would get.
  struct Course {
    MigrationOutcome outcome = MigrationOutcome::migrated;
    bool stays = false;
  };

  std::deque<WorkItem> classify(const std::vector<Path>& items);
  void lookAt(WorkItem item, std::deque<WorkItem>& workList);
  Course follow(const WorkItem& item);
  Course stop(MigrationStep step, MigrationReason reason, const Path& path, Error error = {});
  bool takesPlaceholder(const RecordFields& fields);
  bool registers(const RecordFields& fields);
  bool installs(const RecordFields& fields);
  bool isInstalled(const std::string& identifier);
  bool takes(const RecordFields& fields, const std::vector<Path>& package);
  bool isOfAnotherKind(const std::string& identifier, const Path& bundle);
  std::vector<std::string> missedItems(const WorkItem& item, const RecordFields& fields);
  Course remove(const WorkItem& item, const RecordFields& fields, bool installed);
  void noteGroups(const RecordFields& fields);
  MigratedDirectory foreseeGroup(const PlistEntry& entry);
  bool willBeThere(const Path& path);
  void tellGroups();
  void tellHarbors();
  void tellLinks(const Path& legacy);

  const QVGlobalConfiguration& configuration_;
  QVFileManager& files_;
  MigrationAccount* account_ = nullptr;
  // What containers that come earlier install: identifier to the bundle's extension.
  std::map<std::string, std::string> installed_;
  std::set<std::string> installedWhole_;  // those that are more than placeholders
  std::set<std::string> gone_;            // the entries that will not be there at the end
  std::set<std::string> claimedGroups_;
};

}  // namespace quorvel
