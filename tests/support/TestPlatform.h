// The platform of a test: the real Linux services, logs that remember, and any service replaced.
//
//   TestPlatform platform;                            // installed until the end of its scope
//   Fault fault{"CopyTree", 1, ENOSPC};               // tests/FaultWrappers.h
//   FaultyFileSystem broken(platform.fileSystem, fault);
//   platform.set.fileSystem = &broken;
//   ...
//   EXPECT_THAT(platform.log.lines(), ElementsAre(LogLine{3, "QVLoadInfoPlist", "..."}));
//
// What a test must not meet unless it means to is left out until it sets it: workspace,
// installationService, hardware, mounts, transaction, cpuMonitor and crashReport are null.
#pragma once

#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/services/QVLinuxServices.h"
#include "shared/support/Logging.h"
#include "shared/support/Platform.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::tests {

// One line of the service's log.
struct LogLine {
  int level = 0;
  std::string function;
  std::string message;
  const LogHandle* handle = nullptr;
  friend bool operator==(const LogLine&, const LogLine&) = default;
};

inline void PrintTo(const LogLine& line, std::ostream* out) {
  *out << line.level << ' ' << line.function << ": " << line.message;
}

// One line of the host's log.
struct HostLogLine {
  int level = 0;
  std::string function;
  std::string message;
  std::string category;
  std::string file;
  int line = 0;
};

inline void PrintTo(const HostLogLine& line, std::ostream* out) {
  *out << line.category << ' ' << line.level << ' ' << line.function << ' ' << line.file << ':'
       << line.line << ": " << line.message;
}

// Keeps every line in order. Any thread may write and read.
template <class Line>
class LineRecord {
 public:
  std::vector<Line> lines() const {
    const std::lock_guard guard(mutex_);
    return lines_;
  }
  // The messages alone, of one level or of all.
  std::vector<std::string> messages(int level = -1) const {
    std::vector<std::string> found;
    for (const Line& line : lines()) {
      if (level < 0 || line.level == level) found.push_back(line.message);
    }
    return found;
  }
  // Whether some message contains the text.
  bool mentions(std::string_view text) const {
    for (const Line& line : lines()) {
      if (line.message.find(text) != std::string::npos) return true;
    }
    return false;
  }
  std::vector<Line> take() {
    const std::lock_guard guard(mutex_);
    return std::exchange(lines_, {});
  }
  void clear() { take(); }

 protected:
  ~LineRecord() = default;
  void add(Line line) {
    const std::lock_guard guard(mutex_);
    lines_.push_back(std::move(line));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

class RecordingLog final : public LogWriter, public LineRecord<LogLine> {
 public:
  void write(const LogHandle* handle, int level, const char* function,
             std::string_view message) override {
    add({level, function, std::string(message), handle});
  }
};

class RecordingHostLog final : public HostLogWriter, public LineRecord<HostLogLine> {
 public:
  void write(const char* sourceFile, const char* function, int line, const char* category,
             int level, std::string_view message) override {
    add({level, function, std::string(message), category, sourceFile, line});
  }
};

// Makes and installs the set; puts the previous one back at its end. `set` may be changed at any
// time: what is installed is this very object. Temporary files and preferences are in `tree`.
class TestPlatform {
 public:
  TestPlatform() : previous_(QVInstalledPlatformServices()) {
    set.workspace = nullptr;
    set.installationService = nullptr;
    set.hardware = nullptr;
    set.mounts = nullptr;
    set.transaction = nullptr;
    set.cpuMonitor = nullptr;
    set.crashReport = nullptr;
    QVInstallPlatformServices(&set);
  }
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;
  ~TestPlatform() { QVInstallPlatformServices(previous_); }

  quorvel::testing::TemporaryTree tree;
  RecordingLog log;
  RecordingHostLog hostLog;
  const std::unique_ptr<QVLinuxServices> services = QVLinuxServices::create(
      Path::directory(tree.path()), {.log = &log, .hostLog = &hostLog, .digests = false}, nullptr);
  PlatformServices set = services->set();
  // The real ones, whatever the set has been given.
  FileSystem& fileSystem = *services->set().fileSystem;
  TreeWalker& treeWalker = *services->set().treeWalker;
  BundleReader& bundles = *services->set().bundles;
  PropertyListStore& propertyLists = *services->set().propertyLists;

 private:
  const PlatformServices* previous_;
};

// Sets the log handle for a scope.
class LogHandleScope {
 public:
  explicit LogHandleScope(int level) : handle_{level}, previous_(gLogHandle) {
    gLogHandle = &handle_;
  }
  LogHandleScope(const LogHandleScope&) = delete;
  LogHandleScope& operator=(const LogHandleScope&) = delete;
  ~LogHandleScope() { gLogHandle = previous_; }

 private:
  LogHandle handle_;
  LogHandle* previous_;
};

}  // namespace quorvel::tests
