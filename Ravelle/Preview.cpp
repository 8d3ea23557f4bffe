// Goes through a migration as a whole with questions in place of changes.
#include "Ravelle/Preview.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Ravelle/NeededServices.h"
#include "Ravelle/RavelleAccount.h"
#include "Ravelle/ReplaceItem.h"
#include "platform/DeviceNames.h"
#include "shared/support/Errors.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

using Step = MigrationStep;
using Reason = MigrationReason;

bool IsDirectory(const Path& path) {
  struct stat info {};
  return ::lstat(path.fileSystemRepresentation().c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The path in an entry of the install map; null when the entry is damaged.
const std::string* PathOfGroup(const PlistValue& entry) {
  const PlistDictionary* record = entry.dictionary();
  return record != nullptr ? record->findString(InstallMapContainerKey) : nullptr;
}

}  // namespace

RavellePreview::RavellePreview(const QVGlobalConfiguration& configuration)
    : configuration_(configuration), files_(QVFileManager::defaultManager()) {}

bool RavellePreview::preview(MigrationAccount& account, Error* error) {
  const auto items = begin(account, error);
  if (!items) return false;
  // As in the migration: without entries no map is loaded and nothing is told.
  if (!items->empty()) {
    loadGroups();
    for (const WorkItem& item : lookAtAll(*items)) follow(item);
    tellUnclaimedGroups();
    tellLinks(configuration_.oldContainerPath());
  }
  tellHarbors();
  return true;
}

bool RavellePreview::classify(MigrationAccount& account, Error* error) {
  const auto items = begin(account, error);
  if (items) (void)lookAtAll(*items);
  return items.has_value();
}

// The state of an earlier preview goes with its beginning: one object may be asked more than once.
// Without a legacy directory there is nothing to carry, which is success, not a failure to list it.
std::optional<std::vector<Path>> RavellePreview::begin(MigrationAccount& account, Error* error) {
  if (const char* service = MissingService()) {
    SetError(error, _CreateError("-[RavellePreview preview]", __LINE__, PosixErrorDomain, ENOSYS,
                                 "No %s is among the platform's services", service));
    return std::nullopt;
  }
  // Kept for the whole preview: every later part tells by it.
  account_ = &account;
  tree_ = {};
  installed_.clear();
  installedWhole_.clear();
  obsolete_.clear();
  groups_.clear();
  claimedGroups_.clear();
  const Path legacy = configuration_.oldContainerPath();
  if (files_.itemDoesNotExistAtURL(legacy)) return std::vector<Path>();
  auto items = files_.urlsForItemsInDirectoryAtURL(legacy, true, error);
  if (items && !items->empty()) account.itemsFound(items->size());
  return items;
}

// The same passes as the migration: all entries first, then the work list in its order, so that
// what one container installs is known when another asks.
std::deque<RavellePreview::WorkItem> RavellePreview::lookAtAll(const std::vector<Path>& items) {
  std::deque<WorkItem> workList;
  for (std::size_t index = 0; index < items.size(); ++index) {
    account_->containerBegan(index, items[index].string());
    Classification found;
    if (IsFarewell(items[index])) {
      found.verdict = Classification::Verdict::remove;
      found.kind = LegacyItemKind::file;
      found.problems.push_back({.reason = Reason::farewellFile, .path = items[index].string()});
    } else {
      found = ClassifyLegacyContainer(files_, items[index]);
    }
    // What would be removed is removed at once, as in the migration, so that later entries see it.
    // The list itself is taken before that, and is not listed again: the migration has it once as
    // well.
    lookAt({index, items[index], std::move(found)}, workList);
  }
  return workList;
}

void RavellePreview::lookAt(WorkItem item, std::deque<WorkItem>& workList) {
  TellClassification(item.found, *account_);
  switch (item.found.verdict) {
    case Classification::Verdict::migrate:
      if (item.found.early) {
        workList.push_front(std::move(item));
      } else {
        workList.push_back(std::move(item));
      }
      break;
    case Classification::Verdict::remove:
      endRemoved(item.entry);
      break;
    case Classification::Verdict::leave:
      account_->containerEnded(MigrationOutcome::left, true);
      break;
    case Classification::Verdict::none:
      account_->containerEnded(MigrationOutcome::removed, false);
      break;
  }
}

// The loss is measured before the entry goes from the foreseen tree, and what could not be looked
// into still counts: a removal that is not whole leaves the rest there.
void RavellePreview::endRemoved(const Path& entry) {
  const ForeseenTree::Removal removal = tree_.removal(entry);
  tellLoss(removal);
  tree_.remove(entry, removal);
  if (!removal.whole) stop(Step::removal, Reason::notRemoved, entry);
  account_->containerEnded(removal.whole ? MigrationOutcome::removed : MigrationOutcome::left,
                           !removal.whole);
}

// An outcome needs both: that the steps succeeded and that nothing of the entry is left. A
// container that stays is met again by the next run, so that it did not arrive for good.
void RavellePreview::follow(const WorkItem& item) {
  const RecordFields fields = FieldsOf(*item.found.record);
  account_->containerBegan(item.index, item.entry.string());
  const bool migrated = migrates(fields);
  const bool stays = tree_.exists(item.entry);
  // The marker named another container, which went in the place of this one.
  if (migrated && stays && item.entry.string() != fields.container.string()) {
    stop(Step::removal, Reason::foreignMarker, fields.container);
  }
  account_->containerEnded(
      migrated && !stays ? MigrationOutcome::migrated : MigrationOutcome::failed, stays);
}

bool RavellePreview::stop(Step step, Reason reason, const Path& path, Error error) {
  account_->problem(
      {.step = step, .reason = reason, .path = path.string(), .error = std::move(error)});
  return false;
}

void RavellePreview::tellLoss(const ForeseenTree::Removal& removal) {
  const MigrationLoss& loss = removal.loss;
  if (!loss.complete || loss.files != 0 || !loss.userDataItems.empty()) account_->lost(loss);
}

// A note and no end of the run: the migration goes on without the map's groups or harbors.
void RavellePreview::tellUnreadable(const Path& map, const Error& error) {
  account_->problem({.step = Step::run,
                     .reason = Reason::mapUnreadable,
                     .path = map.string(),
                     .error = error,
                     .stops = false});
}

// A map that is missing is how devices without groups look. One that has no dictionary of groups
// is treated alike.
void RavellePreview::loadGroups() {
  const Path file = configuration_.oldInstallMapPath();
  Error error;
  const auto map = QVPlatform().propertyLists->readDictionary(file, &error);
  if (!map && !error.is(PosixErrorDomain, ENOENT)) tellUnreadable(file, error);
  const PlistValue* groups = map ? map->find(InstallMapGroupsKey) : nullptr;
  if (groups == nullptr || groups->dictionary() == nullptr) return;
  for (const PlistEntry& entry : *groups->dictionary()) groups_.emplace(entry.key, entry.value);
}

void RavellePreview::moveGroup(const std::string& group) {
  // Claimed even if nothing can be moved: it is then told here and not as unclaimed.
  claimedGroups_.insert(group);
  const auto entry = groups_.find(group);
  if (entry == groups_.end()) return;
  MigratedDirectory told{.identifier = group, .outcome = MigrationOutcome::left};
  const std::string* path = PathOfGroup(entry->second);
  if (path == nullptr) {
    told.reason = Reason::entryDamaged;
  } else {
    told.path = Path::directory(*path).string();
    told.reason = Reason::notThere;
    if (tree_.exists(Path(told.path))) moveGroupItems(told);
  }
  // A group that several apps share is moved once.
  // Erased from the map only then: a failed one is asked for again by the next app that names it,
  // and may succeed after what came between.
  if (told.outcome == MigrationOutcome::migrated) groups_.erase(entry);
  account_->groupEnded(told);
  const bool isLeft = told.reason == Reason::notMoved || told.reason == Reason::notRemoved;
  if (isLeft) account_->leftBehind({told.path, told.reason});
}

// One that is there: whether all of it can be moved, and the directory be removed.
void RavellePreview::moveGroupItems(MigratedDirectory& told) {
  const Path directory = Path::directory(told.path);
  told.outcome = MigrationOutcome::failed;
  told.reason = Reason::notMoved;
  if (!IsGroupContainer(directory, Path(), configuration_, nullptr)) return;
  const auto items = tree_.names(directory);
  if (!items) return;
  const Path destination = configuration_.mobileHomePath().childDirectory(GroupContainersPath);
  for (const std::string& name : *items) {
    const Path item = directory.child(name);
    // What a killed move left is cleaned up by the next one, not carried.
    if (QVFileManager::isRemainOfMove(item)) continue;
    if (tree_.whyNotMoved(item, destination.childDirectory(told.identifier).child(name)) != 0) {
      return;
    }
  }
  for (const std::string& name : *items) {
    const Path item = directory.child(name);
    if (QVFileManager::isRemainOfMove(item)) continue;
    tree_.move(item, destination.childDirectory(told.identifier).child(name));
  }
  told.outcome = MigrationOutcome::migrated;
  const ForeseenTree::Removal removal = tree_.removal(directory);
  told.reason = removal.whole ? Reason::none : Reason::notRemoved;
  tree_.remove(directory, removal);
}

void RavellePreview::tellUnclaimedGroups() {
  for (const auto& [group, entry] : groups_) {
    if (claimedGroups_.contains(group)) continue;
    MigratedDirectory told{
        .identifier = group, .outcome = MigrationOutcome::left, .reason = Reason::entryDamaged};
    if (const std::string* path = PathOfGroup(entry)) {
      told.path = *path;
      const bool isThere = tree_.exists(Path::directory(*path));
      told.reason = isThere ? Reason::unclaimed : Reason::notThere;
    }
    account_->groupEnded(told);
    if (told.reason == Reason::unclaimed) account_->leftBehind({told.path, told.reason});
  }
}

// The service refuses what is no directory, and nothing else.
void RavellePreview::tellHarbors() {
  const Path file = configuration_.oldDataDirectoryPath().child(HarborMapName);
  if (files_.itemDoesNotExistAtURL(file)) return;
  Error error;
  const auto map = QVPlatform().propertyLists->readDictionary(file, &error);
  if (!map) return tellUnreadable(file, error);
  for (const PlistEntry& entry : *map) {
    MigratedDirectory told{.identifier = entry.key};
    const PlistDictionary* record = entry.value.dictionary();
    const std::string* path = record != nullptr ? record->findString(HarborPathKey) : nullptr;
    if (path == nullptr) {
      told.outcome = MigrationOutcome::left;
      told.reason = Reason::entryDamaged;
    } else {
      told.path = *path;
      if (!IsDirectory(Path::directory(*path))) {
        told.outcome = MigrationOutcome::failed;
        told.reason = Reason::harborRefused;
      }
    }
    account_->harborEnded(told);
  }
}

void RavellePreview::tellLinks(const Path& legacy) {
  // Links are no containers: they stay, and nobody else would mention them.
  const auto all = files_.urlsForItemsInDirectoryAtURL(legacy, false);
  for (const Path& entry : all.value_or(std::vector<Path>())) {
    struct stat info {};
    if (::lstat(entry.fileSystemRepresentation().c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
      account_->leftBehind({entry.string(), Reason::link});
    }
  }
}

}  // namespace quorvel
