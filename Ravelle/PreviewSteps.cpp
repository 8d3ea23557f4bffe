// What each step of one container's migration would meet.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "Ravelle/Preview.h"
#include "Ravelle/Ravelle.h"
#include "Ravelle/ReplaceItem.h"
#include "platform/DeviceNames.h"
#include "shared/support/Errors.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

using Step = MigrationStep;
using Reason = MigrationReason;

Path StagingOf(const RecordFields& fields) { return fields.container.childDirectory(StagingName); }

Path PayloadOf(const RecordFields& fields) { return StagingOf(fields).childDirectory(PayloadName); }

std::set<std::string> GroupsIn(const Path& bundle) {
  std::set<std::string> groups;
  const auto opened = QVPlatform().bundles->open(bundle);
  const PlistDictionary* info = opened ? opened->infoDictionary() : nullptr;
  const PlistValue* named = info != nullptr ? info->find(PKApplicationGroupsKey) : nullptr;
  if (named == nullptr || named->array() == nullptr) return groups;
  for (const PlistValue& group : *named->array()) {
    if (group.string() != nullptr) groups.insert(*group.string());
  }
  return groups;
}

bool IsBundleName(const Path& path) {
  return path.pathExtension() == AppExtension || path.pathExtension() == VPNPluginExtension;
}

// These stand for new containers of whatever name.
Path NewContainer(const QVGlobalConfiguration& configuration, const char* kind,
                  const RecordFields& fields) {
  return configuration.mobileHomePath().childDirectory(kind).childDirectory(fields.identifier);
}

Path NewBundle(const QVGlobalConfiguration& configuration, const RecordFields& fields) {
  return NewContainer(configuration, BundleContainersPath, fields);
}

}  // namespace

bool RavellePreview::migrates(const RecordFields& fields) {
  const auto bundle = tree_.now(fields.bundle);
  const bool isPlaceholder = bundle && files_.bundleAtURLIsPlaceholder(*bundle);
  if (!registers(fields) || !movesData(fields)) return false;
  const Outcome outcome = isPlaceholder ? Outcome::migrated : installsAndChecks(fields);
  if (outcome == Outcome::keptBack) return false;
  removes(fields, isPlaceholder, outcome);
  return outcome == Outcome::migrated;
}

// Whether the registry knows the app, or would take a placeholder for it.
bool RavellePreview::registers(const RecordFields& fields) {
  // Another container of the same app came first.
  if (installed_.contains(fields.identifier)) return true;
  const auto& workspace = QVPlatform().workspace;
  if (fields.isApp() && !workspace->applicationIsInstalled(fields.identifier)) {
    return takesPlaceholder(fields);
  }
  // A VPN plug-in gets no placeholder: somebody must have recorded it.
  const auto proxy = workspace->bundleProxyForIdentifier(fields.identifier);
  if (proxy && proxy->dataContainerPath) return true;
  // An app that comes with the system has no containers before one is asked for.
  if (proxy && proxy->foundBackingBundle && !proxy->bundleContainerPath) return true;
  return stop(Step::placeholder, proxy ? Reason::noDataContainer : Reason::noRecord, {});
}

// A placeholder is made of the bundle's identity.
bool RavellePreview::takesPlaceholder(const RecordFields& fields) {
  Error error;
  const auto at = infoOf(fields.bundle);
  const auto bundle = at ? QVPlatform().bundles->open(*at, &error) : nullptr;
  if (!bundle || bundle->infoDictionary(&error) == nullptr) {
    return stop(Step::placeholder, Reason::bundleUnreadable, fields.bundle, error);
  }
  const std::string* identifier = bundle->identifier(&error);
  if (identifier == nullptr || identifier->empty() || *identifier != fields.identifier) {
    return stop(Step::placeholder, Reason::placeholderRefused, fields.bundle, error);
  }
  installed_.emplace(fields.identifier, AppExtension);
  return true;
}

// Where the bundle is now, unless its dictionary would be gone.
std::optional<Path> RavellePreview::infoOf(const Path& bundle) const {
  return tree_.exists(bundle.child(InfoPlistName)) ? tree_.now(bundle) : std::nullopt;
}

