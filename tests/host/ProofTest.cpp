// snapshot and verify as processes, on device trees that were migrated and then tampered with.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tests/support/HostProcess.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {
namespace {

json Verify(const Device& device, const std::string& manifest, int exitCode,
            const HostSetup& setup = {}) {
  const HostRun run = device.run({"verify", "--json", manifest}, setup);
  EXPECT_EQ(run.exitCode, exitCode) << run.out << run.err;
  return json::parse(run.out, nullptr, false);
}

// "missing name, what" of each finding.
std::multiset<std::string> Told(const json& result) {
  std::multiset<std::string> told;
  for (const json& finding : result["findings"]) {
    std::string text = finding["verdict"].get<std::string>() + " ";
    const auto path = finding["path"].get<std::string>();
    text += path.substr(path.rfind('/') + 1);
    for (const json& what : finding["what"]) text += ", " + what.get<std::string>();
    told.insert(text);
  }
  return told;
}

// A line of a shell, and what is told of it. "keep DIR COMMAND" gives the item its times back, so
// that only the deed itself is left to be noticed.
struct Tampering {
  const char* deed;
  std::multiset<std::string> told;
};
constexpr const char* kKeep =
    "keep() { touch -r \"$1\" stamp.$#; (item=$1; shift; \"$@\"); touch -r stamp.$# \"$1\"; }; ";
const Tampering kTamperings[] = {
    {"keep $ONE/Documents rm $ONE/Documents/dangling", {"missing dangling"}},
    {"rm -r $BUNDLE", {"missing Begun.app"}},
    {"f=$ONE/Library/Preferences/deep/er/file; flip() { printf y | dd of=$f bs=1 conv=notrunc; }; "
     "keep $f flip",
     {"changed file, contents"}},
    {"python3 -c 'import os; os.removexattr(os.environ[\"ONE\"] + \"/Documents\", \"user.kept\")'",
     {"changed Documents, attributes"}},
    {"keep $ONE/tmp keep $TWO/tmp mv $ONE/tmp/scratch $TWO/tmp/a",
     {"missing scratch", "unexplained a"}},
    // Mode, broken hard link and a new item.
    {"chmod 755 $ONE/Tillkit; >$ONE/new; "
     "part() { cp -a \"$f\" \"$f+\"; mv \"$f+\" \"$f\"; }; f=\"$ONE/Documents/second name\"; "
     "keep $ONE/Documents part",
     {"changed Tillkit, mode", "changed second name, hard links", "unexplained new"}},
    // What the change of one name says is not said of the other again.
    {"part() { printf changed >other; mv other \"$f\"; }; f=\"$ONE/Documents/second name\"; "
     "keep $ONE/Documents part",
     {"changed second name, size, mode, modified, attributes"}},
};

// Relative to the copy's parent.
std::string Place(const json& registry, const char* identifier, const char* key) {
  for (const json& bundle : registry["bundles"]) {
    if (bundle["identifier"] == identifier) return "./device" + bundle[key].get<std::string>();
  }
  return {};
}

TEST(ProofTest, WhatIsTamperedWithAfterAMigrationIsNamed) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  ASSERT_EQ(device.registerTunnel(), 0);
  const std::string manifest = tree / "manifest.gz";
  const std::vector<std::string> paths = PathsBelow(device.root());
  ForgetAccesses(paths);
  const auto before = FactsOf(paths);
  ASSERT_EQ(device.run({"snapshot", "--gzip", "--output", manifest}).exitCode, 0);
  EXPECT_EQ(FactsOf(paths), before);
  EXPECT_EQ(Verify(device, manifest, 0)["kept"], Verify(device, manifest, 0)["items"]);

  ASSERT_EQ(device.run({"migrate"}).exitCode, 0);
  const json sound = Verify(device, manifest, 0);
  const std::multiset<std::string> inOrder = {
      "lost Hollow.app", "lost WhereDidMyApplicationsGo.txt", "lost stray", "lost Documents"};
  EXPECT_EQ(Told(sound), inOrder);
  EXPECT_EQ(sound["kept"], 2);  // the harbor's
  EXPECT_EQ(device.run({"verify", "--strict", manifest}).exitCode, 1);

  const json registry = device.registry();
  for (const auto& [deed, told] : kTamperings) {
    SCOPED_TRACE(deed);
    const ScratchTree copy;
    const std::string script =
        "exec 2>/dev/null; cp -a " + device.root() + " " + copy.path() + "; cd " + copy.path() +
        "; export ONE=" + Place(registry, "com.example.one", "dataContainerPath") +
        " TWO=" + Place(registry, "com.example.two", "dataContainerPath") +
        " BUNDLE=" + Place(registry, "com.example.begun", "bundlePath") + "; " + kKeep + deed;
    ASSERT_EQ(std::system(script.c_str()), 0);
    auto expected = told;
    expected.insert(inOrder.begin(), inOrder.end());
    EXPECT_EQ(Told(Verify(Device(copy / "device"), manifest, 1)), expected);
  }
}

