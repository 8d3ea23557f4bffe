// Follows the steps of a migration with questions in place of changes.
#include "Ravelle/Preview.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Ravelle/Ravelle.h"
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

// Where a bundle would be staged, or was by an interrupted run.
Path StagedPath(const RecordFields& fields, const Path& bundle) {
  return fields.container.childDirectory(StagingName)
      .childDirectory(PayloadName)
      .childDirectory(bundle.lastPathComponent());
}

// Where the bundle is now; absent when it is nowhere.
Path FindBundle(const RecordFields& fields, const Path& bundle) {
  if (IsDirectory(bundle)) return bundle;
  const Path staged = StagedPath(fields, bundle);
  return IsDirectory(staged) ? staged : Path();
}

// What the data step moves out before anything of a container can be lost.
std::vector<Path> DataItems(const Path& container) {
  std::vector<Path> items;
  for (const char* name : UserDataItemNames) items.push_back(container.child(name));
  return items;
}

}  // namespace

RavellePreview::RavellePreview(const QVGlobalConfiguration& configuration)
    : configuration_(configuration), files_(QVFileManager::defaultManager()) {}

bool RavellePreview::preview(MigrationAccount& account, Error* error) {
  account_ = &account;
  installed_.clear();
  claimedGroups_.clear();
  const Path legacy = configuration_.oldContainerPath();
  if (!files_.itemDoesNotExistAtURL(legacy)) {
    const auto items = files_.urlsForItemsInDirectoryAtURL(legacy, true, error);
    if (!items) return false;
    if (!items->empty()) {
      account.itemsFound(items->size());
      for (const WorkItem& item : classify(*items)) {
        account.containerBegan(item.index, item.entry.string());
        const Course course = follow(item);
        account.containerEnded(course.outcome, course.stays);
      }
      tellGroups();
      tellLinks(legacy);
    }
  }
  tellHarbors();
  return true;
}

std::deque<RavellePreview::WorkItem> RavellePreview::classify(const std::vector<Path>& items) {
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
      if (const auto loss = MeasureLoss(item.entry)) account_->lost(*loss);
      account_->containerEnded(MigrationOutcome::removed, false);
      break;
    case Classification::Verdict::leave:
      account_->containerEnded(MigrationOutcome::left, true);
      break;
    case Classification::Verdict::none:
      account_->containerEnded(MigrationOutcome::removed, false);
      break;
  }
}

RavellePreview::Course RavellePreview::stop(Step step, Reason reason, const Path& path,
                                            Error error) {
  account_->problem(
      {.step = step, .reason = reason, .path = path.string(), .error = std::move(error)});
  return {MigrationOutcome::failed, true};
}

bool RavellePreview::isInstalled(const std::string& identifier) {
  return installed_.contains(identifier) ||
         Platform().workspace->applicationIsInstalled(identifier);
}

RavellePreview::Course RavellePreview::follow(const WorkItem& item) {
  const RecordFields fields = FieldsOf(*item.found.record);
  if (!registers(fields)) return {MigrationOutcome::failed, true};
  if (files_.bundleAtURLIsPlaceholder(fields.bundle)) return remove(item, fields, true);
  if (!installs(fields)) return remove(item, fields, false);
  noteGroups(fields);
  std::vector<std::string> missed = missedItems(item, fields);
  if (missed.empty()) return remove(item, fields, true);
  account_->problem({.step = Step::missedItems,
                     .reason = Reason::missedItems,
                     .path = fields.container.string(),
                     .items = std::move(missed)});
  return {MigrationOutcome::failed, true};
}

// Whether the registry knows the app, or would take a placeholder for it.
bool RavellePreview::registers(const RecordFields& fields) {
  if (fields.isApp() && !isInstalled(fields.identifier)) {
    Error error;
    const auto identifier = QVRavelle::_bundleIdentifierForBundle(fields.bundle, &error);
    if (!identifier) {
      stop(Step::placeholder, Reason::bundleUnreadable, fields.bundle, error);
      return false;
    }
    if (*identifier != fields.identifier || identifier->empty()) {
      stop(Step::placeholder, Reason::placeholderRefused, fields.bundle);
      return false;
    }
    installed_.insert(fields.identifier);
    return true;
  }
  if (isInstalled(fields.identifier)) return true;
  const auto proxy = Platform().workspace->bundleProxyForIdentifier(fields.identifier);
  if (proxy && proxy->dataContainerPath) {
    account_->dataContainerFound(proxy->dataContainerPath->string());
    return true;
  }
  stop(Step::placeholder, proxy ? Reason::noDataContainer : Reason::noRecord, {});
  return false;
}

// Whether the registry would take the bundle and its plug-in, as far as their dictionaries tell.
bool RavellePreview::installs(const RecordFields& fields) {
  const Path bundle = FindBundle(fields, fields.bundle);
  const auto refuse = [&](const Path& path, Error error = {}) {
    stop(Step::install, Reason::installRefused, path, std::move(error));
    return false;
  };
  Error error;
  if (bundle.isAbsent()) {
    // A repeated request is satisfied by what an earlier one installed.
    const auto proxy = Platform().workspace->bundleProxyForIdentifier(fields.identifier);
    const bool isThere = proxy && proxy->foundBackingBundle && !proxy->isPlaceholder;
    return isThere || refuse(fields.bundle);
  }
  const auto identifier = QVRavelle::_bundleIdentifierForBundle(bundle, &error);
  if (!identifier || *identifier != fields.identifier) return refuse(bundle, error);
  installed_.insert(*identifier);
  if (!fields.secondBundle) return true;
  const Path second = FindBundle(fields, *fields.secondBundle);
  if (second.isAbsent()) return true;
  const auto other = QVRavelle::_bundleIdentifierForBundle(second, &error);
  if (!other || *other == *identifier) return refuse(second, error);
  installed_.insert(*other);
  return true;
}

