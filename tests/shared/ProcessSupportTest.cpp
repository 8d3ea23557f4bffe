// Transactions, resource assertions under contention, and the report of a crash.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <future>
#include <thread>

#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/system/ProcessServicesLinux.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Digest.h"
#include "shared/support/Platform.h"
#include "shared/support/ProcessSupport.h"
#include "tests/support/Threads.h"

namespace quorvel::tests {
namespace {

class CountingMonitor final : public CpuUsageMonitor {
 public:
  void switchOff(pid_t process) override {
    EXPECT_EQ(process, ::getpid());
    ++switchedOff;
  }
  void restoreDefaults(pid_t process) override {
    EXPECT_EQ(process, ::getpid());
    ++restored;
  }
  std::atomic<int> switchedOff{0}, restored{0};
};

// Writes the report where a death test sees it.
class PrintedReport final : public CrashReportMessage {
 public:
  void set(const char* text) override { std::fprintf(stderr, "[%s]\n", text); }
  std::optional<std::string> currentThreadName() override { return name; }
  std::optional<std::string> name;
};

class ProcessSupport : public ::testing::Test {
 protected:
  ProcessSupport() {
    set_.transaction = &transaction_;
    set_.cpuMonitor = &monitor_;
    set_.crashReport = &report_;
    QVInstallPlatformServices(&set_);
  }
  ~ProcessSupport() override { QVInstallPlatformServices(nullptr); }

  onlinux::ProcessTransactionLinux transaction_;
  CountingMonitor monitor_;
  PrintedReport report_;
  PlatformServices set_;
};

TEST_F(ProcessSupport, ATransactionSpansFromTheCallToTheTasksEnd) {
  std::promise<void> allowed;
  std::atomic<std::int64_t> openInTask{-1};
  {
    onlinux::SerialTaskQueue queue;
    queue.submit([&] { allowed.get_future().wait(); });
    QVRunTransactionalTask(queue, [&] { openInTask = transaction_.openTransactions(); });
    EXPECT_EQ(transaction_.openTransactions(), 1);  // before the task had a chance to run
    EXPECT_EQ(openInTask, -1);
    allowed.set_value();
  }
  EXPECT_EQ(openInTask, 1);
  EXPECT_FALSE(transaction_.isBusy());
}

TEST_F(ProcessSupport, ManyTransactionsAllEnd) {
  std::atomic<int> ran{0};
  {
    onlinux::SerialTaskQueue queue;
    testing::OnThreads(8, [&](int) {
      for (int n = 0; n < 200; ++n) QVRunTransactionalTask(queue, [&] { ++ran; });
    });
  }
  EXPECT_EQ(ran, 1600);
  EXPECT_EQ(transaction_.openTransactions(), 0);
}

TEST_F(ProcessSupport, OnlyTheOutermostAssertionTouchesTheMonitor) {
  QVAssertHighResourceUsage();
  QVAssertHighResourceUsage();
  EXPECT_EQ(monitor_.switchedOff, 1);
  QVClearResourceAssertion();
  EXPECT_EQ(monitor_.restored, 0);
  QVClearResourceAssertion();
  EXPECT_EQ(monitor_.restored, 1);
  // A clear too many, and the assertion that makes up for it, do nothing.
  QVClearResourceAssertion();
  QVAssertHighResourceUsage();
  EXPECT_EQ(monitor_.switchedOff, 1);
  EXPECT_EQ(monitor_.restored, 1);
}

TEST_F(ProcessSupport, AssertionsAreCountedExactlyUnderContention) {
  QVAssertHighResourceUsage();
  testing::OnThreads(8, [&](int) {
    for (int n = 0; n < 20000; ++n) {
      QVAssertHighResourceUsage();
      QVClearResourceAssertion();
    }
  });
  EXPECT_EQ(monitor_.switchedOff, 1);
  EXPECT_EQ(monitor_.restored, 0);
  QVClearResourceAssertion();
  EXPECT_EQ(monitor_.restored, 1);
}

using ProcessSupportDeathTest = ProcessSupport;

TEST_F(ProcessSupportDeathTest, TheReportIsWrittenOnceThenTheProcessAborts) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto aborted = ::testing::KilledBySignal(SIGABRT);
  EXPECT_EXIT(
      {
        report_.name = "worker";
        QVCrashOnException({"E", "R", {"frame 0", "frame 1"}});
      },
      aborted,
      "\\[\\*\\* INTERNAL ERROR: Uncaught Exception \\*\\*\nException: <worker> E: R\nStack:\n"
      "frame 0\nframe 1\\]");
  EXPECT_EXIT(QVCrashOnException({}), aborted, "Exception: \nStack:\n\\]");
  EXPECT_EXIT(
      {
        report_.name = "";
        QVCrashOnException({std::nullopt, "only a reason", {}});
      },
      aborted, "Exception: <> only a reason\nStack:\n\\]");
}

// Of many threads that crash at once one reports; the others wait for the end.
TEST_F(ProcessSupportDeathTest, TheFirstThreadReports) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  class Slow final : public CrashReportMessage {
   public:
    void set(const char*) override {
      if (++calls > 1) std::fprintf(stderr, "reported twice\n");
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      std::fprintf(stderr, "reported %d time(s)\n", calls.load());
    }
    std::atomic<int> calls{0};
  };
  EXPECT_EXIT(
      {
        Slow slow;
        set_.crashReport = &slow;
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) threads.emplace_back([] { QVCrashOnException({}); });
        for (std::thread& thread : threads) thread.join();
      },
      ::testing::KilledBySignal(SIGABRT), "^reported 1 time\\(s\\)\n$");
}

