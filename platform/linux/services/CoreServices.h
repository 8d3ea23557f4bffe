// The services but for the registry's and the icons, which need large libraries.
//
// Apart from the rest so that a small tool, which asks for files, property lists or preferences,
// links neither the database nor the image codec.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/linux/files/FileDataLinux.h"
#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/files/TreeWalkerLinux.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/plist/PreferencesPlist.h"
#include "platform/linux/plist/PropertyListFiles.h"
#include "platform/linux/services/QVLinuxServices.h"
#include "platform/linux/system/ConfinedMountTable.h"
#include "platform/linux/system/HardwareRegistryLinux.h"
#include "platform/linux/system/MountTableLinux.h"
#include "platform/linux/system/ProcessServicesLinux.h"
#include "platform/linux/system/Sha256Linux.h"

namespace quorvel::onlinux {

// Rules as for QVLinuxServices. The set's pointers lead to the members.
// The order of the members is that of their making: later ones refer to earlier ones. Neither
// copied nor moved: the set would go on pointing to the old members. Everything outside the device
// that a member needs is opened by its constructor, hence before the process confines itself.
struct CoreServices {
  // As QVLinuxServices::create. Null with the Error also for a preferences user that is no plain
  // name: it becomes part of a path. The registry's and the icons' pointers are null.
  static std::unique_ptr<CoreServices> create(const Path& root,
                                              const QVLinuxServicesOptions& options, Error* error);
  // `realRoot` is the real path of the device's directory, as bytes; "" for "/".
  CoreServices(const std::string& realRoot, const QVLinuxServicesOptions& options);
  CoreServices(const CoreServices&) = delete;
  CoreServices& operator=(const CoreServices&) = delete;

  // What begins the paths that services hand out.
  const std::string deviceRoot;
  FileSystemLinux fileSystem;
  TreeWalkerLinux treeWalker;
  BundleReaderLinux bundles;
  PropertyListFiles propertyLists;
  FileDataLinux fileData;
  PreferencesPlist preferences;
  HardwareRegistryLinux hardware;
  // The kernel's table as it is, and the view of it that a confined process hands out. The second
  // one is there only where the process will enter its root; else the first one is handed out.
  MountTableLinux machineMounts;
  std::optional<ConfinedMountTable> mountsInside;
  // Only when the options ask for digests: libcrypto takes milliseconds to load.
  std::optional<Sha256ProviderLinux> sha256;
  ProcessTransactionLinux transaction;
  CpuUsageMonitorLinux cpuMonitor;
  CrashReportMessageLinux crashReport;
  // Pointers to the members above.
  PlatformServices set;
};

}  // namespace quorvel::onlinux
