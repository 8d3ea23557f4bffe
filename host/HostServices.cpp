// Puts the Linux services together and opens the logs.
#include "host/HostServices.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <vector>

#include "host/console/TerminalText.h"
#include "platform/DeviceNames.h"
#include "platform/linux/files/FileDataLinux.h"
#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/files/TreeWalkerLinux.h"
#include "platform/linux/icons/IconRendererLinux.h"
#include "platform/linux/log/DeviceLog.h"
#include "platform/linux/log/JsonLineLog.h"
#include "platform/linux/log/TeeLog.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/plist/PreferencesPlist.h"
#include "platform/linux/plist/PropertyListFiles.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/support/Platform.h"

namespace quorvel::host {

namespace {

// The directories that the closing message of a failed migration asks for in a bug report.
constexpr const char* HostLogDirectory = "/private/var/mobile/Library/Logs/Corvenna";
constexpr const char* ServiceLogDirectory = "/private/var/mobile/Library/Logs/Quorvel";

// What the registry's database leaves beside itself when its process is killed.
const std::string kRegistryLog =
    std::string(DaemonDirectory) + RegistryDirectoryPath + "/" + RegistryFileName + "-wal";

}  // namespace

DeviceRoot::View ViewForLooking(const DeviceRoot& root) {
  // Such a log is read under a writer's locks, which a read-only file system refuses. Reading it
  // changes nothing all the same.
  return root.holds(kRegistryLog) ? DeviceRoot::View::writable : DeviceRoot::View::readOnly;
}

struct HostServices::Services {
  explicit Services(DeviceAccess wanted) : access(wanted) {}

  const DeviceAccess access;
  onlinux::FileSystemLinux fileSystem;
  onlinux::TreeWalkerLinux treeWalker;
  onlinux::BundleReaderLinux bundles;
  onlinux::PropertyListFiles propertyLists;
  onlinux::FileDataLinux fileData;
  onlinux::IconRendererLinux icons;
  onlinux::PreferencesPlist preferences;
  std::optional<onlinux::JsonLineLog> jsonLog;
  onlinux::DeviceHostLog deviceHostLog{HostLogDirectory};
  onlinux::DeviceLog deviceLog{ServiceLogDirectory};
  std::vector<HostLogWriter*> hostSinks;
  std::vector<LogWriter*> sinks;
  std::optional<onlinux::TeeHostLog> hostLog;
  std::optional<onlinux::TeeLog> log;
  std::optional<onlinux::ApplicationRegistryLinux> registry;
  PlatformServices set;
};

HostServices::HostServices(DeviceAccess access) : services_(std::make_unique<Services>(access)) {}

HostServices::~HostServices() { QVInstallPlatformServices(nullptr); }

bool HostServices::openLog(const std::string& file, FatalError& error) {
  // Not blocking, so that a pipe without a reader is refused at once.
  UniqueDescriptor descriptor(::open(
      file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644));
  if (!descriptor) {
    return Fail(error, ExitUsage, Printable(file) + ": " + ErrnoDescription(errno),
                "Name a file that can be written with --log");
  }
  (void)::fcntl(descriptor.get(), F_SETFL, O_APPEND);
  services_->jsonLog.emplace(std::move(descriptor));
  services_->hostSinks.push_back(&*services_->jsonLog);
  services_->sinks.push_back(&*services_->jsonLog);
  return true;
}

bool HostServices::logIsWhole() const {
  return !services_->jsonLog || services_->jsonLog->isWhole();
}

void HostServices::tell(MigrationAccount& account) { services_->set.account = &account; }

void HostServices::install() {
  Services& own = *services_;
  if (own.access == DeviceAccess::change) {
    own.hostSinks.push_back(&own.deviceHostLog);
    own.sinks.push_back(&own.deviceLog);
  }
  own.hostLog.emplace(own.hostSinks);
  own.log.emplace(own.sinks);
  own.set.log = &*own.log;
  own.set.hostLog = &*own.hostLog;
  own.set.bundles = &own.bundles;
  own.set.icons = &own.icons;
  own.set.propertyLists = &own.propertyLists;
  own.set.fileData = &own.fileData;
  own.set.fileSystem = &own.fileSystem;
  own.set.treeWalker = &own.treeWalker;
  own.set.preferences = &own.preferences;
  QVInstallPlatformServices(&own.set);

  // The blacklist is the configuration's, which needs the services above.
  onlinux::RegistryOptions options;
  options.readOnly = own.access == DeviceAccess::look;
  options.blacklist = QVGlobalConfiguration::sharedInstance().installationBlacklist();
  own.registry.emplace(own.fileSystem, own.bundles, std::move(options));
  own.set.workspace = &own.registry->workspace();
  own.set.installationService = &own.registry->installationService();
}

const PlatformServices& HostServices::set() const { return services_->set; }

onlinux::ApplicationRegistryLinux& HostServices::registry() { return *services_->registry; }

}  // namespace quorvel::host
