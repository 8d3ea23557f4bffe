// quorvelctl as a process.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "platform/FileSystemRepresentation.h"
#include "platform/linux/system/ConfinedMountTable.h"
#include "tests/support/HostProcess.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::Test;
using Words = std::vector<std::string>;

constexpr const char* kFlag = "haveUpdatedPluginContainersWithParentID";
// Everything that a careless tool would break on: a newline, no UTF-8, a backslash, an escape
// sequence, text that option parsers give a meaning to.
const Words kHostileNames = {"new\nline",   "caf\xC3\xA9 \xFF\xFE",
                             "back\\slash", "\x1B[2J\r",
                             "[a,b]",       "++",
                             "--json",      "-x",
                             "--",          "{}",
                             "\x01guard",   " ",
                             "list",        "a=b"};

json Parsed(const HostRun& run) {
  EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1) << run.out << run.err;
  return json::parse(run.out, nullptr, false);
}

// The current directory is the test's own tree while it runs.
class QuorvelctlTest : public Test {
 protected:
  QuorvelctlTest() : before_(fs::current_path()) {
    ::chmod(tree_.path().c_str(), 0755);
    fs::create_directory(device());
    fs::current_path(tree_.path());
  }
  ~QuorvelctlTest() override { fs::current_path(before_); }

  std::string device() const { return tree_.at("device"); }
  static int exitCode(const Words& words) { return RunHost(words).exitCode; }
  // The object that a command prints with --json, whatever its exit code.
  static json object(Words words, int exitCode = 0) {
    words.push_back("--json");
    const HostRun run = RunHost(words);
    EXPECT_EQ(run.exitCode, exitCode) << words[0] << ": " << run.err;
    return Parsed(run);
  }
  static std::string shell(const std::string& line, int exitCode = 0) {
    const HostRun run = RunShell(line, fs::current_path());
    EXPECT_EQ(run.exitCode, exitCode) << line << "\n" << run.out;
    return run.out;
  }
  static Words commands() {
    Words names;
    std::istringstream help(RunHost({"--help"}).out);
    bool inList = false;
    for (std::string line; std::getline(help, line);) {
      if (line.empty()) inList = false;  // a row that goes on is indented
      if (inList && line[2] != ' ') names.push_back(line.substr(2, line.find(' ', 2) - 2));
      if (line == "Subcommands:") inList = true;
    }
    return names;
  }

  TemporaryTree tree_;
  const fs::path before_;
};

TEST_F(QuorvelctlTest, DoesAndSaysWhatTheTranscriptHas) {
  fs::remove(device());
  ExpectTranscript(QUORVEL_SAMPLES "/../tools/quorvelctl.transcript", tree_.path());
}

TEST_F(QuorvelctlTest, ShowsAndSetsWhatIsTheDevices) {
  ExpectTranscript(QUORVEL_SAMPLES "/../tools/device.transcript", tree_.path());
}

TEST_F(QuorvelctlTest, HelpAndVersionSucceedAndEveryExampleWorks) {
  EXPECT_EQ(RunHost({"--version"}).out.rfind("quorvelctl ", 0), 0U);
  const Words names = commands();
  EXPECT_EQ(names.size(), 19U);
  for (const std::string& name : names) {
    const HostRun run = RunHost({name, "--help"});
    EXPECT_EQ(run.exitCode, 0) << name;
    const auto at = run.out.find("Example:\n");
    ASSERT_NE(at, std::string::npos) << name;
    // Twice, as people paste.
    shell("sh -c '" + std::string() + "cat > example; sh -e example && sh -e example' <<'END'\n" +
          run.out.substr(at + 9) + "END\n");
  }
}

// Of all three programs; those of the host that need no namespace are run as they stand, elsewhere.
TEST_F(QuorvelctlTest, HelpFitsEightyColumnsAndTheHostsExamplesWork) {
  const HostRun run = RunShell(R"(
commands() { "$1" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p'; }
wide() { awk -v who="$*" 'length($0) > 80 { print who ": " $0 }'; }
legacy-image --help | wide legacy-image
for program in migration-host quorvelctl; do
  "$program" --help | wide "$program"
  for command in $(commands "$program"); do
    "$program" "$command" --help | wide "$program" "$command"
    "$program" "$command" --help | sed -n '/^Example:/,$p' | sed 1d >example
    [ -s example ] || echo "$program $command: no example"
    case $program:$command in quorvelctl:*|*:rehearse) continue;; esac
    sed "s#/tmp/device#$PWD/device#g" example >here
    sh -e here >printed 2>&1 || cat "$PWD/here" printed
  done
done)",
                               tree_.path());
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, "");
}

