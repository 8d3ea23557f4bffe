// What a process tells the platform about itself: that it is busy, that it is about to use much
// processor time, and why it is about to die.
//
// Why services: each has an effect outside the process that a test must be able to observe.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace quorvel {

// While at least one transaction is open the platform does not end the process for being idle.
// Any thread may call; begin and end may be on different threads. Nothing counts whose transactions
// are open: each begin needs one end, and an end too many closes another's.
class ProcessTransaction {
 public:
  virtual ~ProcessTransaction() = default;
  virtual void begin() = 0;
  virtual void end() = 0;
};

// Runs jobs elsewhere, later. What was submitted is finished before the queue is gone. The
// destructor waits for the jobs. Whether they run one after another or at once is the
// implementation's to say; none runs on the submitting thread's stack.
class TaskQueue {
 public:
  virtual ~TaskQueue() = default;
  virtual void submit(std::function<void()> job) = 0;  // returns at once; any thread
};

// The platform's watch over processor usage. Neither operation can fail towards the caller: a
// platform without such a watch does nothing.
class CpuUsageMonitor {
 public:
  virtual ~CpuUsageMonitor() = default;
  virtual void switchOff(pid_t process) = 0;
  virtual void restoreDefaults(pid_t process) = 0;
};

// The annotation that whatever records the process's crash will show.
class CrashReportMessage {
 public:
  virtual ~CrashReportMessage() = default;
  // Called at most once, with the process's end to follow; `text` is never freed.
  virtual void set(const char* text) = 0;
  // The name that the calling thread was given, possibly empty; none when it was given none.
  virtual std::optional<std::string> currentThreadName() { return std::nullopt; }
};

}  // namespace quorvel
