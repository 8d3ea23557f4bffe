// The migration host as a process, with a plug-in that does what a script says.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/host/HostFixture.h"

namespace quorvel::testing {
namespace {

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
  const HostRun all = RunHost(
      migrate({"--all", "--device", "a b", "--force-preflight", "no-space"}), script("fail"));
  EXPECT_NE(all.out.find("com.example.one"), std::string::npos) << all.out;
  EXPECT_NE(all.out.find(" --device 'a b' --force-preflight=no-space"), std::string::npos);

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

}  // namespace
}  // namespace quorvel::testing