// Long enough for several pieces of output, and for the list to be asked how long it will be.
TEST_F(QuorvelctlTest, LongListingIsWholeAndInOrder) {
  std::set<std::string> expected;
  for (int i = 0; i < 5'000; ++i) {
    const std::string name = "d/" + std::string(20, 'n') + std::to_string(i);
    tree_.write(name, "");
    expected.insert(tree_.at(name));
  }
  std::string inOrder;
  std::set<std::string> found;
  const json listed = object({"list", "d"});
  for (const json& item : listed["items"]) {
    found.insert(item["path"].get<std::string>());
    inOrder += item["path"].get<std::string>() + "\n";
  }
  EXPECT_EQ(found, expected);
  EXPECT_EQ(listed["items"].size(), expected.size());
  EXPECT_TRUE(RunHost({"list", "d"}).out == inOrder);
}

TEST_F(QuorvelctlTest, NamesOfAnyBytesComeInAndGoOut) {
  if (!NoTerminal().empty()) GTEST_SKIP() << NoTerminal();
  for (const std::string& name : kHostileNames) tree_.write("d/" + name, name);

  std::set<std::string> found;
  const json listed = object({"list", "d"});
  for (const json& item : listed["items"]) {
    found.insert(BytesOfFileSystemRepresentation(item["path"].get<std::string>()));
    EXPECT_EQ(item["directory"], false);
  }
  std::set<std::string> expected;
  for (const std::string& name : kHostileNames) expected.insert(tree_.at("d/" + name));
  EXPECT_EQ(found, expected);

  // Raw into a pipe, harmless on a terminal.
  const std::string plain = RunHost({"list", "d"}).out;
  for (const std::string& path : expected) {
    EXPECT_NE(plain.find(path + "\n"), std::string::npos) << path;
  }
  const std::string shown = RunHost({"list", "d"}, {.onTerminal = true}).out;
  EXPECT_EQ(shown.find('\x1B'), std::string::npos);
  EXPECT_NE(shown.find("\\x1b[2J\\r"), std::string::npos) << shown;
  EXPECT_NE(shown.find("\\xff\\xfe"), std::string::npos) << shown;
  EXPECT_EQ(RunHost({"remove", "\x1B[2J/x"}).err.find('\x1B'), std::string::npos);
}

// Copied to a sibling each, after "--", from the directory itself.
TEST_F(QuorvelctlTest, WordsOfAnyBytesMeanThemselves) {
  for (const std::string& name : kHostileNames) tree_.write("d/" + name, name);
  fs::current_path(tree_.at("d"));
  for (const std::string& name : kHostileNames) {
    EXPECT_EQ(exitCode({"copy", "--", name, "../" + name + "~"}), 0) << name;
    EXPECT_EQ(tree_.read(name + "~"), name);
  }
  // A word with a meaning for the parser removes itself and nothing else.
  tree_.write("d/a", "");
  tree_.write("d/b", "");
  EXPECT_EQ(exitCode({"remove", "[a,b]", "++"}), 0);
  EXPECT_FALSE(fs::exists("[a,b]") || fs::exists("++"));
  EXPECT_TRUE(fs::exists("a") && fs::exists("b"));
  Words all = {"remove", "--"};
  all.insert(all.end(), kHostileNames.begin(), kHostileNames.end());
  EXPECT_EQ(exitCode(all), 0);
  EXPECT_EQ(exitCode({"remove", "a", "b"}), 0);
  EXPECT_TRUE(fs::is_empty("."));
}

TEST_F(QuorvelctlTest, OutputThatCannotBeWrittenIsAFailure) {
  for (const char* where : {"/dev/full", "-"}) {
    for (const Words& words : {Words{"list", "."}, Words{"config", "--json"}, Words{"--help"}}) {
      const HostRun run = RunHost(words, {.standardOutput = where});
      EXPECT_EQ(run.exitCode, 1) << where << words[0];
      EXPECT_NE(run.err.find("standard output: "), std::string::npos) << run.err;
    }
  }
  shell("{ sleep 0.3; quorvelctl config 2>/dev/null; echo $? > code; } | true");
  EXPECT_EQ(tree_.read("code"), "1\n");
}

