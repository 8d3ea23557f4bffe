// The kernel's mount table.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/MountTable.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {

// Reads the table of the mount namespace and root that the process has when this is made (before
// it confines itself), as it stands at each read. Mount points are paths of that root.
class MountTableLinux final : public MountTable {
 public:
  // A file in the form of /proc/self/mountinfo or of /proc/self/mounts.
  explicit MountTableLinux(const std::string& path = "/proc/self/mountinfo");
  // Any thread: each read has a position of its own. A table that was read and has no entry is
  // ENODATA.
  std::vector<MountedFileSystem> read() override;

 private:
  UniqueDescriptor table_;
  // Why there is no table; what each read then fails with.
  int openErrno_ = 0;
};

// The entries of a table's text, in its order. Each line tells its own form; one that is of
// neither is passed over.
std::vector<MountedFileSystem> ParseMountTable(std::string_view text);

}  // namespace quorvel::onlinux
