// Kills the host before each of its calls that change something, now and then once more while the
// next run takes it up, and now and then by a signal that asks it to end.
#include <algorithm>
#include <array>
#include <map>

#include "tests/sweep/MemoryDevice.h"

namespace quorvel::sweep {

namespace {

constexpr long kPairStride = 4;     // every so many points are followed by a second kill
constexpr long kPairSamples = 4;    // at so many points of the recovering run
constexpr long kSignalStride = 16;  // every so many points are tried with signals, too

constexpr int kSignalExit = 128;  // and the signal's number: how the host ends when it is asked to

const std::map<std::string, int>& Signals() {
  static const std::map<std::string, int> signals = {
      {"TERM", SIGTERM}, {"INT", SIGINT}, {"HUP", SIGHUP}};
  return signals;
}

class KillSweep : public Sweep {
 public:
  KillSweep(const Options& options, const Variant& variant)
      : options_(options), device_(options, variant, kName) {}

  std::string name() const override { return kName; }
  std::string whyNot() const override { return device_.whyNot(); }
  bool measure(std::string* problem) override;
  std::vector<std::string> points() const override;
  std::vector<Finding> tryPoint(const std::string& point, const std::string& keep) override;

 private:
  static constexpr const char* kName = "kill";

  // Disturbs the call of that number on the device as it stands; whether it came to it.
  bool disturb(const testing::Device& device, long atCall, int signal, Finding* finding);
  long countOfRun(const testing::Device& device);
  Finding tryOnce(const std::string& point, long second, const std::string& keep);

  const Options options_;
  MemoryDevice device_;
  long calls_ = 0;
};

long KillSweep::countOfRun(const testing::Device& device) {
  long count = 0;
  MigrateTracedByChange(device_.host(), device.root(), [&](const TracedCall&, long call) {
    count = call;
    return Treatment{};
  });
  return count;
}

bool KillSweep::measure(std::string* problem) {
  if (!device_.prepare(options_, problem)) return false;
  calls_ = countOfRun(device_.fresh());
  if (calls_ == 0) *problem = "processes may not be traced here";
  return calls_ > 0;
}

std::vector<std::string> KillSweep::points() const {
  std::vector<std::string> points;
  for (long call = 1; call <= calls_; ++call) {
    points.push_back(std::to_string(call) + "/kill");
    if (call % kPairStride == 0) points.push_back(std::to_string(call) + "/twice");
    if (call % kSignalStride != 0) continue;
    for (const auto& [name, number] : Signals()) {
      points.push_back(std::to_string(call) + "/" + name);
    }
  }
  return points;
}

bool KillSweep::disturb(const testing::Device& device, long atCall, int signal, Finding* finding) {
  bool reached = false;
  const TracedRun run = MigrateTracedByChange(device_.host(), device.root(),
                                              [&](const TracedCall&, long call) -> Treatment {
                                                if (call != atCall) return {};
                                                reached = true;
                                                if (signal == SIGKILL)
                                                  return {Treatment::Kind::kill};
                                                return {Treatment::Kind::signal, signal};
                                              });
  // Who asks the host to end need not be obeyed; whoever kills it is.
  const bool ended = run.signal == signal || run.exitStatus == kSignalExit + signal ||
                     (signal != SIGKILL && WrongEnd(run).empty());
  if (reached && !ended)
    finding->lost.push_back("the signal did not end the run, but " + std::to_string(run.signal) +
                            "/" + std::to_string(run.exitStatus));
  return reached;
}

Finding KillSweep::tryOnce(const std::string& point, long second, const std::string& keep) {
  Finding finding;
  finding.point = point;
  const testing::Device& device = device_.fresh();
  const auto signal = Signals().find(DetailOf(point));
  finding.fired = disturb(device, CallOf(point),
                          signal == Signals().end() ? SIGKILL : signal->second, &finding);
  if (second > 0) finding.fired = disturb(device, second, SIGKILL, &finding) && finding.fired;
  for (const std::string& path : device_.judge().missingAnywhere(device.root())) {
    finding.lost.push_back("not whole anywhere behind the kill: " + path);
  }
  if (!keep.empty()) CopyTreeWithSystem(device.root(), keep + "/behind-the-fault");
  Recover(device_.judge(), device, device_.setup(), {}, &finding);
  if (!keep.empty()) CopyTreeWithSystem(device.root(), keep + "/behind-the-recovery");
  return finding;
}

std::vector<Finding> KillSweep::tryPoint(const std::string& point, const std::string& keep) {
  const std::string detail = DetailOf(point);
  if (!detail.starts_with("twice")) return {tryOnce(point, 0, keep)};
  // "twice-52" is the second kill before call 52 of the recovering run.
  if (detail.size() > 6) return {tryOnce(point, std::stol(detail.substr(6)), keep)};
  Finding ignored;
  const testing::Device& device = device_.fresh();
  disturb(device, CallOf(point), SIGKILL, &ignored);
  const long count = countOfRun(device);
  std::vector<Finding> findings;
  for (long sample = 0; sample < std::min(kPairSamples, count); ++sample) {
    // Spread over the run, and shifted from point to point.
    const long second = 1 + (sample * count / kPairSamples + CallOf(point) / kPairStride) % count;
    findings.push_back(tryOnce(point + "-" + std::to_string(second), second, keep));
  }
  return findings;
}

}  // namespace

std::unique_ptr<Sweep> MakeKillSweep(const Options& options, const Variant& variant) {
  return std::make_unique<KillSweep>(options, variant);
}

}  // namespace quorvel::sweep
