// What a QVLinuxServices is made of.
#pragma once

#include <optional>
#include <string>

#include "platform/linux/files/FileDataLinux.h"
#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/files/TreeWalkerLinux.h"
#include "platform/linux/icons/IconRendererLinux.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/plist/PreferencesPlist.h"
#include "platform/linux/plist/PropertyListFiles.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"
#include "platform/linux/services/QVLinuxServices.h"
#include "platform/linux/system/ConfinedMountTable.h"
#include "platform/linux/system/HardwareRegistryLinux.h"
#include "platform/linux/system/MountTableLinux.h"
#include "platform/linux/system/ProcessServicesLinux.h"
#include "platform/linux/system/Sha256Linux.h"

namespace quorvel {

// In the order in which they need each other.
struct QVLinuxServices::Parts {
  // `root` is the real path of the device's directory, as bytes; "" for "/".
  Parts(const std::string& root, const QVLinuxServicesOptions& options);

  onlinux::FileSystemLinux fileSystem;
  onlinux::TreeWalkerLinux treeWalker;
  onlinux::BundleReaderLinux bundles;
  onlinux::IconRendererLinux icons;
  onlinux::PropertyListFiles propertyLists;
  onlinux::FileDataLinux fileData;
  onlinux::PreferencesPlist preferences;
  onlinux::HardwareRegistryLinux hardware;
  onlinux::MountTableLinux machineMounts;
  std::optional<onlinux::ConfinedMountTable> mountsInside;
  std::optional<onlinux::Sha256ProviderLinux> sha256;
  onlinux::ProcessTransactionLinux transaction;
  onlinux::CpuUsageMonitorLinux cpuMonitor;
  onlinux::CrashReportMessageLinux crashReport;
  onlinux::ApplicationRegistryLinux registry;
  PlatformServices set;
};

}  // namespace quorvel
