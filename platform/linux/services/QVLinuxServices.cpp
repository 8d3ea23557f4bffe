// Adds the registry and the icons to the other services.
#include "platform/linux/services/QVLinuxServices.h"

#include <utility>

#include "platform/linux/icons/IconRendererLinux.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"
#include "platform/linux/services/CoreServices.h"

namespace quorvel {

namespace {

onlinux::RegistryOptions RegistryOptionsFor(const std::string& deviceRoot,
                                            const QVLinuxServicesOptions& options) {
  onlinux::RegistryOptions registry;
  registry.deviceRoot = deviceRoot;
  registry.readOnly = options.readOnly;
  registry.isBlacklisted = options.isBlacklisted;
  return registry;
}

}  // namespace

// The order of the members is that of their making: the registry refers to the core's services and
// goes before them.
struct QVLinuxServices::Parts {
  Parts(std::unique_ptr<onlinux::CoreServices> others, const QVLinuxServicesOptions& options)
      : core(std::move(others)),
        registry(core->fileSystem, core->bundles, RegistryOptionsFor(core->deviceRoot, options)) {
    core->set.workspace = &registry.workspace();
    core->set.installationService = &registry.installationService();
    core->set.icons = &icons;
  }

  const std::unique_ptr<onlinux::CoreServices> core;
  onlinux::ApplicationRegistryLinux registry;
  onlinux::IconRendererLinux icons;
};

QVLinuxServices::QVLinuxServices(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

QVLinuxServices::~QVLinuxServices() = default;

const PlatformServices& QVLinuxServices::set() const { return parts_->core->set; }

onlinux::ApplicationRegistryLinux& QVLinuxServices::registry() { return parts_->registry; }

std::unique_ptr<QVLinuxServices> QVLinuxServices::create(const Path& root,
                                                         const QVLinuxServicesOptions& options,
                                                         Error* error) {
  // Everything that can fail is there; the registry opens its database at the first use.
  auto core = onlinux::CoreServices::create(root, options, error);
  if (core == nullptr) return nullptr;
  return std::unique_ptr<QVLinuxServices>(
      new QVLinuxServices(std::make_unique<Parts>(std::move(core), options)));
}

}  // namespace quorvel
