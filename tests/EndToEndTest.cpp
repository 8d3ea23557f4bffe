// Whole migrations: the built host and the real plug-in on made device trees.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "tests/HostProcess.h"
#include "tests/TreeTools.h"

namespace quorvel::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* Mobile = "/private/var/mobile";
constexpr const char* MarkerName = "com.velto.quorvel.container_migrator.plist";

using Facts = std::map<std::string, std::string>;

void Put(const std::string& path, const std::string& bytes) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string Dictionary(const std::string& content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + content +
         "</dict></plist>\n";
}

std::string Entry(const std::string& key, const std::string& text) {
  return "<key>" + key + "</key><string>" + text + "</string>";
}

void PutBundle(const std::string& path, const std::string& identifier,
               const std::string& group = {}) {
  std::string content = Entry("PKBundleIdentifier", identifier) + Entry("PKBundleVersion", "1.2");
  if (!group.empty()) {
    content += "<key>PKApplicationGroups</key><array><string>" + group + "</string></array>";
  }
  Put(path + "/Info.plist", Dictionary(content));
  Put(path + "/Executable", "code of " + identifier);
  fs::permissions(path + "/Executable", fs::perms(0755));
  fs::create_symlink("Executable", path + "/Current");
}

void PutData(const std::string& container, const std::string& what) {
  Put(container + "/Documents/plain", what);
  Put(container + "/Documents/with space and 100%@\nnewline", what + "2");
  Put(container + "/Documents/caf\xc3\xa9 \xff\xfe raw", what + "3");
  Put(container + "/Library/Preferences/deep/er/file", std::string(70000, 'x'));
  Put(container + "/tmp/scratch", "");
  fs::create_directories(container + "/Tillkit/empty");
  fs::create_symlink("/private/var/mobile", container + "/Library/absolute");
  fs::create_symlink("nowhere", container + "/Documents/dangling");
  fs::create_hard_link(container + "/Documents/plain", container + "/Documents/second name");
  fs::permissions(container + "/Documents/plain", fs::perms(0640));
  fs::permissions(container + "/Tillkit", fs::perms(0700));
  SetAttribute(container + "/Documents/plain", "user.note", std::string("\0binary\xff", 8));
  SetAttribute(container + "/Documents", "user.kept", "yes");
}

// Times that no run of the system would come up with, different for each item.
void AgeTree(const std::string& root) {
  long index = 0;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    ++index;
    const timespec time = {1500000000 + index, 1001 * index};
    const timespec times[2] = {time, time};
    ::utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
}

// A device with one container of each kind that migrates.
class Device {
 public:
  explicit Device(std::string root) : root_(std::move(root)) {}

  const std::string& root() const { return root_; }
  std::string inside(const std::string& path) const { return root_ + path; }
  std::string container(const std::string& name) const {
    return root_ + Mobile + "/Applications/" + name;
  }

  void make() const {
    PutBundle(container("A 1/Tool One.app"), "com.example.one", "group.shared");
    PutBundle(container("A 1/Tunnel.vpnplugin"), "com.example.one.tunnel");
    PutData(container("A 1"), "one");
    for (const char* name : {"Manifest.plist", "LorvixArtwork", "LorvixMetadata.plist"}) {
      Put(container("A 1/") + name, std::string("store ") + name);
    }
    PutBundle(container("B\xff"
                        "2/Two.app"),
              "com.example.two", "group.shared");
    PutData(container("B\xff"
                      "2"),
            "two");
    PutBundle(container("C3/Alone.vpnplugin"), "com.example.alone");
    PutBundle(container("D4/Hollow.app"), "com.example.hollow");
    SetAttribute(container("D4/Hollow.app"), "user.com.velto.quorveld.placeholder",
                 std::string("\1\0\0\0", 4));
    PutData(container("D4"), "hollow");
    PutBundle(container("E5/Begun.app"), "com.example.begun");
    PutData(container("E5"), "begun");
    const std::string begun = std::string(Mobile) + "/Applications/E5";
    Put(container("E5/") + MarkerName,
        Dictionary(Entry("ContainerPath", begun) + Entry("BundlePath", begun + "/Begun.app") +
                   Entry("ContainerType", "App") + Entry("BundleIdentifier", "com.example.begun")));
    Put(container("WhereDidMyApplicationsGo.txt"), "elsewhere");
    Put(container("stray"), "file");
    Put(container("F6/Documents/unclaimed"), "no bundle");
    Put(root_ + Mobile + "/Groups/shared/Library/of all", "group data");
    Put(root_ + Mobile + "/Library/Caches/com.velto.quorvel.plist",
        Dictionary("<key>GroupContainers</key><dict><key>group.shared</key><dict>" +
                   Entry("Container", std::string(Mobile) + "/Groups/shared") + "</dict></dict>"));
    Put(root_ + Mobile + "/Harbors/gone/Documents/kept", "harbor data");
    Put(root_ + Mobile + "/Library/Quorvel/SafeHarbor.plist",
        Dictionary("<key>com.example.gone</key><dict>" +
                   Entry("HarborPathKey", std::string(Mobile) + "/Harbors/gone") + "</dict>"));
    AgeTree(root_);
  }