bool RavellePreview::movesData(const RecordFields& fields) {
  const auto proxy = QVPlatform().workspace->bundleProxyForIdentifier(fields.identifier);
  const Path to = proxy && proxy->dataContainerPath
                      ? *proxy->dataContainerPath
                      : NewContainer(configuration_, DataContainersPath, fields);
  removeRemains(fields.container, to);
  for (const std::string& name : configuration_.appUserDataItemNames()) {
    const Path source = fields.container.child(name);
    if (!tree_.exists(source) && tree_.whyUnknown(source) == 0) continue;
    if (!movesDataItem(source, to.child(name))) return false;
  }
  return true;
}

// What a copy that was cut short left of its source goes before the next one.
void RavellePreview::removeRemains(const Path& from, const Path& to) {
  if (!tree_.isOnAnotherFileSystem(from, to)) return;
  const auto names = tree_.names(from);
  for (const std::string& name : names.value_or(std::vector<std::string>())) {
    const Path item = from.child(name);
    if (QVFileManager::isRemainOfMove(item)) tree_.remove(item, tree_.removal(item));
  }
}

bool RavellePreview::movesDataItem(const Path& source, const Path& destination) {
  if (source.string() == destination.string()) {
    return stop(Step::data, Reason::notMoved, source, QVPosixCause(EINVAL));
  }
  const int unknown = tree_.whyUnknown(source);
  if (unknown == 0) replace(destination);
  if (const int failure = unknown != 0 ? unknown : tree_.whyNotMoved(source, destination)) {
    return stop(Step::data, Reason::notMoved, source, QVPosixCause(failure));
  }
  tree_.move(source, destination);
  return true;
}

// What is in the way goes first.
void RavellePreview::replace(const Path& destination) {
  const auto at = tree_.now(destination);
  ForeseenTree::Removal removal = tree_.removal(destination);
  tree_.remove(destination, removal);
  MigrationLoss& loss = removal.loss;
  loss.userDataItems.clear();
  if (!at || (loss.complete && loss.files == 0)) return;
  loss.userDataItems.emplace_back(destination.lastPathComponent());
  tellLoss(removal);
  // Where it is now: in the data container, or still in the other container that it came from.
  account_->problem(
      {.step = Step::data, .reason = Reason::dataReplaced, .path = at->string(), .stops = false});
}

RavellePreview::Outcome RavellePreview::installsAndChecks(const RecordFields& fields) {
  if (!stages(fields)) return Outcome::notInstalled;
  const std::vector<Path> package = packageOf(fields);
  const std::set<std::string> groups = groupsOf(fields, package);
  if (!installs(fields)) return Outcome::notInstalled;
  for (const std::string& group : groups) moveGroup(group);
  return missesItems(fields) ? Outcome::keptBack : Outcome::migrated;
}

bool RavellePreview::stages(const RecordFields& fields) {
  const Path payload = PayloadOf(fields);
  if (const int failure = tree_.whyNotMade(payload)) {
    return stop(Step::stage, Reason::stagingFailed, payload, QVPosixCause(failure));
  }
  if (!stagesBundle(fields.bundle, payload)) return false;
  if (fields.secondBundle && !stagesBundle(*fields.secondBundle, payload)) return false;
  // A failure is none of the app's: the item stays.
  for (const char* name : StoreMetadataItemNames) {
    const Path item = fields.container.child(name);
    const Path destination = StagingOf(fields).child(name);
    if (tree_.whyNotMoved(item, destination) == 0) tree_.move(item, destination);
  }
  return true;
}

bool RavellePreview::stagesBundle(const Path& bundle, const Path& payload) {
  const Path destination = payload.childDirectory(bundle.lastPathComponent());
  const bool isForeign =
      tree_.exists(bundle) && !LiesBelow(bundle, configuration_.oldContainerPath());
  if (const int failure = isForeign ? EINVAL : tree_.whyNotMoved(bundle, destination)) {
    return stop(Step::stage, Reason::stagingFailed, bundle, QVPosixCause(failure));
  }
  tree_.move(bundle, destination);
  return true;
}

// The bundles that the registry would be handed.
std::vector<Path> RavellePreview::packageOf(const RecordFields& fields) const {
  std::vector<Path> package;
  const Path payload = PayloadOf(fields);
  const auto names = tree_.names(payload);
  for (const std::string& name : names.value_or(std::vector<std::string>())) {
    const Path bundle = payload.childDirectory(name);
    if (IsBundleName(bundle) && tree_.isDirectory(bundle)) package.push_back(bundle);
  }
  return package;
}

