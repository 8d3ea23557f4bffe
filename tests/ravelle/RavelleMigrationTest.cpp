// One container's sequence: what each step leaves on disk, what stops it, and every message.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/ravelle/RavelleFixture.h"
#include "tests/support/FaultWrappers.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::tests {
namespace {

constexpr const char* kMigrate = "-[QVRavelle _migrateContainerWithInfo:] ";
constexpr const char* kData = "-[QVRavelle _migrateDataContainerForIdentifier:fromURL:toURL:] ";
constexpr const char* kStage =
    "-[QVRavelle "
    "_stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:inContainerURL:] ";
constexpr const char* kProgress =
    "__89-[QVRavelle "
    "_stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:inContainerURL:]_block_invoke ";
constexpr const char* kMissed = "-[QVRavelle _containerHasMissedItems:withIdentifier:] ";

using MigrationTest = RavelleFixture;

TEST_F(MigrationTest, WholeSequenceInOrder) {
  makeApp("A", "com.example.a");
  makeBundle("A", "Tun.vpnplugin", "com.example.a.vpn");
  writeFile(legacy("A") + "/LorvixMetadata.plist", "metadata");
  EXPECT_TRUE(migrateContainer("A"));
  const std::string l = legacy("A");
  EXPECT_THAT(
      withoutIconLines(log_.take()),
      ElementsAre(
          std::string("5 ") + kPlaceholder + "QVRavelle: Installing placeholder for com.example.a",
          std::string("5 ") + kMigrate + "QVRavelle: Moving data from container " + l + " to " +
              dataOf("com.example.a"),
          std::string("5 ") + kMigrate + "QVRavelle: Staging and installing app com.example.a at " +
              l + "/Foo.app (and secondary " + l + "/Tun.vpnplugin)",
          std::string("5 ") + kMigrate + "QVRavelle: Removing container for com.example.a at " +
              l));
  EXPECT_FALSE(exists(l));
  EXPECT_EQ(readFile(dataOf("com.example.a") + "/Documents/letter"), "letter of com.example.a");
  EXPECT_EQ(readFile(dataOf("com.example.a") + "/Library/Preferences/p"), "preferences");
  EXPECT_TRUE(exists(dataOf("com.example.a") + "/tmp"));
  const auto app = workspace_.bundleProxyForIdentifier("com.example.a");
  EXPECT_EQ(readFile(app->bundlePath->string() + "/executable"), "code of com.example.a");
  EXPECT_EQ(readFile(app->bundleContainerPath->string() + "/LorvixMetadata.plist"), "metadata");
  EXPECT_TRUE(workspace_.applicationIsInstalled("com.example.a.vpn"));
}

TEST_F(MigrationTest, RequestsHoldExactlyTheAgreedOptions) {
  makeApp("A", "com.example.a");
  writeFile(legacy("A") + "/LorvixMetadata.plist", "raw");
  EXPECT_TRUE(migrateContainer("A"));
  ASSERT_EQ(workspace_.requests.size(), 2U);
  const auto& placeholder = workspace_.requests[0];
  EXPECT_EQ(placeholder.options,
            (PlistDictionary{{RXInstallTypeKey, 6U},
                             {RXPackageTypeKey, RXPackageTypePlaceholder},
                             {"PKBundleIdentifier", "com.example.a"},
                             {"SkipBlacklist", true},
                             {RXLorvixMetadataKey, PlistData{'r', 'a', 'w'}}}));
  EXPECT_FALSE(placeholder.hadCallback);
  const auto& bundle = workspace_.requests[1];
  EXPECT_EQ(bundle.options, (PlistDictionary{{RXInstallTypeKey, 6U},
                                             {RXPackageTypeKey, RXPackageTypeCustomer},
                                             {"PKBundleIdentifier", "com.example.a"},
                                             {"VerifyForMigrator", true},
                                             {"SkipBlacklist", true}}));
  EXPECT_TRUE(bundle.hadCallback);
  EXPECT_EQ(bundle.staging, Path::directory(legacy("A") + "/Staging"));
}

TEST_F(MigrationTest, VPNContainerNeedsARecordAndGetsNoPlaceholder) {
  makeBundle("V", "Tun.vpnplugin", "com.example.v");
  writeFile(legacy("V") + "/Documents/letter", "letter");
  EXPECT_FALSE(migrateContainer("V"));
  EXPECT_THAT(log_.take(), ElementsAre(std::string("3 ") + kMigrate +
                                       "QVRavelle: Failed to get bundle proxy for identifier "
                                       "com.example.v"));
  EXPECT_TRUE(exists(marker("V")));
  EXPECT_EQ(readFile(legacy("V") + "/Documents/letter"), "letter");
  registry_.registerIdentifier("com.example.v", nullptr);
  EXPECT_TRUE(migrateContainer("V"));
  EXPECT_THAT(log_.take(),
              ElementsAre(HasSubstr("Moving data"), HasSubstr("(and secondary (null))"),
                          HasSubstr("Removing container")));
  EXPECT_EQ(readFile(dataOf("com.example.v") + "/Documents/letter"), "letter");
}

TEST_F(MigrationTest, RecordWithoutDataContainerIsDescribedInSixLines) {
  makeApp("A", "com.example.a");
  makeApp("B", "com.example.b");
  workspace_.withoutDataContainer = {"com.example.a", "com.example.v"};
  EXPECT_FALSE(migrateContainer("A"));
  const auto proxy = workspace_.bundleProxyForIdentifier("com.example.a");
  const std::string prefix = std::string("3 ") + kMigrate + "QVRavelle: ";
  EXPECT_THAT(
      withoutIconLines(log_.takeErrors()),
      ElementsAre(prefix + "Failed to get data container URL for com.example.a",
                  prefix + "Proxy had bundle identifier com.example.a",
                  prefix + "Proxy had bundle type App",
                  prefix + "Proxy had bundle URL file://" + proxy->bundlePath->string() + "/",
                  prefix + "Proxy had bundle container URL file://" +
                      proxy->bundleContainerPath->string() + "/",
                  prefix + "Proxy did have backing bundle"));
  EXPECT_TRUE(exists(legacy("A") + "/Documents/letter"));
  makeBundle("V", "Tun.vpnplugin", "com.example.v");
  registry_.registerIdentifier("com.example.v", nullptr);
  EXPECT_FALSE(migrateContainer("V"));
  EXPECT_THAT(
      log_.takeErrors(),
      ElementsAre(HasSubstr("data container URL"), HasSubstr("identifier com.example.v"),
                  HasSubstr("type VPNPlugin"), HasSubstr("bundle URL (null)"),
                  HasSubstr("container URL (null)"), prefix + "Proxy did not have backing bundle"));
}

TEST_F(MigrationTest, InstalledAppGetsNoPlaceholder) {
  makeApp("A", "com.example.a");
  makeApp("B", "com.example.a", {{"PKBundleVersion", "2.0"}});
  EXPECT_TRUE(migrateContainer("A"));
  EXPECT_TRUE(migrateContainer("B"));
  EXPECT_EQ(log_.take().front(),
            std::string("5 ") + kMigrate +
                "QVRavelle: App com.example.a is already installed, so not creating placeholder.");
}

TEST_F(MigrationTest, PlaceholderBundleOnlyHandsOverItsData) {
  makeApp("A", "com.example.a");
  writeFile(legacy("A") + "/unknown item", "not looked at");
  markAsPlaceholder(legacy("A") + "/Foo.app");
  EXPECT_TRUE(migrateContainer("A"));
  EXPECT_FALSE(exists(legacy("A")));
  EXPECT_EQ(readFile(dataOf("com.example.a") + "/Documents/letter"), "letter of com.example.a");
  EXPECT_EQ(workspace_.requests.size(), 1U) << "only the placeholder";
}

// Whatever a damaged or hostile marker names, only what lies among the containers is deleted.
TEST_F(MigrationTest, DirectoryThatIsNoContainerIsNeverRemoved) {
  writeFile(root_ + "/private/var/mobile/Media/photo", "precious");
  std::filesystem::create_directory_symlink("Media", root_ + "/private/var/mobile/Media link");
  for (const std::string& named :
       {root_ + "/private/var/mobile/Media", root_, legacy(), legacy("B/.."),
        legacy("B/../../Media"), root_ + "/private/var/mobile/Media link", std::string()}) {
    makeApp("B", "com.example.b");
    const std::string bundle = makeBundle("A", "Foo.app", "com.example.a");
    markAsPlaceholder(bundle);
    writePlist(marker("A"), {{RecordContainerPathKey, named},
                             {RecordBundlePathKey, bundle},
                             {RecordContainerTypeKey, ContainerTypeApp},
                             {RecordBundleIdentifierKey, "com.example.a"}});
    (void)migrateContainer("A");
    EXPECT_EQ(readFile(root_ + "/private/var/mobile/Media/photo"), "precious") << named;
    EXPECT_EQ(readFile(legacy("B") + "/Documents/letter"), "letter of com.example.b") << named;
    EXPECT_TRUE(exists(bundle)) << named;
  }
}

TEST_F(MigrationTest, MarkerThatCannotBeWrittenStopsNothing) {
  makeApp("A", "com.example.a");
  const auto plugin = makePlugin();
  bool early = false;
  const auto record = plugin->_introspectContainer(legacyPath("A"), &early);
  std::filesystem::create_directories(marker("A") + "/in the way");
  log_.take();
  EXPECT_TRUE(plugin->_migrateContainerWithInfo(*record));
  EXPECT_EQ(withoutIconLines(log_.takeErrors()),
            Lines{std::string("3 ") + kMigrate +
                  "QVRavelle: Failed to write out container marker dictionary... hopefully we "
                  "don't need it to recover."});
}

TEST_F(MigrationTest, DataIsReplacedNeverMergedAndLinksMoveAsLinks) {
  makeApp("A", "com.example.a");
  std::filesystem::remove(legacy("A") + "/tmp");
  std::filesystem::create_symlink("/nowhere", legacy("A") + "/tmp");
  registry_.registerIdentifier("com.example.a", nullptr);
  const std::string data = dataOf("com.example.a");
  writeFile(data + "/Library/old", "from before");
  writeFile(data + "/Other/kept", "not in the list");
  const auto plugin = makePlugin();
  EXPECT_TRUE(plugin->_migrateDataContainerForIdentifier("com.example.a", legacyPath("A"),
                                                         Path::directory(data)));
  EXPECT_FALSE(exists(data + "/Library/old"));
  EXPECT_TRUE(exists(data + "/Library/Preferences/p"));
  EXPECT_EQ(readFile(data + "/Other/kept"), "not in the list");
  EXPECT_EQ(std::filesystem::read_symlink(data + "/tmp"), "/nowhere");
  EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(MigrationTest, DataMoveStopsAtTheFirstFailureAndLosesNothing) {
  makeApp("A", "com.example.a");
  const std::string data = root_ + "/data";
  std::filesystem::create_directories(data);
  // The third item has nowhere to go: its destination is a mount-like busy name, the directory
  // that holds the source itself.
  const Path from = Path::directory(data + "/Library/inside");
  std::filesystem::create_directories(from.string());
  for (const char* name : {"Documents", "Library", "tmp"}) {
    writeFile(from.string() + "/" + name + "/item", name);
  }
  EXPECT_FALSE(makePlugin()->_migrateDataContainerForIdentifier("id", from, Path::directory(data)));
  EXPECT_THAT(
      log_.take(),
      ElementsAre(StartsWith(std::string("3 ") + kData + "QVRavelle: Failed to move file://" +
                             from.string() + "/Library to file://" + data +
                             "/Library migrating for id : PosixErrorDomain 22 {")));
  EXPECT_EQ(readFile(data + "/Documents/item"), "Documents") << "already moved";
  EXPECT_EQ(readFile(from.string() + "/Library/item"), "Library");
  EXPECT_EQ(readFile(from.string() + "/tmp/item"), "tmp");
}

TEST_F(MigrationTest, DataIsMovedAcrossFileSystemsAndRemainsAreNeverTakenForTheSource) {
  makeApp("A", "com.example.a");
  const quorvel::testing::TemporaryTree other("/dev/shm");
  struct stat here {};
  struct stat there {};
  ASSERT_EQ(::stat(root_.c_str(), &here), 0);
  ASSERT_EQ(::stat(other.path().c_str(), &there), 0);
  if (here.st_dev == there.st_dev) GTEST_SKIP() << "no second file system";
  const Path data = Path::directory(other.path());
  // What only has the name of such remains is the user's.
  const std::string lookalike = legacy("A") + "/.com.velto.quorvel.moved.Library/mine";
  writeFile(lookalike, "mine");
  // As an interrupted run leaves it: "Documents" copied whole, its source partly removed.
  writeFile(other.path() + "/Documents/letter", "whole");
  std::filesystem::remove_all(legacy("A") + "/Documents");
  const std::string remains = legacy("A") + "/.com.velto.quorvel.moved.1";
  writeFile(remains + "/Documents/part", "part");
  if (platform_.fileSystem.setxattr(remains.c_str(), MoveRemainAttributeName, "\1", 1, 0,
                                    XATTR_NOFOLLOW) != 0) {
    GTEST_SKIP() << "no attributes here";
  }
  const auto plugin = makePlugin();
  EXPECT_TRUE(plugin->_migrateDataContainerForIdentifier("com.example.a", legacyPath("A"), data));
  EXPECT_EQ(readFile(other.path() + "/Documents/letter"), "whole");
  EXPECT_EQ(readFile(other.path() + "/Library/Preferences/p"), "preferences");
  EXPECT_FALSE(exists(legacy("A") + "/Library"));
  EXPECT_FALSE(exists(remains)) << "neither that one nor one of its own";
  EXPECT_EQ(readFile(lookalike), "mine");
  EXPECT_TRUE(plugin->_containerHasMissedItems(legacyPath("A"), "com.example.a"));
}

TEST_F(MigrationTest, DataStepOfAContainerWithoutDataTouchesNothing) {
  makeBundle("A", "Foo.app", "com.example.a");
  const Path nowhere = Path::directory(root_ + "/no/data container");
  const auto plugin = makePlugin();
  EXPECT_TRUE(plugin->_migrateDataContainerForIdentifier("id", legacyPath("A"), nowhere));
  EXPECT_TRUE(plugin->_migrateDataContainerForIdentifier("id", legacyPath("gone"), nowhere));
  EXPECT_THAT(log_.take(), IsEmpty());
  // An item that could not be looked at is not passed over.
  std::filesystem::create_symlink("loop", legacy("loop"));
  EXPECT_FALSE(plugin->_migrateDataContainerForIdentifier("id", legacyPath("loop"), nowhere));
  EXPECT_THAT(log_.take(), ElementsAre(HasSubstr("PosixErrorDomain " + std::to_string(ELOOP))));
}

// The registry flushes what was prepared for it; the plug-in does so itself only where that would
// come too late or never: a marker whose app was known already, and data whose bundle is not
// installed.
TEST_F(MigrationTest, FlushesOnlyWhatTheRegistryDoesNot) {
  Fault counter;
  FaultyFileSystem counted(platform_.fileSystem, counter);
  platform_.set.fileSystem = &counted;
  const auto flushes = [&](const std::string& container) {
    const int before = counter.calls("SyncFileSystem") + counter.calls("SyncDirectory");
    migrateContainer(container);
    return counter.calls("SyncFileSystem") + counter.calls("SyncDirectory") - before;
  };
  makeApp("A", "com.example.a");
  EXPECT_EQ(flushes("A"), 0) << "two barriers of the registry cover all of it";
  makeApp("B", "com.example.a", {{"PKBundleVersion", "2.0"}});
  EXPECT_EQ(flushes("B"), 1) << "the marker";
  makeApp("P", "com.example.p");
  markAsPlaceholder(legacy("P") + "/Foo.app");
  EXPECT_EQ(flushes("P"), 1) << "the data, before the container goes";
  makeApp("R", "com.example.r");
  workspace_.customerScripts["com.example.r"] = {{}, Error(PosixErrorDomain, EIO, {})};
  EXPECT_EQ(flushes("R"), 1) << "the data, before the container goes";
  EXPECT_FALSE(exists(legacy("R")));
  // What cannot be flushed keeps its container.
  makeApp("K", "com.example.k");
  workspace_.customerScripts["com.example.k"] = {{}, Error(PosixErrorDomain, EIO, {})};
  Fault fault("SyncFileSystem", 1, EIO);
  FaultyFileSystem broken(platform_.fileSystem, fault);
  platform_.set.fileSystem = &broken;
  EXPECT_FALSE(migrateContainer("K"));
  EXPECT_TRUE(exists(legacy("K") + "/Staging"));
  platform_.set.fileSystem = &platform_.fileSystem;
}

// What is staged goes with the container, so only what lies among the containers is.
TEST_F(MigrationTest, BundleElsewhereIsNeverStaged) {
  const std::string photos = root_ + "/private/var/mobile/Media";
  writeFile(photos + "/photo", "precious");
  std::filesystem::create_directories(legacy("A"));
  std::filesystem::create_directory_symlink("../../..", legacy("A") + "/up");
  for (const std::string& named : {photos, legacy("A") + "/up/mobile/Media"}) {
    EXPECT_FALSE(makePlugin()->_stageAndInstallBundleAtURL(Path::directory(named), "com.example.a",
                                                           std::nullopt, legacyPath("A")));
    EXPECT_THAT(log_.takeErrors(),
                ElementsAre(StartsWith(std::string("3 ") + kStage +
                                       "QVRavelle: Failed to move bundle from file://" + named)));
    EXPECT_EQ(readFile(photos + "/photo"), "precious");
  }
}

TEST_F(MigrationTest, RefusedBundleGoesWithItsContainerButDataIsSafe) {
  makeApp("A", "com.example.a");
  workspace_.customerScripts["com.example.a"] = {{{{"Error", "PackageInspectionFailed"},
                                                   {"ErrorDescription", "cannot be read"},
                                                   {"ErrorDetail", PlistArray{1, "two"}}},
                                                  {{"Status", "done"}}},
                                                 Error(PosixErrorDomain, 5, {})};
  EXPECT_FALSE(migrateContainer("A"));
  EXPECT_THAT(
      withoutIconLines(log_.takeErrors()),
      ElementsAre(std::string("3 ") + kProgress + "QVRavelle: Installation of " + legacy("A") +
                      "/Foo.app failed with Quorvel error cannot be read "
                      "(PackageInspectionFailed : (1, \"two\"))",
                  std::string("3 ") + kStage + "QVRavelle: Failed to install file://" +
                      legacy("A") + "/Staging/ : PosixErrorDomain 5 {}"));
  EXPECT_FALSE(exists(legacy("A")));
  EXPECT_EQ(readFile(dataOf("com.example.a") + "/Documents/letter"), "letter of com.example.a");
}

TEST_F(MigrationTest, NewerBuiltInCopyCountsAsInstalledAlsoBesideAnotherError) {
  makeApp("A", "com.example.a");
  writePlist(root_ + "/Applications/Foo.app/Info.plist",
             {{"PKBundleIdentifier", "com.example.a"}, {"PKBundleVersion", "9.0"}});
  EXPECT_TRUE(migrateContainer("A"));
  EXPECT_THAT(log_.takeErrors(), IsEmpty());
  EXPECT_FALSE(exists(legacy("A")));
  EXPECT_EQ(readFile(dataOf("com.example.a") + "/Documents/letter"), "letter of com.example.a");

  makeApp("B", "com.example.b");
  workspace_.customerScripts["com.example.b"] = {
      {{{"Error", RXErrorApplicationAlreadyInstalled}}, {{"Error", "Other"}}},
      Error(PosixErrorDomain, 5, {})};
  EXPECT_FALSE(migrateContainer("B")) << "this registry left the staging directory behind";
  const std::string l = legacy("B");
  EXPECT_THAT(
      withoutIconLines(log_.take()),
      ElementsAre(HasSubstr("Installing placeholder"), HasSubstr("Moving data"),
                  HasSubstr("Staging and"),
                  std::string("5 ") + kProgress + "QVRavelle: Installation of " + l +
                      "/Foo.app failed because it's older than what's built into the system. Data "
                      "migration already happened so we're done here.",
                  std::string("3 ") + kProgress + "QVRavelle: Installation of " + l +
                      "/Foo.app failed with Quorvel error (null) (Other : (null))",
                  std::string("3 ") + kMissed + "QVRavelle: Found missed items in " + l +
                      " for com.example.b: (file://" + l + "/Staging/)"));
}

TEST_F(MigrationTest, StagingFailuresKeepWhatCouldNotBeStaged) {
  const auto plugin = makePlugin();
  makeApp("A", "com.example.a");
  writeFile(legacy("A") + "/Staging", "in the way");
  EXPECT_FALSE(plugin->_stageAndInstallBundleAtURL(Path::directory(legacy("A") + "/Foo.app"),
                                                   "com.example.a", std::nullopt, legacyPath("A")));
  EXPECT_THAT(log_.take(), ElementsAre(StartsWith(std::string("3 ") + kStage +
                                                  "QVRavelle: Failed to create file://" +
                                                  legacy("A") + "/Staging/Payload/ : ")));
  const std::string taken = legacy("B") + "/Staging/Payload/";
  for (const char* name : {"Foo.app", "Tun.vpnplugin"}) {
    std::filesystem::remove_all(legacy("B"));
    makeBundle("B", "Foo.app", "com.example.b");
    makeBundle("B", "Tun.vpnplugin", "com.example.v");
    writeFile(taken + name + "/in the way", "");
    EXPECT_FALSE(plugin->_stageAndInstallBundleAtURL(
        Path::directory(legacy("B") + "/Foo.app"), "com.example.b",
        Path::directory(legacy("B") + "/Tun.vpnplugin"), legacyPath("B")));
    const std::string what = name[0] == 'F' ? "bundle" : "vpn bundle";
    EXPECT_THAT(log_.take(),
                ElementsAre(StartsWith(std::string("3 ") + kStage + "QVRavelle: Failed to move " +
                                       what + " from file://" + legacy("B") + "/" + name +
                                       "/ to file://" + taken + name + "/: ")));
    EXPECT_TRUE(exists(legacy("B") + "/" + name + "/Info.plist"));
  }
  EXPECT_THAT(workspace_.requests, IsEmpty());
}

TEST_F(MigrationTest, MissedItemsKeepTheContainer) {
  makeApp("A", "com.example.a");
  writeFile(legacy("A") + "/.hidden", "precious");
  writeFile(legacy("A") + "/com.velto.quorvel.placeholder", "");
  writeFile(legacy("A") + "/com.velto.quorvel.migration_marker", "");
  EXPECT_FALSE(migrateContainer("A"));
  EXPECT_THAT(
      withoutIconLines(log_.takeErrors()),
      ElementsAre(std::string("3 ") + kMissed + "QVRavelle: Found missed items in " + legacy("A") +
                  " for com.example.a: (file://" + legacy("A") + "/.hidden)"));
  EXPECT_EQ(readFile(legacy("A") + "/.hidden"), "precious");
  std::filesystem::remove(legacy("A") + "/.hidden");
  EXPECT_TRUE(migrate()) << "the marker takes the container up again";
  EXPECT_FALSE(exists(legacy()));
  EXPECT_TRUE(makePlugin()->_containerHasMissedItems(legacyPath("A"), "com.example.a"));
  EXPECT_THAT(log_.takeErrors().back(),
              StartsWith(std::string("3 ") + kMissed + "QVRavelle: Failed to enumerate container " +
                         legacy("A") + " for com.example.a : PosixErrorDomain 2 {"));
}

// --- Resume ---------------------------------------------------------------------------------

TEST_F(MigrationTest, ResumesFromEveryStage) {
  // What a run killed at each stage leaves: the marker; the data moved; the staging directory
  // made; the bundle in it; everything but the empty container.
  const auto leave = [this](int stage, const std::string& identifier) {
    makeApp("A", identifier);
    writePlist(marker("A"), {{"ContainerPath", legacy("A")},
                             {"BundlePath", legacy("A") + "/Foo.app"},
                             {"ContainerType", "App"},
                             {"BundleIdentifier", identifier}});
    if (stage < 1) return;
    EXPECT_TRUE(makePlugin()->_stageAndInstallPlaceholderForBundleAtURL(
        Path::directory(legacy("A") + "/Foo.app"), identifier, legacyPath("A")));
    std::filesystem::rename(legacy("A") + "/Documents", dataOf(identifier) + "/Documents");
    if (stage < 2) return;
    std::filesystem::create_directories(legacy("A") + "/Staging/Payload");
    if (stage < 3) return;
    std::filesystem::rename(legacy("A") + "/Foo.app", legacy("A") + "/Staging/Payload/Foo.app");
    if (stage < 4) return;
    EXPECT_TRUE(makePlugin()->_stageAndInstallBundleAtURL(
        Path::directory(legacy("A") + "/Foo.app"), identifier, std::nullopt, legacyPath("A")));
  };
  for (int stage = 0; stage <= 4; ++stage) {
    const std::string identifier = "com.example.a" + std::to_string(stage);
    leave(stage, identifier);
    EXPECT_TRUE(migrate()) << stage;
    EXPECT_FALSE(exists(legacy())) << stage;
    const auto proxy = workspace_.bundleProxyForIdentifier(identifier);
    EXPECT_TRUE(proxy->foundBackingBundle && !proxy->isPlaceholder) << stage;
    EXPECT_EQ(readFile(proxy->dataContainerPath->string() + "/Documents/letter"),
              "letter of " + identifier)
        << stage;
  }
}

}  // namespace
}  // namespace quorvel::tests
