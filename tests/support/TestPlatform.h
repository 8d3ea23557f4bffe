// The platform of a test: the real Linux services, logs that remember, and any service replaced.
//
//   TestPlatform platform;                            // installed until the end of its scope
//   Fault fault{"CopyTree", 1, ENOSPC};               // tests/FaultWrappers.h
//   FaultyFileSystem broken(platform.fileSystem, fault);
//   platform.set.fileSystem = &broken;
//   ...
//   EXPECT_THAT(platform.log.lines(), ElementsAre(LogLine{3, "QVLoadInfoPlist", "..."}));
//
// Services that a test does not name are left out: workspace, installationService, hardware,
// mounts, sha256, transaction, cpuMonitor and crashReport are null until it sets them.
#pragma once

#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/files/FileDataLinux.h"
#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/files/TreeWalkerLinux.h"
#include "platform/linux/icons/IconRendererLinux.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/plist/PreferencesPlist.h"
#include "platform/linux/plist/PropertyListFiles.h"
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
  void clear() {
    const std::lock_guard guard(mutex_);
    lines_.clear();
  }

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
    set.log = &log;
    set.hostLog = &hostLog;
    set.bundles = &bundles;
    set.icons = &icons;
    set.propertyLists = &propertyLists;
    set.fileData = &fileData;
    set.fileSystem = &fileSystem;
    set.treeWalker = &treeWalker;
    set.preferences = &preferences;
    QVInstallPlatformServices(&set);
  }
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;
  ~TestPlatform() { QVInstallPlatformServices(previous_); }

  quorvel::testing::TemporaryTree tree;
  RecordingLog log;
  RecordingHostLog hostLog;
  onlinux::FileSystemLinux fileSystem;
  onlinux::TreeWalkerLinux treeWalker;
  onlinux::BundleReaderLinux bundles;
  onlinux::IconRendererLinux icons;
  onlinux::PropertyListFiles propertyLists;
  onlinux::FileDataLinux fileData{Path::directory(tree.at("temporary"))};
  onlinux::PreferencesPlist preferences{Path::directory(tree.at("preferences"))};
  PlatformServices set;

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