  HostRun run(std::vector<std::string> command, const HostSetup& setup = {}) const {
    command.insert(command.begin() + 1, {"--root", root_});
    return RunHost(command, setup);
  }
  int registerTunnel(const HostSetup& setup = {}) const {
    return run({"register", "--identifier", "com.example.alone"}, setup).exitCode;
  }
  json registry(const HostSetup& setup = {}) const {
    return json::parse(run({"registry", "--json"}, setup).out);
  }

 private:
  const std::string root_;
};

// Hard links are told by path, which changes with the container: only that there is one matters.
std::string WithoutLinkNames(const std::string& text) {
  const auto at = text.find(" same as ");
  if (at == std::string::npos) return text;
  const auto end = text.find(" [", at);
  return text.substr(0, at + 8) + (end == std::string::npos ? "" : text.substr(end));
}

// The registry's content and the whole tree after a migration, with containers named for what they
// are instead of at random. Times count where the user or the app's maker made the item.
Facts Outcome(const Device& device, const HostSetup& setup = {}) {
  const json registry = device.registry(setup);
  std::map<std::string, std::string> names;
  for (const json& bundle : registry["bundles"]) {
    const auto identifier = bundle["identifier"].get<std::string>();
    const auto name = [&names](const json& path, const std::string& text) {
      if (path.is_string()) names[path.get<std::string>()] = text;
    };
    const char* kind = bundle["placeholder"] == true ? "<placeholder " : "<bundle ";
    name(bundle["bundleContainerPath"], kind + identifier + ">");
    name(bundle["dataContainerPath"], "<data " + identifier + ">");
    for (const auto& [group, path] : bundle["groupContainers"].items()) {
      name(path, "<group " + group + ">");
    }
  }
  std::string records = registry.dump();
  for (const auto& [path, name] : names) {
    for (auto at = records.find(path); at != std::string::npos; at = records.find(path)) {
      records.replace(at, path.size(), name);
    }
  }
  Facts outcome = {{"registry", records}};
  for (const auto& [path, text] : Snapshot(device.root())) {
    std::string name = "/" + path;
    bool timed = false;
    // A container is four components below the device's root: three slashes behind the first.
    for (auto slash = name.find('/', 1);; slash = name.find('/', slash + 1)) {
      const auto known = names.find(name.substr(0, slash));
      if (known != names.end()) {
        timed = slash != std::string::npos && !known->second.starts_with("<placeholder");
        name = known->second + (slash == std::string::npos ? "" : name.substr(slash));
        break;
      }
      if (slash == std::string::npos) break;
    }
    const bool grows =
        name.find("/Logs/") != std::string::npos || name.find("/Registry/") != std::string::npos;
    // Kind, mode and owner come first.
    outcome[name] = timed   ? WithoutLinkNames(text)
                    : grows ? ""
                            : text.substr(0, text.find(" mtime"));
  }
  return outcome;
}