// Whether the registry would be satisfied with the package, as far as its info dictionaries tell.
bool RavellePreview::installs(const RecordFields& fields) {
  const std::vector<Path> package = packageOf(fields);
  const bool isListed = tree_.names(StagingOf(fields)) && tree_.names(PayloadOf(fields));
  if (!isListed) return refuse(fields, {});
  if (package.empty()) return repeats(fields);
  if (!accepts(fields, package)) return false;
  if (isObsolete(fields, package)) {
    discard(fields, package);
    return true;
  }
  // What this run installed before is not in the way: each install has a container of its own.
  const Path destination = NewBundle(configuration_, fields).childDirectory("Next");
  for (const Path& bundle : package) {
    const Path to = destination.childDirectory(bundle.lastPathComponent());
    if (const int failure = tree_.whyNotMoved(bundle, to)) {
      return refuse(fields, QVPosixCause(failure));
    }
  }
  installPackage(fields, package);
  return true;
}

bool RavellePreview::refuse(const RecordFields& fields, const Error& error) {
  return stop(Step::install, Reason::installRefused, StagingOf(fields), error);
}

// A repeated request is satisfied by what an earlier one installed, or found obsolete.
bool RavellePreview::repeats(const RecordFields& fields) {
  const auto& workspace = QVPlatform().workspace;
  const auto proxy = workspace->bundleProxyForIdentifier(fields.identifier);
  // A built-in app has no container to put metadata into, and satisfies no request.
  const bool isBuiltIn = proxy && !proxy->bundleContainerPath;
  const bool isOld = proxy && proxy->foundBackingBundle && !proxy->isPlaceholder && !isBuiltIn;
  const bool isNew = installedWhole_.contains(fields.identifier);
  if (isNew || isOld) {
    takeMetadata(fields, isNew ? NewBundle(configuration_, fields) : *proxy->bundleContainerPath);
    return true;
  }
  if (!obsolete_.contains(fields.identifier) &&
      !workspace->packageIsObsolete(fields.identifier, std::nullopt)) {
    return refuse(fields, {});
  }
  discard(fields, {});
  return true;
}

// An app must be the requested one, and so must a plug-in without an app; a plug-in beside an app
// must not. Neither may take over an identifier of the other kind.
bool RavellePreview::accepts(const RecordFields& fields, const std::vector<Path>& package) {
  const bool hasApp = std::any_of(package.begin(), package.end(), [](const Path& bundle) {
    return bundle.pathExtension() == AppExtension;
  });
  std::set<std::string> seen;
  for (const Path& bundle : package) {
    Error error;
    const auto identifier = identifierOf(bundle, &error);
    const bool mustBeRequested = !hasApp || bundle.pathExtension() == AppExtension;
    if (!identifier || identifier->empty() ||
        (*identifier == fields.identifier) != mustBeRequested || !seen.insert(*identifier).second ||
        isOfAnotherKind(*identifier, bundle)) {
      return refuse(fields, error);
    }
  }
  return true;
}

std::optional<std::string> RavellePreview::identifierOf(const Path& bundle, Error* error) const {
  const auto at = infoOf(bundle);
  return at ? QVRavelle::_bundleIdentifierForBundle(*at, error) : std::nullopt;
}

// Whether the system carries a newer copy of what the package is for.
bool RavellePreview::isObsolete(const RecordFields& fields,
                                const std::vector<Path>& package) const {
  for (const Path& bundle : package) {
    if (identifierOf(bundle, nullptr) != fields.identifier) continue;
    const auto opened = QVPlatform().bundles->open(*tree_.now(bundle));
    const PlistDictionary* info = opened ? opened->infoDictionary() : nullptr;
    const std::string* version = info != nullptr ? info->findString(PKBundleVersionKey) : nullptr;
    return QVPlatform().workspace->packageIsObsolete(fields.identifier,
                                                     version != nullptr ? *version : "");
  }
  return false;
}

// The registry throws an obsolete package away.
void RavellePreview::discard(const RecordFields& fields, const std::vector<Path>& package) {
  obsolete_.insert(fields.identifier);
  account_->problem({.step = Step::install,
                     .reason = Reason::newerBuiltIn,
                     .path = fields.bundle.string(),
                     .stops = false});
  for (const Path& bundle : package) tree_.remove(bundle, tree_.removal(bundle));
  for (const char* name : StoreMetadataItemNames) {
    const Path item = StagingOf(fields).child(name);
    tree_.remove(item, tree_.removal(item));
  }
  removeStaging(fields);
}

