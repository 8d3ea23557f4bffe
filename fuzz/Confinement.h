// Keeps what an input makes the code do inside a directory: for fuzzers whose inputs name paths
// that are moved and removed.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace quorvel::fuzzing {

// The directory is the process's root while this lives, as a device tree is the host's. Needs
// privileges: the process ends with 77 (skipped) without them, before any input is run.
class Confinement {
 public:
  explicit Confinement(const std::string& root) {
    Outside& outside = theOutside();
    if (outside.root < 0) outside.root = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (outside.directory < 0) outside.directory = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const bool canReturn = outside.root >= 0 && outside.directory >= 0;
    if (!canReturn || ::chroot(root.c_str()) != 0 || ::chdir("/") != 0) {
      std::fputs("skipped: the process cannot be confined to a directory\n", stderr);
      std::_Exit(77);
    }
    outside.left = false;
  }
  Confinement(const Confinement&) = delete;
  Confinement& operator=(const Confinement&) = delete;
  ~Confinement() { leave(); }

  // Also before a failure is reported, which needs the files outside.
  static void leave() {
    Outside& outside = theOutside();
    if (outside.left) return;
    if (::fchdir(outside.root) != 0 || ::chroot(".") != 0 || ::fchdir(outside.directory) != 0) {
      std::_Exit(78);
    }
    outside.left = true;
  }

 private:
  struct Outside {
    int root = -1;
    int directory = -1;
    bool left = true;
  };
  static Outside& theOutside() {
    static Outside outside;
    return outside;
  }
};

}  // namespace quorvel::fuzzing

// The address sanitizer's hook, before it reports.
extern "C" [[gnu::used]] inline void __asan_on_error() { quorvel::fuzzing::Confinement::leave(); }