void ExpectSame(const Facts& expected, const Facts& actual, const std::string& when) {
  for (const auto& [name, text] : expected) {
    const auto at = actual.find(name);
    if (at == actual.end()) {
      ADD_FAILURE() << when << ": missing " << name;
    } else {
      EXPECT_EQ(text, at->second) << when << ": " << name;
    }
  }
  for (const auto& [name, text] : actual) {
    EXPECT_TRUE(expected.contains(name)) << when << ": unexpected " << name << ": " << text;
  }
}

// Items of a snapshot below one directory, named by their place under another.
void Carry(const Facts& before, const std::string& from, const std::string& to, Facts& out) {
  for (const auto& [path, text] : before) {
    if (path == from || path.starts_with(from + "/"))
      out[to + path.substr(from.size())] = WithoutLinkNames(text);
  }
}

// What a migration of Device::make() must leave of the users' and makers' items.
Facts ExpectedItems(const Device& device) {
  const Facts before = Snapshot(device.root());
  const std::string legacy = std::string(Mobile).substr(1) + "/Applications/";
  Facts expected;
  const std::map<std::string, std::string> apps = {{"A 1", "com.example.one"},
                                                   {"B\xff"
                                                    "2",
                                                    "com.example.two"},
                                                   {"D4", "com.example.hollow"},
                                                   {"E5", "com.example.begun"}};
  for (const auto& [container, identifier] : apps) {
    for (const char* item : {"/Documents", "/Library", "/tmp", "/Tillkit"}) {
      Carry(before, legacy + container + item, "<data " + identifier + ">" + item, expected);
    }
  }
  const auto bundle = [&](const char* from, const char* identifier) {
    const std::string name = fs::path(from).filename();
    Carry(before, legacy + from, std::string("<bundle ") + identifier + ">/" + name, expected);
  };
  bundle("A 1/Tool One.app", "com.example.one");
  bundle("A 1/Manifest.plist", "com.example.one");
  bundle("A 1/LorvixArtwork", "com.example.one");
  bundle("A 1/LorvixMetadata.plist", "com.example.one");
  bundle("A 1/Tunnel.vpnplugin", "com.example.one.tunnel");
  bundle(
      "B\xff"
      "2/Two.app",
      "com.example.two");
  bundle("C3/Alone.vpnplugin", "com.example.alone");
  bundle("E5/Begun.app", "com.example.begun");
  Carry(before, std::string(Mobile).substr(1) + "/Groups/shared/Library",
        "<group group.shared>/Library", expected);
  return expected;
}

// That every expected item arrived as it was, and that nothing else lies in the containers.
void ExpectArrived(const Facts& expected, const Facts& outcome) {
  for (const auto& [name, text] : expected) {
    const auto at = outcome.find(name);
    if (at == outcome.end()) {
      ADD_FAILURE() << "missing " << name;
    } else {
      EXPECT_EQ(text, at->second) << name;
    }
  }
  for (const auto& [name, text] : outcome) {
    const bool inContainer = name.starts_with("<") && name.find(">/") != std::string::npos;
    if (!inContainer || name.starts_with("<placeholder")) continue;
    EXPECT_TRUE(expected.contains(name)) << "unexpected " << name;
  }
}

constexpr const char* InstallMap = "/private/var/mobile/Library/Caches/com.velto.quorvel.plist";

void ExpectLegacyGone(const Device& device) {
  for (const char* path :
       {"/Applications", "/Groups/shared", "/Library/Quorvel/SafeHarbor.plist"}) {
    EXPECT_FALSE(Exists(device.root() + Mobile + path)) << path;
  }
  EXPECT_TRUE(Exists(device.root() + Mobile + "/Harbors/gone/Documents/kept"));
}

