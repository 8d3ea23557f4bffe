// Devices in memory: a pristine one, and the copy that is migrated, afresh for every point.
#pragma once

#include <optional>
#include <string>

#include "tests/sweep/Judge.h"
#include "tests/sweep/TracedHost.h"

namespace quorvel::sweep {

// Mounts of this process from now on are nobody else's. False without the privilege.
bool HaveOwnMounts();

// Copies a tree with everything in it; the destination exists. False with a failure.
bool CopyTreeWithSystem(const std::string& from, const std::string& to);

class MemoryDevice {
 public:
  // `sweep`: the name under which it gets a place of its own.
  MemoryDevice(const Options& options, Variant variant, const std::string& sweep);
  ~MemoryDevice();
  MemoryDevice(const MemoryDevice&) = delete;
  MemoryDevice& operator=(const MemoryDevice&) = delete;

  std::string whyNot() const;
  // Makes the pristine device and learns what an undisturbed migration makes of it. False with
  // words in `problem`.
  bool prepare(const Options& options, std::string* problem);
  // A new copy in a place of this process's own.
  const testing::Device& fresh();

  const Judge& judge() const { return judge_; }
  const HostProgram& host() const { return host_; }
  const testing::HostSetup& setup() const { return setup_; }
  const Variant& variant() const { return variant_; }
  // Of the second file system; empty without one.
  std::string mountPoint() const;

 private:
  void remove() const;

  const Variant variant_;
  const HostProgram host_;
  testing::HostSetup setup_;
  const std::string directory_;
  std::optional<testing::Device> device_;
  pid_t owner_ = 0;
  Judge judge_;
};

}  // namespace quorvel::sweep
