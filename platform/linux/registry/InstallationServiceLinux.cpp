// Records harbors and the update of data protection beside the apps.
#include "platform/linux/registry/InstallationServiceLinux.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdint>

#include "platform/UniqueDescriptor.h"

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
  return core_.prepareToWrite(nullptr) && core_.putSafeHarbor({identifier, path, containerType});
}

int InstallationServiceLinux::QuorvelUpdateContainerDataProtectionForMigratorOnly(
    const PlistDictionary& options) {
  const bool leavesOutBuiltIn =
      IsFalse(options.find(kQVUpdateSystemAppDataContainerDataProtection));
  if (!core_.prepareToWrite(nullptr)) return 0;
  if (leavesOutBuiltIn && core_.builtInApps(nullptr) == nullptr) return 0;
  bool complete = true;
  std::int64_t unsupported = 0;
  // One container that cannot be given its class does not keep the others from theirs; only the
  // record that all was done is not made then.
  const auto protectOne = [&](const AppRecord& record) {
    if (!record.dataContainer) return;
    if (leavesOutBuiltIn && core_.builtInApp(record.identifier) != nullptr) return;
    const Outcome outcome = protect(*record.dataContainer);
    complete = complete && outcome != Outcome::failed;
    unsupported += outcome == Outcome::unsupported ? 1 : 0;
  };
  return core_.forEachApp(protectOne, nullptr) && complete &&
         core_.recordDataProtection(unsupported, nullptr);
}

InstallationServiceLinux::Outcome InstallationServiceLinux::protect(const std::string& container) {
  const Path path = core_.dataContainer(container);
  const UniqueDescriptor directory(::open(path.fileSystemRepresentation().c_str(),
                                          O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory && errno == ENOENT) return Outcome::done;
  if (directory &&
      core_.fileSystem().SetProtectionClass(directory.get(), DataContainerProtectionClass) == 0) {
    return Outcome::done;
  }
  return directory && errno == ENOTSUP ? Outcome::unsupported : Outcome::failed;
}

}  // namespace quorvel::onlinux