TEST(EndToEndTest, EverythingArrivesWhereItBelongs) {
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  const Facts expected = ExpectedItems(device);
  ASSERT_EQ(device.registerTunnel(), 0);
  const HostRun run = device.run({"migrate", "--json"});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const json result = json::parse(run.out);
  EXPECT_EQ(result["items"], 8);
  EXPECT_EQ(result["estimatedDuration"], 38.0);
  EXPECT_EQ(result["progress"], 1.0);

  const Facts outcome = Outcome(device);
  ExpectArrived(expected, outcome);
  ExpectLegacyGone(device);
  EXPECT_FALSE(Exists(device.inside(InstallMap)));
  const json registry = device.registry();
  EXPECT_EQ(registry["bundles"].size(), 6U);
  EXPECT_EQ(registry["dataProtectionUpdated"], true);
  EXPECT_EQ(registry["safeHarbors"],
            json::parse("[{\"identifier\":\"com.example.gone\",\"path\":\"" + std::string(Mobile) +
                        "/Harbors/gone\",\"containerType\":2}]"));
  for (const json& bundle : registry["bundles"]) {
    EXPECT_EQ(bundle["placeholder"], bundle["identifier"] == "com.example.hollow");
  }

  // Nothing is left to do, and doing it changes nothing.
  const HostRun again = device.run({"migrate", "--json"});
  EXPECT_EQ(again.exitCode, 0);
  EXPECT_EQ(again.err, "");
  EXPECT_EQ(json::parse(again.out)["items"], 0);
  EXPECT_EQ(json::parse(again.out)["progress"], 0.5);
  ExpectSame(outcome, Outcome(device), "second run");
}

TEST(EndToEndTest, KilledAgainAndAgainItArrivesAllTheSame) {
  const ScratchTree tree;
  const Device pristine(tree / "pristine");
  pristine.make();
  ASSERT_EQ(pristine.registerTunnel(), 0);
  const auto copy = [&](const char* name) {
    const Device device(tree / name);
    EXPECT_EQ(std::system(("cp -a '" + pristine.root() + "' '" + device.root() + "'").c_str()), 0);
    return device;
  };
  const Device reference = copy("reference");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(reference.run({"migrate"}).exitCode, 0);
  const auto whole = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  const Facts expected = Outcome(reference);

  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  int kills = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  for (int round = 0;
       round < 40 && !::testing::Test::HasFailure() && std::chrono::steady_clock::now() < deadline;
       ++round) {
    const Device device = copy("device");
    for (int attempt = 0; attempt < 4; ++attempt) {
      const pid_t host = StartHost({"migrate", "--root", device.root()});
      std::uniform_int_distribution<long> delay(0, whole.count());
      std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
      ::kill(host, SIGKILL);
      if (FinishHost(host) != -SIGKILL) break;
      ++kills;
      // Looking at what the killed host left is no second migration.
      if (attempt == 0) {
        const Facts before = Snapshot(device.root());
        EXPECT_EQ(device.run({"inspect", "--json"}).exitCode, 0);
        EXPECT_EQ(device.run({"registry", "--json"}).exitCode, 0);
        ExpectSame(before, Snapshot(device.root()), "inspect after a kill");
      }
    }
    const HostRun last = device.run({"migrate"});
    EXPECT_EQ(last.exitCode, 0) << last.out << last.err;
    Facts outcome = Outcome(device);
    // Killed between its last two steps a host leaves the map of a directory that is gone: no later
    // run reads it or misses it.
    outcome.erase(InstallMap);
    ExpectSame(expected, outcome, "round " + std::to_string(round));
    ExpectLegacyGone(device);
    if (!::testing::Test::HasFailure()) RemoveWithSystem(device.root());
  }
  RecordProperty("kills", kills);
  EXPECT_GT(kills, 8) << "the runs were not hit while they ran";
  if (::testing::Test::HasFailure()) std::cerr << "seed " << seed << "\n";
}

