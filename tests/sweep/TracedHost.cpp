// The migration host as a process under the tracer.
#include "tests/sweep/TracedHost.h"

#include <climits>
#include <cstdlib>

namespace quorvel::sweep {

namespace {

constexpr int kLastExitCode = 5;  // of those that the host's manual names

int BecomeHost(const HostProgram& host, const std::string& root) {
  const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  ::dup2(nowhere, STDOUT_FILENO);
  ::dup2(nowhere, STDERR_FILENO);
  // Looking for leaks at exit needs /proc, which a confined process does not have, and must not be
  // traced.
  ::setenv("ASAN_OPTIONS", "detect_leaks=0:verify_asan_link_order=0", 1);
  if (!host.preload.empty()) ::setenv("LD_PRELOAD", host.preload.c_str(), 1);
  ::alarm(LongestRunSeconds);  // also counts behind the exec
  ::execl(host.path.c_str(), "migration-host", "migrate", "--quiet", "--root", root.c_str(),
          nullptr);
  return 126;
}

}  // namespace

TracedRun MigrateTraced(const HostProgram& host, const std::string& root,
                        const std::function<Treatment(const TracedCall&)>& treat) {
  bool isInside = false;
  return tests::RunTraced([&] { return BecomeHost(host, root); },
                          [&](const TracedCall& call) -> Treatment {
                            if (isInside) return treat(call);
                            isInside = call.number == SYS_chroot;
                            return {};
                          });
}

TracedRun MigrateTracedByChange(const HostProgram& host, const std::string& root,
                                const std::function<Treatment(const TracedCall&, long)>& treat) {
  long changes = 0;
  return MigrateTraced(host, root, [&](const TracedCall& call) -> Treatment {
    if (!tests::ChangesSomething(call)) return {};
    return treat(call, ++changes);
  });
}

std::string PathOfDescriptor(pid_t process, std::uint64_t descriptor) {
  const std::string link =
      "/proc/" + std::to_string(process) + "/fd/" + std::to_string(static_cast<int>(descriptor));
  char path[PATH_MAX];
  const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
  return length < 0 ? std::string() : std::string(path, static_cast<std::size_t>(length));
}

std::string WrongEnd(const TracedRun& run) {
  if (run.signal == SIGALRM) return "the run hung";
  if (run.signal != 0) return "the run ended with signal " + std::to_string(run.signal);
  if (run.exitStatus <= kLastExitCode) return {};
  return "the run ended with " + std::to_string(run.exitStatus);
}

}  // namespace quorvel::sweep
