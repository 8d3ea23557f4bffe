// Apps on attached disk images: the device tree says which drives there are, the mount table where
// their media are mounted.
#include <algorithm>
#include <cerrno>

#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"
#include "shared/support/PathStrings.h"
#include "shared/support/Services.h"

namespace quorvel {

namespace {

constexpr const char* kMountPointForDevice = "-[QVGlobalConfiguration mountPointForDevice:]";
constexpr const char* kMountPoints = "-[QVGlobalConfiguration diskImageMountPoints]";
constexpr const char* kDirectories = "-[QVGlobalConfiguration diskImageApplicationsDirectories]";

// Images mounted here are looked at by a debugger, not used.
constexpr std::string_view kDebugMountPrefix = "/private/var/debug_mount";

// An entry or iterator of the device tree, released when it goes.
class Handle {
 public:
  explicit Handle(std::uint32_t handle) : handle_(handle) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() {
    if (handle_ != 0) RequiredService(kHardware).release(handle_);
  }
  explicit operator bool() const { return handle_ != 0; }
  std::uint32_t get() const { return handle_; }

 private:
  std::uint32_t handle_;
};

// The mount point of the medium, when the entry is one and it is mounted.
std::optional<std::string> MountPointOfMedium(HardwareEntry entry,
                                              const std::vector<MountedFileSystem>& mounts) {
  HardwareRegistry& hardware = RequiredService(kHardware);
  if (!hardware.conformsTo(entry, HRMediaClass)) return std::nullopt;
  const std::optional<std::string> name = hardware.stringProperty(entry, HRBSDNameKey);
  if (!name) return std::nullopt;
  const std::string device = FormatMessage("/dev/%@", *name);
  const auto mount = std::find_if(
      mounts.begin(), mounts.end(),
      [&device](const MountedFileSystem& mounted) { return mounted.mountedFrom == device; });
  if (mount == mounts.end()) return std::nullopt;
  return QuorvelAdditions::stringWithFileSystemRepresentation(mount->mountPoint.data(),
                                                              mount->mountPoint.size());
}

}  // namespace

// Where there is no device tree or mount table, nothing is attached or mounted.
std::optional<std::string> QVGlobalConfiguration::mountPointForDevice(
    HardwareEntry entry) noexcept {
  if (FindService(kHardware) == nullptr || FindService(kMounts) == nullptr) return std::nullopt;
  const std::vector<MountedFileSystem> mounts = RequiredService(kMounts).read();
  if (mounts.empty()) {
    QV_LOG(LogLevelError, kMountPointForDevice, "getmntinfo failed: %s", ErrnoDescription(errno));
    return std::nullopt;
  }
  HardwareRegistry& hardware = RequiredService(kHardware);
  HardwareIterator created = 0;
  if (hardware.createDescendantIterator(entry, HRServicePlane, &created) != 0) {
    QV_LOG(LogLevelError, kMountPointForDevice,
           "HRRegistryEntryCreateIterator failed for deviceObj (%u)", entry);
    return std::nullopt;
  }
  const Handle iterator(created);
  std::optional<std::string> found;
  while (!found) {
    const Handle descendant(hardware.next(iterator.get()));
    if (!descendant) break;
    found = MountPointOfMedium(descendant.get(), mounts);
  }
  return found;
}

// The first mounted drive among the entry's descendants; an entry that cannot be walked has none.
std::optional<std::string> QVGlobalConfiguration::_firstMountPointBelow(HardwareEntry entry) {
  HardwareRegistry& hardware = RequiredService(kHardware);
  HardwareIterator created = 0;
  if (hardware.createDescendantIterator(entry, HRServicePlane, &created) != 0) {
    return std::nullopt;
  }
  const Handle iterator(created);
  while (true) {
    const Handle descendant(hardware.next(iterator.get()));
    if (!descendant) return std::nullopt;
    if (!hardware.conformsTo(descendant.get(), HRVDKXHDDriveClass)) continue;
    if (auto mountPoint = mountPointForDevice(descendant.get())) return mountPoint;
  }
}

// Below the controller there is one child for each image: the drive itself, or a hub above it. What
// cannot be walked costs its own image, in silence, as it may be on its way out.
std::vector<std::string> QVGlobalConfiguration::diskImageMountPoints() noexcept {
  std::vector<std::string> mountPoints;
  if (FindService(kHardware) == nullptr) return mountPoints;
  HardwareRegistry& hardware = RequiredService(kHardware);
  const Handle controller(hardware.firstMatchingService(HRVDKXControllerClass));
  if (!controller) return mountPoints;  // nothing is attached
  HardwareIterator created = 0;
  const std::int32_t result =
      hardware.createChildIterator(controller.get(), HRServicePlane, &created);
  if (result != 0) {
    QV_LOG(LogLevelError, kMountPoints,
           "unable to create controller child iterator: error 0x%08X (%d)", result, result);
    return mountPoints;
  }
  const Handle iterator(created);
  while (true) {
    const Handle child(hardware.next(iterator.get()));
    if (!child) return mountPoints;
    const std::optional<std::string> mountPoint =
        hardware.conformsTo(child.get(), HRVDKXHDDriveClass) ? mountPointForDevice(child.get())
                                                             : _firstMountPointBelow(child.get());
    if (mountPoint) mountPoints.push_back(*mountPoint);
  }
}

// The developer directory is among them although it may be no mount point, and only once: it may be
// one as well.
std::vector<Path> QVGlobalConfiguration::diskImageApplicationsDirectories() noexcept {
  const Path developerApps = developerAppsDirectory();
  std::vector<Path> directories;
  for (const std::string& mountPoint : diskImageMountPoints()) {
    if (mountPoint.starts_with(kDebugMountPrefix)) continue;
    directories.push_back(Path::directory(mountPoint).childDirectory("Applications"));
  }
  if (std::find(directories.begin(), directories.end(), developerApps) == directories.end()) {
    directories.push_back(developerApps);
  }
  QV_LOG(LogLevelDebug, kDirectories, "returning: %@", directories);
  return directories;
}

// An identifier that several images have is the later one's, as the images were attached in that
// order.
QVBundleMap QVGlobalConfiguration::diskImageAppBundleIDToInfoMap() noexcept {
  QVBundleMap apps;
  for (const Path& directory : diskImageApplicationsDirectories()) {
    const auto map = _bundleIDMapForAppsInDirectory(directory);
    if (!map) continue;
    for (const auto& [identifier, info] : *map) apps.insert_or_assign(identifier, info);
  }
  return apps;
}

}  // namespace quorvel
