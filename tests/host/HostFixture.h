// The migration host on a bare device, with the plug-in that does what a script says.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/HostProcess.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::testing {

namespace fs = std::filesystem;
using nlohmann::json;

inline constexpr const char* kLegacy = "private/var/mobile/Applications";

inline std::string InfoPlist(const std::string& identifier) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
         "<key>PKBundleIdentifier</key><string>" +
         identifier + "</string></dict></plist>";
}

class HostTest : public ::testing::Test {
 protected:
  HostTest() { fs::create_directories(device() + "/private/var/mobile"); }

  std::string device() const { return tree_.at("device"); }
  std::vector<std::string> migrate(std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments = {"migrate", "--root", device(), "--plugin",
                                          SCRIPTED_PLUGIN};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  static HostSetup script(const std::string& words) { return {.environment = {{"SCRIPT", words}}}; }
  void legacy(const std::string& name, const std::string& bytes) const {
    tree_.write("device/" + std::string(kLegacy) + "/" + name, bytes);
  }
  bool deviceIsEmpty() const { return fs::is_empty(device() + "/private/var/mobile"); }
  bool waitFor(const std::string& name) const {
    for (int i = 0; i < 2000; ++i) {
      if (fs::exists(device() + "/" + name)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  TemporaryTree tree_;
};

inline long Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

// An error is at most three lines, and with --json one object on standard output besides.
inline void ExpectFatal(const HostRun& run, int exitCode, const std::string& mentioned) {
  EXPECT_EQ(run.exitCode, exitCode) << run.err;
  EXPECT_LE(Lines(run.err), 3) << run.err;
  EXPECT_NE(run.err.find(mentioned), std::string::npos) << run.err;
}

}  // namespace quorvel::testing