// Nobody wants to lose one container's data for another's, so it takes a word: the refusal names
// both and their app, and changes nothing.
void ExpectRefusedWithoutAWord(const Device& device) {
  const Facts before = Snapshot(device.root());
  const HostRun refused = device.run({"migrate"});
  EXPECT_EQ(refused.exitCode, 5);
  EXPECT_NE(refused.err.find("refused (duplicate-identifiers): " + std::string(Mobile)),
            std::string::npos)
      << refused.err;
  for (const char* name : {"/Applications/A", "/Applications/B", "com.example.same"}) {
    EXPECT_NE(refused.err.find(name), std::string::npos) << name << refused.err;
  }
  EXPECT_EQ(Snapshot(device.root()), before);
  EXPECT_EQ(device.run({"inspect"}).exitCode, 5);
}

// What the sequence replaces: an app's new item by its legacy one, and one legacy container's by
// another's of the same app. A stopped container keeps what it has, and the rest has arrived.
TEST(ProofTest, AFailedMigrationIsAccountedFor) {
  const ScratchTree tree;
  const Device device(tree / "device");
  for (const char* name : {"A", "B"}) {
    PutBundle(device.container(std::string(name) + "/Same.app"), "com.example.same");
    PutData(device.container(name), name);
  }
  PutBundle(device.container("C/Stopped.app"), "com.example.stopped");
  PutData(device.container("C"), "stopped");
  Put(device.container("C/unknown"), "nothing moves this");
  ASSERT_EQ(device.run({"register", "--identifier", "com.example.stopped"}).exitCode, 0);
  const std::string data = device.registry()["bundles"][0]["dataContainerPath"];
  Put(device.inside(data + "/Library/old"), "replaced");
  Put(device.inside(data + "/other/old"), "stays");
  AgeTree(device.root());
  const std::string manifest = tree / "manifest";
  ASSERT_EQ(device.run({"snapshot", "--output", manifest}).exitCode, 0);
  ExpectRefusedWithoutAWord(device);
  const HostRun run =
      device.run({"migrate", "--json", "--force-preflight", "duplicate-identifiers"});
  EXPECT_EQ(run.exitCode, 1);
  const json migrated = json::parse(run.out);
  std::multiset<std::string> lost;
  for (const json& container : migrated["containers"]) {
    if (container["lost"].is_null()) continue;
    lost.insert(container["lost"]["files"].dump() + container["lost"]["userDataItems"].dump());
    EXPECT_NE(container["notes"].dump().find("data-replaced"), std::string::npos) << container;
  }
  EXPECT_EQ(lost,
            (std::multiset<std::string>{R"(1["Library"])", R"(8["Documents","Library","tmp"])"}));
  const json result = Verify(device, manifest, 0);
  EXPECT_EQ(result["unexplained"], 0) << result.dump(1);
  for (const json& finding : result["findings"]) {
    EXPECT_NE(finding["reason"].get<std::string>().find("replaced by"), std::string::npos)
        << finding.dump();
  }
  EXPECT_EQ(Told(result),
            (std::multiset<std::string>{"lost Documents", "lost Library", "lost tmp",
                                        "lost Tillkit", "lost Same.app", "lost Library"}));
  EXPECT_EQ(result["kept"], 1);
}

TEST(ProofTest, AnyNameAndAnyDepthIsListed) {
  const ScratchTree tree;
  const Device device(tree / "device");
  PutBundle(device.container("A/Foo.app"), "com.example.foo");
  fs::create_directories(device.container("A/Documents"));
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/' || byte == '.') continue;
    WriteFile(device.container("A/Documents/") + static_cast<char>(byte),
              "of " + std::to_string(byte));
  }
  // Deeper than descriptors and path names reach.
  fs::create_directories(device.container("A/Library"));
  {
    const UniqueDescriptor here(::open(".", O_PATH | O_CLOEXEC));
    ASSERT_EQ(::chdir(device.container("A/Library").c_str()), 0);
    for (int level = 0; level < 5000; ++level) {
      ASSERT_EQ(::mkdir("d", 0755), 0);
      ASSERT_EQ(::chdir("d"), 0);
    }
    WriteFile("leaf", "deep");
    ASSERT_EQ(::fchdir(here.get()), 0);
  }
  const std::string manifest = tree / "manifest";
  ASSERT_EQ(device.run({"snapshot", "--output", manifest}).exitCode, 0);
  ASSERT_EQ(device.run({"migrate"}).exitCode, 0);
  const json sound = Verify(device, manifest, 0);
  EXPECT_EQ(sound["arrived"], sound["items"]);
}

