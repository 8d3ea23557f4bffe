// Lets each of the host's calls fail: once with each error that it can return, cut short, or with
// all of its kind from then on.
#include <sys/mount.h>

#include <cerrno>

#include "tests/sweep/CallErrors.h"
#include "tests/sweep/MemoryDevice.h"

namespace quorvel::sweep {

namespace {

// What lasts from a call on until the run's end.
constexpr const char* kDiskFull = "full";          // every call that needs room fails
constexpr const char* kReadOnly = "read-only";     // the second file system is mounted so
constexpr const char* kUnreadable = "unreadable";  // the directory that is read then
constexpr const char* kShort = "short";            // once: half of what was asked for
// Reading either map may fail without a failure of the run.
constexpr Leniency kSaidComplete = {.logs = true, .reading = true};

Leniency BehindTheFault(const std::string& detail) {
  const bool lasts = detail == kDiskFull || detail == kReadOnly || detail == kUnreadable;
  return {.failures = true, .logs = true, .lasting = lasts};
}

// Calls are counted together, those that change something and those that look.
bool IsCounted(const TracedCall& call) {
  return tests::ChangesSomething(call) || tests::LooksAtFiles(call);
}

// One fault; remembers what lasts.
class Fault {
 public:
  Fault(std::string detail, long atCall, std::string mountPoint)
      : detail_(std::move(detail)), atCall_(atCall), mountPoint_(std::move(mountPoint)) {}

  Treatment treat(const TracedCall& call);
  bool fired() const { return fired_; }

 private:
  Treatment begin(const TracedCall& call);
  Treatment last(const TracedCall& call) const;
  Treatment fail(int number) {
    fired_ = true;
    return {Treatment::Kind::fail, number};
  }

  const std::string detail_;
  const long atCall_;
  const std::string mountPoint_;
  long count_ = 0;
  bool fired_ = false;
  std::string directory_;
};

Treatment Fault::treat(const TracedCall& call) {
  if (!IsCounted(call)) return {};
  ++count_;
  // A file system with a file open for writing cannot become read-only: then at the next call.
  const bool isDue = detail_ == kReadOnly ? count_ >= atCall_ && !fired_ : count_ == atCall_;
  if (isDue) return begin(call);
  return fired_ ? last(call) : Treatment();
}

Treatment Fault::begin(const TracedCall& call) {
  if (const int number = ErrorOfName(detail_)) return fail(number);
  if (detail_ == kDiskFull) return fail(ENOSPC);
  if (detail_ == kShort) {
    fired_ = true;
    return {Treatment::Kind::shorten};
  }
  if (detail_ == kUnreadable) {
    directory_ = PathOfDescriptor(call.process, call.arguments[0]);
    return fail(EIO);
  }
  fired_ = ::mount(nullptr, mountPoint_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
  return {};
}

Treatment Fault::last(const TracedCall& call) const {
  if (detail_ == kDiskFull && TakesRoom(call)) return {Treatment::Kind::fail, ENOSPC};
  const bool isSame = detail_ == kUnreadable && call.number == SYS_getdents64 &&
                      PathOfDescriptor(call.process, call.arguments[0]) == directory_;
  return isSame ? Treatment{Treatment::Kind::fail, EIO} : Treatment();
}

class FailSweep : public Sweep {
 public:
  FailSweep(const Options& options, const Variant& variant)
      : options_(options), device_(options, variant, kName) {}

  std::string name() const override { return kName; }
  std::string whyNot() const override;
  bool measure(std::string* problem) override;
  std::vector<std::string> points() const override { return points_; }
  std::vector<Finding> tryPoint(const std::string& point, const std::string& keep) override;

 private:
  static constexpr const char* kName = "fail";

  void addPoints(const TracedCall& call, long number);
  void judgeRun(const testing::Device& device, const TracedRun& run, Finding* finding) const;

  const Options options_;
  MemoryDevice device_;
  std::vector<std::string> points_;
};

std::string FailSweep::whyNot() const {
  return tests::CanFailSystemCalls ? device_.whyNot() : "calls can only be failed on x86-64";
}

void FailSweep::addPoints(const TracedCall& call, long number) {
  const auto add = [&](const std::string& detail) {
    points_.push_back(std::to_string(number) + "/" + detail);
  };
  for (const int error : ErrorsOf(call)) add(NameOfError(error));
  if (tests::CanShorten(call)) add(kShort);
  if (call.number == SYS_getdents64) add(kUnreadable);
  if (!tests::ChangesSomething(call)) return;
  if (TakesRoom(call)) add(kDiskFull);
  if (!device_.variant().mountPoint.empty()) add(kReadOnly);
}

bool FailSweep::measure(std::string* problem) {
  if (!device_.prepare(options_, problem)) return false;
  long count = 0;
  MigrateTraced(device_.host(), device_.fresh().root(), [&](const TracedCall& call) {
    if (IsCounted(call)) addPoints(call, ++count);
    return Treatment{};
  });
  if (count == 0) *problem = "processes may not be traced here";
  return count > 0;
}

// No user's item may be gone, and a run that says that it is complete must be.
void FailSweep::judgeRun(const testing::Device& device, const TracedRun& run,
                         Finding* finding) const {
  const std::string wrong = WrongEnd(run);
  if (!wrong.empty()) finding->lost.push_back(wrong);
  for (const std::string& path : device_.judge().missingAnywhere(device.root())) {
    finding->lost.push_back("not whole anywhere behind the failure: " + path);
  }
  if (run.exitStatus != 0) return;
  Finding silent;
  device_.judge().compare(testing::Outcome(device, device_.setup()), kSaidComplete, &silent);
  for (const std::string& text : silent.lost) {
    finding->lost.push_back("the run called itself complete, but " + text);
  }
}

std::vector<Finding> FailSweep::tryPoint(const std::string& point, const std::string& keep) {
  Finding finding;
  finding.point = point;
  const testing::Device& device = device_.fresh();
  Fault fault(DetailOf(point), CallOf(point), device_.mountPoint());
  const TracedRun run = MigrateTraced(device_.host(), device.root(),
                                      [&](const TracedCall& call) { return fault.treat(call); });
  finding.fired = fault.fired();
  if (DetailOf(point) == kReadOnly) {
    ::mount(nullptr, device_.mountPoint().c_str(), nullptr, MS_REMOUNT, nullptr);
  }
  judgeRun(device, run, &finding);
  if (!keep.empty()) CopyTreeWithSystem(device.root(), keep + "/behind-the-fault");
  Recover(device_.judge(), device, device_.setup(), BehindTheFault(DetailOf(point)), &finding);
  if (!keep.empty()) CopyTreeWithSystem(device.root(), keep + "/behind-the-recovery");
  return {finding};
}

}  // namespace

std::unique_ptr<Sweep> MakeFailSweep(const Options& options, const Variant& variant) {
  return std::make_unique<FailSweep>(options, variant);
}

}  // namespace quorvel::sweep
