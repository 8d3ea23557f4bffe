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
// Devices are told apart by the order in which their results came, not by their names, which two
// devices may share. At most one example of each device is kept, and only a few of all.
struct CauseTally {
  std::uint64_t containers = 0;
  // Every device is in exactly one of the four numbers that follow. Containers and durations are
  // those of runs that were begun: a refused run has none.
  std::uint64_t devices = 0;
  std::uint64_t lastDevice = 0;  // counted from 1; each device once
  std::vector<std::string> examples{};
};

// A device that did not go through as it should have, or that lost or kept something.
// The short record that is kept of such a device. A device that succeeded without losing or keeping
// anything has none.
struct DeviceOfNote {
  std::string device{};
  std::string file{};
  std::string state{};  // "succeeded", "failed", "interrupted", "not begun"
  std::uint64_t failed = 0;
  std::uint64_t kept = 0;
  ResultLoss lost{};
  double seconds = 0;
};

// One of the containers that took longest in the whole fleet, with the step that had the most of
// it.
struct SlowContainer {
  std::string device{};
  std::string app{};
  double seconds = 0;
  std::string slowestStep{};
};

// Bounded but for a number and a short record for each device.
// Results may come from anybody: names are tallied up to a fixed number and then together under one
// name, so that a hostile set of files cannot make the tallies grow without end. One thread.
class Fleet {
 public:
  // One device's result, which must not be of the kind none. Nothing of it is referred to
  // afterwards, so that the caller reads the next one into the same memory.
  void add(const std::string& file, const RunResult& result);
  // A file that is no result. Beyond a fixed number they are counted, not kept.
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
  // In seconds and in the order of arrival; every one is kept, since the page orders them all.
  std::vector<double> durations{};  // of the runs
  std::map<std::string, CauseTally> causes{};
  std::map<std::string, std::uint64_t> versions{};
  std::vector<SlowContainer> slowest{};  // the slowest first
  std::vector<DeviceOfNote> ofNote{};
  std::vector<UnusableFile> unusable{};
  std::uint64_t unusableCount = 0;

 private:
  // The parts of add(), by what the result is of. They add to the totals, and to the note what the
  // device's own line shows.
  void addRun(const RunResult& result, DeviceOfNote& note);
  void addRefusal(const RunResult& result);
  void addContainer(const ResultContainer& container, const RunResult& result, DeviceOfNote& note);
  // A cause of a container counts once for each container and once for each device; one of the run
  // as a whole for the device alone.
  void addCause(const std::string& cause, const std::string& example, bool isContainer);
  // Keeps the list sorted and short; a container no slower than its last one costs one comparison.
  void addSlow(const ResultContainer& container, const RunResult& result);
};

}  // namespace quorvel::host
