// The migration host as a process, with a plug-in that does what a script says.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "host/RunRecord.h"
#include "host/console/TerminalText.h"
#include "tests/support/HostProcess.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::testing {
namespace {

namespace fs = std::filesystem;
using host::kMostRuns;
using host::RunsIn;
using nlohmann::json;
using ::testing::Test;

constexpr const char* kLegacy = "private/var/mobile/Applications";

std::string InfoPlist(const std::string& identifier) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
         "<key>PKBundleIdentifier</key><string>" +
         identifier + "</string></dict></plist>";
}

class HostTest : public Test {
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

long Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

// An error is at most three lines, and with --json one object on standard output besides.
void ExpectFatal(const HostRun& run, int exitCode, const std::string& mentioned) {
  EXPECT_EQ(run.exitCode, exitCode) << run.err;
  EXPECT_LE(Lines(run.err), 3) << run.err;
  EXPECT_NE(run.err.find(mentioned), std::string::npos) << run.err;
}

TEST_F(HostTest, SaysWhatTheTranscriptHasAndOtherwiseWhatIsDocumented) {
  fs::remove_all(device());
  ExpectTranscript(QUORVEL_SAMPLES "/../host/migration-host.transcript", tree_.path());
  fs::create_directories(device() + "/private/var/mobile");
  const auto printed = [&](const std::vector<std::string>& words, const char* does) {
    return RunHost(words, script(does)).out;
  };
  ExpectDocumented({printed(migrate({"--json"}), ""), printed(migrate({"--json"}), "fail"),
                    printed(migrate({"--json"}), "init-fails"), printed({"migrate", "--json"}, ""),
                    printed({"inspect", "--root", device(), "--json"}, ""),
                    printed({"inspect", "--root", "/", "--json"}, "")});
}

TEST_F(HostTest, HelpAndVersionSucceedAndEveryExampleWorks) {
  const HostRun version = RunHost({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  for (const char* part : {"plug-in: ", "library: ", "build: "}) {
    EXPECT_NE(version.out.find(part), std::string::npos) << part << version.out;
  }
  EXPECT_NE(RunHost({"--help"}).out.find("Exit codes"), std::string::npos);
  const std::string path = fs::path(HOST_BINARY).parent_path().string() + ":" + ::getenv("PATH");
  for (const char* command : {"migrate", "inspect", "registry", "register"}) {
    const HostRun run = RunHost({command, "--help"});
    EXPECT_EQ(run.exitCode, 0);
    const auto at = run.out.find("Example:\n");
    ASSERT_NE(at, std::string::npos) << command;
    std::string example = run.out.substr(at + 9);
    // The example's own directory, so that a developer's is left alone.
    for (auto i = example.find("/tmp/device"); i != std::string::npos;
         i = example.find("/tmp/device")) {
      example.replace(i, 11, tree_.at("x"));
    }
    if (std::string_view(command) == "migrate" &&
        !fs::exists(fs::path(HOST_BINARY).parent_path() / "Ravelle.so"))
      continue;
    EXPECT_EQ(std::system(("PATH=" + path + " TERM= ASAN_OPTIONS=detect_leaks=0 sh -c '" + example +
                           "' >/dev/null")
                              .c_str()),
              0)
        << example;
  }
}

TEST_F(HostTest, MigratesInsideTheTreeAndReportsOneObject) {
  const HostRun run = RunHost(migrate({"--json"}), script("touch"));
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(fs::exists(device() + "/entered"));
  EXPECT_FALSE(fs::exists("/entered"));
  const json object = json::parse(run.out);
  EXPECT_EQ(object["dataClassName"], "QVRavelle");
  EXPECT_EQ(object["estimatedDuration"], 26.75);
  EXPECT_EQ(object["items"], 3);
  EXPECT_EQ(object["progress"], 1.0);
  EXPECT_EQ(object["succeeded"], true);
  EXPECT_TRUE(object["seconds"].is_number_float());
  EXPECT_EQ(object["counts"], json::parse("{\"migrated\":3,\"resumed\":0,\"removed\":0,"
                                          "\"left\":0,\"failed\":0}"));
  EXPECT_EQ(run.err, "");
}

TEST_F(HostTest, FailureIsReportedInWordsWithWhatToDo) {
  const HostRun run = RunHost(migrate(), script("fail"));
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.out.find("estimated duration 27 s"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("failed: the registry has no record of it"), std::string::npos) << run.out;
  EXPECT_LT(run.out.find("com.example.two"), run.out.find("2 migrated, 0 resumed")) << run.out;
  EXPECT_NE(run.out.find("0 left, 1 failed"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("com.example.one"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("migration-host migrate --root " + device()), std::string::npos);
  const HostRun all = RunHost(migrate({"--all"}), script("fail"));
  EXPECT_NE(all.out.find("com.example.one"), std::string::npos) << all.out;

  const HostRun asJson = RunHost(migrate({"--json"}), script("fail"));
  EXPECT_EQ(asJson.exitCode, 1);
  const json object = json::parse(asJson.out);
  EXPECT_EQ(object["succeeded"], false);
  const json& failed = object["containers"][1];
  EXPECT_EQ(failed["outcome"], "failed");
  EXPECT_EQ(failed["step"], "placeholder");
  EXPECT_EQ(failed["reason"], "no-record");
  EXPECT_EQ(failed["kept"], json::array({"/private/var/mobile/Applications/com.example.two"}));
}

// Of 5000 apps most of which fail: each cause once, what it stopped by number, then the counts and
// the logs, all on the first screen.
TEST_F(HostTest, ManyFailuresFitTheFirstScreen) {
  const HostRun run = RunHost(migrate(), script("many"));
  EXPECT_EQ(run.exitCode, 1);
  std::string screen;
  std::istringstream lines(run.out);
  std::string line;
  for (int i = 0; i < 24 && std::getline(lines, line); ++i) screen += line + "\n";
  std::size_t at = 0;
  for (const char* text :
       {"failed: No space left on device (2665)\n", "its data could not be moved: ENOSPC",
        "and 2664 more",
        "failed: the registry has no record of it (migration-host register adds one) (1334)\n",
        "left: it is or holds a symbolic link, which is not followed (499)\n",
        "\nThe migration failed: 502 migrated, 0 resumed, 0 removed, 499 left, 3999 failed",
        "\nLogs: ", "migration-host migrate --root"}) {
    at = screen.find(text, at);
    ASSERT_NE(at, std::string::npos) << text << "\n" << run.out.substr(0, 3000);
  }
  EXPECT_EQ(run.out, screen);
  const HostRun all = RunHost(migrate({"--all"}), script("many"));
  EXPECT_LT(all.out.find("The migration failed"), all.out.find("com.example.one")) << "the rest";
  EXPECT_GT(Lines(all.out), 5000);
}

TEST_F(HostTest, PluginsThatCannotBeUsedExitThree) {
  const std::string garbage = tree_.write("garbage.so", "no object");
  const std::string pipe = tree_.at("pipe.so");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0666), 0);
  for (const std::string& file :
       {tree_.at("absent.so"), garbage, pipe, std::string("/"), std::string(FOREIGN_LIBRARY)}) {
    const HostRun run = RunHost({"migrate", "--root", device(), "--json", "--plugin", file});
    ExpectFatal(run, 3, file);
    EXPECT_EQ(json::parse(run.out)["exitCode"], 3);
  }
  ExpectFatal(RunHost(migrate(), script("refuse")), 3, "interface version");
  EXPECT_TRUE(deviceIsEmpty());
  ExpectFatal(RunHost(migrate(), script("init-fails")), 3, SCRIPTED_PLUGIN);
}

TEST_F(HostTest, ASecondHostOnTheTreeLeavesItAlone) {
  const pid_t first = StartHost(migrate(), script("hold"));
  ASSERT_TRUE(waitFor("holding"));
  ExpectFatal(RunHost(migrate(), script("touch")), 4, "another migration host is at work");
  ExpectFatal(RunHost({"register", "--root", device(), "--identifier", "a.b"}), 4, "another");
  EXPECT_FALSE(fs::exists(device() + "/entered"));
  tree_.write("device/release", "");
  EXPECT_EQ(FinishHost(first), 0);
  EXPECT_EQ(RunHost(migrate(), script("touch")).exitCode, 0);
}

// The plug-in stands in a step that takes longer than anybody waits, or goes on to the next one.
TEST_F(HostTest, ASignalEndsTheRunWithTheAccountSoFar) {
  const std::pair<int, std::string> signals[] = {
      {SIGINT, "SIGINT"}, {SIGTERM, "SIGTERM"}, {SIGHUP, "SIGHUP"}};
  for (const bool released : {false, true}) {
    for (const auto& [signal, name] : signals) {
      for (const char* file : {"holding", "release"}) fs::remove(device() + "/" + file);
      const std::string out = tree_.write("out", "");
      HostSetup setup = script("hold");
      setup.standardOutput = out;
      const pid_t host = StartHost(migrate({"--json", "--events", tree_.at("events")}), setup);
      ASSERT_TRUE(waitFor("holding"));
      const auto start = std::chrono::steady_clock::now();
      ASSERT_EQ(::kill(host, signal), 0);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      ASSERT_EQ(::kill(host, signal), 0);  // as timeout(1) does
      if (released) tree_.write("device/release", "");
      EXPECT_EQ(FinishHost(host), 128 + signal) << name;
      const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
      EXPECT_LT(taken.count(), released ? 1.4 : 2.5);
      ExpectDocumented({tree_.read("out")});
      const json object = json::parse(tree_.read("out"));
      std::size_t ended = 0;
      for (const json& count : object["counts"]) ended += count.get<std::size_t>();
      EXPECT_EQ(ended, object["items"]);
      const std::string events = tree_.read("events");
      const json last = json::parse(events.substr(events.rfind("{\"event\"")));
      EXPECT_EQ(last["counts"], object["counts"]) << last;
      EXPECT_EQ(object["interruptedBy"], name);
      EXPECT_EQ(object["succeeded"], false);
      EXPECT_EQ(object["counts"]["migrated"], released ? 2 : 1) << object;
      EXPECT_TRUE(released || object["containers"][1]["reason"] == "interrupted") << object;
    }
  }
}

TEST_F(HostTest, StatusTellsARunAtWorkFromOneThatWasKilled) {
  legacy("stray", "file");
  const auto status = [&] {
    return json::parse(RunHost({"status", "--root", device(), "--json"}).out);
  };
  const auto paths = PathsBelow(device());
  ForgetAccesses(paths);
  const auto facts = FactsOf(paths);
  EXPECT_EQ(status()["toDo"]["counts"]["removed"], 1);
  EXPECT_EQ(FactsOf(paths), facts);
  EXPECT_TRUE(status()["runs"].empty());

  for (const int signal : {SIGKILL, SIGTERM}) {
    fs::remove(device() + "/holding");
    const pid_t host = StartHost(migrate(), script("hold"));
    ASSERT_TRUE(waitFor("holding"));
    json told;
    for (int i = 0; i < 100 && (told.is_null() || told["runs"][0]["done"] == 0); ++i) {
      told = status();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(told["running"], true);
    EXPECT_TRUE(told["toDo"].is_null());
    EXPECT_EQ(told["runs"][0]["outcome"], "running") << told;
    EXPECT_EQ(told["runs"][0]["done"], 1);
    EXPECT_EQ(told["runs"][0]["current"], "com.example.two");
    EXPECT_NE(RunHost({"status", "--root", device()}).out.find("1 of 3 items done"),
              std::string::npos);
    ASSERT_EQ(::kill(host, signal), 0);
    (void)FinishHost(host);
  }
  for (int i = 0; i < 15; ++i) {
    if (i == 1) {
      EXPECT_EQ(status()["runs"].size(), 3U);
      EXPECT_EQ(status()["runs"][2]["outcome"], "killed");
    }
    EXPECT_EQ(RunHost(migrate(), script("fail")).exitCode, 1);
  }
  const json runs = status()["runs"];
  ASSERT_EQ(runs.size(), kMostRuns);
  EXPECT_EQ(runs[0]["outcome"], "failed");
  EXPECT_EQ(runs[0]["counts"]["failed"], 1);
  EXPECT_EQ(runs[15]["outcome"], "interrupted");

  // Cut off anywhere: every line that is whole. Not to be written: nobody notices.
  const std::string file = "device/private/var/mobile/Library/Logs/Corvenna/runs.jsonl";
  const std::string text = tree_.read(file);
  for (std::size_t length = 0; length <= text.size(); ++length) {
    const std::string_view cut = std::string_view(text).substr(0, length);
    ASSERT_EQ(RunsIn(cut).size(), std::count(cut.begin(), cut.end(), '\n')) << length;
  }
  tree_.write(file, "[]\n{\"started\":1}\n{\"started\":\"\u001b[2J\",\"counts\":[1]}\n" +
                        text.substr(0, 90));
  EXPECT_EQ(RunHost({"status", "--root", device()}).out.find('\x1b'), std::string::npos);
  fs::remove(tree_.at(file));
  fs::create_directory(tree_.at(file));
  EXPECT_EQ(RunHost(migrate()).exitCode, 0);
  EXPECT_TRUE(status()["runs"].empty());
}

TEST_F(HostTest, WithoutPrivilegesANamespaceServes) {
  if (!NoUnprivilegedCase().empty()) GTEST_SKIP() << NoUnprivilegedCase();
  const std::string program = CopyHostTo(tree_.at("bin"));
  const std::string plugin = tree_.at("bin/") + fs::path(SCRIPTED_PLUGIN).filename().string();
  ::chmod(tree_.path().c_str(), 0755);
  for (const char* name : {"", "/private", "/private/var", "/private/var/mobile"}) {
    ASSERT_EQ(::chown((device() + name).c_str(), NobodyUser, NobodyUser), 0);
  }
  HostSetup setup = script("touch");
  setup.asNobody = true;
  setup.program = program;
  setup.environment["LD_LIBRARY_PATH"] = tree_.at("bin");
  const HostRun run = RunHost({"migrate", "--root", device(), "--plugin", plugin}, setup);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  struct stat made {};
  ASSERT_EQ(::stat((device() + "/entered").c_str(), &made), 0);
  EXPECT_EQ(made.st_uid, NobodyUser);
  EXPECT_EQ(made.st_gid, NobodyUser);
  EXPECT_EQ(made.st_mode & 0777U, 0644U);

  // The namespace gives no rights that the user does not have.
  ::unlink((device() + "/entered").c_str());
  ::chmod(device().c_str(), 0555);
  EXPECT_EQ(RunHost({"registry", "--root", device()}, setup).exitCode, 0);
  RunHost({"migrate", "--root", device(), "--plugin", plugin}, setup);
  EXPECT_FALSE(fs::exists(device() + "/entered"));
}

TEST_F(HostTest, LogHoldsEveryCallInOrder) {
  const std::string log = tree_.write("log", "{\"earlier\":true}\n");
  ASSERT_EQ(RunHost(migrate({"--quiet", "--log", log}), script("fail nasty")).exitCode, 1);
  std::ifstream stream(log);
  std::vector<json> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line));
  ASSERT_GE(lines.size(), 7U);
  EXPECT_TRUE(lines[0].contains("earlier"));
  std::vector<std::string> messages;
  for (const json& line : lines) {
    if (line.value("facility", "") == "HostLog") messages.push_back(line["message"]);
  }
  ASSERT_EQ(messages.size(), 7U);
  EXPECT_EQ(messages[0], "QVRavelle: 3 items to migrate");
  EXPECT_EQ(messages[6], "QVRavelle: Returning migration failed.");
  for (const json& line : lines) {
    if (line.value("facility", "") != "HostLog") continue;
    EXPECT_EQ(line["category"], "Corvennad");
    EXPECT_TRUE(line["line"].is_number_integer());
    EXPECT_TRUE(line["level"].is_number_integer());
    for (const char* key : {"function", "file", "time"}) EXPECT_TRUE(line.contains(key)) << key;
  }
  ExpectFatal(RunHost(migrate({"--log", tree_.at("absent/log")})), 2, "absent/log");
  ExpectFatal(RunHost(migrate({"--log", tree_.path()})), 2, tree_.path());
}

TEST_F(HostTest, EventsAreLinesThatCanBeFollowed) {
  const std::string file = tree_.at("events");
  const HostRun told = RunHost(migrate({"--events", "-"}), script("fail"));
  EXPECT_EQ(RunHost(migrate({"--json", "--events", file}), script("fail")).exitCode, 1);
  EXPECT_EQ(told.exitCode, 1);
  for (const std::string& text : {told.out, tree_.read("events")}) {
    std::string order;
    json line;
    std::istringstream lines(text);
    for (std::string each; std::getline(lines, each);) {
      line = json::parse(each);
      order +=
          line["event"].get<std::string>() + line.value("outcome", line.value("reason", "")) + " ";
    }
    EXPECT_EQ(order,
              "found began endedmigrated began problemno-record endedfailed began endedmigrated "
              "finished ");
    EXPECT_EQ(line["counts"]["migrated"], 2) << line;
    EXPECT_EQ(line["succeeded"], false);
  }
}

TEST_F(HostTest, QuietSaysNothingButErrors) {
  const HostRun good = RunHost(migrate({"--quiet"}));
  EXPECT_EQ(good.exitCode, 0);
  EXPECT_EQ(good.out + good.err, "");
  const HostRun bad = RunHost(migrate({"--quiet"}), script("fail"));
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_EQ(bad.out, "");
  EXPECT_NE(bad.err.find("com.example.two"), std::string::npos);
}

TEST_F(HostTest, LostOutputIsAFailure) {
  for (const char* output : {"/dev/full", "-"}) {
    HostSetup setup;
    setup.standardOutput = output;
    for (const auto& arguments :
         {migrate(), migrate({"--json"}), std::vector<std::string>{"registry", "--root", device()},
          std::vector<std::string>{"--help"}}) {
      ExpectFatal(RunHost(arguments, setup), 1, "standard output");
    }
  }
  // A log is not the result, but nobody should trust one that has gaps.
  const HostRun run = RunHost(migrate({"--log", "/dev/full", "--json"}), script("fail"));
  EXPECT_NE(run.err.find("/dev/full: lines of the log could not be written"), std::string::npos);
  EXPECT_EQ(run.exitCode, 1);
}

TEST_F(HostTest, TerminalShowsProgressAndCannotBePlayedWith) {
  if (!NoTerminal().empty()) GTEST_SKIP() << NoTerminal();
  HostSetup setup = script("fail nasty");
  setup.onTerminal = true;
  const HostRun colored = RunHost(migrate(), setup);
  EXPECT_EQ(colored.exitCode, 1);
  EXPECT_NE(colored.out.find("\r\x1b[K["), std::string::npos) << "no bar";
  EXPECT_NE(colored.out.find("\x1b[31m"), std::string::npos) << "no color";
  EXPECT_EQ(colored.out.find("\x1b[2J"), std::string::npos) << "a name cleared the screen";
  EXPECT_NE(colored.out.find("com.example.\\x1b[2J\\xff\\ntwo"), std::string::npos) << colored.out;

  setup.environment["NO_COLOR"] = "1";
  const HostRun plain = RunHost(migrate(), setup);
  EXPECT_NE(plain.out.find("\r\x1b[K["), std::string::npos);
  EXPECT_EQ(plain.out.find("\x1b[3"), std::string::npos) << "color in spite of NO_COLOR";

  setup.columns = 40;
  const HostRun narrow = RunHost(migrate(), setup);
  EXPECT_NE(narrow.out.find("two\r\n    com.example."), std::string::npos) << narrow.out;
  const HostRun none = RunHost(migrate({"--progress", "never"}), setup);
  EXPECT_EQ(none.out.find('\x1b'), std::string::npos);
  EXPECT_EQ(RunHost(migrate(), script("nasty")).err, "") << "progress without a terminal";
  EXPECT_NE(RunHost(migrate({"--progress", "always", "--json"})).err.find("100% 3 of 3"),
            std::string::npos);
}

TEST_F(HostTest, InspectTellsItemsApartAndChangesNothing) {
  // Where the tree cannot be mounted without access times, reading changes them.
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  legacy("A/One.app/Info.plist", InfoPlist("com.example.one"));
  legacy("A/Documents/file", "data");
  legacy("B/Tun.vpnplugin/Info.plist", InfoPlist("com.example.tunnel"));
  legacy("C/Documents/file", "data");
  legacy("D/One.app/Info.plist", InfoPlist("com.example.stray"));
  legacy("D/Stray items", "data");
  legacy("F", "a file");
  legacy("H/keep", "");
  fs::create_symlink("/", device() + "/" + kLegacy + "/G");
  fs::create_symlink("/", device() + "/" + kLegacy + "/H/Bad.app");
  legacy("../Library/Quorvel/SafeHarbor.plist",
         "<plist><dict><key>com.example.gone</key><dict><key>HarborPathKey</key>"
         "<string>/absent</string></dict></dict></plist>");
  const auto paths = PathsBelow(device());
  ForgetAccesses(paths);
  const auto before = FactsOf(paths);
  const HostRun run = RunHost({"inspect", "--root", device(), "--json"});
  EXPECT_EQ(RunHost({"registry", "--root", device()}).exitCode, 0);
  EXPECT_EQ(FactsOf(paths), before);
  EXPECT_EQ(PathsBelow(device()), paths);
  ASSERT_EQ(run.exitCode, 0) << run.err;

  const json object = json::parse(run.out);
  std::set<std::string> told;
  for (const json& item : object["containers"]) {
    told.insert(item["path"].get<std::string>().substr(1 + std::string(kLegacy).size()) +
                json({item["kind"], item["identifier"], item["outcome"], item["reason"]}).dump());
  }
  EXPECT_EQ(told,
            (std::set<std::string>{R"(/A["App","com.example.one","migrated",null])",
                                   R"(/B["VPNBundle","com.example.tunnel","failed","no-record"])",
                                   R"(/C["empty",null,"removed","no-bundle"])",
                                   R"(/D["App","com.example.stray","failed","missed-items"])",
                                   R"(/F["file",null,"removed","stray-file"])",
                                   R"(/H["unknown",null,"left","link"])"}));
  EXPECT_EQ(object["leftBehind"][0]["why"], "link");
  EXPECT_EQ(object["harbors"][0]["outcome"], "failed");
}

TEST(TerminalTextTest, HarmlessAndMeasured) {
  using namespace quorvel::host;
  ::setlocale(LC_CTYPE, "C.UTF-8");
  EXPECT_EQ(Printable("a\\b\x1b\x7f\n\xc2\x9b\xff"), "a\\\\b\\x1b\\x7f\\n\\xc2\\x9b\\xff");
  EXPECT_EQ(Printable("\xe2\x80\xae"), "\\xe2\\x80\\xae");
  EXPECT_EQ(Printable("\xf4\x8f\xbb\xbf"), "\\xff") << "the file-system encoding of byte 255";
  EXPECT_EQ(DisplayWidth("\xe6\xbc\xa2\xc3\xa9"
                         "e\xcc\x81"),
            4U);
  EXPECT_EQ(CutEnd("\xe6\xbc\xa2\xe6\xbc\xa2x", 4), "\xe6\xbc\xa2\xe2\x80\xa6");
  EXPECT_EQ(CutEnd("abc", 0), "");
}

}  // namespace
}  // namespace quorvel::testing
