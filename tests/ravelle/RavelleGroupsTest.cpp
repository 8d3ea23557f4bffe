// Group containers and safe harbors.
#include "tests/ravelle/RavelleFixture.h"
#include "tests/support/FaultWrappers.h"
#include "tests/support/TreeTools.h"

namespace quorvel::tests {
namespace {

constexpr const char* kGroups = "-[QVRavelle _migrateGroupContainersForIdentifier:] ";
constexpr const char* kOneGroup =
    "__50-[QVRavelle _migrateGroupContainersForIdentifier:]_block_invoke ";
constexpr const char* kItems =
    "-[QVRavelle _moveAllItemsInGroupContainerURL:toGroupContainerURL:] ";
constexpr const char* kHarbors = "-[QVRavelle _migrateSafeHarbors] ";

class GroupsTest : public RavelleFixture {
 protected:
  std::string oldGroup(const std::string& name) const {
    return root_ + "/private/var/mobile/Groups/" + name;
  }
  void writeInstallMap(PlistDictionary groups) {
    writePlist(root_ + "/private/var/mobile/Library/Caches/com.velto.quorvel.plist",
               {{"GroupContainers", std::move(groups)}});
  }
  PlistValue entry(const std::string& name) {
    return PlistDictionary{{"Container", oldGroup(name)}, {"Ignored", 1}};
  }
  // A plug-in that has loaded the install map, and an installed app with the groups.
  std::unique_ptr<QVRavelle> pluginWithApp(const PlistArray& groups) {
    makeApp("A", "com.example.a", {{PKApplicationGroupsKey, groups}});
    auto plugin = makePlugin();
    EXPECT_NE(plugin->init(), nullptr);
    EXPECT_TRUE(plugin->_stageAndInstallBundleAtURL(
        Path::directory(legacy("A") + "/Foo.app"), "com.example.a", std::nullopt, legacyPath("A")));
    log_.take();
    return plugin;
  }
};

TEST_F(GroupsTest, SharedGroupGoesWithTheFirstAppThatListsIt) {
  writeInstallMap({{"group.shared", entry("S")}, {"group.empty", entry("E")}});
  writeFile(oldGroup("S") + "/db/file", "shared data");
  std::filesystem::create_symlink("db", oldGroup("S") + "/link");
  std::filesystem::create_directories(oldGroup("E"));
  const PlistArray groups{"group.shared", "group.empty"};
  makeApp("A", "com.example.a", {{PKApplicationGroupsKey, groups}});
  makeApp("B", "com.example.b", {{PKApplicationGroupsKey, groups}});
  EXPECT_TRUE(migrate());
  const std::string container = groupOf("com.example.a", "group.shared");
  EXPECT_EQ(container, groupOf("com.example.b", "group.shared"));
  EXPECT_EQ(readFile(container + "/db/file"), "shared data");
  EXPECT_EQ(std::filesystem::read_symlink(container + "/link"), "db");
  EXPECT_FALSE(exists(oldGroup("S")));
  EXPECT_FALSE(exists(oldGroup("E")));
  // The map is empty after the first app, so the second one says nothing.
  Lines ofGroups = log_.take();
  std::erase_if(ofGroups, [](const std::string& line) {
    return line.find(kGroups) == line.npos && line.find(kOneGroup) == line.npos;
  });
  const std::string begin = std::string("5 ") + kOneGroup + "QVRavelle: Migrating group container ";
  EXPECT_THAT(ofGroups,
              ElementsAre(begin + "group.empty at " + oldGroup("E") + " to " +
                              groupOf("com.example.a", "group.empty"),
                          begin + "group.shared at " + oldGroup("S") + " to " + container));
}

TEST_F(GroupsTest, EveryRowOfOneGroupsFailures) {
  writeInstallMap({{"group.broken", "no dictionary"},
                   {"group.gone", entry("gone")},
                   {"group.number", PlistDictionary{{"Container", 5}}},
                   {"group.file", entry("file")},
                   {"group.other", entry("other")}});
  writeFile(oldGroup("file"), "no directory");
  const auto plugin =
      pluginWithApp({"group.broken", "group.gone", "group.number", "group.file", "group.unknown"});
  EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  const std::string five = std::string("5 ") + kOneGroup + "QVRavelle: ";
  const std::string three = std::string("3 ") + kOneGroup + "QVRavelle: ";
  EXPECT_THAT(
      log_.take(),
      ElementsAre(five + "No group container entry to migrate for com.example.a[group.broken]",
                  five + "Migrating group container group.file at " + oldGroup("file") + " to " +
                      groupOf("com.example.a", "group.file"),
                  StartsWith(std::string("3 ") + kItems +
                             "QVRavelle: Failed to get all urls in source group container " +
                             oldGroup("file") + " : PosixErrorDomain 20 {"),
                  three + "Missing source group container at " + oldGroup("gone"),
                  five + "Failed to get path to group container for com.example.a[group.number]",
                  five + "No group container entry to migrate for com.example.a[group.unknown]"));
  EXPECT_TRUE(exists(oldGroup("file")));
}

TEST_F(GroupsTest, RegistryThatCannotTellStopsTheApp) {
  const auto without = makePlugin();
  EXPECT_TRUE(without->_migrateGroupContainersForIdentifier("com.example.a"));
  EXPECT_THAT(workspace_.proxyQueries, IsEmpty()) << "without a map nobody is asked";
  writeInstallMap({{"group.g", entry("G")}});
  const auto plugin = pluginWithApp({});
  EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  EXPECT_FALSE(plugin->_migrateGroupContainersForIdentifier("com.example.unknown"));
  workspace_.withoutGroupContainers = {"com.example.a"};
  EXPECT_FALSE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  EXPECT_THAT(
      log_.take(),
      ElementsAre(std::string("5 ") + kGroups +
                      "QVRavelle: No group containers to migrate for com.example.a",
                  std::string("3 ") + kGroups +
                      "QVRavelle: Failed to get bundle proxy for com.example.unknown",
                  std::string("3 ") + kGroups +
                      "QVRavelle: Failed to get group container URLs for installed com.example.a"));
}

TEST_F(GroupsTest, ItemThatCannotBeMovedKeepsDirectoryAndEntry) {
  writeInstallMap({{"group.g", entry("G")}});
  const auto plugin = pluginWithApp({"group.g"});
  const std::string container = groupOf("com.example.a", "group.g");
  const std::string old = oldGroup("G");
  // What is at the destination can neither be deleted nor replaced.
  writeFile(container + "/kept/there", "in the way");
  writeFile(old + "/kept/file", "stays");
  writeFile(old + "/other", "moves");
  Fault fault("RemoveTree", 1, EBUSY);
  FaultyFileSystem broken(platform_.fileSystem, fault);
  platform_.set.fileSystem = &broken;
  EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  platform_.set.fileSystem = &platform_.fileSystem;
  EXPECT_EQ(readFile(old + "/kept/file"), "stays");
  EXPECT_EQ(readFile(container + "/other"), "moves");
  EXPECT_THAT(
      log_.takeErrors(),
      ElementsAre(StartsWith(std::string("3 ") + kItems + "QVRavelle: Failed to move item " + old +
                             "/kept to " + container + "/kept : PosixErrorDomain 39 {")));
  EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  EXPECT_EQ(readFile(container + "/kept/file"), "stays") << "the entry was kept";
  EXPECT_FALSE(exists(old));
}

// The legacy directory was filled again after the group had gone over: what the new container has
// under the same name goes, and not without a word.
TEST_F(GroupsTest, ItemThatIsReplacedIsToldAsLost) {
  writeInstallMap({{"group.g", entry("G")}});
  const auto plugin = pluginWithApp({"group.g"});
  const std::string container = groupOf("com.example.a", "group.g");
  writeFile(container + "/kept/arrived", "earlier");
  writeFile(container + "/own", "of the app");
  writeFile(oldGroup("G") + "/kept/file", "later");
  account_.take();
  EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  EXPECT_EQ(readFile(container + "/kept/file"), "later");
  EXPECT_FALSE(exists(container + "/kept/arrived"));
  EXPECT_EQ(readFile(container + "/own"), "of the app");
  EXPECT_THAT(account_.take(), ElementsAre("lost 1 7 kept", "notes groups data-replaced kept",
                                           "group group.g migrated none"));
}

// What a failed copy made goes again, since no later run may come back to the group; what was there
// before and could not be removed is not taken for it.
TEST_F(GroupsTest, BeginningOfAFailedCopyToAnotherDiskGoes) {
  const testing::ScratchTree disk;
  const std::string old = disk / "G";
  if (testing::StatOf(disk.path()).st_dev == testing::StatOf(platform_.tree.path()).st_dev)
    GTEST_SKIP();
  writeFile(old + "/kept/file", "stays");
  writeInstallMap({{"group.g", PlistDictionary{{"Container", old}}}});
  const auto plugin = pluginWithApp({"group.g"});
  const std::string item = groupOf("com.example.a", "group.g") + "/kept";
  Fault unflushed("SyncFileSystem", 0, EIO);
  FaultyFileSystem atFlush(platform_.fileSystem, unflushed);
  for (const bool canRemove : {true, false}) {
    Fault stuck(canRemove ? "none" : "RemoveTree", 0, EBUSY);
    FaultyFileSystem broken(atFlush, stuck);
    platform_.set.fileSystem = &broken;
    EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
    EXPECT_EQ(readFile(old + "/kept/file"), "stays");
    EXPECT_EQ(exists(item), !canRemove);
  }
  writeFile(item + "/another", "of somebody's");
  Fault once("RemoveTree", 1, EBUSY);
  FaultyFileSystem broken(atFlush, once);
  platform_.set.fileSystem = &broken;
  EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  EXPECT_EQ(readFile(item + "/another"), "of somebody's");
  platform_.set.fileSystem = &platform_.fileSystem;
  EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  EXPECT_EQ(readFile(item + "/file"), "stays");
  EXPECT_FALSE(exists(item + "/another") || exists(old));
}

TEST_F(GroupsTest, GroupWhoseOldAndNewContainerAreOneIsLeftAlone) {
  makeApp("A", "com.example.a", {{PKApplicationGroupsKey, PlistArray{"group.g"}}});
  makeApp("B", "com.example.b");
  auto first = makePlugin();
  ASSERT_TRUE(first->_stageAndInstallBundleAtURL(Path::directory(legacy("A") + "/Foo.app"),
                                                 "com.example.a", std::nullopt, legacyPath("A")));
  const std::string container = groupOf("com.example.a", "group.g");
  writeFile(container + "/file", "alive");
  writeFile(container + "/dir/file", "alive");
  // Recorded through a link, so that the texts differ.
  std::filesystem::create_directory_symlink(std::filesystem::path(container).parent_path(),
                                            root_ + "/alias");
  writeInstallMap(
      {{"group.g",
        PlistDictionary{{"Container", root_ + "/alias/" +
                                          std::filesystem::path(container).filename().string()}}}});
  const auto plugin = makePlugin();
  ASSERT_NE(plugin->init(), nullptr);
  EXPECT_TRUE(plugin->_migrateGroupContainersForIdentifier("com.example.a"));
  EXPECT_EQ(readFile(container + "/file"), "alive");
  EXPECT_EQ(readFile(container + "/dir/file"), "alive");
}

// It may name groups that nobody else knows of; one that is certain to be damaged does not.
TEST_F(GroupsTest, InstallMapThatCouldNotBeReadIsNotRemoved) {
  const std::string map = root_ + "/private/var/mobile/Library/Caches/com.velto.quorvel.plist";
  for (const int number : {EIO, ENOMEM, 0}) {
    makeApp("A", "com.example.a");
    writeInstallMap({{"group.g", entry("G")}});
    if (number == 0) writeFile(map, "damaged");
    Fault fault(number != 0 ? "readDictionary" : "none", 1, number);
    FaultyPropertyListStore lists(platform_.propertyLists, fault);
    platform_.set.propertyLists = &lists;
    EXPECT_TRUE(migrate());
    platform_.set.propertyLists = &platform_.propertyLists;
    EXPECT_FALSE(exists(legacy()));
    EXPECT_EQ(exists(map), number != 0) << number;
  }
}

// Moving what such a path holds would take the device apart.
TEST_F(GroupsTest, GroupRecordedAtADirectoryThatAllUseIsLeftAlone) {
  std::filesystem::create_directories(root_);
  std::filesystem::create_directory_symlink(root_ + "/private/var", root_ + "/alias");
  const std::string containers = root_ + "/private/var/mobile/Containers";
  writeInstallMap({{"group.root", PlistDictionary{{"Container", root_}}},
                   {"group.home", PlistDictionary{{"Container", root_ + "/alias/mobile/"}}},
                   {"group.apps", PlistDictionary{{"Container", legacy()}}},
                   {"group.app", PlistDictionary{{"Container", legacy("B")}}},
                   {"group.daemon", PlistDictionary{{"Container", root_ + "/alias/quorveld"}}},
                   {"group.new", PlistDictionary{{"Container", containers + "/Data"}}},
                   {"group.builtin", PlistDictionary{{"Container", root_ + "/Applications"}}}});
  writeFile(root_ + "/private/var/quorveld/Library/Registry/kept", "records");
  writeFile(containers + "/Data/other/Documents/letter", "of another app");
  writeFile(root_ + "/Applications/Built.app/executable", "built in");
  const PlistArray groups{"group.root", "group.home",   "group.apps",   "group.app",
                          "group.new",  "group.daemon", "group.builtin"};
  makeApp("A", "com.example.a", {{PKApplicationGroupsKey, groups}});
  makeApp("B", "com.example.b");
  writeFile(root_ + "/System/file", "of the device");
  EXPECT_TRUE(migrate()) << "of both apps";
  EXPECT_EQ(readFile(dataOf("com.example.b") + "/Documents/letter"), "letter of com.example.b");
  EXPECT_EQ(readFile(root_ + "/System/file"), "of the device");
  EXPECT_EQ(readFile(root_ + "/private/var/quorveld/Library/Registry/kept"), "records");
  EXPECT_EQ(readFile(containers + "/Data/other/Documents/letter"), "of another app");
  EXPECT_EQ(readFile(root_ + "/Applications/Built.app/executable"), "built in");
  for (const PlistValue& group : groups) {
    EXPECT_TRUE(std::filesystem::is_empty(groupOf("com.example.a", *group.string())));
  }
  // The app that comes first has taken its container with it.
  EXPECT_EQ(withoutIconLines(log_.takeErrors()).size(), 7U);
}

// --- Safe harbors -------------------------------------------------------------------------------

class HarborsTest : public RavelleFixture {
 protected:
  std::string file() const {
    return root_ + "/private/var/mobile/Library/Quorvel/SafeHarbor.plist";
  }
  std::string harbor(const std::string& name) {
    const std::string path = root_ + "/harbors/" + name;
    std::filesystem::create_directories(path);
    return path;
  }
};

TEST_F(HarborsTest, EveryEntryIsRegisteredAndTheMapGoes) {
  writePlist(file(), {{"com.example.a", PlistDictionary{{"HarborPathKey", harbor("a")}}},
                      {"com.example.b", PlistDictionary{{"HarborPathKey", harbor("b")}}}});
  EXPECT_TRUE(migrate());
  EXPECT_EQ(harbors(), (std::vector<onlinux::SafeHarborRecord>{{"com.example.a", harbor("a"), 2},
                                                               {"com.example.b", harbor("b"), 2}}));
  EXPECT_TRUE(service_.everyReservedArgumentWasNull);
  EXPECT_FALSE(exists(file()));
  EXPECT_THAT(
      log_.take(),
      ElementsAre(std::string("5 ") + kHarbors +
                      "QVRavelle: Migrating safe harbor for com.example.a at " + harbor("a"),
                  HasSubstr("com.example.b")));
  writePlist(file(), {});
  EXPECT_TRUE(migrate());
  EXPECT_FALSE(exists(file())) << "an empty map is done with at once";
}

TEST_F(HarborsTest, DamagedEntriesAreSkippedAndFailedOnesKeepTheMap) {
  const PlistDictionary map = {{"a", "no dictionary"},
                               {"b", PlistDictionary{{"HarborPathKey", 5}}},
                               {"c", PlistDictionary{{"HarborPathKey", harbor("c")}}},
                               {"d", PlistDictionary{{"HarborPathKey", root_ + "/missing"}}}};
  writePlist(file(), map);
  EXPECT_FALSE(migrate());
  EXPECT_TRUE(exists(file()));
  EXPECT_EQ(harbors().size(), 1U);
  const std::string prefix = std::string("3 ") + kHarbors + "QVRavelle: ";
  EXPECT_THAT(log_.takeErrors(),
              ElementsAre(prefix + "Failed to get harbor info for identifier a",
                          prefix + "Failed to get harbor path from harbor entry for b : "
                                   "{HarborPathKey = 5}",
                          prefix + "Failed to migrate safe harbor for identifier d at " + root_ +
                              "/missing : (null)",
                          HasSubstr("Returning migration failed")));
  std::filesystem::create_directories(root_ + "/missing");
  EXPECT_TRUE(migrate()) << "all are registered again";
  EXPECT_EQ(harbors().size(), 2U);
  EXPECT_FALSE(exists(file()));
}

TEST_F(HarborsTest, KeyThatIsNoStringIsSkippedAndTheOthersServe) {
  // A binary property list: {5: {}, "a": {"HarborPathKey": "/"}}.
  const std::string bytes(
      "bplist00"
      "\xD2\x01\x02\x03\x04"  // 0: dictionary, keys 1 2, values 3 4
      "\x10\x05"              // 1: 5
      "\x51"
      "a"             // 2: "a"
      "\xD0"          // 3: {}
      "\xD1\x05\x06"  // 4: {5: 6}
      "\x5D"
      "HarborPathKey"                 // 5
      "\x51/"                         // 6
      "\x08\x0D\x0F\x11\x12\x15\x23"  // offsets
      "\0\0\0\0\0\0\x01\x01"
      "\0\0\0\0\0\0\0\x07"
      "\0\0\0\0\0\0\0\0"
      "\0\0\0\0\0\0\0\x25",
      8 + 29 + 7 + 8 + 24);
  writeFile(file(), bytes.substr(0, bytes.size()));
  EXPECT_TRUE(migrate());
  EXPECT_THAT(log_.takeErrors(),
              ElementsAre(std::string("3 ") + kHarbors +
                          "QVRavelle: Identifier in harbor map was not string; skipping"));
  EXPECT_EQ(harbors().size(), 1U);
}

}  // namespace
}  // namespace quorvel::tests
