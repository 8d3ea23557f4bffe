// A count, a queue with one thread, and a section of the program that a crash reporter can find.
#include "platform/linux/system/ProcessServicesLinux.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <string_view>
#include <utility>

#include "platform/WriteWhole.h"

// "used" keeps it when nothing in the program reads it: its reader is another process.
extern "C" {
[[gnu::visibility("default"), gnu::section("quorvel_crash"),
  gnu::used]] quorvel::onlinux::CrashReportRecord quorvel_crash_report_message = {"QUORVEL-CRASH-1",
                                                                                  {0}};
}

namespace quorvel::onlinux {

SerialTaskQueue::SerialTaskQueue() : thread_([this] { run(); }) {}

// The thread ends only when the queue is empty, so that joining it is waiting for every job.
SerialTaskQueue::~SerialTaskQueue() {
  {
    const std::lock_guard lock(mutex_);
    closing_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void SerialTaskQueue::submit(std::function<void()> job) {
  {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  changed_.notify_one();
}

// Jobs run without the lock, since they may submit further ones.
void SerialTaskQueue::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return closing_ || !jobs_.empty(); });
    if (jobs_.empty()) return;
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    job = nullptr;  // what it holds is released before the next job, and without the lock
    lock.lock();
  }
}

void CrashReportMessageLinux::set(const char* text) {
  // The record first: it is complete even when standard error cannot be written.
  quorvel_crash_report_message.message.store(reinterpret_cast<std::uintptr_t>(text));
  const std::string_view line = text;
  (void)WriteWhole(STDERR_FILENO, line);
  if (!line.ends_with('\n')) (void)WriteWhole(STDERR_FILENO, "\n");
}

std::optional<std::string> CrashReportMessageLinux::currentThreadName() {
  char name[16] = {};  // the kernel's size, NUL included
  if (::prctl(PR_GET_NAME, name) != 0) return std::nullopt;
  const std::string_view program = ::program_invocation_short_name;
  // The kernel cut the program's name off, too.
  if (name == program.substr(0, sizeof name - 1)) return std::nullopt;
  return name;
}

}  // namespace quorvel::onlinux
