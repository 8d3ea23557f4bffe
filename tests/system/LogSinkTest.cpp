// Log lines as they reach a file: whole, in order, and never failing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/FileSystemRepresentation.h"
#include "platform/linux/log/DeviceLog.h"
#include "platform/linux/log/JsonLineLog.h"
#include "platform/linux/log/TeeLog.h"
#include "tests/support/TemporaryTree.h"
#include "tests/support/Threads.h"

namespace quorvel::onlinux {
namespace {

using nlohmann::json;
using testing::TemporaryTree;

UniqueDescriptor OpenLog(const std::string& path) {
  return UniqueDescriptor(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// A message with every byte value, alone and after the start of a longer sequence.
std::string EveryByte() {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  for (int i = 0; i < 256; ++i) bytes += {'\xE2', static_cast<char>(i), '\xF4', '\x8F'};
  return bytes;
}

TEST(JsonLineLog, GivesEachCallAsOneObjectInOrder) {
  const TemporaryTree tree;
  {
    JsonLineLog log(OpenLog(tree.at("log")));
    LogHandle handle;
    HostLogWriter& hostLog = log;
    LogWriter& serviceLog = log;
    hostLog.write("Ravelle/Ravelle.cpp", "-[QVRavelle init]", 97, "Corvennad", 5, "one\ntwo \"3\"");
    serviceLog.write(&handle, 3, "QVLoadInfoPlist", "");
    serviceLog.write(nullptr, 7, nullptr, "last");
  }
  const auto lines = LinesOf(tree.read("log"));
  ASSERT_EQ(lines.size(), 3U);
  json first = json::parse(lines[0]);
  EXPECT_TRUE(std::regex_match(first["time"].get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)")));
  first.erase("time");
  EXPECT_EQ(first, json::parse(R"({"facility":"HostLog","level":5,"category":"Corvennad",
      "function":"-[QVRavelle init]","message":"one\ntwo \"3\"","file":"Ravelle/Ravelle.cpp",
      "line":97})"));
  const json second = json::parse(lines[1]);
  EXPECT_EQ(second.size(), 5U);
  EXPECT_EQ(second["facility"], "LogWrite");
  EXPECT_EQ(second["level"], 3);
  EXPECT_EQ(json::parse(lines[2])["message"], "last");
}

TEST(JsonLineLog, LosesNoByteOfAnyText) {
  const TemporaryTree tree;
  const std::vector<std::string> messages = {EveryByte(),
                                             "plain",
                                             std::string("a\0b", 3),
                                             "\xFF",
                                             "\xF4\x8F\xBB\xBF",  // U+10FEFF itself
                                             "\xF4\x8F\xB8",
                                             "caf\xC3\xA9 \xF0\x9F\x93\xB1",
                                             "\xED\xA0\x80",
                                             "\xEF\xBF\xBF\x7F",
                                             StringFromFileSystemRepresentation("name \xFF"),
                                             std::string(200000, '\n')};
  JsonLineLog log(OpenLog(tree.at("log")));
  for (const std::string& message : messages) {
    static_cast<LogWriter&>(log).write(nullptr, 3, "f", message);
  }
  const auto lines = LinesOf(tree.read("log"));
  ASSERT_EQ(lines.size(), messages.size());
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const auto text = json::parse(lines[i])["message"].get<std::string>();
    EXPECT_EQ(BytesOfFileSystemRepresentation(text), messages[i]);
  }
}

TEST(JsonLineLog, ThreadsNeverMixTheirLinesAndKeepTheirOrder) {
  const TemporaryTree tree;
  JsonLineLog log(OpenLog(tree.at("log")));
  testing::OnThreads(4, [&](int t) {
    for (int i = 0; i < 500; ++i) {
      static_cast<HostLogWriter&>(log).write("f", "g", i, "c", t, std::string(40, 'x'));
    }
  });
  std::map<int, int> next;
  std::string lastTime;
  for (const std::string& line : LinesOf(tree.read("log"))) {
    const json entry = json::parse(line);
    EXPECT_EQ(entry["line"], next[entry["level"].get<int>()]++);
    EXPECT_LE(lastTime, entry["time"].get<std::string>());
    lastTime = entry["time"].get<std::string>();
  }
  for (int t = 0; t < 4; ++t) EXPECT_EQ(next[t], 500);
}

// A pipe takes a long line in pieces, and signals without restart interrupt the writes.
TEST(JsonLineLog, WritesALineWholeThroughShortAndInterruptedWrites) {
  int ends[2] = {};
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueDescriptor readEnd(ends[0]);
  struct sigaction action = {};
  struct sigaction previous = {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
  const std::string message(1 << 20, 'm');
  std::thread writer([&] {
    JsonLineLog log{UniqueDescriptor(ends[1])};
    static_cast<LogWriter&>(log).write(nullptr, 3, "f", message);
  });
  std::string got;
  char buffer[5000];
  for (ssize_t count = 1; count > 0 && got.find('\n') == std::string::npos;) {
    ::pthread_kill(writer.native_handle(), SIGUSR1);
    count = ::read(readEnd.get(), buffer, sizeof buffer);
    if (count > 0) got.append(buffer, static_cast<std::size_t>(count));
  }
  writer.join();
  ::sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(json::parse(got)["message"], message);
}

TEST(JsonLineLog, AFailedWriteIsSilentAndTheNextLineStartsAfresh) {
  const TemporaryTree tree;
  JsonLineLog log(OpenLog(tree.at("log")));
  auto& writer = static_cast<LogWriter&>(log);
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small = {100, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  errno = ENOTTY;
  writer.write(nullptr, 3, "f", std::string(300, 'x'));
  EXPECT_EQ(errno, ENOTTY);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  writer.write(nullptr, 3, "f", "afterwards");
  const auto lines = LinesOf(tree.read("log"));
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].size(), 100U);
  EXPECT_EQ(json::parse(lines[1])["message"], "afterwards");
}

TEST(DeviceLog, WritesReadableLinesIntoDirectoriesThatItMakesWhenFirstNeeded) {
  const TemporaryTree tree;
  const std::string directory = tree.at("private/var/mobile/Library/Logs/Corvenna");
  const mode_t previous = ::umask(077);
  DeviceHostLog hostLog(directory);
  DeviceLog log(tree.at("private/var/mobile/Library/Logs/Quorvel/"));
  EXPECT_TRUE(std::filesystem::is_empty(tree.path())) << "constructing must change nothing";
  errno = ENOTTY;
  hostLog.write("f", "-[QVRavelle init]", 1, "Corvennad", 5,
                "a\nb\\c\td \x1B[31m caf\xC3\xA9 \xFF");
  EXPECT_EQ(errno, ENOTTY);
  log.write(nullptr, 3, "QVLoadInfoPlist", "second");
  ::umask(previous);
  struct stat status = {};
  ASSERT_EQ(::stat(directory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0755U);
  const std::string line = tree.read("private/var/mobile/Library/Logs/Corvenna/migration.log");
  EXPECT_EQ(line.substr(line.find(' ')),
            " 5 [-[QVRavelle init]] a\\nb\\\\c\\td \\x1b[31m caf\xC3\xA9 \xFF\n");
  const std::string other = tree.read("private/var/mobile/Library/Logs/Quorvel/quorvel.log");
  EXPECT_EQ(other.substr(other.find(' ')), " 3 [QVLoadInfoPlist] second\n");
}

TEST(DeviceLog, RotatesOnceAtItsLimitAndContinuesAnExistingFile) {
  const TemporaryTree tree;
  for (int run = 0; run < 2; ++run) {
    DeviceLog log(tree.path(), "log", 1000);
    for (int i = 0; i < 30; ++i) log.write(nullptr, 5, "f", std::to_string(run * 100 + i));
  }
  EXPECT_LE(tree.read("log").size(), 1000U);
  EXPECT_LE(tree.read("log.1").size(), 1000U);
  EXPECT_FALSE(std::filesystem::exists(tree.at("log.2")));
  // No line was lost between the two files.
  const auto lines = LinesOf(tree.read("log.1") + tree.read("log"));
  for (std::size_t i = 0; i < 30 && i < lines.size(); ++i) {
    const std::string& line = lines[lines.size() - 1 - i];
    EXPECT_TRUE(line.ends_with("] " + std::to_string(129 - i))) << line;
  }
}

TEST(DeviceLog, WritesThroughNoLinkAndWaitsForNoFifo) {
  const TemporaryTree tree;
  tree.write("precious", "untouched");
  std::filesystem::create_directory(tree.at("elsewhere"));
  std::filesystem::create_symlink("elsewhere", tree.at("linked"));
  std::filesystem::create_directory(tree.at("logs"));
  std::filesystem::create_symlink("../precious", tree.at("logs/link.log"));
  ASSERT_EQ(::mkfifo(tree.at("logs/fifo.log").c_str(), 0600), 0);
  DeviceLog(tree.at("linked"), "log").write(nullptr, 3, "f", "m");
  DeviceLog(tree.at("logs"), "link.log").write(nullptr, 3, "f", "m");
  DeviceLog(tree.at("logs"), "fifo.log").write(nullptr, 3, "f", "m");
  DeviceLog(tree.at("precious"), "log").write(nullptr, 3, "f", "m");
  EXPECT_TRUE(std::filesystem::is_empty(tree.at("elsewhere")));
  EXPECT_EQ(tree.read("precious"), "untouched");
}

TEST(TeeLog, GivesEverySinkEveryCall) {
  const TemporaryTree tree;
  JsonLineLog one(OpenLog(tree.at("one")));
  JsonLineLog two(OpenLog(tree.at("two")));
  TeeLog tee({&one, &two});
  TeeHostLog hostTee({&one, &two});
  tee.write(nullptr, 3, "f", "m");
  hostTee.write("file", "g", 1, "c", 5, "n");
  for (const char* name : {"one", "two"}) {
    const auto lines = LinesOf(tree.read(name));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(json::parse(lines[1])["file"], "file");
  }
}

}  // namespace
}  // namespace quorvel::onlinux
