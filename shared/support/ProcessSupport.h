// The process as a whole: work that must be finished, heavy work, and a readable end.
// Any thread may call any of these.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/ProcessServices.h"
#include "shared/support/Export.h"

namespace quorvel {

// Runs the task on the queue and keeps the process alive from now until the task has finished.
// Returns at once. The queue must outlive the task.
QV_EXPORT void QVRunTransactionalTask(TaskQueue& queue, std::function<void()> task);

// Announces heavy processor use; the first assertion switches the platform's watch off, the last
// clear restores it. Every clear follows an assert of the same caller: a clear too many drives
// the count below zero, and the next assertion then changes nothing.
QV_EXPORT void QVAssertHighResourceUsage();
QV_EXPORT void QVClearResourceAssertion();

// An exception that nobody caught.
struct ExceptionRecord {
  std::optional<std::string> name;
  std::optional<std::string> reason;
  std::vector<std::string> callStackSymbols;  // lines, outermost frame last
};

// Leaves a report of the exception for whatever records the crash, and ends the process. The
// first thread to get here reports; any other waits for the end.
[[noreturn]] QV_EXPORT void QVCrashOnException(const ExceptionRecord& exception);

}  // namespace quorvel
