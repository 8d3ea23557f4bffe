// The lines of a run's log, sorted by the container that was at work when they were written.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/console/ExitCode.h"
#include "host/report/Result.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

// A run works on one container at a time, so that a line's time tells whose it is. The lines of
// other runs in the same file are passed over. One that is kept is HTML already.
class RunLog {
 public:
  // The result must outlive the log.
  // Containers that were never reached have no turn. Steps that a container took before its own
  // turn began, in the look at all of them, are turns of their own.
  explicit RunLog(const RunResult& result);

  // Reads it to its end; false with the reason. Lines that are no JSON are counted.
  // Once. A result that does not say when its run began cannot have its lines told from those of
  // other runs, and fails before anything is read. A line that is longer than any log's is cut, and
  // then counts as one that is no JSON.
  bool read(UniqueDescriptor file, std::string& why);

  // Empty when there are none. `index` counts the result's containers.
  // A block that is closed when the page is opened. Its number of lines is that of all that were
  // written; those that there was no room for are said to be in the log.
  std::string linesOf(std::size_t index) const;
  // Those of no container.
  std::string linesOfRun() const { return Shown(run_); }

  std::uint64_t unreadable() const { return unreadable_; }

 private:
  struct Lines {
    std::string html{};
    std::uint64_t count = 0;
    std::uint64_t leftOut = 0;
  };
  // When a container was at work, in seconds since the run's beginning.
  struct Turn {
    double start = 0;
    double end = 0;
    std::size_t index = 0;
  };

  static std::string Shown(const Lines& lines);
  void addLine(const std::string& text);
  // Times are rounded differently in the log and in the result, which is allowed for. Lines between
  // two turns belong to the run.
  Lines& linesAt(double time);

  const RunResult& result_;
  std::vector<Turn> turns_;  // by start
  std::map<std::size_t, Lines> lines_;
  Lines run_;
  std::size_t bytes_ = 0;
  std::uint64_t unreadable_ = 0;
};

}  // namespace quorvel::host
