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
#include "tests/support/PropertyListTesting.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::Test;
using Words = std::vector<std::string>;

constexpr const char* Flag = "haveUpdatedPluginContainersWithParentID";
// Everything that a careless tool would break on: a newline, no UTF-8, a backslash, an escape
// sequence, text that option parsers give a meaning to.
const Words HostileNames = {"new\nline",   "caf\xC3\xA9 \xFF\xFE",
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
  // A shell's view: its exit code, and what it printed.
  static std::string shell(const std::string& line, int exitCode = 0) {
    const std::string directory = fs::path(HOST_BINARY).parent_path();
    const std::string command = "export PATH=\"" + directory +
                                ":$PATH\" ASAN_OPTIONS=detect_leaks=0 LC_ALL=C.UTF-8; " + line;
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string out;
    char buffer[4096];
    for (std::size_t count = 0; (count = ::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
      out.append(buffer, count);
    }
    EXPECT_EQ(WEXITSTATUS(::pclose(pipe)), exitCode) << line << "\n" << out;
    return out;
  }
  static Words commands() {
    Words names;
    std::istringstream help(RunHost({"--help"}).out);
    bool inList = false;
    for (std::string line; std::getline(help, line);) {
      if (line.empty()) inList = false;
      if (inList) names.push_back(line.substr(2, line.find(' ', 2) - 2));
      if (line == "Subcommands:") inList = true;
    }
    return names;
  }

  TemporaryTree tree_;
  const fs::path before_;
};

void ExpectUsage(const Words& words) {
  const HostRun run = RunHost(words);
  EXPECT_EQ(run.exitCode, 2) << ::testing::PrintToString(words) << run.err;
  EXPECT_EQ(run.err.rfind("quorvelctl: ", 0), 0U) << run.err;
  EXPECT_LE(std::count(run.err.begin(), run.err.end(), '\n'), 3) << run.err;
  EXPECT_EQ(run.out, "");
}

TEST_F(QuorvelctlTest, UsageErrorsOpenAndChangeNothing) {
  tree_.write("d/f", "");
  const Words log = {"--log", tree_.at("log")};
  const std::vector<Words> wrong = {
      {},
      {"lst", "d"},
      {"list"},
      {"list", "d", "d"},
      {"list", ""},
      {"list", "d", "--frobnicate"},
      {"list", "d", "--json=false"},
      {"list", "d", "--root"},
      {"remove"},
      {"remove", "d", ""},
      {"remove", "d", "."},
      {"remove", "d", "d/.."},
      {"copy", "d"},
      {"move", "d", "e", "f"},
      {"mkdir", "e", "--class"},
      {"mkdir", "e", "--class", "-2"},
      {"mkdir", "e", "--class", "4x"},
      {"mkdir", "e", "--class", "2147483648"},
      {"resolve", "d"},
      {"standardize", "d", "--uid", "1"},
      {"standardize", "d", "--uid", "-1", "--gid", "1"},
      {"standardize", "d", "--uid", "1", "--gid", "4294967295"},
      {"attr", "color", "get", "d"},
      {"attr", "class", "put", "d"},
      {"attr", "class", "get", "d", "4"},
      {"attr", "class", "set", "d"},
      {"attr", "class", "set", "d", "-1"},
      {"attr", "placeholder", "set", "d", "1"},
      {"attr", "install-type", "set", "d", "18446744073709551616"},
      {"plist", "show", "d/f", "--to", "xml"},
      {"plist", "convert", "d/f"},
      {"plist", "convert", "d/f", "--to", "yaml"},
      {"flags", "get", "nothing"},
      {"flags", "set", Flag, "--root", device()},
      {"flags", "set", Flag, "1", "--root", device()},
      {"flags", "set", "alternateThinningModelIdentifier", "true", "--root", device()},
      // The device's own places are never written to by accident.
      {"flags", "set", Flag, "true"},
      {"directories"},
  };
  for (Words words : wrong) {
    if (!words.empty()) words.insert(words.end(), log.begin(), log.end());
    ExpectUsage(words);
  }
  EXPECT_FALSE(fs::exists(tree_.at("log")));
  EXPECT_FALSE(fs::exists(tree_.at("e")));
  EXPECT_TRUE(fs::exists(tree_.at("d/f")));
  EXPECT_TRUE(fs::is_empty(device()));

  const json complaint = object({"list"}, 2);
  EXPECT_EQ(complaint["exitCode"], 2);
  EXPECT_TRUE(complaint["error"].is_string());
  EXPECT_EQ(exitCode({"list", "d", "--log", tree_.at("absent/log")}), 2);
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

TEST_F(QuorvelctlTest, NamesOfAnyBytesComeInAndGoOut) {
  for (const std::string& name : HostileNames) tree_.write("d/" + name, name);

  std::set<std::string> found;
  const json listed = object({"list", "d"});
  for (const json& item : listed["items"]) {
    found.insert(BytesOfFileSystemRepresentation(item["path"].get<std::string>()));
    EXPECT_EQ(item["directory"], false);
  }
  std::set<std::string> expected;
  for (const std::string& name : HostileNames) expected.insert(tree_.at("d/" + name));
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

  // In: copied to a sibling each, after "--", from the directory itself.
  fs::current_path(tree_.at("d"));
  for (const std::string& name : HostileNames) {
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
  all.insert(all.end(), HostileNames.begin(), HostileNames.end());
  EXPECT_EQ(exitCode(all), 0);
  EXPECT_EQ(exitCode({"remove", "a", "b"}), 0);
  EXPECT_TRUE(fs::is_empty("."));
}

TEST_F(QuorvelctlTest, ErrorsAreShownWithDomainCodeMessageAndCause) {
  const std::string message = "Failed to create temp dir at path " + tree_.at("absent/temp.XXXXXX");
  const std::string known = message.substr(0, message.size() - 6);
  const HostRun run = RunHost({"mktemp", "absent"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out, "");
  // Once, although the operation also logs it.
  EXPECT_EQ(run.err.rfind("quorvelctl: mktemp: QVInstallerErrorDomain 4: " + known, 0), 0U)
      << run.err;
  EXPECT_NE(run.err.find("\n  caused by PosixErrorDomain 2: No such file or directory\n"),
            std::string::npos)
      << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 2) << run.err;

  const json failure = object({"mktemp", "absent"}, 1);
  EXPECT_EQ(failure["domain"], "QVInstallerErrorDomain");
  EXPECT_EQ(failure["code"], 4);
  EXPECT_EQ(failure["exitCode"], 1);
  EXPECT_EQ(failure["error"].get<std::string>().rfind(known, 0), 0U);
  EXPECT_EQ(failure["underlying"]["domain"], "PosixErrorDomain");
  EXPECT_EQ(failure["underlying"]["code"], 2);

  // Several items: the rest is done, and each failure told.
  tree_.write("f", "");
  tree_.write("g", "");
  const json result = object({"remove", "f", "g/below", "absent", "g"}, 1);
  EXPECT_EQ(result["removed"], json({tree_.at("f"), tree_.at("absent"), tree_.at("g")})) << result;
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

TEST_F(QuorvelctlTest, TreeCommandsDoWhatTheySay) {
  tree_.write("d/sub/f", "content");
  fs::create_symlink("sub/f", "d/link");
  EXPECT_EQ(object({"list", "d", "--ignore-symlinks"})["items"],
            json::array({{{"path", tree_.at("d/sub")}, {"directory", true}}}));
  EXPECT_EQ(object({"copy", "./d//.//", "e"}), json({{"succeeded", true}, {"errorLines", 0}}));
  EXPECT_EQ(tree_.read("e/sub/f"), "content");
  EXPECT_EQ(fs::read_symlink("e/link"), "sub/f");
  EXPECT_EQ(object({"move", "absent", "g"}, 1)["code"], ENOENT);
  EXPECT_EQ(object({"copy", "absent", "g"}, 1)["code"], ENOENT);
  EXPECT_EQ(exitCode({"move", "--if-exists", "absent", "g"}), 0);
  EXPECT_EQ(exitCode({"copy", "absent", "g", "--if-exists"}), 0);
  EXPECT_FALSE(fs::exists("g"));
  EXPECT_EQ(exitCode({"move", "e", "g"}), 0);
  EXPECT_FALSE(fs::exists("e"));
  fs::create_directory("s");
  ASSERT_EQ(::mknod("s/socket", S_IFSOCK | 0600, 0), 0);
  const HostRun partly = RunHost({"copy", "s", "s2"});
  EXPECT_EQ(partly.exitCode, 1);
  EXPECT_NE(partly.err.find("left out the socket " + tree_.at("s/socket")), std::string::npos);
  EXPECT_EQ(tree_.read("g/sub/f"), "content");

  EXPECT_EQ(object({"mkdir", "p/q"}, 1)["code"], ENOENT);
  EXPECT_EQ(exitCode({"mkdir", "--parents", "p/q"}), 0);
  const std::string made = object({"mktemp", "p"})["path"];
  EXPECT_EQ(fs::status(made).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::path(made).parent_path(), tree_.at("p"));

  tree_.write("from/Manifest.plist", "m");
  tree_.write("from/GeoJSON", "g");
  EXPECT_EQ(exitCode({"capture", "--copy", "from", "p"}), 0);
  EXPECT_EQ(tree_.read("from/Manifest.plist") + tree_.read("p/GeoJSON"), "mg");
  // Not fatal: told, and a success all the same.
  EXPECT_GT(object({"capture", "from", "absent"})["errorLines"], 0);
  const json fatal = object({"capture", "--fatal", "from", "absent"}, 1);
  EXPECT_EQ(fatal["code"], 24);
  EXPECT_EQ(fatal["underlying"]["code"], ENOENT);

  EXPECT_EQ(exitCode({"remove", "d", "g", "absent"}), 0);
  EXPECT_FALSE(fs::exists("d") || fs::exists("g"));
}

TEST_F(QuorvelctlTest, StandardizeReachesEveryItemAndStopsAtStrayLinks) {
  tree_.write("d/sub/f", "");
  fs::create_symlink("sub/f", "d/inside");
  ::chmod("d/sub", 0700);
  ::chmod("d/sub/f", 04777);
  const std::string uid = std::to_string(::getuid() == 0 ? 1234 : ::getuid());
  const std::string gid = std::to_string(::getuid() == 0 ? 4321 : ::getgid());
  const Words words = {"standardize", "--uid", uid, "--gid", gid, "--validate-symlinks", "d"};
  EXPECT_EQ(object(words)["errorLines"], 0);  // a link has no mode of its own to be told of
  for (const auto& [name, mode] : {std::pair{"d", 0755}, {"d/sub", 0755}, {"d/sub/f", 0644}}) {
    struct stat info {};
    ASSERT_EQ(::lstat(name, &info), 0);
    EXPECT_EQ(info.st_mode & 07777, static_cast<mode_t>(mode)) << name;
    EXPECT_EQ(std::to_string(info.st_uid) + std::to_string(info.st_gid), uid + gid) << name;
  }
  fs::create_symlink("/etc", "d/sub/outside");
  const json failure = object(words, 1);
  EXPECT_EQ(failure["domain"], "QVInstallerErrorDomain");
  EXPECT_EQ(failure["code"], 70);
}

TEST_F(QuorvelctlTest, LinksResolutionAndAttributesAnswerByExitCode) {
  fs::create_directories("base/sub");
  EXPECT_EQ(exitCode({"link", "../sub", "base/sub/up"}), 0);
  EXPECT_EQ(RunHost({"readlink", "base/sub/up"}).out, "../sub\n");
  EXPECT_EQ(object({"link", "x", "base/sub/up"}, 1)["code"], EEXIST);
  EXPECT_EQ(object({"readlink", "base"}, 1)["code"], EINVAL);
  const std::string real = fs::canonical("base");
  EXPECT_EQ(RunHost({"resolve", "--base", "base", "base/sub/up"}).out, real + "/sub\n");
  EXPECT_EQ(object({"resolve", "--base", "base", "base/new/x"})["path"], real + "/new/x");
  EXPECT_EQ(exitCode({"link", "../sub/", "base/sub/slash"}), 0);
  EXPECT_EQ(RunHost({"readlink", "base/sub/slash"}).out, "../sub/\n");
  // The rule believes a link's own text; --strict goes and looks.
  fs::create_symlink("/etc", "base/a");
  fs::create_symlink("a/passwd", "base/b");
  EXPECT_EQ(object({"resolve", "--base", "base", "base/b"})["path"], "/etc/passwd");
  EXPECT_EQ(object({"resolve", "--strict", "--base", "base", "base/b"}, 1)["code"], EXDEV);
  EXPECT_EQ(object({"resolve", "--strict", "--base", "base", "base/new"}, 1)["code"], ENOENT);
  EXPECT_EQ(object({"resolve", "--strict", "--base", "base", "base2"}, 1)["code"], EXDEV);
  EXPECT_EQ(RunHost({"resolve", "--strict", "--base", "base", "base/sub/up"}).out, real + "/sub\n");
  EXPECT_EQ(RunHost({"resolve", "--strict", "--base", "base", "base"}).out, real + "\n");
  const HostRun climbing = RunHost({"resolve", "--base", "base", "base/sub/../x"});
  EXPECT_EQ(climbing.exitCode, 1);
  EXPECT_EQ(climbing.err, "quorvelctl: resolve: The suspicious path " + tree_.at("base/sub/../x") +
                              " contains '..' paths, which are invalid\n");

  EXPECT_EQ(RunHost({"attr", "placeholder", "get", "base"}).out, "no\n");
  EXPECT_EQ(object({"attr", "placeholder", "get", "base"}, 1)["placeholder"], false);
  if (exitCode({"attr", "placeholder", "set", "base"}) != 0) {
    GTEST_SKIP() << "this file system keeps no user attributes";
  }
  EXPECT_EQ(object({"attr", "placeholder", "get", "base"})["placeholder"], true);
  EXPECT_EQ(object({"attr", "install-type", "get", "base"})["installType"], 0);
  EXPECT_EQ(exitCode({"attr", "install-type", "set", "base", "18446744073709551615"}), 0);
  EXPECT_EQ(RunHost({"attr", "install-type", "get", "base"}).out, "18446744073709551615\n");
  EXPECT_EQ(exitCode({"attr", "class", "set", "base", "4"}), 0);
  EXPECT_EQ(RunHost({"attr", "class", "get", "base"}).out, "4\n");
  EXPECT_EQ(exitCode({"mkdir", "--class", "3", "base"}), 0);
  EXPECT_EQ(object({"attr", "class", "get", "base"})["class"], 3);
  EXPECT_EQ(object({"attr", "class", "get", "base/sub/up"}, 1)["code"], ELOOP);
  EXPECT_EQ(object({"attr", "install-type", "get", "absent"}, 1)["underlying"]["code"], ENOENT);
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
  EXPECT_EQ(run({"flags", "get", Flag}).exitCode, 1);
  EXPECT_EQ(run({"flags", "set", Flag, "true"}).exitCode, 0);
  EXPECT_EQ(run({"flags", "get", Flag}).exitCode, 0);
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

TEST_F(QuorvelctlTest, ConfigurationAndCatalogsAreTheDevices) {
  tree_.write("device/private/var/mobile/Library/Preferences/ByHost/com.velto.quorvel.plist",
              "<plist><dict><key>LowerInstallPriority</key><false/>"
              "<key>SimultaneousInstallsNumber</key><integer>9</integer></dict></plist>");
  tree_.write("device/private/var/mobile/Library/Preferences/com.velto.lorvixstored.plist",
              "<plist><dict><key>ThinnedAppVariantID</key><string>model</string></dict></plist>");
  const json config = object({"config", "--root", device()});
  EXPECT_EQ(config["preferences"], json({{"lowerInstallPriority", false},
                                         {"skipDeviceFamilyCheck", false},
                                         {"skipThinningCheck", false},
                                         {"nSimultaneousInstallations", 9}}));
  EXPECT_EQ(config["uid"], 33);
  EXPECT_EQ(config["paths"].size(), 15U);
  EXPECT_EQ(config["paths"]["oldContainerPath"], "/private/var/mobile/Applications");
  EXPECT_EQ(config["appUserDataItemNames"], json({"Documents", "Library", "tmp", "Tillkit"}));
  EXPECT_EQ(config["installationBlacklist"], json::array({"com.velto.Kyo6Updater"}));
  EXPECT_EQ(RunHost({"flags", "get", "alternateThinningModelIdentifier", "--root", device()}).out,
            "model\n");

  tree_.write("device/Applications/A.app/Info.plist", InfoPlist("com.example.a", "1"));
  tree_.write("device/Applications/B.APP/Info.plist", InfoPlist("com.example.b", "1"));
  tree_.write("device/Developer/Applications/D.app/Info.plist", InfoPlist("com.example.d", "2"));
  tree_.write("device/System/Library/Frameworks/F.framework/Info.plist",
              InfoPlist("com.example.f", "3"));
  const json catalog = object({"catalog", "--root", device(), "--rescan"});
  EXPECT_EQ(catalog["systemApps"],
            json({{"com.example.a",
                   {{"PKBundleIdentifier", "com.example.a"},
                    {"PKBundleVersion", "1"},
                    {"com.velto.Quorvel.bundleURL", "/Applications/A.app"}}}}));
  EXPECT_EQ(catalog["internalApps"], nullptr);
  EXPECT_EQ(catalog["diskImageApps"].size(), 1U);
  EXPECT_EQ(catalog["builtInFrameworkBundleIDs"], json::array({"com.example.f"}));
  EXPECT_EQ(catalog["builtInApplicationBundleIDs"], json({"com.example.a", "com.example.d"}));
  EXPECT_NE(RunHost({"catalog", "--root", device()}).out.find("PKBundleVersion: 2\n"),
            std::string::npos);

  const std::string bundle = "/Applications/A.app";
  EXPECT_EQ(object({"info", bundle, "--root", device()})["Other"], 7);
  EXPECT_EQ(RunHost({"info", "device" + bundle, "PKBundleVersion", "Other"}).out, "1\n7\n");
  EXPECT_EQ(object({"info", "device" + bundle, "Absent", "Other"}, 1),
            json({{"Absent", nullptr}, {"Other", 7}}));
  tree_.write("device/private/var/mobile/Library/Preferences/ByHost/com.velto.quorvel.plist",
              "damaged");
  const HostRun set = RunHost({"flags", "set", Flag, "true", "--root", device(), "--json"});
  EXPECT_EQ(set.exitCode, 0);
  EXPECT_NE(set.err.find(".damaged"), std::string::npos) << set.err;
  EXPECT_NE(set.out.find("com.velto.quorvel.plist.damaged\"]"), std::string::npos) << set.out;
  const HostRun none = RunHost({"info", "device"});
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_NE(none.err.find("no Info.plist"), std::string::npos) << none.err;

  // A bundle that is left out does not make the catalog less whole, but is told.
  tree_.write("device/Applications/Broken.app/Info.plist", "<plist><dict>");
  fs::create_directories(tree_.at("device/Applications/Empty.app"));
  const json partly = object({"catalog", "--root", device()});
  EXPECT_EQ(partly["systemApps"].size(), 1U);
  EXPECT_EQ(object({"catalog", "--root", device(), "--rescan"})["leftOut"], partly["leftOut"]);
  for (const char* name : {"Broken.app", "Empty.app"}) {
    EXPECT_NE(partly["leftOut"].dump().find(name), std::string::npos) << partly["leftOut"];
  }
  for (const bool verbose : {false, true}) {
    const std::string log = tree_.at(verbose ? "verbose.log" : "log");
    Words words = {"catalog", "--root", device(), "--log", log};
    if (verbose) words.push_back("--verbose");
    EXPECT_EQ(RunHost(words).exitCode, 0);
    const std::string lines = shell("cat '" + log + "'");
    EXPECT_EQ(lines.find("Missing Info.plist") != std::string::npos, verbose) << lines;
  }

  // A catalog that is not whole is no success: here one "directory" is a file.
  tree_.write("device/VeltoInternal/Applications", "");
  EXPECT_EQ(object({"catalog", "--root", device()}, 1)["internalApps"], nullptr);
}

TEST_F(QuorvelctlTest, DigestLinesAreThoseOfSha256sum) {
  std::string large;
  for (int i = 0; i < 70000; ++i) large += static_cast<char>(i * 7);
  tree_.write("d/large", large);
  tree_.write("d/empty", "");
  for (const std::string& name : HostileNames) tree_.write("d/" + name, name);
  fs::current_path(tree_.at("d"));
  const HostRun known = RunHost({"digest", "empty"});
  EXPECT_EQ(known.out, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855  empty\n");
  if (std::system("command -v sha256sum >/dev/null") == 0) {
    const std::string ours = shell("quorvelctl digest -- * ./large \"$PWD/empty\"");
    EXPECT_EQ(ours, shell("sha256sum -- * ./large \"$PWD/empty\""));
    EXPECT_GT(ours.size(), 64 * HostileNames.size());
  }
  // The rest is done when one cannot be read.
  const json result = object({"digest", "absent", ".", "empty"}, 1);
  EXPECT_EQ(result["files"][0]["sha256"], nullptr);
  EXPECT_EQ(result["files"][1]["sha256"], nullptr);
  EXPECT_EQ(result["files"][2]["sha256"], known.out.substr(0, 64));
  EXPECT_EQ(RunHost({"digest", "\x1B[2J\r"}, {.onTerminal = true}).out.find('\x1B'),
            std::string::npos);
}

TEST_F(QuorvelctlTest, PropertyListsOfOtherSoftwareConvertWithoutLoss) {
  const std::string samples = QUORVEL_SAMPLES;
  const auto convert = [](const std::string& format, const std::string& file) {
    const HostRun run = RunHost({"plist", "convert", "--to", format, file});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    return run.out;
  };
  const std::string xml = convert("xml", samples + "/every-kind.xml.plist");
  const std::string binary = convert("binary", samples + "/every-kind.xml.plist");
  EXPECT_EQ(xml.find("<!DOCTYPE"), std::string::npos);
  EXPECT_EQ(binary.rfind("bplist00", 0), 0U);
  tree_.write("x", xml);
  tree_.write("b", binary);
  for (const std::string& file :
       {std::string("x"), std::string("b"), samples + "/every-kind.binary.plist",
        samples + "/every-kind.utf16.plist"}) {
    EXPECT_EQ(convert("xml", file), xml) << file;
    EXPECT_EQ(convert("binary", file), binary) << file;
  }
  const json value = json::parse(convert("json", "b"));
  EXPECT_EQ(value["big"], 18446744073709551615U);
  EXPECT_EQ(value["negative"], std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(value["data"], json({{"$data", "AAEC/v8="}}));
  EXPECT_EQ(value["date"], json({{"$date", "2014-02-28T23:59:58Z"}}));
  EXPECT_TRUE(value["array"][0].is_number_integer() && value["array"][1].is_number_float());
  EXPECT_EQ(json::parse(RunHost({"plist", "show", "x"}).out), value);
  EXPECT_EQ(object({"plist", "show", "b"}), json({{"format", "binary"}, {"value", value}}));
}

TEST_F(QuorvelctlTest, PropertyListsAsJsonAreUnambiguous) {
  tree_.write("p",
              "<plist><array><real>nan</real><real>-inf</real><dict><key>$data</key><string>x</"
              "string></dict>"
              "<dict><key>$data</key><true/><key>b</key><true/></dict><data></data>"
              "</array></plist>");
  const json value = json::parse(RunHost({"plist", "convert", "--to", "json", "p"}).out);
  EXPECT_EQ(value, json::parse(R"([{"$real":"nan"},{"$real":"-inf"},
      {"$dictionary":{"$data":"x"}},{"$data":true,"b":true},{"$data":""}])"));
  tree_.write("half", testing::BinaryList{"\x33" + testing::Number(0x3FE0000000000000, 8)}.text());
  EXPECT_EQ(RunHost({"plist", "convert", "--to", "json", "half"}).out, "{\"$date\":0.5}\n");

  tree_.write("bad", "<plist><dict>");
  EXPECT_EQ(object({"plist", "show", "bad"}, 1)["code"], 3840);
  EXPECT_EQ(object({"plist", "show", "absent"}, 1)["code"], ENOENT);
  fs::create_symlink("p", "link");
  EXPECT_EQ(object({"plist", "show", "link"}, 1)["code"], ELOOP);
  ASSERT_EQ(::mkfifo("pipe", 0666), 0);
  EXPECT_EQ(object({"plist", "show", "pipe"}, 1)["code"], EINVAL);
  // As deep as property lists may be.
  std::string deep = "<plist>";
  for (int i = 0; i < 512; ++i) deep += "<array>";
  for (int i = 0; i < 512; ++i) deep += "</array>";
  tree_.write("deep", deep + "</plist>");
  EXPECT_EQ(exitCode({"plist", "show", "deep"}), 0);
}

// Kind, mode, size, time, link text and bytes of every item, by path below the root.
std::map<std::string, std::string> Contents(const std::string& root) {
  std::map<std::string, std::string> contents;
  for (const std::string& path : PathsBelow(root)) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    std::string& text = contents[path.substr(root.size())];
    text = std::to_string(info.st_mode) + " " + std::to_string(info.st_mtim.tv_sec) + "." +
           std::to_string(info.st_mtim.tv_nsec) + " ";
    if (S_ISLNK(info.st_mode)) text += fs::read_symlink(path).string();
    if (!S_ISREG(info.st_mode)) continue;
    std::ifstream file(path, std::ios::binary);
    text += std::to_string(std::hash<std::string>()({std::istreambuf_iterator<char>(file), {}}));
  }
  return contents;
}

TEST_F(QuorvelctlTest, CarriesARealTreeWhole) {
  std::string source;
  for (const char* candidate : {"/usr/include/linux", "/usr/share/zoneinfo", "/usr/share/doc"}) {
    if (source.empty() && fs::is_directory(candidate)) source = candidate;
  }
  ASSERT_FALSE(source.empty());
  const auto expected = Contents(source);
  ASSERT_GT(expected.size(), 100U);
  ASSERT_EQ(exitCode({"copy", source, "copied"}), 0);
  EXPECT_EQ(Contents(tree_.at("copied")), expected);
  // To another file system, where there is one.
  const TemporaryTree elsewhere("/dev/shm");
  ASSERT_EQ(exitCode({"move", "copied", elsewhere.at("moved")}), 0);
  EXPECT_FALSE(fs::exists("copied"));
  EXPECT_EQ(Contents(elsewhere.at("moved")), expected);
  EXPECT_EQ(exitCode({"remove", elsewhere.at("moved")}), 0);
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
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
