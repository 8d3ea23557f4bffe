// What a process tells of itself, seen from other processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/UniqueDescriptor.h"
#include "platform/linux/system/ProcessServicesLinux.h"
#include "tests/support/Threads.h"

namespace quorvel::onlinux {
namespace {

TEST(ProcessTransactionLinux, CountsAcrossThreads) {
  ProcessTransactionLinux transaction;
  EXPECT_FALSE(transaction.isBusy());
  testing::OnThreads(4, [&](int) {
    for (int i = 0; i < 1000; ++i) transaction.begin();
    for (int i = 0; i < 999; ++i) transaction.end();
  });
  EXPECT_EQ(transaction.openTransactions(), 4);
  for (int i = 0; i < 4; ++i) transaction.end();  // on another thread than the begin
  EXPECT_FALSE(transaction.isBusy());
}

TEST(SerialTaskQueue, RunsJobsInOrderOnOneOtherThread) {
  std::vector<int> order;  // no lock: jobs never run at once
  std::vector<std::thread::id> ids;
  {
    SerialTaskQueue queue;
    for (int i = 0; i < 200; ++i) {
      queue.submit([&order, &ids, i] {
        order.push_back(i);
        ids.push_back(std::this_thread::get_id());
      });
    }
  }
  ASSERT_EQ(order.size(), 200U);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  for (const auto id : ids) EXPECT_EQ(id, ids[0]);
  EXPECT_NE(ids[0], std::this_thread::get_id());
}

TEST(SerialTaskQueue, SubmitReturnsBeforeTheJobRunsAndTheEndWaitsForJobsOfJobs) {
  std::atomic<bool> released = false;
  std::atomic<int> depth = 0;
  std::function<void(TaskQueue&)> job = [&](TaskQueue& queue) {
    while (!released) std::this_thread::yield();
    if (++depth < 50) queue.submit([&] { job(queue); });
  };
  {
    SerialTaskQueue queue;
    queue.submit([&] { job(queue); });
    EXPECT_EQ(depth, 0);
    released = true;
  }
  EXPECT_EQ(depth, 50);
}

TEST(SerialTaskQueue, TakesJobsFromManyThreadsAndDropsWhatAJobHoldsWithIt) {
  std::atomic<int> count = 0;
  auto held = std::make_shared<int>(0);
  {
    SerialTaskQueue queue;
    testing::OnThreads(4, [&](int) {
      for (int i = 0; i < 500; ++i) queue.submit([&count, held] { ++count; });
    });
  }
  EXPECT_EQ(count, 2000);
  EXPECT_EQ(held.use_count(), 1);
}

// A child that sets the message with standard error on a pipe, stops, and aborts when continued.
struct CrashingChild {
  pid_t pid = -1;
  UniqueDescriptor standardError;
};

CrashingChild StartCrashingChild(const char* text) {
  int ends[2] = {};
  EXPECT_EQ(::pipe(ends), 0);
  CrashingChild child{::fork(), UniqueDescriptor(ends[0])};
  if (child.pid == 0) {
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
    CrashReportMessageLinux().set(text);
    ::raise(SIGSTOP);
    std::abort();
  }
  ::close(ends[1]);
  int status = 0;
  EXPECT_EQ(::waitpid(child.pid, &status, WUNTRACED), child.pid);
  EXPECT_TRUE(WIFSTOPPED(status));
  return child;
}

// `size` bytes of another process's memory, as a core handler reads them.
bool Peek(pid_t pid, std::uint64_t address, void* bytes, std::size_t size) {
  const iovec local = {bytes, size};
  const iovec remote = {reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), size};
  return ::process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

TEST(CrashReportMessageLinux, IsOnStandardErrorAndInTheRecordWhenTheProcessDies) {
  const std::string text = "** INTERNAL ERROR: Uncaught Exception **\nException: E: R\nStack:\n" +
                           std::string(9000, 's');
  const CrashingChild child = StartCrashingChild(text.c_str());
  // fork keeps addresses, so that the record is where this process has it.
  struct {
    char magic[16];
    std::uint64_t message;
  } record = {};
  static_assert(sizeof record == sizeof quorvel_crash_report_message);
  const auto address = reinterpret_cast<std::uintptr_t>(&quorvel_crash_report_message);
  std::string found(text.size() + 1, '?');
  const bool peeked = Peek(child.pid, address, &record, sizeof record) &&
                      Peek(child.pid, record.message, found.data(), found.size());
  EXPECT_EQ(::kill(child.pid, SIGCONT), 0);
  std::string shown;
  char buffer[4096];
  for (ssize_t count = 1; (count = ::read(child.standardError.get(), buffer, sizeof buffer)) > 0;) {
    shown.append(buffer, static_cast<std::size_t>(count));
  }
  int status = 0;
  ::waitpid(child.pid, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
  EXPECT_EQ(shown, text + "\n");
  EXPECT_EQ(quorvel_crash_report_message.message.load(), 0U) << "this process has not crashed";
  if (!peeked) GTEST_SKIP() << "this machine does not let a process read its child's memory";
  EXPECT_STREQ(record.magic, "QUORVEL-CRASH-1");
  EXPECT_EQ(found.c_str(), text);
}

TEST(CrashReportMessageLinux, KnowsTheNamesThatThreadsWereGiven) {
  CrashReportMessageLinux crash;
  std::optional<std::string> unnamed = "?";
  std::optional<std::string> named;
  std::optional<std::string> empty;
  std::thread([&] {
    unnamed = crash.currentThreadName();
    ::pthread_setname_np(::pthread_self(), "worker");
    named = crash.currentThreadName();
    ::pthread_setname_np(::pthread_self(), "");
    empty = crash.currentThreadName();
  }).join();
  EXPECT_EQ(unnamed, std::nullopt);
  EXPECT_EQ(named, "worker");
  EXPECT_EQ(empty, "");
}

}  // namespace
}  // namespace quorvel::onlinux
