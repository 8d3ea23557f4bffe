// Runs work in a child process and disturbs it at one of its system calls that change something:
// kills it just before the call, or lets the call fail. The work may become another program.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>

namespace quorvel::tests {

// Which system calls are counted: those that change something, or those that look at files.
enum class CountedCalls { changing, looking };

struct SystemCallFault {
  long atCall = 0;      // counted from 1; 0 for none
  int errorNumber = 0;  // the call fails with it; 0 kills the process instead
  CountedCalls counted = CountedCalls::changing;
};

struct FaultedRun {
  bool wasTraced = false;  // false where processes may not be traced
  bool fired = false;
  bool wasKilled = false;
  int exitStatus = -1;    // of a child that ended by itself; -1 when a signal ended it
  long countedCalls = 0;  // begun, of the kind that the fault names
  long allCalls = 0;
};

inline bool ChangesSomething(long call, std::uint64_t secondArgument, std::uint64_t third) {
  static constexpr auto calls = std::to_array<long>({
      SYS_write,           SYS_pwrite64,  SYS_writev,    SYS_pwritev,  SYS_fsync,     SYS_fdatasync,
      SYS_syncfs,          SYS_ftruncate, SYS_fallocate, SYS_mkdirat,  SYS_renameat2, SYS_unlinkat,
      SYS_linkat,          SYS_symlinkat, SYS_mknodat,   SYS_setxattr, SYS_lsetxattr, SYS_fsetxattr,
      SYS_fremovexattr,    SYS_fchmod,    SYS_fchmodat,  SYS_fchown,   SYS_fchownat,  SYS_utimensat,
      SYS_copy_file_range, SYS_sendfile,
#ifdef SYS_mkdir
      SYS_mkdir,           SYS_rename,    SYS_unlink,    SYS_rmdir,    SYS_link,      SYS_symlink,
      SYS_chmod,           SYS_chown,     SYS_lchown,
#endif
#ifdef SYS_renameat
      SYS_renameat,
#endif
  });
#ifdef SYS_open
  if (call == SYS_open) return (secondArgument & O_CREAT) != 0;
#endif
  if (call == SYS_openat) return (third & O_CREAT) != 0;
  return std::find(calls.begin(), calls.end(), call) != calls.end();
}

// Looking by path or by name. What is read from an open file's descriptor is counted, too: it may
// come from a disk.
inline bool LooksAtFiles(long call, std::uint64_t thirdArgument) {
  static constexpr auto calls = std::to_array<long>({
      SYS_newfstatat,
      SYS_statx,
      SYS_getdents64,
      SYS_read,
      SYS_pread64,
      SYS_readlinkat,
      SYS_getxattr,
      SYS_lgetxattr,
      SYS_fgetxattr,
      SYS_llistxattr,
      SYS_flistxattr,
#ifdef SYS_stat
      SYS_stat,
      SYS_lstat,
      SYS_readlink,
      SYS_access,
#endif
  });
  if (call == SYS_openat) return (thirdArgument & O_CREAT) == 0;
  return std::find(calls.begin(), calls.end(), call) != calls.end();
}

namespace faults_detail {

// Replaces the call that is about to begin by one that does not exist.
inline void SkipCall([[maybe_unused]] pid_t child) {
#if defined(__x86_64__)
  struct user_regs_struct registers {};
  ::ptrace(PTRACE_GETREGS, child, nullptr, &registers);
  registers.orig_rax = static_cast<unsigned long long>(-1);
  ::ptrace(PTRACE_SETREGS, child, nullptr, &registers);
#endif
}

inline void SetResult([[maybe_unused]] pid_t child, [[maybe_unused]] int errorNumber) {
#if defined(__x86_64__)
  struct user_regs_struct registers {};
  ::ptrace(PTRACE_GETREGS, child, nullptr, &registers);
  registers.rax = static_cast<unsigned long long>(-errorNumber);
  ::ptrace(PTRACE_SETREGS, child, nullptr, &registers);
#endif
}

}  // namespace faults_detail

#if defined(__x86_64__)
inline constexpr bool CanFailSystemCalls = true;
#else
inline constexpr bool CanFailSystemCalls = false;  // only kill
#endif

inline FaultedRun RunWithFault(const std::function<int()>& work, SystemCallFault fault) {
  FaultedRun run;
  const pid_t child = ::fork();
  if (child == 0) {
    const bool traced = ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0;
    if (!traced) ::_exit(127);
    ::raise(SIGSTOP);
    ::_exit(work());
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return run;
  run.wasTraced = true;
  // Without the event of its own an exec would stop the child by a signal that kills it.
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEEXEC);
  bool failsThisCall = false;
  int signal = 0;
  while (::ptrace(PTRACE_SYSCALL, child, nullptr, signal) == 0 &&
         ::waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
    signal = WSTOPSIG(status);
    const bool isEvent = status >> 16 != 0;
    if (!isEvent && signal != (SIGTRAP | 0x80)) continue;  // a real signal: deliver it
    signal = 0;
    if (isEvent) continue;
    struct __ptrace_syscall_info info {};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    if (info.op == PTRACE_SYSCALL_INFO_EXIT && failsThisCall) {
      faults_detail::SetResult(child, fault.errorNumber);
      failsThisCall = false;
    }
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
    ++run.allCalls;
    const long call = static_cast<long>(info.entry.nr);
    const bool isCounted = fault.counted == CountedCalls::changing
                               ? ChangesSomething(call, info.entry.args[1], info.entry.args[2])
                               : LooksAtFiles(call, info.entry.args[2]);
    if (!isCounted || ++run.countedCalls != fault.atCall) continue;
    run.fired = true;
    if (fault.errorNumber == 0) {
      ::kill(child, SIGKILL);
      ::waitpid(child, &status, 0);
      break;
    } else {
      faults_detail::SkipCall(child);
      failsThisCall = true;
    }
  }
  run.wasKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  if (WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
  return run;
}

}  // namespace quorvel::tests
