// Opens the store when first needed and completes what was interrupted.
#include "platform/linux/registry/RegistryCore.h"

#include <sys/stat.h>

#include <utility>

#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {
namespace {

// Settings in the store: that the update of data protection ran (1), and how many containers could
// not hold a class.
constexpr const char* kDataProtectionUpdated = "dataProtectionUpdated";
constexpr const char* kDataProtectionUnsupported = "dataProtectionUnsupported";

}  // namespace

RegistryCore::RegistryCore(FileSystem& fileSystem, BundleReader& bundles, RegistryOptions options)
    : fileSystem_(fileSystem),
      bundles_(bundles),
      options_(std::move(options)),
      layout_(options_.deviceRoot),
      transaction_(fileSystem_, layout_, store_),
      builtIn_(bundles_, layout_.applications()) {}

bool RegistryCore::prepare(Error* error) {
  // Tried again at every call: what was in the way may be gone.
  unfinished_ = {};
  if (!store_.open(fileSystem_, layout_.registryDirectory(), options_, error)) return false;
  if (!options_.readOnly) transaction_.finishOpenIntents(&unfinished_);
  return true;
}

bool RegistryCore::prepareToWrite(Error* error) {
  if (!options_.readOnly) return prepare(error);
  return Fail(RegistryErrorCode::readOnlyStore, "The application registry is open for lookups only",
              error);
}

bool RegistryCore::isBlocked(const std::string& identifier, Error* error) {
  if (!unfinished_) return false;
  std::vector<InstallIntent> intents;
  if (!store_.openIntents(&intents)) return !storeFailed(error);
  for (const InstallIntent& intent : intents) {
    for (const AppRecord& record : intent.records) {
      // Others go on: only this app's state is in doubt.
      if (record.identifier == identifier) return !SetError(error, unfinished_);
    }
  }
  return false;
}

bool RegistryCore::find(const std::string& identifier, std::optional<AppRecord>* record,
                        Error* error) {
  return store_.find(identifier, record) || storeFailed(error);
}

bool RegistryCore::forEachApp(const std::function<void(const AppRecord&)>& visit, Error* error) {
  return store_.forEachApp(visit) || storeFailed(error);
}

// A bundle that someone removed makes the app a missing one: the migration then installs it
// anew, into the data container that the record still names.
bool RegistryCore::hasBundle(const AppRecord& record) const {
  return record.bundleContainer &&
         IsRealDirectory(layout_.container(ContainerKind::bundle, *record.bundleContainer)
                             .childDirectory(record.bundleName));
}

bool RegistryCore::containerHolds(const AppRecord& record, const std::string& name) const {
  struct stat info {};
  const Path item =
      layout_.container(ContainerKind::bundle, record.bundleContainer.value_or("")).child(name);
  return ::lstat(item.fileSystemRepresentation().c_str(), &info) == 0;
}

const BundleDescription* RegistryCore::effectiveBuiltIn(const std::string& identifier,
                                                        const std::optional<AppRecord>& record) {
  const BundleDescription* app = builtIn_.find(identifier);
  // An update of a built-in app counts for as long as it is not older.
  if (app == nullptr || !record || !hasBundle(*record)) return app;
  return IsNewerVersion(app->version, record->version) ? app : nullptr;
}

std::optional<Path> RegistryCore::container(ContainerKind kind,
                                            const std::optional<std::string>& name) const {
  if (!name) return std::nullopt;
  return layout_.container(kind, *name);
}

bool RegistryCore::groupContainers(const std::vector<std::string>& groups,
                                   std::map<std::string, Path>* paths) {
  for (const std::string& group : groups) {
    std::optional<std::string> name;
    if (!store_.findGroup(group, &name)) return storeFailed(nullptr);
    if (name) paths->emplace(group, layout_.container(ContainerKind::group, *name));
  }
  return true;
}

