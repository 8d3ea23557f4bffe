// Joins the two services over one core.
#include "platform/linux/registry/ApplicationRegistryLinux.h"

#include <optional>
#include <utility>

#include "platform/linux/registry/ApplicationWorkspaceLinux.h"
#include "platform/linux/registry/InstallationServiceLinux.h"
#include "platform/linux/registry/RegistryCore.h"
#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {

// The core is made first and goes last: the services refer to it.
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

bool ApplicationRegistryLinux::registerIdentifier(const std::string& identifier, Error* error) {
  RegistryCore& core = parts_->core;
  if (identifier.empty()) {
    return Fail(RegistryErrorCode::invalidOptions, "An identifier is needed to register one",
                error);
  }
  // An unreadable list of built-in apps stops this as well: nobody can say then whether a record is
  // needed.
  std::optional<AppRecord> known;
  if (!core.prepareToWrite(error) || core.isBlocked(identifier, error) ||
      !core.find(identifier, &known, error) || core.builtInApps(error) == nullptr) {
    return false;
  }
  if (known || core.builtInApp(identifier) != nullptr) return true;
  AppRecord record;
  record.identifier = identifier;
  record.type = BundleTypeVPNPlugin;
  InstallPlan plan = core.newPlan();
  // By way of an intent like every change, so that a kill leaves no container without an owner.
  if (!plan.giveDataContainer(&record, error)) return false;
  plan.setRecord(record);
  return core.run(plan, error);
}

bool ApplicationRegistryLinux::isSound(Error* error) { return parts_->core.isSound(error); }

bool ApplicationRegistryLinux::snapshot(RegistrySnapshot* result, Error* error) {
  return parts_->core.snapshot(result, error);
}

}  // namespace quorvel::onlinux