TEST_F(QuorvelctlTest, LogIsJsonLinesOfEveryCall) {
  tree_.write("log", "{\"earlier\":true}\n");
  fs::create_symlink("x", "d");
  EXPECT_EQ(exitCode({"resolve", "--base", "device", "/elsewhere", "--log", "log"}), 1);
  // Where the process is confined, the file is outside.
  EXPECT_EQ(exitCode({"resolve", "--root", device(), "--base", "b", "b/c", "--log", "log"}), 1);
  std::istringstream lines(tree_.read("log"));
  std::vector<json> calls;
  for (std::string line; std::getline(lines, line);) calls.push_back(json::parse(line));
  ASSERT_EQ(calls.size(), 4U);
  EXPECT_EQ(calls[1]["facility"], "LogWrite");
  EXPECT_EQ(calls[1]["level"], 3);
  EXPECT_EQ(calls[1]["function"], "-[QVFileManager realPathForURL:ifChildOfURL:]");
  EXPECT_EQ(calls[1]["message"],
            "supiscious path /elsewhere does not contain base path " + device() + " as a prefix");
  EXPECT_EQ(calls[3]["message"], "Failed to retrieve realpath for base path /b ");
}

// What every command does to a device, as whoever runs it.
void WorkInDevice(const std::string& device, const HostSetup& setup) {
  const auto run = [&setup, &device](Words words) {
    words.insert(words.end(), {"--root", device, "--json"});
    return RunHost(words, setup);
  };
  HostRun made = run({"directories"});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  const json directories = json::parse(made.out);
  EXPECT_EQ(directories.size(), 5U);
  for (const auto& [name, path] : directories.items()) {
    EXPECT_TRUE(fs::is_directory(device + path.get<std::string>())) << name;
  }
  EXPECT_EQ(run({"flags", "get", kFlag}).exitCode, 1);
  EXPECT_EQ(run({"flags", "set", kFlag, "true"}).exitCode, 0);
  EXPECT_EQ(run({"flags", "get", kFlag}).exitCode, 0);
  EXPECT_EQ(run({"flags", "get", "alternateThinningModelIdentifier"}).exitCode, 1);

  // Paths are the device's, links as well.
  const std::string staged = device + "/private/var/mobile/x";
  EXPECT_EQ(run({"mkdir", "--parents", "/private/var/mobile/x/sub"}).exitCode, 0);
  EXPECT_EQ(run({"link", "/private/var/mobile/x", "absolute"}).exitCode, 0);
  EXPECT_EQ(run({"copy", "absolute/sub", "private/var/copied"}).exitCode, 0);
  EXPECT_TRUE(fs::is_directory(staged));
  EXPECT_TRUE(fs::is_directory(device + "/private/var/copied"));
  EXPECT_EQ(json::parse(run({"readlink", "absolute"}).out)["target"], "/private/var/mobile/x");

  // What only looks changes nothing, not even times.
  const auto paths = PathsBelow(device);
  ForgetAccesses(paths);
  const auto facts = FactsOf(paths);
  for (const Words& words :
       {Words{"config"}, Words{"catalog", "--rescan"}, Words{"flags", "get"}, Words{"list", "."},
        Words{"resolve", "--base", "/private", "/private/var/x"},
        Words{"attr", "class", "get", "/"}, Words{"digest", "private"}}) {
    run(words);
  }
  EXPECT_EQ(FactsOf(paths), facts);
}

TEST_F(QuorvelctlTest, WorksInsideADeviceTree) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  WorkInDevice(device(), {});
  EXPECT_FALSE(fs::exists("/private/var/copied") || fs::exists("/absolute"));
  // This machine's root under any other name than "/" is a slip.
  for (const char* root : {"/.", "/etc/..", "absent", "/etc/passwd"}) {
    const json refusal = object({"directories", "--root", root}, 4);
    EXPECT_EQ(refusal["exitCode"], 4);
  }
  EXPECT_EQ(exitCode({"flags", "get", "--root", "/"}), 0);
}