std::vector<std::string> RavellePreview::missedItems(const WorkItem& item,
                                                     const RecordFields& fields) {
  std::vector<std::string> names = item.found.names;
  if (item.entry.string() != fields.container.string()) {
    names.clear();
    const auto listed = files_.urlsForItemsInDirectoryAtURL(fields.container, false);
    for (const Path& path : listed.value_or(std::vector<Path>())) {
      names.emplace_back(path.lastPathComponent());
    }
  }
  std::set<std::string, std::less<>> carried(NeverMissedNames.begin(), NeverMissedNames.end());
  carried.insert(UserDataItemNames.begin(), UserDataItemNames.end());
  carried.insert(StoreMetadataItemNames.begin(), StoreMetadataItemNames.end());
  carried.insert(StagingName);
  for (const Path& bundle : {fields.bundle, fields.secondBundle.value_or(Path())}) {
    const std::string name(bundle.lastPathComponent());
    if (bundle.string() == fields.container.childDirectory(name).string()) carried.insert(name);
  }
  std::erase_if(names, [&](const std::string& name) {
    return carried.contains(name) || QVFileManager::isRemainOfMove(fields.container.child(name));
  });
  return names;
}

RavellePreview::Course RavellePreview::remove(const WorkItem& item, const RecordFields& fields,
                                              bool installed) {
  const Path legacy = configuration_.oldContainerPath();
  if (!LiesBelow(fields.container, legacy) && !files_.itemDoesNotExistAtURL(fields.container)) {
    return stop(Step::removal, Reason::notRemoved, fields.container);
  }
  const bool isForeign = item.entry.string() != fields.container.string();
  const bool isPlaceholder = files_.bundleAtURLIsPlaceholder(fields.bundle);
  if (!installed || isPlaceholder) {
    std::vector<Path> except = DataItems(fields.container);
    if (isPlaceholder) except.push_back(fields.bundle);
    if (const auto loss = MeasureLoss(fields.container, except)) account_->lost(*loss);
  }
  if (!installed) return {MigrationOutcome::failed, isForeign};
  if (isForeign) return stop(Step::removal, Reason::foreignMarker, fields.container);
  return {MigrationOutcome::migrated, false};
}

// The groups of the app, which its bundle names, or the registry when it has the bundle already.
void RavellePreview::noteGroups(const RecordFields& fields) {
  const Path bundle = FindBundle(fields, fields.bundle);
  const auto opened = bundle.isAbsent() ? nullptr : Platform().bundles->open(bundle);
  const PlistDictionary* info = opened ? opened->infoDictionary() : nullptr;
  const PlistValue* groups = info != nullptr ? info->find(PKApplicationGroupsKey) : nullptr;
  if (groups != nullptr && groups->array() != nullptr) {
    for (const PlistValue& group : *groups->array()) {
      if (group.string() != nullptr) claimedGroups_.insert(*group.string());
    }
  }
  if (opened) return;
  const auto proxy = Platform().workspace->bundleProxyForIdentifier(fields.identifier);
  if (!proxy || !proxy->groupContainerPaths) return;
  for (const auto& [group, path] : *proxy->groupContainerPaths) claimedGroups_.insert(group);
}

void RavellePreview::tellGroups() {
  const Path file = configuration_.oldInstallMapPath();
  Error error;
  const auto map = Platform().propertyLists->readDictionary(file, &error);
  if (!map && !error.is(PosixErrorDomain, ENOENT)) {
    account_->problem({.step = Step::run,
                       .reason = Reason::mapUnreadable,
                       .path = file.string(),
                       .error = error,
                       .stops = false});
  }
  const PlistValue* groups = map ? map->find(InstallMapGroupsKey) : nullptr;
  if (groups == nullptr || groups->dictionary() == nullptr) return;
  for (const PlistEntry& entry : *groups->dictionary()) {
    MigratedDirectory told{.identifier = entry.key};
    const PlistDictionary* record = entry.value.dictionary();
    const std::string* path =
        record != nullptr ? record->findString(InstallMapContainerKey) : nullptr;
    if (path == nullptr) {
      told.reason = Reason::entryDamaged;
    } else {
      told.path = *path;
      const bool isThere = files_.itemExistsAtURL(Path::directory(*path));
      if (!isThere) told.reason = Reason::notThere;
      if (isThere && !claimedGroups_.contains(entry.key)) told.reason = Reason::unclaimed;
    }
    if (told.reason != Reason::none) told.outcome = MigrationOutcome::left;
    account_->groupEnded(told);
    if (told.reason == Reason::unclaimed) account_->leftBehind({told.path, told.reason});
  }
}

void RavellePreview::tellHarbors() {
  const Path file = configuration_.oldDataDirectoryPath().child(HarborMapName);
  if (files_.itemDoesNotExistAtURL(file)) return;
  Error error;
  const auto map = Platform().propertyLists->readDictionary(file, &error);
  if (!map) {
    account_->problem({.step = Step::run,
                       .reason = Reason::mapUnreadable,
                       .path = file.string(),
                       .error = error,
                       .stops = false});
    return;
  }
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
  const auto all = files_.urlsForItemsInDirectoryAtURL(legacy, false);
  for (const Path& entry : all.value_or(std::vector<Path>())) {
    struct stat info {};
    if (::lstat(entry.fileSystemRepresentation().c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
      account_->leftBehind({entry.string(), Reason::link});
    }
  }
}

}  // namespace quorvel
