// What the host tells while a run goes on and afterwards: status, log, events, texts.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>

#include "host/RunRecord.h"
#include "host/console/TerminalText.h"
#include "tests/host/HostFixture.h"

namespace quorvel::testing {
namespace {

using host::kMostRuns;
using host::RunsIn;

class StatusTest : public HostTest {
 protected:
  json status() const { return json::parse(RunHost({"status", "--root", device(), "--json"}).out); }

  // A run that a signal ends, after the status has told of it.
  void watchARunEndBy(int signal) {
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
};

TEST_F(StatusTest, ARunAtWorkIsToldFromOneThatWasKilled) {
  legacy("stray", "file");
  const auto paths = PathsBelow(device());
  ForgetAccesses(paths);
  const auto facts = FactsOf(paths);
  EXPECT_EQ(status()["toDo"]["counts"]["removed"], 1);
  EXPECT_EQ(FactsOf(paths), facts);
  EXPECT_TRUE(status()["runs"].empty());

  for (const int signal : {SIGKILL, SIGTERM}) watchARunEndBy(signal);
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
}

// Cut off anywhere: every line that is whole. Of any types, and of hosts that told less: what is
// there. Not to be written: nobody notices.
TEST_F(StatusTest, TheFactsOfEarlierRunsMayBeAnything) {
  for (int i = 0; i < 2; ++i) ASSERT_EQ(RunHost(migrate()).exitCode, 0);
  const std::string file = "device/private/var/mobile/Library/Logs/Corvenna/runs.jsonl";
  const std::string text = tree_.read(file);
  for (std::size_t length = 0; length <= text.size(); ++length) {
    const std::string_view cut = std::string_view(text).substr(0, length);
    ASSERT_EQ(RunsIn(cut).size(), std::count(cut.begin(), cut.end(), '\n')) << length;
  }
  const std::string old = R"({"started":"then","outcome":"failed","counts":{"failed":1})";
  tree_.write(file, "[]\n{\"started\":1}\n{\"started\":\"\u001b[2J\",\"counts\":[1]}\n" + old +
                        "}\n" + old + R"(,"only":{"apps":5,"identifiers":["a",1,"b"]}})" + "\n" +
                        old + R"(,"only":{"apps":"x","identifiers":{}}})" + "\n" +
                        text.substr(0, 90));
  const std::string told = RunHost({"status", "--root", device()}).out;
  EXPECT_EQ(told.find('\x1b'), std::string::npos);
  for (const char* line :
       {"1 failed\n", "1 failed, limited to a and 4 more\n", "1 failed, limited to some apps\n"}) {
    EXPECT_NE(told.find(line), std::string::npos) << line << told;
  }
  fs::remove(tree_.at(file));
  fs::create_directory(tree_.at(file));
  EXPECT_EQ(RunHost(migrate()).exitCode, 0);
  EXPECT_TRUE(status()["runs"].empty());
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
