// The application registry and the installation service's records on Linux: one embedded
// database per device, "Registry/registry.db" under the service's directory.
//
// An install is an intent: what will be done is stored before anything is touched, and an
// interrupted one is finished by whoever opens the registry next. The order of the writes and
// flushes that this rests on is written down in InstallTransaction.h.
#pragma once

#include <memory>
#include <string>

#include "platform/ApplicationRegistry.h"
#include "platform/BundleReader.h"
#include "platform/Error.h"
#include "platform/FileSystem.h"
#include "platform/InstallationService.h"
#include "platform/linux/registry/RegistryTypes.h"

namespace quorvel::onlinux {

// The database is opened at the first use and then belongs to this process until the object
// goes: one process at a time works with a device's registry, others wait for it, and fail with
// EBUSY when the wait was too long. A database that is damaged, foreign or of a newer version is
// never replaced: lookups answer "not installed" and "none", everything else fails with the
// Error. One thread at a time.
class ApplicationRegistryLinux {
 public:
  // Touches nothing of the device, but belongs before the process is confined to it. Both services
  // must outlive the object.
  ApplicationRegistryLinux(FileSystem& fileSystem, BundleReader& bundles, RegistryOptions options);
  ApplicationRegistryLinux(const ApplicationRegistryLinux&) = delete;
  ApplicationRegistryLinux& operator=(const ApplicationRegistryLinux&) = delete;
  ~ApplicationRegistryLinux();

  // Both belong to this object.
  ApplicationWorkspace& workspace();
  InstallationService& installationService();

  // Adds a record with no bundle behind it, of type "VPNPlugin", with a data container of its
  // own. An identifier that is known already keeps its record.
  bool registerIdentifier(const std::string& identifier, Error* error);

  // Fills the snapshot. An absent database is an empty registry, except for the built-in apps.
  bool snapshot(RegistrySnapshot* result, Error* error);

  // Reads all that is stored, the tables' structure included. An absent database is sound.
  bool isSound(Error* error);

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace quorvel::onlinux
