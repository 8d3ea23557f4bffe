// The device tree that the host works in, and the way into it.
//
// Absolute paths inside a device tree (markers, maps, harbors) mean that tree, so the host makes
// the tree its root before any of them is used. Everything that is needed from outside is opened
// before enter().
#pragma once

#include <string>

#include "host/console/ExitCode.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

// A user and mount namespace of the process's own, in which the user keeps his number. Only while
// it has a single thread. False with errno.
bool EnterOwnNamespace();
// In such a namespace: gives up every right that the user has not got outside, except for that to
// change the root directory. False with errno.
bool KeepChangingRootOnly();

class DeviceRoot {
 public:
  enum class View {
    writable,
    // The kernel refuses every change below the root, access times included, where it offers
    // read-only views (Linux 5.12); elsewhere the commands' own restraint has to do.
    readOnly,
  };

  // Opens the directory that the user named (a link to it is followed). Refuses this machine's
  // own root: a mistyped variable must not migrate the workstation.
  bool open(const std::string& path, FatalError& error);
  // The same, and refuses what has no mobile home in it, with the likely root if one is near by.
  bool openDevice(const std::string& path, FatalError& error);

  // Whether the tree has an item of this path (relative, a last link not followed) that is not
  // empty.
  bool holds(const std::string& path) const;

  // Whether a directory of this path is the tree's or lies in it. Also when that cannot be told.
  bool contains(const std::string& directory) const;

  // Keeps other hosts out until this process ends, however it ends. Without waiting.
  bool lock(FatalError& error);

  // Lets others see until this process ends, however it ends, that a migration is at work here.
  // Nothing rests on it: a file system without such locks shows no migration.
  void showAtWork() const;
  // Whether another process does. A question that holds nothing, so that it disturbs nobody.
  bool isAtWork() const;

  // Makes the directory the process's root and current directory: directly when privileged, else
  // in a user and mount namespace of its own, in which the user keeps the rights that he has and
  // gets no others. Only while the process has a single thread. On failure nothing on disk has
  // been touched and the command must end.
  bool enter(View view, FatalError& error);

  // Opens the same directory anew at its path, after the process has entered a mount namespace:
  // what was open before stays part of the former one. Keeps the lock. False with errno.
  bool openAgain(const std::string& path);

  // As messages show it.
  const std::string& printable() const { return printable_; }
  int descriptor() const { return directory_.get(); }

 private:
  UniqueDescriptor directory_;
  UniqueDescriptor locked_;  // what openAgain() replaced
  std::string printable_;
};

}  // namespace quorvel::host
