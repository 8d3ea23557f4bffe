// What a migration would do, told without doing it.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Ravelle/Classification.h"
#include "Ravelle/ContainerRecord.h"
#include "Ravelle/ForeseenTree.h"
#include "platform/MigrationPreview.h"
#include "platform/PlistValue.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/filemanager/QVFileManager.h"

namespace quorvel {

// Rests on the same classification and goes through the same steps in the same order as QVRavelle;
// of the registry it asks only what changes nothing. It knows what the process may do and what
// earlier containers leave. What only an attempt shows (a full disk) it does not foresee, and a
// directory that may not be read counts as not empty.
class RavellePreview final : public MigrationPreview {
 public:
  explicit RavellePreview(
      const QVGlobalConfiguration& configuration = QVGlobalConfiguration::sharedInstance());
  // Tells the account everything in the order in which a migration would. False with the Error when
  // the legacy directory cannot be listed. May be called again; one thread.
  bool preview(MigrationAccount& account, Error* error) override;
  // The first pass alone: what each entry is, and the end of those that need no steps. Faster, as
  // nothing of a container is followed. Fails as preview() does.
  bool classify(MigrationAccount& account, Error* error) override;

 private:
  // A container that is to be migrated, with its place in the order of the listing.
  struct WorkItem {
    std::size_t index;
    Path entry;
    Classification found;
  };
  // How one container's steps would end; `keptBack` when items would be missed.
  enum class Outcome { migrated, notInstalled, keptBack };

  // Begins anew. Absent with the Error; empty when there is no legacy directory.
  std::optional<std::vector<Path>> begin(MigrationAccount& account, Error* error);
  // First pass: every entry is looked at, and what needs no steps ends at once.
  // The list it returns is in the order of the work, early records first.
  std::deque<WorkItem> lookAtAll(const std::vector<Path>& items);
  void lookAt(WorkItem item, std::deque<WorkItem>& workList);
  void endRemoved(const Path& entry);
  // Second pass: the steps of one container, on the tree as earlier ones would leave it.
  void follow(const WorkItem& item);

  // The steps of one container, each false or absent when it would stop there.
  bool migrates(const RecordFields& fields);
  // Whether the registry would know the app and have a data container for it.
  bool registers(const RecordFields& fields);
  // Whether a placeholder could be made of the bundle, and would be taken.
  bool takesPlaceholder(const RecordFields& fields);
  // Whether each item of user data could be moved to its container.
  bool movesData(const RecordFields& fields);
  void removeRemains(const Path& from, const Path& to);
  bool movesDataItem(const Path& source, const Path& destination);
  // Takes away what would be in the way of an item of user data, and tells what went.
  void replace(const Path& destination);
  Outcome installsAndChecks(const RecordFields& fields);
  // Whether the bundles could be put into the staging directory.
  bool stages(const RecordFields& fields);
  bool stagesBundle(const Path& bundle, const Path& payload);
  // Whether the registry would be satisfied with what is staged.
  // It asks the registry itself only what changes nothing, and knows of earlier containers by the
  // members below.
  bool installs(const RecordFields& fields);
  bool accepts(const RecordFields& fields, const std::vector<Path>& package);
  bool isObsolete(const RecordFields& fields, const std::vector<Path>& package) const;
  bool repeats(const RecordFields& fields);
  void installPackage(const RecordFields& fields, const std::vector<Path>& package);
  void discard(const RecordFields& fields, const std::vector<Path>& package);
  // Store metadata follows its bundle; the emptied staging directory goes.
  void takeMetadata(const RecordFields& fields, const Path& container);
  void removeStaging(const RecordFields& fields);
  bool refuse(const RecordFields& fields, const Error& error);
  // Whether the identifier belongs to an app where the bundle is none, or the reverse.
  bool isOfAnotherKind(const std::string& identifier, const Path& bundle);
  // Whether something would be left in the container that no step moves.
  bool missesItems(const RecordFields& fields);
  // The container would go: what is lost with it, and what would keep it.
  void removes(const RecordFields& fields, bool isPlaceholder, Outcome outcome);

  // The bundles that would be in the staging directory by then.
  std::vector<Path> packageOf(const RecordFields& fields) const;
  // Where the bundle can be read now; absent when its dictionary would be gone by then.
  std::optional<Path> infoOf(const Path& bundle) const;
  std::optional<std::string> identifierOf(const Path& bundle, Error* error) const;
  // Tells the problem. False, so that a step can end with it.
  bool stop(MigrationStep step, MigrationReason reason, const Path& path, Error error = {});
  void tellLoss(const ForeseenTree::Removal& removal);

  // The groups that the app would claim, by its bundle or by the registry.
  std::set<std::string> groupsOf(const RecordFields& fields,
                                 const std::vector<Path>& package) const;
  void tellUnreadable(const Path& map, const Error& error);
  void loadGroups();
  // Tells what becomes of one group, and remembers that it was asked for.
  // Asked once for each app that claims it, and moved at most once.
  void moveGroup(const std::string& group);
  void moveGroupItems(MigratedDirectory& told);
  // After all containers: groups that no migrated app asked for stay behind.
  void tellUnclaimedGroups();
  void tellHarbors();
  // Links among the containers, which stay.
  void tellLinks(const Path& legacy);

  const QVGlobalConfiguration& configuration_;
  QVFileManager& files_;
  MigrationAccount* account_ = nullptr;
  // The device as the steps so far would have left it.
  ForeseenTree tree_;
  // What containers that come earlier install: identifier to the bundle's extension.
  std::map<std::string, std::string> installed_;
  std::set<std::string> installedWhole_;      // those that are more than placeholders
  std::set<std::string> obsolete_;            // those that the system carries a newer copy of
  std::map<std::string, PlistValue> groups_;  // of the install map, until they are moved
  std::set<std::string> claimedGroups_;
};

}  // namespace quorvel