TEST(ProofTest, WhatCannotBeReadIsListedAndUnproven) {
  if (!NoUnprivilegedCase().empty()) GTEST_SKIP() << NoUnprivilegedCase();
  const ScratchTree tree;
  HostSetup nobody{.asNobody = true};
  nobody.program = CopyHostTo(tree / "program");
  const Device closed(tree / "closed");
  PutBundle(closed.container("A/Foo.app"), "com.example.foo");
  Put(closed.container("A/Documents/secret"), "?");
  fs::permissions(closed.container("A/Documents/secret"), fs::perms(0));
  fs::create_directories(closed.container("A/Library/inside"));
  fs::permissions(closed.container("A/Library"), fs::perms(0));
  const HostRun listed = closed.run({"snapshot"}, nobody);
  EXPECT_EQ(listed.exitCode, 0) << listed.err;
  WriteFile(tree / "partial", listed.out);
  const json result = Verify(closed, tree / "partial", 1, nobody);
  EXPECT_EQ(Told(result), (std::multiset<std::string>{"unproven secret", "unproven Library"}));
}

TEST(ProofTest, ADamagedManifestProvesNothing) {
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  const std::string manifest = tree / "manifest";
  ASSERT_EQ(device.run({"snapshot", "--output", manifest}).exitCode, 0);
  const std::string whole = ReadFile(manifest);
  std::vector<std::string> damaged = {"", "{}\n", whole.substr(0, whole.size() - 1)};
  for (std::size_t i = 1; i < 8; ++i) damaged.push_back(whole.substr(0, whole.size() * i / 8));
  const auto replace = [&whole](const std::string& what, const std::string& by) {
    std::string text = whole;
    const auto at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return text.replace(at, what.size(), by);
  };
  const std::string entry = R"({"depth":1,"name":)";
  damaged.push_back(replace(entry, R"({"depth":9,"name":)"));
  for (const char* name : {"..", "a/b", "", "/etc/passwd", "\\u0000"}) {
    damaged.push_back(
        replace(R"("name":"Documents","type")", std::string(R"("name":")") + name + R"(","type")"));
  }
  const auto line = whole.find(entry);
  // A null byte would hide the line behind it from a reader of C strings.
  damaged.push_back(whole.substr(0, line) + std::string(1, '\0') + whole.substr(line));
  damaged.push_back(whole.substr(0, line) + whole.substr(whole.find('\n', line) + 1));
  for (const std::string& text : damaged) {
    WriteFile(manifest, text);
    const json result = Verify(device, manifest, 1);
    EXPECT_TRUE(result.contains("error")) << text.size() << result.dump();
  }
  const HostRun inside = device.run({"snapshot", "--json", "--output", device.inside("/manifest")});
  EXPECT_EQ(inside.exitCode, 2);
  EXPECT_FALSE(fs::exists(device.inside("/manifest")));
}

struct Rehearsed {
  const char* name;
  bool failing;
  bool kept;
  HostSetup setup;
};

void ExpectUntouched(const Rehearsed& each) {
  SCOPED_TRACE(each.name);
  const ScratchTree tree;
  const ScratchTree upper(OtherFileSystem());
  const Device device(tree / "device");
  device.make();
  if (!each.failing) {
    ASSERT_EQ(device.registerTunnel(), 0);
  }
  if (each.setup.asNobody) {
    ASSERT_EQ(std::system(("chown -R 65534:65534 " + tree.path()).c_str()), 0);
  }
  const std::vector<std::string> paths = PathsBelow(tree.path());
  ForgetAccesses(paths);
  const auto before = FactsOf(paths);
  std::vector<std::string> command = {"rehearse", "--json"};
  if (each.kept) command.insert(command.end(), {"--keep", "--upper", upper.path()});
  const HostRun run = device.run(command, each.setup);
  EXPECT_TRUE(FactsOf(paths) == before) << "some time, mode, size or owner is another";
  EXPECT_TRUE(PathsBelow(tree.path()) == paths);
  EXPECT_EQ(fs::is_empty(upper.path()), !each.kept);
  const json result = json::parse(run.out, nullptr, false);
  if (run.exitCode == 4) {
    std::cout << each.name << ": refused: " << run.err;
    return;
  }
  EXPECT_EQ(run.exitCode, each.failing ? 1 : 0) << run.out << run.err;
  EXPECT_EQ(result["migration"]["succeeded"], !each.failing) << result.dump(1);
  EXPECT_EQ(result["verification"]["succeeded"], true) << result.dump(1);
  EXPECT_EQ(result["untouched"], true);
  EXPECT_EQ(result["copied"], each.setup.asNobody);
  EXPECT_GT(result["inodesNeeded"], 0);
}

// Whatever becomes of the rehearsed migration, with privileges and without, in memory and on a
// disk.
TEST(ProofTest, ARehearsalLeavesTheTreeAsItIs) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  const ScratchTree program;
  const HostSetup nobody{.asNobody = true, .program = CopyHostTo(program / "bin")};
  ExpectUntouched({"in memory", false, false, {}});
  ExpectUntouched({"failing, kept", true, true, {}});
  if (NoUnprivilegedCase().empty()) ExpectUntouched({"without privileges", false, false, nobody});
  const ScratchTree tree;
  const Device device(tree / "device");
  fs::create_directories(device.inside("/upper"));
  fs::create_directories(device.inside(Mobile));
  EXPECT_EQ(device.run({"rehearse", "--upper", device.inside("/upper")}).exitCode, 2);
  EXPECT_TRUE(fs::is_empty(device.inside("/upper")));
}

