// The platform of a test: the real Linux services, logs that remember, and any service replaced.
//
//   TestPlatform platform;                            // installed until the end of its scope
//   FaultyFileSystem broken(platform.fileSystem);     // tests/FaultWrappers.h
//   platform.set.fileSystem = &broken;
//   ...
//   EXPECT_THAT(platform.log.lines(), ElementsAre(LogLine{3, "QVLoadInfoPlist", "..."}));
//
// Services that a test does not name are left out: workspace, installationService, hardware,
// mounts, sha256, transaction, cpuMonitor and crashReport are null until it sets them.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/BundleReaderLinux.h"
#include "platform/linux/FileDataLinux.h"
#include "platform/linux/FileSystemLinux.h"
#include "platform/linux/IconRendererLinux.h"
#include "platform/linux/PreferencesPlist.h"
#include "platform/linux/PropertyListFiles.h"
#include "platform/linux/TreeWalkerLinux.h"
#include "shared/support/Logging.h"
#include "shared/support/Platform.h"

namespace quorvel::tests {

// A directory of the platform's own, on the file system of TMPDIR or /tmp.
class TestTree {
 public:
  TestTree() {
    const char* parent = ::getenv("TMPDIR");
    std::string name = std::string(parent != nullptr ? parent : "/tmp") + "/quorvel-test.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  TestTree(const TestTree&) = delete;
  TestTree& operator=(const TestTree&) = delete;
  ~TestTree() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  std::string at(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Writes a file with its missing parent directories.
  std::string write(std::string_view name, std::string_view bytes) const {
    const std::string file = at(name);
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
    return file;
  }
  std::string read(std::string_view name) const {
    std::ifstream file(at(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string path_;
};

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
  TestPlatform() : previous_(InstalledPlatformServices()) {
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

  TestTree tree;
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
