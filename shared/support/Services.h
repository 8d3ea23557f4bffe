// The installed set's services, one at a time: asked for by name, so that one that is missing is
// told by name.
#pragma once

#include <cerrno>
#include <cstdint>

#include "shared/support/Errors.h"
#include "shared/support/Platform.h"

namespace quorvel {

// A member of the set and what messages call it.
// Both are known when the program is compiled; asking costs a comparison and a load.
template <class Service>
struct ServiceSlot {
  Service* PlatformServices::*member;
  const char* name;
};

// Those that operations of the shared code may find missing, and what they are called then.
// The names are those of the interfaces in platform/, so that a message leads to the header that a
// host has to implement.
// One slot for each service that an operation asks for on its own. The logs are not among them: an
// absent log is passed over and fails nothing.
inline constexpr ServiceSlot<FileSystem> kFileSystem{&PlatformServices::fileSystem, "FileSystem"};
inline constexpr ServiceSlot<TreeWalker> kTreeWalker{&PlatformServices::treeWalker, "TreeWalker"};
inline constexpr ServiceSlot<BundleReader> kBundles{&PlatformServices::bundles, "BundleReader"};
inline constexpr ServiceSlot<PreferencesStore> kPreferences{&PlatformServices::preferences,
                                                            "PreferencesStore"};
inline constexpr ServiceSlot<HardwareRegistry> kHardware{&PlatformServices::hardware,
                                                         "HardwareRegistry"};
inline constexpr ServiceSlot<MountTable> kMounts{&PlatformServices::mounts, "MountTable"};
inline constexpr ServiceSlot<Sha256Provider> kSha256{&PlatformServices::sha256, "Sha256Provider"};
inline constexpr ServiceSlot<ProcessTransaction> kTransaction{&PlatformServices::transaction,
                                                              "ProcessTransaction"};
inline constexpr ServiceSlot<CpuUsageMonitor> kCpuMonitor{&PlatformServices::cpuMonitor,
                                                          "CpuUsageMonitor"};
inline constexpr ServiceSlot<CrashReportMessage> kCrashReport{&PlatformServices::crashReport,
                                                              "CrashReportMessage"};

// The registry's side, and what the plug-in alone asks for. A process that only uses the file
// manager may leave these out.
inline constexpr ServiceSlot<ApplicationWorkspace> kWorkspace{&PlatformServices::workspace,
                                                              "ApplicationWorkspace"};
inline constexpr ServiceSlot<InstallationService> kInstallationService{
    &PlatformServices::installationService, "InstallationService"};
inline constexpr ServiceSlot<IconRenderer> kIcons{&PlatformServices::icons, "IconRenderer"};
inline constexpr ServiceSlot<PropertyListStore> kPropertyLists{&PlatformServices::propertyLists,
                                                               "PropertyListStore"};
inline constexpr ServiceSlot<FileData> kFileData{&PlatformServices::fileData, "FileData"};

// The service, or null: the set has none, or is older than this member.
template <class Service>
// Compared by size: an older program's set ends before the newer members.
// The members beyond that are not read, whatever lies there in the program's memory.
Service* FindService(const ServiceSlot<Service>& slot) {
  const PlatformServices& set = QVPlatform();
  const auto* begin = reinterpret_cast<const char*>(&set);
  const auto* end = reinterpret_cast<const char*>(&(set.*slot.member) + 1);
  return static_cast<std::size_t>(end - begin) <= set.size.bytes ? set.*slot.member : nullptr;
}

// Ends the process with one line that names the service.
// The line goes to standard error, and to the system's crash report where there is one.
// There is no way back from here: no destructor runs on the way, and nothing that was begun is
// finished.
[[noreturn]] void EndForMissingService(const char* name);

// For operations that cannot report a failure, and behind HasService.
// Never returns null or throws: a process that goes on without a service that it needs would do
// half of its work.
template <class Service>
Service& RequiredService(const ServiceSlot<Service>& slot) {
  Service* service = FindService(slot);
  if (service == nullptr) EndForMissingService(slot.name);
  return *service;
}

// Whether the set has the service; the Error says which it has not (ENOSYS).
// Asked before the operation changes anything, so that a missing service leaves everything as it
// was. `function` and `line` are those of the operation that reports.
template <class Service>
bool HasService(const ServiceSlot<Service>& slot, const char* function, std::int32_t line,
                Error* error) {
  if (FindService(slot) != nullptr) return true;
  return SetError(error, _CreateError(function, line, PosixErrorDomain, ENOSYS,
                                      "No %s is among the platform's services", slot.name));
}

}  // namespace quorvel