// The lines of a text, each once by what it holds, since there are very many items.
std::vector<std::string> LinesOfEachKind(const std::string& text) {
  std::map<std::string, std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    std::string keys;
    const json object = json::parse(line);
    for (const auto& [key, value] : object.items()) keys += key + value.type_name();
    lines[keys] = line;
  }
  std::vector<std::string> one;
  for (const auto& [keys, line] : lines) one.push_back(line);
  return one;
}

using Commands = std::vector<std::vector<std::string>>;

// They get nowhere without a registry or a device.
Commands CommandsOnNothing(const std::string& manifest, const std::string& output) {
  return {{"inspect"},
          {"status"},
          {"registry"},
          {"register", "--identifier", "a.b"},
          {"snapshot", "--output", output},
          {"verify", manifest},
          {"rehearse"},
          {"migrate"}};
}

struct Printed {
  std::vector<std::string> objects{};
  std::map<int, int> codes{};  // how often each

  void add(const Device& device, const Commands& commands) {
    for (std::vector<std::string> command : commands) {
      command.emplace_back("--json");
      const HostRun run = device.run(command);
      ++codes[run.exitCode];
      objects.push_back(run.out);
      EXPECT_EQ(json::parse(run.out, nullptr, false).value("exitCode", run.exitCode), run.exitCode);
    }
  }
};

// Each command on a sound device, on one where it fails, and where it is refused.
TEST(ProofTest, WhatEveryCommandPrintsIsDocumented) {
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  ASSERT_EQ(::mkfifo(device.container("A 1/Documents/pipe").c_str(), 0600), 0);
  const std::string manifest = tree / "manifest";
  const std::string nowhere = tree / "nowhere";
  Printed printed;
  printed.add(device, {{"inspect"},
                       {"status"},
                       {"registry"},
                       {"snapshot", "--output", manifest},
                       {"rehearse"},
                       {"migrate"},
                       {"verify", manifest}});
  fs::remove_all(device.container("C3/Alone.vpnplugin/Current"));
  printed.add(device, {{"register", "--identifier", "com.example.alone"},
                       {"inspect"},
                       {"verify", manifest},
                       {"migrate"},
                       {"registry"},
                       {"status"}});
  std::vector<std::string> lines = LinesOfEachKind(ReadFile(manifest));
  for (const std::string& line : LinesOfEachKind(device.run({"snapshot"}).out)) {
    lines.push_back(line);
  }
  // No command gets anywhere with words that mean nothing, a registry that is none and no device.
  printed.add(device, {{"register", "--identifier", ""},
                       {"verify", nowhere},
                       {"snapshot", "--output", "/"},
                       {"migrate", "--plugin", nowhere},
                       {"rehearse", "--upper", nowhere},
                       {"migrate", "--log", nowhere + "/log"}});
  Put(device.inside("/private/var/quorveld/Library/Registry/registry.db"), std::string(9000, 'x'));
  printed.add(device, CommandsOnNothing(manifest, nowhere));
  fs::remove_all(device.inside("/private"));
  printed.add(device, CommandsOnNothing(manifest, nowhere));
  ExpectDocumented(printed.objects);
  ExpectDocumented(lines, "manifest");
  for (const int code : {0, 1, 2, 3, 4, 5}) EXPECT_GT(printed.codes[code], 0) << code;
}

}  // namespace
}  // namespace quorvel::testing
