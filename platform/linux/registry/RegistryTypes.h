// What a program hands to the registry on Linux, and what it is handed back: shared by the facade
// (ApplicationRegistryLinux.h) and what lies behind it, values only.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/ApplicationRegistry.h"

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

}  // namespace quorvel::onlinux
