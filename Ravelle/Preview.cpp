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

Path PayloadOf(const RecordFields& fields) {
  return fields.container.childDirectory(StagingName).childDirectory(PayloadName);
}

bool IsBundleName(const Path& path) {
  return path.pathExtension() == AppExtension || path.pathExtension() == VPNPluginExtension;
}

// The bundles that the registry would be handed: what an interrupted run has staged, and the
// record's own that are still at their places.
std::vector<Path> PackageOf(QVFileManager& files, const RecordFields& fields) {
  std::vector<Path> package;
  for (const Path& bundle : {fields.bundle, fields.secondBundle.value_or(Path())}) {
    if (!bundle.isAbsent() && IsDirectory(bundle)) package.push_back(bundle);
  }
  const auto staged = files.urlsForItemsInDirectoryAtURL(PayloadOf(fields), false);
  for (const Path& item : staged.value_or(std::vector<Path>())) {
    if (IsBundleName(item) && IsDirectory(item)) package.push_back(item);
  }
  return package;
}

// Whether the registry would leave something in the staging directory.
bool StagingStays(QVFileManager& files, const RecordFields& fields) {
  const auto staging =
      files.urlsForItemsInDirectoryAtURL(fields.container.childDirectory(StagingName), false);
  for (const Path& item : staging.value_or(std::vector<Path>())) {
    const std::string_view name = item.lastPathComponent();
    if (name != PayloadName &&
        std::find(StoreMetadataItemNames.begin(), StoreMetadataItemNames.end(), name) ==
            StoreMetadataItemNames.end()) {
      return true;
    }
  }
  const auto payload = files.urlsForItemsInDirectoryAtURL(PayloadOf(fields), false);
  return payload && std::any_of(payload->begin(), payload->end(), [](const Path& item) {
           return !IsBundleName(item) || !IsDirectory(item);
         });
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
  installedWhole_.clear();
  gone_.clear();
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
        if (!course.stays) gone_.insert(item.entry.string());
        account.containerEnded(course.outcome, course.stays);
      }
      tellGroups();
      tellLinks(legacy);
    }
  }
  tellHarbors();
  return true;
}

// The same passes as the migration: all entries first, then the work list in its order, so that
// what one container installs is known when another asks.
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
      gone_.insert(item.entry.string());
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
         QVPlatform().workspace->applicationIsInstalled(identifier);
}

// Each question stands for the step of the same place in the sequence.
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

// Whether the registry would take a placeholder made of the bundle's identity.
bool RavellePreview::takesPlaceholder(const RecordFields& fields) {
  Error error;
  const auto bundle = QVPlatform().bundles->open(fields.bundle, &error);
  if (!bundle || bundle->infoDictionary(&error) == nullptr) {
    stop(Step::placeholder, Reason::bundleUnreadable, fields.bundle, error);
    return false;
  }
  const std::string* identifier = bundle->identifier(&error);
  if (identifier == nullptr || identifier->empty() || *identifier != fields.identifier) {
    stop(Step::placeholder, Reason::placeholderRefused, fields.bundle, error);
    return false;
  }
  installed_.emplace(fields.identifier, AppExtension);
  return true;
}

// Whether the registry knows the app, or would take a placeholder for it.
bool RavellePreview::registers(const RecordFields& fields) {
  if (isInstalled(fields.identifier)) return true;
  if (fields.isApp()) return takesPlaceholder(fields);
  const auto proxy = QVPlatform().workspace->bundleProxyForIdentifier(fields.identifier);
  if (proxy && proxy->dataContainerPath) return true;
  stop(Step::placeholder, proxy ? Reason::noDataContainer : Reason::noRecord, {});
  return false;
}

// Whether the registry would install the package, as far as its info dictionaries tell.
bool RavellePreview::installs(const RecordFields& fields) {
  const std::vector<Path> package = PackageOf(files_, fields);
  if (!package.empty()) return takes(fields, package);
  // A repeated request is satisfied by what an earlier one installed.
  if (installedWhole_.contains(fields.identifier)) return true;
  const auto proxy = QVPlatform().workspace->bundleProxyForIdentifier(fields.identifier);
  const bool isBuiltIn = proxy && !proxy->bundleContainerPath;
  if (proxy && proxy->foundBackingBundle && !proxy->isPlaceholder && !isBuiltIn) return true;
  stop(Step::install, Reason::installRefused, fields.container.childDirectory(StagingName));
  return false;
}

// An app must be the requested one, and so must a plug-in without an app; a plug-in beside an app
// must not. Neither may take over an identifier of the other kind.
bool RavellePreview::takes(const RecordFields& fields, const std::vector<Path>& package) {
  const bool hasApp = std::any_of(package.begin(), package.end(), [](const Path& bundle) {
    return bundle.pathExtension() == AppExtension;
  });
  std::map<std::string, std::string> seen;
  for (const Path& bundle : package) {
    Error error;
    const auto identifier = QVRavelle::_bundleIdentifierForBundle(bundle, &error);
    const bool mustBeRequested = !hasApp || bundle.pathExtension() == AppExtension;
    if (!identifier || identifier->empty() ||
        (*identifier == fields.identifier) != mustBeRequested ||
        !seen.emplace(*identifier, bundle.pathExtension()).second ||
        isOfAnotherKind(*identifier, bundle)) {
      stop(Step::install, Reason::installRefused, fields.container.childDirectory(StagingName),
           error);
      return false;
    }
  }
  for (const auto& [identifier, extension] : seen) installedWhole_.insert(identifier);
  installed_.merge(seen);
  return true;
}

