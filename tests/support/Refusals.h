// What a machine may refuse to tests: each says why a case cannot be tried here, or nothing.
//
//   if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace quorvel::testing {

constexpr uid_t kNobody = 65534;

// Whether a child of its own gets through it.
template <class Attempt>
bool MayInChild(Attempt attempt) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(attempt() ? 0 : 1);
  int status = 1;
  ::waitpid(child, &status, 0);
  return status == 0;
}

// Becoming a user without privileges, in a user namespace as the programs then need it. A chroot,
// and many containers, allow none.
inline std::string NoUnprivilegedCase() {
#ifdef __SANITIZE_THREAD__
  return "the sanitizer's own thread forbids a new user namespace";
#else
  if (::geteuid() != 0) return "needs to become someone else";
  static const bool may = MayInChild([] {
    return ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0 &&
           ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
  });
  return may ? "" : "an ordinary user gets no user namespace here";
#endif
}

// Mounts in a namespace of one's own. A container refuses the namespace or the mount; in a plain
// chroot "/" is no mount point, and what lies on it cannot be kept from the rest of the system.
inline std::string NoMounts() {
  static const bool may = MayInChild([] {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0;
  });
  return may ? "" : "mounts of its own are refused here";
}

// A terminal that a program can be given: a chroot often has no devpts.
inline std::string NoTerminal() {
  const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  char name[64] = "";
  const bool may = terminal >= 0 && ::grantpt(terminal) == 0 && ::unlockpt(terminal) == 0 &&
                   ::ptsname_r(terminal, name, sizeof name) == 0 && ::access(name, R_OK) == 0;
  if (terminal >= 0) ::close(terminal);
  return may ? "" : "no terminal is to be had here";
}

// Processes' descriptors and programs by name.
inline std::string NoProc() {
  return ::access("/proc/self/fd", F_OK) == 0 ? "" : "there is no /proc here";
}

}  // namespace quorvel::testing
