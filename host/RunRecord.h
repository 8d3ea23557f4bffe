// What a migration leaves on the device about itself, for "status": one that is at work, and the
// last ones that were.
//
// runs.jsonl beside the host's log holds an object a line, the newest run first, so that whatever
// is cut off its end leaves whole runs. It is replaced as a whole and never flushed: it tells what
// happened and nothing is decided by it.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/MigrationResult.h"
#include "host/RunAccount.h"
#include "platform/MigrationHost.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

// As many as are kept, the one at work included, and the bytes of one at most.
inline constexpr std::size_t kMostRuns = 16;
inline constexpr std::size_t kLongestRun = 4096;

// The objects of the file's whole lines, newest first; what is no object of ours is passed over.
std::vector<Json> RunsIn(std::string_view bytes);
// The file's own text; empty when there is none or it cannot be read. In the device.
std::string ReadRuns();

// The record of this process's run. A device on which nothing can be written has none: no failure
// here shows anywhere. In the device, after the plug-in was initialised.
class RunRecord {
 public:
  // Writes that the run has begun.
  RunRecord(const MigrationResult& begun, const MigratorPlugin& plugin, const RunAccount& account);
  ~RunRecord() { stop(); }
  RunRecord(const RunRecord&) = delete;
  RunRecord& operator=(const RunRecord&) = delete;

  // From here on it is written every two seconds how far the run is, by a thread of its own: a
  // container that takes long is told as well.
  void follow();
  // How it ended; nothing is written afterwards. From any thread.
  void finish(const MigrationResult& result, const RunAccount& account);
  // Ends following.
  void stop();

 private:
  bool openDirectory();
  void tick();
  Json progress() const;
  // With mutex_ held.
  void write(const Json& run);

  const MigratorPlugin& plugin_;
  const RunAccount& account_;
  UniqueDescriptor directory_;
  Json begun_;           // what does not change
  std::string earlier_;  // the lines of the runs before
  // Guards the file and what follows.
  std::mutex mutex_;
  std::condition_variable wake_;
  bool finished_ = false;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace quorvel::host
