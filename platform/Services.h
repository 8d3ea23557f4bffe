// The set of platform services that one process runs on.
//
// The host (or a tool, or a test) builds it and installs it before anything else is called
// (QVInstallPlatformServices, shared/support/Platform.h). It owns what the pointers name and keeps
// it alive until the process is done with the system. A service that a program never reaches may be
// left null: an operation that needs it then fails with an Error that names it, or, where it cannot
// report a failure, ends the process with a line that does.
//
// Why one set: a platform's services depend on one another's view of the device (its root, its
// user, whether it may be changed), so that they are chosen together, and a test replaces single
// ones in a copy. The plug-in and the host may come from different builds of this header. Therefore
// services are only ever added at the end, and a set carries its own size.
#pragma once

#include <algorithm>
#include <cstddef>

#include "platform/ApplicationRegistry.h"
#include "platform/BundleReader.h"
#include "platform/FileData.h"
#include "platform/FileSystem.h"
#include "platform/HardwareRegistry.h"
#include "platform/Icon.h"
#include "platform/InstallationService.h"
#include "platform/Log.h"
#include "platform/MigrationAccount.h"
#include "platform/MigrationHost.h"
#include "platform/MigrationSelection.h"
#include "platform/MountTable.h"
#include "platform/PreferencesStore.h"
#include "platform/ProcessServices.h"
#include "platform/PropertyListStore.h"
#include "platform/Sha256.h"
#include "platform/TreeWalker.h"

namespace quorvel {

struct PlatformServices;

// How much of a set there is. A copy has no more than the program that makes it knows of. Whoever
// takes a service from a set asks first whether it lies within that size, and treats one that does
// not as one that is null: a set of an older program ends before the services that it does not
// know.
class PlatformServicesSize {
 public:
  // The size in this program. A copy takes the smaller of both: only that much is copied.
  PlatformServicesSize();
  PlatformServicesSize(const PlatformServicesSize& other);
  PlatformServicesSize& operator=(const PlatformServicesSize& other);
  // sizeof(PlatformServices) in the program that made the set.
  std::size_t bytes;
};

// Plain pointers that own nothing. It may be copied and changed until it is installed; from then on
// it is read by any thread, without a lock, and must not change.
struct PlatformServices {
  // Later services are added at the end.
  PlatformServicesSize size;
  // Where the process reports to.
  LogWriter* log = nullptr;
  // What the plug-in itself reports; the other one is the shared code's.
  HostLogWriter* hostLog = nullptr;
  MigrationAccount* account = nullptr;  // may be null in every program
  // The registry. Both are of one implementation and see the same records.
  ApplicationWorkspace* workspace = nullptr;
  InstallationService* installationService = nullptr;
  BundleReader* bundles = nullptr;
  IconRenderer* icons = nullptr;
  PropertyListStore* propertyLists = nullptr;
  // Files.
  FileData* fileData = nullptr;
  FileSystem* fileSystem = nullptr;
  TreeWalker* treeWalker = nullptr;
  // The device and its state.
  PreferencesStore* preferences = nullptr;
  HardwareRegistry* hardware = nullptr;
  MountTable* mounts = nullptr;
  Sha256Provider* sha256 = nullptr;
  // What the process tells the system about itself.
  ProcessTransaction* transaction = nullptr;
  CpuUsageMonitor* cpuMonitor = nullptr;
  CrashReportMessage* crashReport = nullptr;
  // What the host confines a migration to; null for all of it.
  const MigrationSelection* selection = nullptr;
};

// Inline, since the size is that of the header which the program that makes the set was compiled
// with.
inline PlatformServicesSize::PlatformServicesSize() : bytes(sizeof(PlatformServices)) {}

inline PlatformServicesSize::PlatformServicesSize(const PlatformServicesSize& other)
    : bytes(std::min(other.bytes, sizeof(PlatformServices))) {}

inline PlatformServicesSize& PlatformServicesSize::operator=(const PlatformServicesSize& other) {
  bytes = std::min(other.bytes, sizeof(PlatformServices));
  return *this;
}

}  // namespace quorvel
