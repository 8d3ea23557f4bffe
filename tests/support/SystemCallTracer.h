// Runs work in a child process under a tracer that may disturb each of its system calls.
#pragma once

#include <fcntl.h>
#include <linux/fs.h>
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

struct TracedCall {
  pid_t process = 0;
  long number = 0;
  std::array<std::uint64_t, 6> arguments{};
};

// What becomes of a call that is about to begin. A signal is sent just before the call and
// delivered behind it, when it has not ended the process.
struct Treatment {
  enum class Kind { none, kill, signal, fail, shorten };
  Kind kind = Kind::none;
  int number = 0;  // the signal, or the error that the call fails with
};

struct TracedRun {
  bool wasTraced = false;  // false where processes may not be traced
  int exitStatus = -1;     // of a child that ended by itself; -1 when a signal ended it
  int signal = 0;          // that ended it
};

inline bool ChangesSomething(const TracedCall& call) {
  static constexpr auto calls = std::to_array<long>({
      SYS_write,        SYS_pwrite64,    SYS_writev,       SYS_pwritev,         SYS_pwritev2,
      SYS_fsync,        SYS_fdatasync,   SYS_syncfs,       SYS_sync_file_range, SYS_ftruncate,
      SYS_fallocate,    SYS_mkdirat,     SYS_renameat2,    SYS_unlinkat,        SYS_linkat,
      SYS_symlinkat,    SYS_mknodat,     SYS_setxattr,     SYS_lsetxattr,       SYS_fsetxattr,
      SYS_fremovexattr, SYS_removexattr, SYS_lremovexattr, SYS_fchmod,          SYS_fchmodat,
      SYS_fchown,       SYS_fchownat,    SYS_utimensat,    SYS_copy_file_range, SYS_sendfile,
#ifdef SYS_mkdir
      SYS_mkdir,        SYS_rename,      SYS_unlink,       SYS_rmdir,           SYS_link,
      SYS_symlink,      SYS_chmod,       SYS_chown,        SYS_lchown,
#endif
#ifdef SYS_renameat
      SYS_renameat,
#endif
  });
#ifdef SYS_open
  if (call.number == SYS_open) return (call.arguments[1] & (O_CREAT | O_TRUNC)) != 0;
#endif
  if (call.number == SYS_openat) return (call.arguments[2] & (O_CREAT | O_TRUNC)) != 0;
  if (call.number == SYS_ioctl) return call.arguments[1] == FICLONE;
  return std::find(calls.begin(), calls.end(), call.number) != calls.end();
}

// Looking by path or by name. What is read from an open file's descriptor is counted, too: it may
// come from a disk.
inline bool LooksAtFiles(const TracedCall& call) {
  static constexpr auto calls = std::to_array<long>({
      SYS_newfstatat,
      SYS_openat2,
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
  const bool opens = call.number == SYS_openat;
  if (opens) return !ChangesSomething(call);
  return std::find(calls.begin(), calls.end(), call.number) != calls.end();
}

#if defined(__x86_64__)
inline constexpr bool CanFailSystemCalls = true;
#else
inline constexpr bool CanFailSystemCalls = false;  // only kill
#endif

namespace tracer_detail {

// Changes the stopped child's registers; does nothing on other processors.
template <class Change>
void WithRegisters([[maybe_unused]] pid_t child, [[maybe_unused]] Change change) {
#if defined(__x86_64__)
  struct user_regs_struct registers {};
  ::ptrace(PTRACE_GETREGS, child, nullptr, &registers);
  change(registers);
  ::ptrace(PTRACE_SETREGS, child, nullptr, &registers);
#endif
}

// Where a call that takes a length has it, or -1.
inline int LengthArgument(long number) {
  if (number == SYS_copy_file_range) return 4;
  if (number == SYS_sendfile) return 3;
  const bool plain =
      number == SYS_read || number == SYS_pread64 || number == SYS_write || number == SYS_pwrite64;
  return plain ? 2 : -1;
}

// Both at the call's entry, and with the old length at its exit: the caller does not expect the
// register to change.
inline void SetLength(const TracedCall& call, std::uint64_t length) {
  WithRegisters(call.process, [&](auto& registers) {
    const int argument = LengthArgument(call.number);
    (argument == 2 ? registers.rdx : argument == 3 ? registers.r10 : registers.r8) = length;
  });
}

inline pid_t StartTraced(const std::function<int()>& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(127);
    ::raise(SIGSTOP);
    ::_exit(work());
  }
  return child;
}

// A call's way through the stop at its entry and the one at its exit.
class CallInProgress {
 public:
  void enter(const TracedCall& call, const Treatment& treatment) {
    call_ = call;
    treatment_ = treatment;
    switch (treatment.kind) {
      case Treatment::Kind::none:
        break;
      case Treatment::Kind::kill:
        ::kill(call.process, SIGKILL);
        break;
      case Treatment::Kind::signal:
        ::kill(call.process, treatment.number);
        break;
      case Treatment::Kind::fail:  // becomes a call that does not exist
        WithRegisters(call.process, [](auto& registers) {
          registers.orig_rax = static_cast<unsigned long long>(-1);
        });
        break;
      case Treatment::Kind::shorten:
        SetLength(call, std::max<std::uint64_t>(length() / 2, 1));
        break;
    }
  }

  void leave() {
    if (treatment_.kind == Treatment::Kind::fail) {
      WithRegisters(call_.process, [this](auto& registers) {
        registers.rax = static_cast<unsigned long long>(-treatment_.number);
      });
    } else if (treatment_.kind == Treatment::Kind::shorten) {
      SetLength(call_, length());
    }
    treatment_ = {};
  }

 private:
  std::uint64_t length() const {
    return call_.arguments[static_cast<std::size_t>(LengthArgument(call_.number))];
  }

  TracedCall call_;
  Treatment treatment_;
};

}  // namespace tracer_detail

// Whether a call's result may be made shorter than what was asked for.
inline bool CanShorten(const TracedCall& call) {
  const int argument = tracer_detail::LengthArgument(call.number);
  return argument >= 0 && call.arguments[static_cast<std::size_t>(argument)] > 1;
}

// Runs the work in a child, which may become another program, and asks at each of its calls.
inline TracedRun RunTraced(const std::function<int()>& work,
                           const std::function<Treatment(const TracedCall&)>& treat) {
  TracedRun run;
  const pid_t child = tracer_detail::StartTraced(work);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return run;
  run.wasTraced = true;
  // Without the event of its own an exec would stop the child by a signal that kills it.
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEEXEC);
  tracer_detail::CallInProgress inProgress;
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
    if (info.op == PTRACE_SYSCALL_INFO_EXIT) inProgress.leave();
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
    TracedCall call{child, static_cast<long>(info.entry.nr), {}};
    std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
    inProgress.enter(call, treat(call));
  }
  // A child that was killed while it was stopped may not have been waited for yet.
  if (WIFSTOPPED(status)) ::waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
  if (WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
  return run;
}

}  // namespace quorvel::tests
