// A copy-on-write view of a device tree: what is changed in it goes elsewhere.
#pragma once

#include <string>

#include "host/console/DeviceRoot.h"
#include "host/console/ExitCode.h"

namespace quorvel::host {

// In a mount namespace of this process and its children the view covers the tree: its path leads
// into the view, while the opened DeviceRoot still is the tree itself. Gone with the process.
class DeviceView {
 public:
  DeviceView() = default;
  ~DeviceView();
  DeviceView(const DeviceView&) = delete;
  DeviceView& operator=(const DeviceView&) = delete;

  // Makes the directory for the changes: in `upper`; without one in memory, or beside the tree when
  // that does not do or the changes are to be kept. One thread; the process's current directory
  // becomes that directory.
  bool prepare(DeviceRoot& root, const std::string& upper, bool keep, FatalError& error);
  // Covers the tree, and takes the view away again.
  bool cover(const DeviceRoot& root, FatalError& error);
  void uncover();

  // Before a child enters the tree: without privileges of its own the process has got some that a
  // migration must not have.
  bool dropPrivileges() const;

  // The tree's path, which leads into the view once it is covered.
  const std::string& treePath() const { return treePath_; }
  const std::string& directory() const { return directory_; }
  // Without privileges the kernel renames no directory in such a view; the view is a copy then.
  bool isCopy() const { return !privileged_; }

 private:
  // A mount namespace of its own: as root at once, otherwise within a user namespace.
  bool enterNamespace(FatalError& error);
  // Memory, beside the tree or below `upper`, wherever extended attributes can be kept.
  bool chooseDirectory(const std::string& upper, bool keep, FatalError& error);
  // False when it does not do; nothing is left of the attempt.
  bool mountMemory();
  // Mounts the view over the tree's path. False with errno.
  bool mountView(const DeviceRoot& root) const;
  // Whether the path leads to something else than the tree: what is let loose must not reach it.
  bool isInView(const DeviceRoot& root) const;

  std::string treePath_;
  std::string directory_;
  bool privileged_ = false;
  bool isMemory_ = false;
  bool isCovered_ = false;
  // The directory stays when this goes.
  bool keep_ = false;
};

}  // namespace quorvel::host
