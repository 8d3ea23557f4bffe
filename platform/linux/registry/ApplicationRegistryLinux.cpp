// Joins the two services over one core.
#include "platform/linux/registry/ApplicationRegistryLinux.h"

#include <map>
#include <optional>
#include <utility>

#include "platform/linux/registry/ApplicationWorkspaceLinux.h"
#include "platform/linux/registry/InstallationServiceLinux.h"
#include "platform/linux/registry/RegistryCore.h"
#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {

struct ApplicationRegistryLinux::Parts {
  Parts(FileSystem& fileSystem, BundleReader& bundles, RegistryOptions options)
      : core(fileSystem, bundles, std::move(options)), workspace(core), service(core) {}

  RegistryCore core;
  ApplicationWorkspaceLinux workspace;
  InstallationServiceLinux service;
};

ApplicationRegistryLinux::ApplicationRegistryLinux(FileSystem& fileSystem, BundleReader& bundles,
                                                   RegistryOptions options)
    : parts_(std::make_unique<Parts>(fileSystem, bundles, std::move(options))) {
  RegistryDatabase::prepareProcess();
}

ApplicationRegistryLinux::~ApplicationRegistryLinux() = default;

ApplicationWorkspace& ApplicationRegistryLinux::workspace() { return parts_->workspace; }

InstallationService& ApplicationRegistryLinux::installationService() { return parts_->service; }

const Error& ApplicationRegistryLinux::storeFailure() const { return parts_->core.lastFailure(); }

std::uint64_t ApplicationRegistryLinux::databaseSteps() const { return parts_->core.store.steps(); }

bool ApplicationRegistryLinux::registerIdentifier(const std::string& identifier, Error* error) {
  RegistryCore& core = parts_->core;
  if (identifier.empty()) {
    return SetError(error, RegistryFailure(RegistryErrorCode::invalidOptions,
                                           "An identifier is needed to register one"));
  }
  std::optional<AppRecord> known;
  if (!core.prepareToWrite(error) || core.isBlocked(identifier, error) ||
      !core.find(identifier, &known, error) || core.builtIn.all(error) == nullptr) {
    return false;
  }
  if (known || core.builtIn.find(identifier) != nullptr) return true;
  AppRecord record;
  record.identifier = identifier;
  record.type = BundleTypeVPNPlugin;
  InstallPlan plan(core.layout, core.store);
  if (!plan.giveDataContainer(&record, error)) return false;
  plan.setRecord(record);
  return plan.run(core.transaction, error);
}

bool ApplicationRegistryLinux::isSound(Error* error) {
  return parts_->core.prepare(error) && parts_->core.store.isSound(error);
}

bool ApplicationRegistryLinux::snapshot(RegistrySnapshot* result, Error* error) {
  RegistryCore& core = parts_->core;
  *result = {};
  std::map<std::string, std::optional<AppRecord>> records;
  const BuiltInApps::Map* apps = core.builtIn.all(error);
  if (apps == nullptr || !core.prepare(error)) return false;
  const bool listed =
      core.store.forEachApp([&](const AppRecord& record) { records[record.identifier] = record; });
  if (!listed) return core.storeFailed(error);
  for (const auto& [identifier, app] : *apps) records.try_emplace(identifier);
  for (const auto& [identifier, record] : records) {
    const BundleDescription* app = core.effectiveBuiltIn(identifier, record);
    result->bundles.push_back(app != nullptr ? core.proxyOf(*app, record) : core.proxyOf(*record));
  }
  std::int64_t updated = 0;
  if (!core.store.safeHarbors(&result->safeHarbors) ||
      !core.store.setting(DataProtectionUpdatedSetting, &updated)) {
    return core.storeFailed(error);
  }
  result->dataProtectionUpdated = updated != 0;
  return true;
}

}  // namespace quorvel::onlinux
