// Counts assertions, holds transactions open, and builds the last report.
#include "shared/support/ProcessSupport.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "shared/support/Services.h"

namespace quorvel {

namespace {

std::atomic<std::int32_t> gResourceAssertions{0};

// Taken by the crash report and never released: the process ends while it is held.
std::mutex gReportLock;

std::string ReportText(const ExceptionRecord& exception) {
  std::string text = "** INTERNAL ERROR: Uncaught Exception **\n";
  text += "Exception: ";
  const auto threadName = RequiredService(kCrashReport).currentThreadName();
  if (threadName) text += "<" + *threadName + "> ";
  if (exception.name) text += *exception.name + ": ";
  if (exception.reason) text += *exception.reason;
  text += "\nStack:\n";
  const char* separator = "";
  for (const std::string& line : exception.callStackSymbols) {
    text += separator;
    text += line;
    separator = "\n";
  }
  return text;
}

}  // namespace

// Begun here and not in the queue: between the two the process would look idle and could be ended.
void QVRunTransactionalTask(TaskQueue& queue, std::function<void()> task) {
  ProcessTransaction& transaction = RequiredService(kTransaction);
  transaction.begin();
  queue.submit([&transaction, work = std::move(task)] {
    work();
    transaction.end();
  });
}

// Only the first assertion switches the monitor off and only the last clears it; the counter is
// what makes that one decision for all threads.
void QVAssertHighResourceUsage() {
  if (gResourceAssertions.fetch_add(1) + 1 == 1) RequiredService(kCpuMonitor).switchOff(::getpid());
}

void QVClearResourceAssertion() {
  if (gResourceAssertions.fetch_sub(1) - 1 == 0) {
    RequiredService(kCpuMonitor).restoreDefaults(::getpid());
  }
}

void QVCrashOnException(const ExceptionRecord& exception) {
  const std::string text = ReportText(exception);
  gReportLock.lock();
  // A copy that nothing frees: the crash recorder reads it after the end.
  const char* kept = ::strdup(text.c_str());
  RequiredService(kCrashReport).set(kept != nullptr ? kept : text.c_str());
  std::abort();
}

}  // namespace quorvel