// Of a set that lacks a service, by a null pointer or because it is older than the member.
TEST_F(ProcessSupportDeathTest, AServiceThatIsMissingIsNamed) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  onlinux::FileSystemLinux files;
  set_.fileSystem = &files;
  QVFileManager& manager = QVFileManager::defaultManager();
  const Path none = Path::directory("/nonexistent/item");
  const std::function<bool(Error*)> operations[] = {
      [&](Error* e) { return manager.removeItemAtURL(none, e); },
      [&](Error* e) {
        return manager.createDirectoryAtURL(none, {true, 0755, 4}, e);
      },
      [&](Error* e) { return manager.copyItemAtURL(none, none, e); },
      [&](Error* e) { return manager.syncDirectoryAtURL(none, e); },
      [&](Error* e) { return manager.syncFileSystemsOfItems({none}, e); },
      [&](Error* e) { return manager.markBundleAsPlaceholder(none, e); },
      [&](Error* e) { return manager.setInstallType(1, none, e); },
      [&](Error* e) { return manager.installTypeForBundle(none, e).has_value(); },
      [&](Error* e) { return manager.standardizeOwnershipAtURL(none, {}, e); },
  };
  for (const bool isOlder : {false, true}) {
    set_.fileSystem = isOlder ? &files : nullptr;
    if (isOlder) set_.size.bytes = offsetof(PlatformServices, fileSystem);
    for (const auto& operation : operations) {
      Error error;
      EXPECT_FALSE(operation(&error));
      EXPECT_TRUE(error.is(PosixErrorDomain, ENOSYS));
      EXPECT_EQ(error.description(), "No FileSystem is among the platform's services");
    }
  }
  const auto aborted = ::testing::KilledBySignal(SIGABRT);
  EXPECT_EXIT(manager.bundleAtURLIsPlaceholder(none), aborted, "^quorvel: no FileSystem is among");
  EXPECT_EXIT(QVCreateSHA256Digest("/"), aborted, "^quorvel: no Sha256Provider is among");
  EXPECT_EXIT(QVAssertHighResourceUsage(), aborted, "^quorvel: no CpuUsageMonitor is among");
}

}  // namespace
}  // namespace quorvel::tests
