// Shows how far the migration is while it runs.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "host/RunAccount.h"
#include "host/console/Terminal.h"
#include "platform/MigrationHost.h"

namespace quorvel::host {

// From construction to stop() a thread reads the plug-in's progress and the account and draws one
// line on standard error, redrawn in place on a terminal, a new one per app elsewhere. The plug-in
// and the account must outlive it. Failures to draw are of no consequence.
class ProgressDisplay {
 public:
  // Without a thread to be had nothing is shown and the migration goes on. The plug-in's progress
  // is read from that thread while the migration writes it.
  ProgressDisplay(const MigratorPlugin& plugin, const RunAccount& account, Terminal terminal);
  ~ProgressDisplay() { stop(); }
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;

  // Ends the thread and clears the line.
  // May be called more than once, from the thread that made the display. Waits for a line that is
  // being drawn; elsewhere than on a terminal the last line stays.
  void stop();

 private:
  // The thread: draws, then waits for the next time or for stop().
  void run();
  void draw();
  // The line on a terminal, and the one elsewhere.
  std::string bar(float progress, const std::string& app) const;
  std::string counted(float progress) const;
  // How long it will still take, by how long it took so far; empty when too little is known.
  std::string remaining(float progress) const;

  const MigratorPlugin& plugin_;
  const RunAccount& account_;
  const Terminal terminal_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::string shown_;  // the thread's own
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace quorvel::host
