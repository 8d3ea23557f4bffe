// The application registry and the installation service's records on Linux: one embedded
// database per device, "Registry/registry.db" under the service's directory.
//
// An install is an intent: what will be done is stored before anything is touched, and an
// interrupted one is finished by whoever opens the registry next. The order of the writes and
// flushes that this rests on is written down in InstallTransaction.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/ApplicationRegistry.h"
#include "platform/BundleReader.h"
#include "platform/Error.h"
#include "platform/FileSystem.h"
#include "platform/InstallationService.h"

namespace quorvel::onlinux {

struct RegistryOptions {
  // Put before every path of the device; "" where the process is confined to the device tree.
  // Paths that the registry hands out begin with it.
  std::string deviceRoot;
  // Says of an identifier that it is refused, unless a request says RXSkipBlacklistKey. Empty:
  // none.
  std::function<bool(const std::string& identifier)> isBlacklisted = {};
  // Lookups and snapshots only, and nothing on disk changes: no database is made, an unfinished
  // install is not finished (the app is seen as it was before it), a built-in app gets no data
  // container. What an unclean end left in the write-ahead log is seen all the same, unless the
  // file system itself is mounted read-only: then opening fails.
  bool readOnly = false;
  // How long the first use waits for another process to be done with the registry.
  int busyTimeoutMilliseconds = 10'000;
};

struct SafeHarborRecord {
  std::string identifier;
  std::string path;
  int containerType = 0;
  friend bool operator==(const SafeHarborRecord&, const SafeHarborRecord&) = default;
};

// Everything that the registry knows, sorted by identifier.
struct RegistrySnapshot {
  std::vector<BundleProxy> bundles;  // built-in apps included
  std::vector<SafeHarborRecord> safeHarbors;
  bool dataProtectionUpdated = false;
};

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

  // Why the last operation could not use the database: lookups have no Error of their own.
  const Error& storeFailure() const;
  // Steps of the database's virtual machine so far: the cost of operations, for tests.
  std::uint64_t databaseSteps() const;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace quorvel::onlinux