TEST_F(QuorvelctlTest, WorksInsideADeviceTreeWithoutPrivileges) {
  if (::geteuid() != 0) GTEST_SKIP() << "the other test ran without privileges";
  HostSetup setup;
  setup.program = CopyHostTo(tree_.at("bin"));
  setup.environment["LD_LIBRARY_PATH"] = tree_.at("bin");
  setup.asNobody = true;
  ASSERT_EQ(::chown(device().c_str(), NobodyUser, NobodyUser), 0);
  const HostRun probe = RunHost({"config", "--root", device()}, setup);
  if (probe.exitCode == 4) GTEST_SKIP() << probe.err;
  WorkInDevice(device(), setup);
  struct stat info {};
  ASSERT_EQ(::stat((device() + "/private/var/copied").c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, NobodyUser);

  // The namespace gives no rights that the user does not have.
  ASSERT_EQ(::chown(device().c_str(), 0, 0), 0);
  const HostRun refused = RunHost({"mkdir", "new", "--root", device(), "--json"}, setup);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(json::parse(refused.out)["code"], EACCES) << refused.out;
}

std::string InfoPlist(const std::string& identifier, const std::string& version) {
  return "<plist version=\"1.0\"><dict><key>PKBundleIdentifier</key><string>" + identifier +
         "</string><key>PKBundleVersion</key><string>" + version +
         "</string><key>Other</key><integer>7</integer></dict></plist>";
}

TEST_F(QuorvelctlTest, DigestLinesAreThoseOfSha256sum) {
  std::string large;
  for (int i = 0; i < 70000; ++i) large += static_cast<char>(i * 7);
  tree_.write("d/large", large);
  tree_.write("d/empty", "");
  for (const std::string& name : kHostileNames) tree_.write("d/" + name, name);
  fs::current_path(tree_.at("d"));
  const HostRun known = RunHost({"digest", "empty"});
  EXPECT_EQ(known.out, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855  empty\n");
  if (std::system("command -v sha256sum >/dev/null") == 0) {
    const std::string ours = shell("quorvelctl digest -- * ./large \"$PWD/empty\"");
    EXPECT_EQ(ours, shell("sha256sum -- * ./large \"$PWD/empty\""));
    EXPECT_GT(ours.size(), 64 * kHostileNames.size());
  }
  // The rest is done when one cannot be read.
  const json result = object({"digest", "absent", ".", "empty"}, 1);
  EXPECT_EQ(result["files"][0]["sha256"], nullptr);
  EXPECT_EQ(result["files"][1]["sha256"], nullptr);
  EXPECT_EQ(result["files"][2]["sha256"], known.out.substr(0, 64));
  ExpectDocumented({RunHost({"list", "absent", "--json"}).out, RunHost({"digest", "--json"}).out,
                    RunHost({"flags", "get", "--root", "absent", "--json"}).out,
                    RunHost({"plist", "get", "empty", "a", "--json"}).out},
                   "quorvelctl-error");
  EXPECT_EQ(RunHost({"digest", "\x1B[2J\r"}, {.onTerminal = true}).out.find('\x1B'),
            std::string::npos);
}

TEST_F(QuorvelctlTest, FindsTheAppsOfAnImageThatIsMountedInTheTree) {
  tree_.write("Info.plist", InfoPlist("com.example.image", "1"));
  const std::string mount =
      "PATH=$PATH:/usr/sbin:/sbin; exec 2>/dev/null; mkdir -p device/Developer/img && "
      "truncate -s 4M img && mkfs.ext4 -q img && mount -o loop img device/Developer/img";
  if (std::system(("sh -c '" + mount + "'").c_str()) != 0) {
    GTEST_SKIP() << "no privilege, or no tools, to mount an image";
  }
  fs::create_directories("device/Developer/img/Applications/I.app");
  fs::copy_file("Info.plist", "device/Developer/img/Applications/I.app/Info.plist");
  const json inside = object({"catalog", "--root", device()});
  const json outside = object({"catalog"});
  EXPECT_EQ(std::system("umount device/Developer/img"), 0);
  EXPECT_EQ(inside["diskImageMountPoints"], json::array({"/Developer/img"}));
  EXPECT_EQ(inside["diskImageApps"]["com.example.image"]["com.velto.Quorvel.bundleURL"],
            "/Developer/img/Applications/I.app");
  EXPECT_EQ(outside["diskImageApps"]["com.example.image"]["com.velto.Quorvel.bundleURL"],
            device() + "/Developer/img/Applications/I.app");
}

TEST(ConfinedMountTableTest, ShowsTheMountsInsideUnderTheirPathsThere) {
  class FixedTable final : public MountTable {
   public:
    std::vector<MountedFileSystem> read() override {
      return {{"/dev/a", "/"},
              {"/dev/b", "/trees/d"},
              {"/dev/c", "/trees/d/Developer"},
              {"/dev/e", "/trees/dd"},
              {"/dev/f", "/trees"}};
    }
  } machine;
  std::map<std::string, std::string> seen;
  for (const MountedFileSystem& mounted : onlinux::ConfinedMountTable(machine, "/trees/d").read()) {
    if (!mounted.mountedFrom.empty()) seen[mounted.mountedFrom] = mounted.mountPoint;
  }
  EXPECT_EQ(seen, (std::map<std::string, std::string>{{"/dev/c", "/Developer"}}));
}

}  // namespace
}  // namespace quorvel::testing
