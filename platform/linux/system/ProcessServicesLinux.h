// What Linux has for a process's reports about itself.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/ProcessServices.h"

namespace quorvel::onlinux {

// Nothing on Linux ends a process for being idle, so that what counts is the count: whoever runs
// the process asks isBusy() before it ends it. Any thread may call.
class ProcessTransactionLinux final : public ProcessTransaction {
 public:
  void begin() override { open_.fetch_add(1); }
  void end() override { open_.fetch_sub(1); }

  // Transactions begun and not ended yet; negative after an end too many.
  std::int64_t openTransactions() const { return open_.load(); }
  bool isBusy() const { return openTransactions() > 0; }

 private:
  std::atomic<std::int64_t> open_{0};
};

// Runs jobs one after another, in the order of submission, on a thread of its own. The destructor
// waits until every job has run, those included that jobs submit meanwhile; it must not run on
// the queue's own thread, and no other thread may submit any more. A job that throws ends the
// process. Why a thread of its own and not one for each job: jobs may rely on those before them
// being done.
class SerialTaskQueue final : public TaskQueue {
 public:
  SerialTaskQueue();
  ~SerialTaskQueue() override;
  SerialTaskQueue(const SerialTaskQueue&) = delete;
  SerialTaskQueue& operator=(const SerialTaskQueue&) = delete;

  // The queue has no bound. What the job holds is released on the queue's thread, right after it
  // ran.
  void submit(std::function<void()> job) override;

 private:
  // The thread: one job at a time, each outside of the lock, until closing and empty.
  void run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> jobs_;
  // The destructor has begun: what is queued still runs.
  bool closing_ = false;
  std::thread thread_;  // last: started when all else is there
};

// Does nothing: Linux has no watch over a process's processor usage that an unprivileged process
// could switch. (A limit on processor time is no substitute: it counts from the process's start, so
// that setting it back after a long computation would end the process at once.)
class CpuUsageMonitorLinux final : public CpuUsageMonitor {
 public:
  void switchOff(pid_t /*process*/) override {}
  void restoreDefaults(pid_t /*process*/) override {}
};

// Where a core handler or supervisor finds the message: the symbol quorvel_crash_report_message,
// alone in the section "quorvel_crash" of the program; without symbols, the magic text. Both
// members are at fixed places: whoever reads a core file or the memory of a dying process has no
// header to go by.
struct CrashReportRecord {
  char magic[16];                      // "QUORVEL-CRASH-1", NUL-terminated
  std::atomic<std::uint64_t> message;  // address of the NUL-terminated text; 0 until there is one
};

// Stores the address of the text in the record above and writes the text to standard error, by
// nothing but the system's write: it is safe in a signal handler and with a broken heap. The text
// must stay where it is until the process is gone. The end of a line is added where it has none.
class CrashReportMessageLinux final : public CrashReportMessage {
 public:
  void set(const char* text) override;
  // A thread starts with the name of its program (15 bytes of it), or of the thread that made it:
  // the program's name therefore counts as none given.
  std::optional<std::string> currentThreadName() override;
};

}  // namespace quorvel::onlinux

extern "C"
    [[gnu::visibility("default")]] quorvel::onlinux::CrashReportRecord quorvel_crash_report_message;
