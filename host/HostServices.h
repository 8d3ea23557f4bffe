// The platform services that the host installs, in their Linux implementation.
#pragma once

#include <memory>
#include <string>

#include "host/console/DeviceRoot.h"
#include "host/console/ExitCode.h"
#include "platform/Services.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::host {

// The host's own, as the confined process sees it. One of the directories that the closing message
// of a failed migration asks for in a bug report.
inline constexpr const char* kHostLogDirectory = "/private/var/mobile/Library/Logs/Corvenna";

enum class DeviceAccess {
  change,
  look,  // nothing on the device changes: no logs there, the registry read only
};

// The view of the tree in which nothing changes and the registry can be read nevertheless.
DeviceRoot::View ViewForLooking(const DeviceRoot& root);

// Made before the process is confined: what the services need from outside is opened then. One per
// process; it must live as long as anything uses the services.
class HostServices {
 public:
  explicit HostServices(DeviceAccess access);
  ~HostServices();
  HostServices(const HostServices&) = delete;
  HostServices& operator=(const HostServices&) = delete;

  // Before confinement: every call of either log is appended to the file as a line of JSON.
  bool openLog(const std::string& file, FatalError& error);
  // False when a line could not be appended to that file.
  // True when there is no such file.
  bool logIsWhole() const;
  // Before install(): the plug-in tells this account what it does.
  void tell(MigrationAccount& account);

  // Before install(): the plug-in migrates nothing else.
  void choose(const MigrationSelection& selection);

  // In the device tree: makes the services the process's. Lines go to the device's own log
  // directories from here on, when it may be changed.
  void install();

  // After install().
  const PlatformServices& set() const;
  onlinux::ApplicationRegistryLinux& registry();

 private:
  // The Linux services, the logs and the set made of them.
  struct Services;
  std::unique_ptr<Services> services_;
};

}  // namespace quorvel::host