BundleProxy RegistryCore::proxyOf(const AppRecord& record) {
  BundleProxy proxy;
  proxy.bundleIdentifier = record.identifier;
  proxy.bundleType = record.type;
  proxy.bundleVersion = record.version;
  proxy.bundleContainerPath = container(ContainerKind::bundle, record.bundleContainer);
  if (proxy.bundleContainerPath) {
    proxy.bundlePath = proxy.bundleContainerPath->childDirectory(record.bundleName);
    // The record says where the bundle should be, the disk whether it is.
    proxy.foundBackingBundle = IsRealDirectory(*proxy.bundlePath);
  }
  proxy.dataContainerPath = container(ContainerKind::data, record.dataContainer);
  proxy.isPlaceholder = record.placeholder;
  proxy.groupContainerPaths.emplace();
  // Absent rather than empty: the caller can tell "unknown" from "none".
  if (!groupContainers(record.groups, &*proxy.groupContainerPaths)) {
    proxy.groupContainerPaths.reset();
  }
  return proxy;
}

BundleProxy RegistryCore::proxyOf(const BundleDescription& app,
                                  const std::optional<AppRecord>& record) {
  BundleProxy proxy;
  proxy.bundleIdentifier = app.identifier;
  proxy.bundleType = app.type;
  proxy.bundleVersion = app.version;
  proxy.bundlePath = app.path;
  proxy.foundBackingBundle = IsRealDirectory(app.path);
  if (record) proxy.dataContainerPath = container(ContainerKind::data, record->dataContainer);
  proxy.groupContainerPaths.emplace();
  if (!groupContainers(app.groups, &*proxy.groupContainerPaths)) proxy.groupContainerPaths.reset();
  return proxy;
}

bool RegistryCore::giveContainers(const BundleDescription& app, std::optional<AppRecord>* record,
                                  Error* error) {
  std::map<std::string, Path> groups;
  // A lookup that finds all of it, as nearly every one does, writes nothing.
  if (!groupContainers(app.groups, &groups)) return storeFailed(error);
  const bool complete = *record && (*record)->dataContainer && groups.size() == app.groups.size();
  if (complete) return true;
  AppRecord updated = record->value_or(AppRecord{});
  updated.identifier = app.identifier;
  // A record that speaks of an installed bundle keeps that bundle's facts.
  if (!updated.bundleContainer) {
    updated.type = app.type;
    updated.groups = app.groups;
  }
  InstallPlan plan = newPlan();
  AppRecord wanted = updated;
  wanted.groups = app.groups;
  if (!plan.giveDataContainer(&updated, error) || !plan.giveGroupContainers(wanted, error)) {
    return false;
  }
  plan.setRecord(updated);
  if (!run(plan, error)) return false;
  *record = std::move(updated);
  return true;
}

// The record that it ran must not outlive what it speaks of.
bool RegistryCore::recordDataProtection(std::int64_t unsupported, Error* error) {
  const Path containers = layout_.containers(ContainerKind::data);
  if (IsRealDirectory(containers) &&
      fileSystem_.SyncFileSystem(containers.fileSystemRepresentation().c_str()) != 0) {
    return Fail(containers.string(), error);
  }
  if (!store_.putSetting(kDataProtectionUnsupported, unsupported) ||
      !store_.putSetting(kDataProtectionUpdated, 1)) {
    return storeFailed(error);
  }
  return transaction_.flushStore(error);
}

bool RegistryCore::snapshot(RegistrySnapshot* result, Error* error) {
  *result = {};
  std::map<std::string, std::optional<AppRecord>> records;
  // First, since without them the records alone would show an older app where a newer one is built
  // in.
  const BuiltInApps::Map* apps = builtIn_.all(error);
  if (apps == nullptr || !prepare(error)) return false;
  const auto note = [&](const AppRecord& record) { records[record.identifier] = record; };
  if (!forEachApp(note, error)) return false;
  // Built-in apps that no record was made for yet.
  for (const auto& [identifier, app] : *apps) records.try_emplace(identifier);
  for (const auto& [identifier, record] : records) {
    const BundleDescription* app = effectiveBuiltIn(identifier, record);
    result->bundles.push_back(app != nullptr ? proxyOf(*app, record) : proxyOf(*record));
  }
  std::int64_t updated = 0;
  if (!store_.safeHarbors(&result->safeHarbors) ||
      !store_.setting(kDataProtectionUpdated, &updated)) {
    return storeFailed(error);
  }
  result->dataProtectionUpdated = updated != 0;
  return true;
}

}  // namespace quorvel::onlinux