// What this run would have installed by then goes before what the registry has now.
bool RavellePreview::isOfAnotherKind(const std::string& identifier, const Path& bundle) {
  const auto earlier = installed_.find(identifier);
  if (earlier != installed_.end()) return earlier->second != bundle.pathExtension();
  const auto proxy = QVPlatform().workspace->bundleProxyForIdentifier(identifier);
  if (!proxy || !proxy->foundBackingBundle) return false;
  return (proxy->bundleType == ContainerTypeApp) != (bundle.pathExtension() == AppExtension);
}

std::vector<std::string> RavellePreview::missedItems(const WorkItem& item,
                                                     const RecordFields& fields) {
  // Of a container that another marker took with it nothing is left by then.
  if (!willBeThere(fields.container)) return {};
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
  if (!StagingStays(files_, fields)) carried.insert(StagingName);
  for (const Path& bundle : {fields.bundle, fields.secondBundle.value_or(Path())}) {
    const std::string name(bundle.lastPathComponent());
    if (bundle.string() == fields.container.childDirectory(name).string()) carried.insert(name);
  }
  std::erase_if(names, [&](const std::string& name) {
    return carried.contains(name) || QVFileManager::isRemainOfMove(fields.container.child(name));
  });
  return names;
}

// A marker may name another container than its own: that one goes, and this one stays.
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
  bool isKnown = false;
  for (const Path& bundle : PackageOf(files_, fields)) {
    const auto opened = QVPlatform().bundles->open(bundle);
    const PlistDictionary* info = opened ? opened->infoDictionary() : nullptr;
    const std::string* identifier = opened ? opened->identifier() : nullptr;
    if (identifier == nullptr || *identifier != fields.identifier) continue;
    isKnown = true;
    const PlistValue* groups = info->find(PKApplicationGroupsKey);
    if (groups == nullptr || groups->array() == nullptr) continue;
    for (const PlistValue& group : *groups->array()) {
      if (group.string() != nullptr) claimedGroups_.insert(*group.string());
    }
  }
  if (isKnown) return;
  const auto proxy = QVPlatform().workspace->bundleProxyForIdentifier(fields.identifier);
  if (!proxy || !proxy->groupContainerPaths) return;
  for (const auto& [group, path] : *proxy->groupContainerPaths) claimedGroups_.insert(group);
}

// Neither the path nor a directory above it is an entry that goes. Asked for every container and
// every group, so that it must not look through all entries.
bool RavellePreview::willBeThere(const Path& path) {
  if (!files_.itemExistsAtURL(path)) return false;
  for (std::string at = path.string(); !at.empty(); at.resize(at.find_last_of('/'))) {
    if (gone_.contains(at)) return false;
    if (at.find('/') == std::string::npos) break;
  }
  return true;
}

// Judged at the end of the run: a group inside a container that goes is gone by then.
MigratedDirectory RavellePreview::foreseeGroup(const PlistEntry& entry) {
  MigratedDirectory group{.identifier = entry.key, .outcome = MigrationOutcome::left};
  const PlistDictionary* record = entry.value.dictionary();
  const std::string* path =
      record != nullptr ? record->findString(InstallMapContainerKey) : nullptr;
  if (path == nullptr) {
    group.reason = Reason::entryDamaged;
    return group;
  }
  group.path = *path;
  const Path container = Path::directory(*path);
  if (!willBeThere(container)) {
    group.reason = Reason::notThere;
  } else if (!claimedGroups_.contains(entry.key)) {
    group.reason = Reason::unclaimed;
  } else if (!IsGroupContainer(container, Path(), configuration_, nullptr)) {
    group.outcome = MigrationOutcome::failed;
    group.reason = Reason::notMoved;
  } else {
    group.outcome = MigrationOutcome::migrated;
  }
  return group;
}

void RavellePreview::tellGroups() {
  const Path file = configuration_.oldInstallMapPath();
  Error error;
  const auto map = QVPlatform().propertyLists->readDictionary(file, &error);
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
    const MigratedDirectory group = foreseeGroup(entry);
    account_->groupEnded(group);
    if (group.reason == Reason::unclaimed || group.reason == Reason::notMoved) {
      account_->leftBehind({group.path, group.reason});
    }
  }
}

// The service refuses what is no directory, and nothing else.
void RavellePreview::tellHarbors() {
  const Path file = configuration_.oldDataDirectoryPath().child(HarborMapName);
  if (files_.itemDoesNotExistAtURL(file)) return;
  Error error;
  const auto map = QVPlatform().propertyLists->readDictionary(file, &error);
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
