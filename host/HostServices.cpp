// Puts the Linux services together and opens the logs.
#include "host/HostServices.h"

#include <optional>
#include <vector>

#include "host/console/Output.h"
#include "platform/DeviceNames.h"
#include "platform/linux/log/DeviceLog.h"
#include "platform/linux/log/JsonLineLog.h"
#include "platform/linux/log/TeeLog.h"
#include "platform/linux/services/QVLinuxServices.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/support/Platform.h"

namespace quorvel::host {

namespace {

// The other one that is asked for in a bug report.
constexpr const char* kServiceLogDirectory = "/private/var/mobile/Library/Logs/Quorvel";

// What the registry's database leaves beside itself when its process is killed.
const std::string kRegistryLog =
    std::string(DaemonDirectory) + RegistryDirectoryPath + "/" + RegistryFileName + "-wal";

// No migration computes a digest. The blacklist is the configuration's, which is only there once
// the services are installed.
std::unique_ptr<QVLinuxServices> MakeServices(DeviceAccess access) {
  QVLinuxServicesOptions options;
  options.readOnly = access == DeviceAccess::look;
  options.digests = false;
  options.processWillEnterRoot = true;
  options.isBlacklisted = [](const std::string& identifier) {
    return QVGlobalConfiguration::sharedInstance().installationBlacklist().contains(identifier);
  };
  return QVLinuxServices::create(Path::directory("/"), options, nullptr);
}

}  // namespace

DeviceRoot::View ViewForLooking(const DeviceRoot& root) {
  // Such a log is read under a writer's locks, which a read-only file system refuses. Reading it
  // changes nothing all the same.
  return root.holds(kRegistryLog) ? DeviceRoot::View::writable : DeviceRoot::View::readOnly;
}

struct HostServices::Services {
  explicit Services(DeviceAccess wanted) : access(wanted), device(MakeServices(wanted)) {}

  // In the order of their making: each refers to what stands above it.
  const DeviceAccess access;
  const std::unique_ptr<QVLinuxServices> device;
  std::optional<onlinux::JsonLineLog> jsonLog;
  onlinux::DeviceHostLog deviceHostLog{kHostLogDirectory};
  onlinux::DeviceLog deviceLog{kServiceLogDirectory};
  std::vector<HostLogWriter*> hostSinks;
  std::vector<LogWriter*> sinks;
  std::optional<onlinux::TeeHostLog> hostLog;
  std::optional<onlinux::TeeLog> log;
  PlatformServices set = device->set();
};

HostServices::HostServices(DeviceAccess access) : services_(std::make_unique<Services>(access)) {}

// Uninstalled before anything goes, so that nobody is handed a service on its way out.
HostServices::~HostServices() { QVInstallPlatformServices(nullptr); }

bool HostServices::openLog(const std::string& file, FatalError& error) {
  UniqueDescriptor opened = OpenLogFile(file, error);
  if (!opened) return false;
  services_->jsonLog.emplace(std::move(opened));
  services_->hostSinks.push_back(&*services_->jsonLog);
  services_->sinks.push_back(&*services_->jsonLog);
  return true;
}

// A log that was not asked for lacks nothing.
bool HostServices::logIsWhole() const {
  return !services_->jsonLog || services_->jsonLog->isWhole();
}

void HostServices::tell(MigrationAccount& account) { services_->set.account = &account; }

void HostServices::choose(const MigrationSelection& selection) {
  services_->set.selection = &selection;
}

void HostServices::install() {
  Services& own = *services_;
  // A command that only looks leaves no file on the device, not even a line.
  if (own.access == DeviceAccess::change) {
    own.hostSinks.push_back(&own.deviceHostLog);
    own.sinks.push_back(&own.deviceLog);
  }
  own.hostLog.emplace(own.hostSinks);
  own.log.emplace(own.sinks);
  own.set.log = &*own.log;
  own.set.hostLog = &*own.hostLog;
  QVInstallPlatformServices(&own.set);
}

const PlatformServices& HostServices::set() const { return services_->set; }

onlinux::ApplicationRegistryLinux& HostServices::registry() {
  return services_->device->registry();
}

}  // namespace quorvel::host