TEST(EndToEndTest, FailingContainersStayAreExplainedAndSucceedLater) {
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  PutBundle(device.container("G7/Linked.dir"), "com.example.linked");
  fs::create_symlink("Linked.dir", device.container("G7/Linked.app"));
  PutBundle(device.container("H8/Messy.app"), "com.example.messy");
  Put(device.container("H8/.hidden"), "left behind");
  fs::create_symlink("/", device.container("rootlink"));
  const Facts expected = ExpectedItems(device);

  const json inspected = json::parse(device.run({"inspect", "--json"}).out);
  std::map<std::string, std::string> actions;
  for (const json& item : inspected["items"]) {
    actions[fs::path(item["path"].get<std::string>()).filename()] = item["action"];
  }
  const HostRun run = device.run({"migrate"});
  EXPECT_EQ(run.exitCode, 1);
  for (const auto& [name, action] : actions) {
    const bool stays = action.starts_with("skip") || action.starts_with("fail");
    std::string onDisk = name;
    if (name.starts_with("B")) continue;  // its name is no UTF-8
    EXPECT_EQ(Exists(device.container(onDisk)), stays) << name << ": " << action;
  }
  for (const char* name : {"C3", "G7", "H8", "rootlink"}) {
    EXPECT_TRUE(Exists(device.container(name))) << name;
    EXPECT_NE(run.out.find(name), std::string::npos) << run.out;
  }
  EXPECT_TRUE(Exists(device.container("C3/") + MarkerName));
  EXPECT_EQ(ReadFile(device.container("H8/.hidden")), "left behind");
  EXPECT_FALSE(Exists(device.container("A 1")));
  EXPECT_TRUE(Exists(device.inside(InstallMap)));
  for (const char* words : {"the registry has no record of it", "its app is a symbolic link",
                            "it holds items that no step moves", "a symbolic link is not followed",
                            "migration-host migrate --root"}) {
    EXPECT_NE(run.out.find(words), std::string::npos) << words << "\n" << run.out;
  }

  ASSERT_EQ(device.registerTunnel(), 0);
  fs::remove(device.container("H8/.hidden"));
  fs::remove(device.container("rootlink"));
  fs::remove_all(device.container("G7"));
  const HostRun later = device.run({"migrate"});
  EXPECT_EQ(later.exitCode, 0) << later.out;
  Facts outcome = Outcome(device);
  std::erase_if(outcome,
                [](const auto& fact) { return fact.first.find("messy") != std::string::npos; });
  ExpectArrived(expected, outcome);
  ExpectLegacyGone(device);
}

TEST(EndToEndTest, ContainersOnAnotherFileSystemGetWholeCopies) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting needs privileges";
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  const Facts expected = ExpectedItems(device);
  EXPECT_TRUE(InChild([&] {
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    const std::string containers = device.root() + Mobile + "/Containers";
    fs::create_directories(containers);
    ASSERT_EQ(::mount("tmpfs", containers.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(device.registerTunnel(), 0);
    const HostRun run = device.run({"migrate"});
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    ExpectArrived(expected, Outcome(device));
    ExpectLegacyGone(device);
  }));
}

TEST(EndToEndTest, AnOrdinaryUserMigratesATreeOfHisOwn) {
  if (!NoUnprivilegedCase().empty()) GTEST_SKIP() << NoUnprivilegedCase();
  const ScratchTree tree("/tmp");  // programs may be copied to it and run
  HostSetup setup;
  setup.asNobody = true;
  setup.program = CopyHostTo(tree / "bin");
  setup.environment["LD_LIBRARY_PATH"] = tree / "bin";
  const Device device(tree / "device");
  MakeDirectory(device.root());
  ASSERT_EQ(::chown(device.root().c_str(), NobodyUser, NobodyUser), 0);
  ASSERT_TRUE(InChild([&] {
    BecomeNobody();
    device.make();
  }));
  const Facts expected = ExpectedItems(device);
  ASSERT_EQ(device.registerTunnel(setup), 0);

  ::chmod(device.container("E5").c_str(), 0);
  const HostRun refused = device.run({"migrate"}, setup);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.out.find("it cannot be read: "), std::string::npos) << refused.out;
  ::chmod(device.container("E5").c_str(), 0755);

  const HostRun run = device.run({"migrate"}, setup);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  ExpectArrived(expected, Outcome(device, setup));
  ExpectLegacyGone(device);
}

}  // namespace
}  // namespace quorvel::testing
