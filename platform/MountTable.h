// The table of mounted file systems.
//
// Why a service: its form differs between systems, and a test must be able to present any.
#pragma once

#include <string>
#include <vector>

namespace quorvel {

// Both are bytes as the kernel gives them, with the table's own escapes undone.
struct MountedFileSystem {
  std::string mountedFrom;  // device path; empty where only a part of its file system is shown
  std::string mountPoint;
};

class MountTable {
 public:
  virtual ~MountTable() = default;
  // The table in its order, without waiting for any file system (getmntinfo, MNT_NOWAIT); empty
  // with errno set when it cannot be read. Any thread may call.
  virtual std::vector<MountedFileSystem> read() = 0;
};

}  // namespace quorvel
