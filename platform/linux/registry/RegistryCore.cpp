// Opens the store when first needed and completes what was interrupted.
#include "platform/linux/registry/RegistryCore.h"

#include <sys/stat.h>

#include <utility>

#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {

RegistryCore::RegistryCore(FileSystem& fileSystemService, BundleReader& bundleReader,
                           RegistryOptions registryOptions)
    : fileSystem(fileSystemService),
      bundles(bundleReader),
      options(std::move(registryOptions)),
      layout(options.deviceRoot),
      transaction(fileSystem, store),
      builtIn(bundles, layout.applications()) {}

bool RegistryCore::prepare(Error* error) {
  Error failure;
  unfinished_ = {};
  if (!store.open(fileSystem, layout.registryDirectory(), options, &failure)) {
    remember(failure);
    return SetError(error, std::move(failure));
  }
  if (!options.readOnly && !transaction.finishOpenIntents(&unfinished_)) remember(unfinished_);
  return true;
}

bool RegistryCore::prepareToWrite(Error* error) {
  if (!options.readOnly) return prepare(error);
  return SetError(error, RegistryFailure(RegistryErrorCode::readOnlyStore,
                                         "The application registry is open for lookups only"));
}

bool RegistryCore::isBlocked(const std::string& identifier, Error* error) {
  if (!unfinished_) return false;
  std::vector<InstallIntent> intents;
  if (!store.openIntents(&intents)) return !storeFailed(error);
  for (const InstallIntent& intent : intents) {
    for (const AppRecord& record : intent.records) {
      if (record.identifier == identifier) return !SetError(error, unfinished_);
    }
  }
  return false;
}

bool RegistryCore::storeFailed(Error* error) {
  remember(store.failure());
  return SetError(error, store.failure());
}

bool RegistryCore::find(const std::string& identifier, std::optional<AppRecord>* record,
                        Error* error) {
  return store.find(identifier, record) || storeFailed(error);
}

// A bundle that someone removed makes the app a missing one: the migration then installs it
// anew, into the data container that the record still names.
bool RegistryCore::hasBundle(const AppRecord& record) const {
  return record.bundleContainer &&
         IsRealDirectory(layout.container(ContainerKind::bundle, *record.bundleContainer)
                             .childDirectory(record.bundleName));
}

bool RegistryCore::containerHolds(const AppRecord& record, const std::string& name) const {
  struct stat info {};
  const Path item =
      layout.container(ContainerKind::bundle, record.bundleContainer.value_or("")).child(name);
  return ::lstat(item.fileSystemRepresentation().c_str(), &info) == 0;
}

const BundleDescription* RegistryCore::effectiveBuiltIn(const std::string& identifier,
                                                        const std::optional<AppRecord>& record) {
  const BundleDescription* app = builtIn.find(identifier);
  if (app == nullptr || !record || !hasBundle(*record)) return app;
  return IsNewerVersion(app->version, record->version) ? app : nullptr;
}

std::optional<Path> RegistryCore::container(ContainerKind kind,
                                            const std::optional<std::string>& name) const {
  if (!name) return std::nullopt;
  return layout.container(kind, *name);
}

bool RegistryCore::groupContainers(const std::vector<std::string>& groups,
                                   std::map<std::string, Path>* paths) {
  for (const std::string& group : groups) {
    std::optional<std::string> name;
    if (!store.findGroup(group, &name)) return storeFailed(nullptr);
    if (name) paths->emplace(group, layout.container(ContainerKind::group, *name));
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
    proxy.foundBackingBundle = IsRealDirectory(*proxy.bundlePath);
  }
  proxy.dataContainerPath = container(ContainerKind::data, record.dataContainer);
  proxy.isPlaceholder = record.placeholder;
  proxy.groupContainerPaths.emplace();
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
  if (!groupContainers(app.groups, &groups)) return SetError(error, lastFailure_);
  const bool complete = *record && (*record)->dataContainer && groups.size() == app.groups.size();
  if (complete) return true;
  AppRecord updated = record->value_or(AppRecord{});
  updated.identifier = app.identifier;
  if (!updated.bundleContainer) {
    updated.type = app.type;
    updated.groups = app.groups;
  }
  InstallPlan plan(layout, store);
  AppRecord wanted = updated;
  wanted.groups = app.groups;
  if (!plan.giveDataContainer(&updated, error) || !plan.giveGroupContainers(wanted, error)) {
    return false;
  }
  plan.setRecord(updated);
  if (!plan.run(transaction, error)) return false;
  *record = std::move(updated);
  return true;
}

}  // namespace quorvel::onlinux
