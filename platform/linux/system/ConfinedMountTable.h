// The mount table as a process sees it that is confined to a directory.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/MountTable.h"

namespace quorvel::onlinux {

// The kernel's table, opened before confinement, speaks of the machine's root. This one leaves
// out what lies outside the directory, and the device of the directory itself, which is none of the
// tree's images, and takes the directory's path off the rest. As safe between threads as the table
// behind it, which must outlive it. "Leaves out" means that such entries stay, without a device and
// under the name of the root: callers count on the table of a running system never being empty, and
// take an empty one for a failure, which is passed on with errno as it was.
class ConfinedMountTable final : public MountTable {
 public:
  // `directory` is the real path, as bytes.
  ConfinedMountTable(MountTable& table, std::string directory)
      : table_(table), directory_(std::move(directory)) {}

  // By text: both are real paths of one root, so that nothing needs to be looked up.
  std::vector<MountedFileSystem> read() override {
    std::vector<MountedFileSystem> inside;
    for (MountedFileSystem& mounted : table_.read()) {
      if (mounted.mountPoint.starts_with(directory_ + "/")) {
        mounted.mountPoint.erase(0, directory_.size());
      } else {
        // Stays, under a name that no device has: an empty table means that it cannot be read.
        mounted = {"", "/"};
      }
      inside.push_back(std::move(mounted));
    }
    return inside;
  }

 private:
  MountTable& table_;
  const std::string directory_;
};

}  // namespace quorvel::onlinux
