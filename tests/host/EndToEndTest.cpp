// Whole migrations: the built host and the real plug-in on made device trees.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <nlohmann/json.hpp>

#include "tests/support/HostProcess.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/Refusals.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {
namespace {

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
  ExpectHeld(expected, outcome, "arrived");
  for (const auto& [name, text] : outcome) {
    const bool inContainer = name.starts_with("<") && name.find(">/") != std::string::npos;
    if (!inContainer || name.starts_with("<placeholder")) continue;
    EXPECT_TRUE(expected.contains(name)) << "unexpected " << name;
  }
}

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

  const HostRun run = device.run({"migrate"});
  EXPECT_EQ(run.exitCode, 1);
  for (const char* name : {"C3", "G7", "H8", "rootlink"}) {
    EXPECT_TRUE(Exists(device.container(name))) << name;
    EXPECT_NE(run.out.find(name), std::string::npos) << run.out;
  }
  EXPECT_TRUE(Exists(device.container("C3/") + MarkerName));
  EXPECT_EQ(ReadFile(device.container("H8/.hidden")), "left behind");
  EXPECT_FALSE(Exists(device.container("A 1")));
  EXPECT_TRUE(Exists(device.inside(InstallMap)));
  for (const char* words : {"the registry has no record of it", "it holds items that no step moves",
                            "it is or holds a symbolic link", "rootlink: it is or holds",
                            "migration-host migrate --root"}) {
    EXPECT_NE(run.out.find(words), std::string::npos) << words << "\n" << run.out;
  }

  ASSERT_EQ(device.registerTunnel(), 0);
  fs::remove(device.container("H8/.hidden"));
  fs::remove(device.container("rootlink"));
  fs::remove_all(device.container("G7"));
  const HostRun later = device.run({"migrate"});
  EXPECT_EQ(later.exitCode, 0) << later.out;
  EXPECT_NE(later.out.find("apps were installed before this run"), std::string::npos) << later.out;
  Facts outcome = Outcome(device);
  std::erase_if(outcome,
                [](const auto& fact) { return fact.first.find("messy") != std::string::npos; });
  ExpectArrived(expected, outcome);
  ExpectLegacyGone(device);
}

HostRun MigrateOnly(const Device& device, std::vector<std::string> identifiers,
                    const std::vector<std::string>& more = {}) {
  identifiers.insert(identifiers.begin(), {"migrate", "--only"});
  identifiers.insert(identifiers.end(), more.begin(), more.end());
  return device.run(identifiers);
}

// Of what was there before the three chosen containers are gone, and all else is as it was.
void ExpectOnlyChosenGone(const Facts& before, const Facts& after) {
  const auto isAnyOf = [](const std::string& name, std::initializer_list<const char*> beginnings) {
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [&name](const char* beginning) { return name.starts_with(beginning); });
  };
  for (const auto& [path, text] : before) {
    const std::string name = path.substr(std::min(path.size(), std::string(Mobile).size()));
    if (!isAnyOf(name, {"Applications/", "Library/Quorvel", "Library/Caches", "Harbors"})) continue;
    const bool isChosen =
        isAnyOf(name, {"Applications/A 1", "Applications/B\xff", "Applications/E5"});
    EXPECT_NE(after.contains(path), isChosen) << path;
    EXPECT_TRUE(isChosen || after.at(path) == text) << path;
  }
}

// What the last run was limited to, for programs and for people.
void ExpectLimitTold(const Device& device, const std::string& limit, const std::string& text) {
  const HostRun status = device.run({"status", "--json"});
  ExpectDocumented({status.out});
  EXPECT_EQ(json::parse(status.out)["runs"][0]["only"].dump(), limit);
  const std::string told = device.run({"status"}).out;
  EXPECT_NE(told.find(", limited to " + text + "\n"), std::string::npos) << told;
}

void ExpectUnknownIsRefused(const Device& device) {
  const Facts before = Snapshot(device.root());
  const HostRun run = MigrateOnly(device, {"com.example.two", "com.example.ones"}, {"--json"});
  ExpectDocumented({run.out});
  EXPECT_EQ(run.exitCode, 5);
  EXPECT_NE(run.err.find("com.example.ones: no container to migrate is of this app, did you "
                         "mean com.example.one?"),
            std::string::npos);
  EXPECT_EQ(MigrateOnly(device, {"com.example.two"}, {"--plugin", SCRIPTED_PLUGIN}).exitCode, 3);
  EXPECT_EQ(Snapshot(device.root()), before);
}