// What the registry takes out of the staging directory.
void RavellePreview::installPackage(const RecordFields& fields, const std::vector<Path>& package) {
  // Before any is gone from where its dictionary is read.
  for (const Path& bundle : package) {
    const std::string identifier = identifierOf(bundle, nullptr).value_or("");
    installedWhole_.insert(identifier);
    installed_.emplace(identifier, bundle.pathExtension());
  }
  const Path container = NewBundle(configuration_, fields);
  // An earlier bundle of the app is replaced.
  tree_.remove(container);
  for (const Path& bundle : package) {
    tree_.move(bundle, container.childDirectory(bundle.lastPathComponent()));
  }
  takeMetadata(fields, container);
}

// Store metadata follows the bundle, unless the name is taken.
void RavellePreview::takeMetadata(const RecordFields& fields, const Path& container) {
  for (const char* name : StoreMetadataItemNames) {
    const Path item = StagingOf(fields).child(name);
    const Path to = container.child(name);
    if (!tree_.exists(to) && tree_.whyNotMoved(item, to) == 0) tree_.move(item, to);
  }
  removeStaging(fields);
}

void RavellePreview::removeStaging(const RecordFields& fields) {
  const auto payload = tree_.names(PayloadOf(fields));
  // What the registry did not take stays, and the container with it.
  if (!payload || !payload->empty()) return;
  tree_.remove(PayloadOf(fields));
  const auto staging = tree_.names(StagingOf(fields));
  if (staging && staging->empty()) tree_.remove(StagingOf(fields));
}

// What this run would have installed by then goes before what the registry has now.
bool RavellePreview::isOfAnotherKind(const std::string& identifier, const Path& bundle) {
  const auto earlier = installed_.find(identifier);
  if (earlier != installed_.end()) return earlier->second != bundle.pathExtension();
  const auto proxy = QVPlatform().workspace->bundleProxyForIdentifier(identifier);
  if (!proxy || !proxy->foundBackingBundle) return false;
  return (proxy->bundleType == ContainerTypeApp) != (bundle.pathExtension() == AppExtension);
}

// The groups of the app: those that its bundle names when it is installed, else the registry's.
std::set<std::string> RavellePreview::groupsOf(const RecordFields& fields,
                                               const std::vector<Path>& package) const {
  for (const Path& bundle : package) {
    // Plug-ins beside the app name groups of their own, which are not moved.
    if (identifierOf(bundle, nullptr) != fields.identifier) continue;
    if (!isObsolete(fields, package)) return GroupsIn(*tree_.now(bundle));
  }
  const auto proxy = QVPlatform().workspace->bundleProxyForIdentifier(fields.identifier);
  if (!proxy) return {};
  // All of a built-in app's get their containers when the registry is asked for them.
  if (!proxy->bundleContainerPath && proxy->bundlePath) return GroupsIn(*proxy->bundlePath);
  std::set<std::string> claimed;
  if (!proxy->groupContainerPaths) return claimed;
  for (const auto& [group, path] : *proxy->groupContainerPaths) claimed.insert(group);
  return claimed;
}

bool RavellePreview::missesItems(const RecordFields& fields) {
  auto names = tree_.names(fields.container);
  if (!names) {
    stop(Step::missedItems, Reason::cannotBeListed, fields.container, QVPosixCause(EACCES));
    return true;
  }
  std::erase_if(*names, [&](const std::string& name) {
    return std::find(NeverMissedNames.begin(), NeverMissedNames.end(), name) !=
           NeverMissedNames.end();
  });
  if (names->empty()) return false;
  account_->problem({.step = Step::missedItems,
                     .reason = Reason::missedItems,
                     .path = fields.container.string(),
                     .items = std::move(*names)});
  return true;
}

void RavellePreview::removes(const RecordFields& fields, bool isPlaceholder, Outcome outcome) {
  const Path& container = fields.container;
  const bool isContainer = LiesBelow(container, configuration_.oldContainerPath());
  if (tree_.exists(container) && !isContainer) {
    stop(Step::removal, Reason::notRemoved, container);
    return;
  }
  ForeseenTree::Removal removal = tree_.removal(container);
  if (isPlaceholder || outcome != Outcome::migrated) {
    if (isPlaceholder) {
      // The registry has its own: it is no loss.
      ForeseenTree without = tree_;
      without.remove(fields.bundle);
      removal.loss = without.removal(container).loss;
    }
    tellLoss(removal);
  }
  tree_.remove(container, removal);
  if (!removal.whole) stop(Step::removal, Reason::notRemoved, container);
}

}  // namespace quorvel
