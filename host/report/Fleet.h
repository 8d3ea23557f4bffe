// What many results have in common, gathered one by one.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/report/ResultFiles.h"
#include "host/report/Timeline.h"

namespace quorvel::host {

// How often something went wrong in the same way.
struct CauseTally {
  std::uint64_t containers = 0;
  std::uint64_t devices = 0;
  std::uint64_t lastDevice = 0;  // counted from 1; each device once
  std::vector<std::string> examples{};
};

// A device that did not go through as it should have, or that lost or kept something.
struct DeviceOfNote {
  std::string device{};
  std::string file{};
  std::string state{};  // "succeeded", "failed", "interrupted", "not begun"
  std::uint64_t failed = 0;
  std::uint64_t kept = 0;
  ResultLoss lost{};
  double seconds = 0;
};

struct SlowContainer {
  std::string device{};
  std::string app{};
  double seconds = 0;
  std::string slowestStep{};
};

// Bounded but for a number and a short record for each device.
class Fleet {
 public:
  void add(const std::string& file, const RunResult& result);
  void addUnusable(UnusableFile file);

  std::uint64_t devices = 0;
  std::uint64_t succeeded = 0;
  std::uint64_t failed = 0;
  std::uint64_t interrupted = 0;
  std::uint64_t notBegun = 0;
  std::uint64_t containers = 0;
  std::array<std::uint64_t, MigrationOutcomeNames.size()> counts{};
  ResultLoss lost{};
  std::uint64_t devicesThatLost = 0;
  std::uint64_t devicesThatKept = 0;
  StepTotals steps{};
  std::vector<double> durations{};  // of the runs
  std::map<std::string, CauseTally> causes{};
  std::map<std::string, std::uint64_t> versions{};
  std::vector<SlowContainer> slowest{};  // the slowest first
  std::vector<DeviceOfNote> ofNote{};
  std::vector<UnusableFile> unusable{};
  std::uint64_t unusableCount = 0;

 private:
  void addRun(const RunResult& result, DeviceOfNote& note);
  void addRefusal(const RunResult& result);
  void addContainer(const ResultContainer& container, const RunResult& result, DeviceOfNote& note);
  void addCause(const std::string& cause, const std::string& example, bool isContainer);
  void addSlow(const ResultContainer& container, const RunResult& result);
};

}  // namespace quorvel::host