TEST(EndToEndTest, WhatIsNotChosenStaysAsItIs) {
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  const Facts expected = ExpectedItems(device);
  ASSERT_EQ(device.registerTunnel(), 0);
  // Its marker means the container of another app.
  const std::string alone = std::string(Mobile) + "/Applications/C3";
  const std::string foreign = device.container("F6/") + MarkerName;
  Put(foreign,
      Dictionary(Entry("ContainerPath", alone) + Entry("BundlePath", alone + "/Alone.vpnplugin") +
                 Entry("ContainerType", "VPNBundle") +
                 Entry("BundleIdentifier", "com.example.foreign")));
  const Facts before = Snapshot(device.root());
  ExpectUnknownIsRefused(device);
  const HostRun run = MigrateOnly(device, {"com.example.two", "com.example.begun"}, {"--json"});
  EXPECT_EQ(run.exitCode, 0) << run.out;
  ExpectDocumented({run.out});
  const json result = json::parse(run.out);
  EXPECT_EQ(result["counts"].dump(),
            R"({"failed":0,"left":6,"migrated":1,"removed":0,"resumed":1})");
  for (const json& container : result["containers"]) {
    const bool isLeft = container["outcome"] == "left";
    EXPECT_EQ(isLeft, container["reason"] == "not-chosen") << container;
  }
  ExpectLimitTold(device, R"({"apps":2,"identifiers":["com.example.two","com.example.begun"]})",
                  "com.example.two, com.example.begun");
  EXPECT_EQ(MigrateOnly(device, {"com.example.foreign"}).exitCode, 1);
  EXPECT_EQ(MigrateOnly(device, {"com.example.one"}).out.find("com.example.alone"),
            std::string::npos);
  ExpectOnlyChosenGone(before, Snapshot(device.root()));
  EXPECT_EQ(device.registry()["dataProtectionUpdated"], false);

  fs::remove(foreign);
  EXPECT_EQ(device.run({"migrate"}).exitCode, 0);
  EXPECT_EQ(json::parse(device.run({"status", "--json"}).out)["runs"][0]["only"], nullptr);
  ExpectArrived(expected, Outcome(device));
  ExpectLegacyGone(device);
}

// The note and any other file among the containers are items, and go; a link is none: it stays and
// is told with why, and so the run is not whole.
TEST(EndToEndTest, TheNoteIsCountedAndLinksAreToldOf) {
  const ScratchTree tree;
  for (const bool asJson : {true, false}) {
    const Device device(tree / (asJson ? "json" : "text"));
    PutBundle(device.container("A/One.app"), "com.example.one");
    Put(device.container("WhereDidMyApplicationsGo.txt"), "elsewhere");
    fs::create_symlink("A", device.container("link"));
    const HostRun run = device.run({"migrate", asJson ? "--json" : "--all"});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_TRUE(fs::is_symlink(device.container("link")));
    EXPECT_FALSE(fs::exists(device.container("WhereDidMyApplicationsGo.txt")));
    if (!asJson) {
      for (const char* line :
           {"2 items to migrate", "1 migrated, 0 resumed, 1 removed, 0 left, 0 failed",
            "removed: a note of the former service\n",
            "Applications/link: it is or holds a symbolic"}) {
        EXPECT_NE(run.out.find(line), std::string::npos) << line << run.out;
      }
      continue;
    }
    const json result = json::parse(run.out);
    EXPECT_EQ(result["items"], 2);
    EXPECT_EQ(result["counts"].dump(),
              R"({"failed":0,"left":0,"migrated":1,"removed":1,"resumed":0})");
    EXPECT_EQ(result["containers"][0]["reason"], "farewell-file");
    EXPECT_EQ(result["leftBehind"].dump(),
              R"([{"path":"/private/var/mobile/Applications/link","why":"link"}])");
  }
}

TEST(EndToEndTest, ContainersOnAnotherFileSystemGetWholeCopies) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  const Facts expected = ExpectedItems(device);
  EXPECT_TRUE(WithMounts([&] {
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
  EXPECT_NE(refused.out.find("left: it cannot be listed: Permission denied"), std::string::npos)
      << refused.out;
  ::chmod(device.container("E5").c_str(), 0755);

  const HostRun run = device.run({"migrate"}, setup);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  ExpectArrived(expected, Outcome(device, setup));
  ExpectLegacyGone(device);
}

}  // namespace
}  // namespace quorvel::testing
