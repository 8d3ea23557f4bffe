// Records harbors and the update of data protection beside the apps.
#include "platform/linux/registry/InstallationServiceLinux.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdint>

#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::onlinux {
namespace {

// Readable once the device was unlocked for the first time.
constexpr int DataContainerProtectionClass = 4;

bool IsFalse(const PlistValue* value) {
  return value != nullptr && value->boolean() != nullptr && !*value->boolean();
}

}  // namespace

int InstallationServiceLinux::QuorvelRegisterSafeHarborForContainerType(
    const std::string& path, const std::string& identifier, int containerType,
    const PlistDictionary* /*options*/) {
  if (path.empty() || !IsRealDirectory(Path::directory(path))) return 0;
  if (!core_.prepareToWrite(nullptr)) return 0;
  if (core_.store.putSafeHarbor({identifier, path, containerType})) return 1;
  core_.storeFailed(nullptr);
  return 0;
}

int InstallationServiceLinux::QuorvelUpdateContainerDataProtectionForMigratorOnly(
    const PlistDictionary& options) {
  const bool leavesOutBuiltIn =
      IsFalse(options.find(kQVUpdateSystemAppDataContainerDataProtection));
  if (!core_.prepareToWrite(nullptr)) return 0;
  if (leavesOutBuiltIn && core_.builtIn.all(nullptr) == nullptr) return 0;
  bool complete = true;
  std::int64_t unsupported = 0;
  const bool listed = core_.store.forEachApp([&](const AppRecord& record) {
    if (!record.dataContainer) return;
    if (leavesOutBuiltIn && core_.builtIn.find(record.identifier) != nullptr) return;
    const Outcome outcome = protect(*record.dataContainer);
    complete = complete && outcome != Outcome::failed;
    unsupported += outcome == Outcome::unsupported ? 1 : 0;
  });
  if (!listed) core_.storeFailed(nullptr);
  if (!listed || !complete) return 0;
  // The record that it ran must not outlive what it speaks of.
  const Path containers = core_.layout.containers(ContainerKind::data);
  if (IsRealDirectory(containers) &&
      core_.fileSystem.SyncFileSystem(containers.fileSystemRepresentation().c_str()) != 0) {
    core_.remember(PosixFailure(errno, containers.string()));
    return 0;
  }
  if (core_.store.putSetting(DataProtectionUnsupportedSetting, unsupported) &&
      core_.store.putSetting(DataProtectionUpdatedSetting, 1)) {
    return 1;
  }
  core_.storeFailed(nullptr);
  return 0;
}

InstallationServiceLinux::Outcome InstallationServiceLinux::protect(const std::string& container) {
  const Path path = core_.layout.container(ContainerKind::data, container);
  const UniqueDescriptor directory(::open(path.fileSystemRepresentation().c_str(),
                                          O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory && errno == ENOENT) return Outcome::done;
  if (directory &&
      core_.fileSystem.SetProtectionClass(directory.get(), DataContainerProtectionClass) == 0) {
    return Outcome::done;
  }
  if (directory && errno == ENOTSUP) return Outcome::unsupported;
  core_.remember(PosixFailure(errno, path.string()));
  return Outcome::failed;
}

}  // namespace quorvel::onlinux
