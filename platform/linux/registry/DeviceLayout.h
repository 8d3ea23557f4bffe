// Where the registry keeps things on a device.
//
// A container's directory is named by a random UUID and lies among those of its kind; who owns it
// is said by the records alone.
//
// Why the names of apps are not in paths: an identifier is any text, some longer than a file name
// may be, and an app that is installed anew gets a new container while the old one is still whole.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/DeviceNames.h"
#include "platform/Path.h"

namespace quorvel::onlinux {

enum class ContainerKind {
  bundle,  // one bundle with its store metadata; replaced whole by each install
  data,    // what an app's user made; kept as long as its record
  group,   // what apps share; belongs to no app
};

// Paths below a device's root, with the root in front. A container is stored by its name alone.
class DeviceLayout {
 public:
  explicit DeviceLayout(std::string root) : root_(std::move(root)) {}

  // The database and its log.
  Path registryDirectory() const {
    return Path::directory(root_ + "/" + DaemonDirectory + RegistryDirectoryPath);
  }
  // Built-in apps.
  Path applications() const { return Path::directory(root_ + "/Applications"); }
  // The directory of all containers of a kind, and one of them.
  Path containers(ContainerKind kind) const {
    static constexpr const char* paths[] = {BundleContainersPath, DataContainersPath,
                                            GroupContainersPath};
    return Path::directory(root_ + "/" + MobileHomeDirectory + paths[static_cast<int>(kind)]);
  }
  // `name` is as the records have it; nothing here asks whether the directory exists.
  Path container(ContainerKind kind, std::string_view name) const {
    return containers(kind).childDirectory(name);
  }

 private:
  // "" for the device's own "/"; never with a slash at its end.
  std::string root_;
};

// A name that no container has or had: a random UUID in upper case. Empty, with errno, when the
// system has no random numbers.
std::string NewContainerName();

}  // namespace quorvel::onlinux
