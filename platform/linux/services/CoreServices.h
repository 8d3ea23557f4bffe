// The services but for the registry's and the icons, which need large libraries.
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
struct CoreServices {
  // As QVLinuxServices::create.
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
  MountTableLinux machineMounts;
  std::optional<ConfinedMountTable> mountsInside;
  std::optional<Sha256ProviderLinux> sha256;
  ProcessTransactionLinux transaction;
  CpuUsageMonitorLinux cpuMonitor;
  CrashReportMessageLinux crashReport;
  PlatformServices set;
};

}  // namespace quorvel::onlinux
