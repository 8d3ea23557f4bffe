// The configuration: preferences, directories, catalogs, persisted flags and threads.
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "shared/configuration/ConfigurationForRoot.h"
#include "shared/configuration/InfoPlist.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "tests/shared/ConfigurationFixture.h"
#include "tests/support/FaultWrappers.h"
#include "tests/support/Threads.h"

namespace quorvel::tests {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr PreferencesScope kScope = PreferencesScope::currentUserCurrentHost;

using Configuration = ConfigurationFixture;

// --- Preferences and fixed values -------------------------------------------------------------

struct PreferenceRow {
  const char* key;
  PlistValue value;
  std::string answers;  // priority, family, thinning, installations
  std::string line;     // what is said of it; empty: nothing
};

std::vector<PreferenceRow> PreferenceRows() {
  constexpr const char* kDefaults = "1 0 0 4";
  constexpr const char* kInstalls = "SimultaneousInstallsNumber";
  const auto installs = [](long count) {
    return "Setting simultaneous installations allowed to " + std::to_string(count);
  };
  return {
      {"None", 1, kDefaults, ""},
      {"LowerInstallPriority", false, "0 0 0 4",
       "Not running installation at background priority because of a set default"},
      {"LowerInstallPriority", true, kDefaults, ""},
      {"LowerInstallPriority", 0, kDefaults, ""},
      {"LowerInstallPriority", "false", kDefaults, ""},
      {"SkipDeviceFamilyCheck", true, "1 1 0 4",
       "Skipping device family check because of a set default"},
      {"SkipDeviceFamilyCheck", 1, kDefaults, ""},
      {"SkipDeviceFamilyCheck", "true", kDefaults, ""},
      {"SkipThinningCheck", true, "1 0 1 4",
       "Skipping device thinning check because of a set default"},
      {"SkipThinningCheck", false, kDefaults, ""},
      {kInstalls, 0, "1 0 0 0", installs(0)},
      {kInstalls, -7, "1 0 0 -7", installs(-7)},
      {kInstalls, 2.9, "1 0 0 2", installs(2)},
      {kInstalls, true, "1 0 0 1", installs(1)},
      {kInstalls, UINT64_MAX, "1 0 0 " + std::to_string(LONG_MAX), installs(LONG_MAX)},
      {kInstalls, -HUGE_VAL, "1 0 0 " + std::to_string(LONG_MIN), installs(LONG_MIN)},
      {kInstalls, "8", kDefaults, ""},
  };
}

TEST_F(Configuration, PreferencesCountOnlyInTheirOwnKind) {
  for (const PreferenceRow& row : PreferenceRows()) {
    SCOPED_TRACE(::testing::Message() << row.key << ' ' << QVDescribeValue(row.value));
    FakePreferencesStore preferences;
    preferences.setValue(row.key, row.value, "com.velto.quorvel", kScope);
    // Another scope is not asked.
    preferences.setValue("SkipThinningCheck", true, "com.velto.quorvel",
                         PreferencesScope::currentUserAnyHost);
    platform_.set.preferences = &preferences;
    platform_.log.clear();
    const auto made = ConfigurationForRoot::make(root());
    EXPECT_EQ(FormatMessage("%d %d %d %ld", made->lowerInstallPriority() ? 1 : 0,
                            made->skipDeviceFamilyCheck() ? 1 : 0,
                            made->skipThinningCheck() ? 1 : 0, made->nSimultaneousInstallations()),
              row.answers);
    EXPECT_EQ(platform_.log.messages(5),
              row.line.empty() ? std::vector<std::string>() : std::vector{row.line});
    for (const LogLine& line : platform_.log.lines()) {
      EXPECT_EQ(line.function, "-[QVGlobalConfiguration init]");
    }
  }
}

TEST_F(Configuration, LaterChangesOfPreferencesDoNothing) {
  const auto made = ConfigurationForRoot::make(root());
  const QVGlobalConfiguration& configuration = *made;
  preferences_.setValue("SkipThinningCheck", true, "com.velto.quorvel", kScope);
  EXPECT_FALSE(configuration.skipThinningCheck());
}

TEST_F(Configuration, TheDevicesLayout) {
  const auto made = ConfigurationForRoot::make(Path::directory("/"));
  QVGlobalConfiguration& device = *made;
  const std::pair<Path, std::string> paths[] = {
      {device.oldContainerPath(), "file:///private/var/mobile/Applications/"},
      {device.oldInstallMapPath(),
       "file:///private/var/mobile/Library/Caches/com.velto.quorvel.plist"},
      {device.oldDataDirectoryPath(), "file:///private/var/mobile/Library/Quorvel/"},
      {device.oldLoggingPath(), "file:///private/var/mobile/Library/Logs/Quorvel/"},
      {device.oldArchiveDirectory(), "file:///private/var/mobile/Media/ApplicationArchives/"},
      {device.dataDirectoryPath(), "file:///private/var/quorveld/Library/Quorvel/"},
      {device.roleUserMigrationMarkerFilePath(),
       "file:///private/var/quorveld/Library/Quorvel/RoleUserMigration.plist"},
      {device.coreServicesDirectory(), "file:///System/Library/CoreServices/"},
      {device.systemAppsDirectory(), "file:///Applications/"},
      {device.internalAppsDirectory(), "file:///VeltoInternal/Applications/"},
      {device.developerAppsDirectory(), "file:///Developer/Applications/"},
      {device.factoryMountDirectory(), "file:///private/var/factory_mount/"},
      {device.systemFrameworksRootDirectory(), "file:///System/Library/"},
      {device.internalFrameworksRootDirectory(), "file:///VeltoInternal/"},
      {device.developerFrameworksRootDirectory(), "file:///Developer/"},
  };
  for (const auto& [path, url] : paths) EXPECT_EQ(FormatMessage("%@", path), url);
  EXPECT_EQ(device.allFrameworksDirectories(),
            (std::set<Path>{Path::directory("/System/Library/Frameworks"),
                            Path::directory("/System/Library/PrivateFrameworks"),
                            Path::directory("/VeltoInternal/Frameworks"),
                            Path::directory("/VeltoInternal/PrivateFrameworks")}));
  EXPECT_THAT(device.appBundleMetadataItemNames(),
              ElementsAre("Manifest.plist", "LorvixArtwork", "LorvixMetadata.plist", "GeoJSON"));
  EXPECT_THAT(device.appUserDataItemNames(), ElementsAre("Documents", "Library", "tmp", "Tillkit"));
  EXPECT_THAT(device.installationBlacklist(), ElementsAre("com.velto.Kyo6Updater"));
  EXPECT_EQ(device.uid() + 1000 * device.gid(), 33033U);
}

// --- Working directories ----------------------------------------------------------------------

TEST_F(Configuration, WorkingDirectoriesAreMadeOnEveryCall) {
  const auto made = ConfigurationForRoot::make(root());
  QVGlobalConfiguration& configuration = *made;
  struct Row {
    Path (QVGlobalConfiguration::*directory)();
    const char* path;
    int protectionClass;
  };
  const Row rows[] = {
      {&QVGlobalConfiguration::stagingRoot,
       "private/var/quorveld/Library/Caches/com.velto.mobile.quorveld.staging", 4},
      {&QVGlobalConfiguration::cachesDirectory, "private/var/quorveld/Library/Caches", 0},
      {&QVGlobalConfiguration::carrierBundlesDirectory,
       "private/var/mobile/Library/Carrier Bundles", 0},
      {&QVGlobalConfiguration::logDirectory, "private/var/quorveld/Library/Logs/Quorvel", 4},
      {&QVGlobalConfiguration::dataDirectory, "private/var/quorveld/Library/Quorvel", 4},
  };
  QVFileManager& manager = QVFileManager::defaultManager();
  const auto classOf = [&](const Path& path) {
    std::int32_t number = -1;
    Error error;
    EXPECT_TRUE(manager.dataProtectionClassOfItemAtURL(path, &number, &error))
        << FormatMessage("%@", error);
    return number;
  };
  for (const Row& row : rows) {
    const Path expected = Path::directory(at(row.path));
    EXPECT_EQ((configuration.*row.directory)(), expected);
    EXPECT_EQ(classOf(expected), row.protectionClass) << row.path;
    EXPECT_EQ(std::filesystem::status(expected.string()).permissions(),
              std::filesystem::perms(0755));
    // Again, although the path is known by now; and with the class on what exists.
    ASSERT_TRUE(manager.setDataProtectionClassOfItemAtURL(expected, 1, nullptr));
    EXPECT_EQ((configuration.*row.directory)(), expected);
    EXPECT_EQ(classOf(expected), row.protectionClass == 4 ? 4 : 1) << row.path;
    ASSERT_TRUE(manager.removeItemAtURL(expected));
    EXPECT_EQ((configuration.*row.directory)(), expected);
    EXPECT_TRUE(std::filesystem::is_directory(expected.string()));
  }
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
}

TEST_F(Configuration, DirectoriesThatCannotBeMadeAreNamedInTheLog) {
  platform_.tree.write("private/var/quorveld/Library", "a file");
  platform_.tree.write("private/var/mobile/Library", "a file");
  const auto made = ConfigurationForRoot::make(root());
  QVGlobalConfiguration& configuration = *made;
  const auto expect = [&](const Path& path, const char* name, const std::string& message) {
    const auto lines = platform_.log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().level, 3);
    EXPECT_EQ(lines.back().function, std::string("-[QVGlobalConfiguration ") + name + "]");
    EXPECT_THAT(lines.back().message,
                StartsWith(message + " at \"" + path.string() + "\": PosixErrorDomain 20 {"));
  };
  expect(configuration.carrierBundlesDirectory(), "carrierBundlesDirectory",
         "Failed to create carrier bundles directory");
  expect(configuration.logDirectory(), "logDirectory", "Failed to create log directory");
  expect(configuration.dataDirectory(), "dataDirectory", "Failed to create data dir");
  expect(configuration.cachesDirectory(), "cachesDirectory", "Failed to create data dir");
  platform_.log.clear();
  expect(configuration.stagingRoot(), "stagingRoot", "Failed to create staging root");
}

// --- Catalogs ---------------------------------------------------------------------------------

TEST_F(Configuration, ACatalogHoldsWhatHasAnIdentifier) {
  const LogHandleScope everything(7);
  bundle("Applications/A.app",
         {{"PKBundleIdentifier", "I"}, {"PKBundleVersion", "1.2"}, {"Other", 1}});
  bundle("Applications/B.app", {{"PKBundleVersion", "1"}});
  bundle("Applications/N.app", {{"PKBundleIdentifier", 5}});
  app("Applications/X.APP", "capitals");
  app("elsewhere/L.app", "linked");
  std::filesystem::create_symlink("../elsewhere/L.app", at("Applications/L.app"));
  platform_.tree.write("Applications/F.app", "a file");
  platform_.tree.write("Applications/plain", "");
  platform_.tree.write("Applications/D.app/Info.plist", "damaged");
  const auto made = ConfigurationForRoot::make(root());
  QVGlobalConfiguration& configuration = *made;
  const auto map = configuration.systemAppBundleIDToInfoMap();
  ASSERT_NE(map, nullptr);
  const std::string url = at("Applications/A.app");
  const QVBundleMap expected = {{"I",
                                 {{"PKBundleIdentifier", "I"},
                                  {"PKBundleVersion", "1.2"},
                                  {"com.velto.Quorvel.bundleURL", url}}}};
  EXPECT_EQ(*map, expected);
  std::vector<std::string> mine;
  for (const LogLine& line : platform_.log.lines()) {
    if (line.level != 7 || line.function == "QVLoadInfoPlist") continue;
    EXPECT_EQ(line.function,
              "-[QVGlobalConfiguration _bundleIDMapForBundlesInDirectory:withExtension:]");
    mine.push_back(line.message);
  }
  EXPECT_THAT(mine, ::testing::UnorderedElementsAre(
                        "Failed to get PKBundleIdentifier from bundle " + at("Applications/B.app"),
                        "Failed to get PKBundleIdentifier from bundle " + at("Applications/N.app"),
                        "Failed to load Info.plist from bundle " + at("Applications/F.app"),
                        "Failed to load Info.plist from bundle " + at("Applications/D.app")));
}

TEST_F(Configuration, CatalogsAreScannedOnceUntilDiscarded) {
  const auto made = ConfigurationForRoot::make(root());
  QVGlobalConfiguration& configuration = *made;
  EXPECT_EQ(configuration.systemAppBundleIDToInfoMap(), nullptr);
  EXPECT_THAT(platform_.log.messages(), IsEmpty());  // a missing directory is nothing to tell
  app("Applications/A.app", "a");
  app("VeltoInternal/Applications/I.app", "i");
  app("System/Library/CoreServices/C.app", "c");
  app("System/Library/Frameworks/F.framework", "f");
  app("VeltoInternal/PrivateFrameworks/P.framework", "p");
  app("Developer/Frameworks/D.framework", "d");
  const auto first = configuration.systemAppBundleIDToInfoMap();
  EXPECT_THAT(keys(first.get()), ElementsAre("a"));
  EXPECT_THAT(configuration.builtInFrameworkBundleIDs(), ElementsAre("f", "p"));
  EXPECT_THAT(keys(configuration.coreServicesAppBundleIDToInfoMap().get()), ElementsAre("c"));
  EXPECT_THAT(configuration.builtInApplicationBundleIDs(), ElementsAre("a", "i"));

  app("Applications/B.app", "b");
  app("VeltoInternal/Applications/J.app", "j");
  app("System/Library/CoreServices/E.app", "e");
  app("System/Library/Frameworks/G.framework", "g");
  EXPECT_EQ(configuration.systemAppBundleIDToInfoMap(), first);
  configuration.reScanCoreServicesApps();
  EXPECT_THAT(keys(configuration.coreServicesAppBundleIDToInfoMap().get()), ElementsAre("c", "e"));
  EXPECT_THAT(configuration.builtInFrameworkBundleIDs(), ElementsAre("f", "p"));
  configuration.reScanInternalApps();
  EXPECT_THAT(configuration.builtInFrameworkBundleIDs(), ElementsAre("f", "g", "p"));
  EXPECT_THAT(configuration.builtInApplicationBundleIDs(), ElementsAre("a", "i", "j"));
  app("System/Library/Frameworks/H.framework", "h");
  configuration.reScanSystemApps();
  EXPECT_THAT(configuration.builtInApplicationBundleIDs(), ElementsAre("a", "b", "i", "j"));
  EXPECT_THAT(configuration.builtInFrameworkBundleIDs(), ElementsAre("f", "g", "h", "p"));
  EXPECT_THAT(keys(first.get()), ElementsAre("a"));  // a map given out stays as it was
}

TEST_F(Configuration, ADirectoryThatCannotBeListedIsToldOnce) {
  platform_.tree.write("Applications", "a file");
  const auto made = ConfigurationForRoot::make(root());
  QVGlobalConfiguration& configuration = *made;
  EXPECT_EQ(configuration.systemAppBundleIDToInfoMap(), nullptr);
  ASSERT_EQ(platform_.log.lines().size(), 1U);
  EXPECT_EQ(platform_.log.lines()[0].level, 3);
  EXPECT_THAT(platform_.log.messages()[0],
              StartsWith("Failed to search for apps in file://" + at("Applications") +
                         "/ : PosixErrorDomain 20 {"));
  EXPECT_EQ(configuration.systemAppBundleIDToInfoMap(), nullptr);
  EXPECT_EQ(platform_.log.lines().size(), 2U);  // it looked again
}

// --- Persisted flags --------------------------------------------------------------------------

TEST_F(Configuration, FlagsLiveInTheStoreAlone) {
  constexpr const char* key = "UpdatedPluginContainersWithParentIDWithSafeHarborFix";
  auto storage = std::make_shared<FakePreferencesStore::Storage>();
  FakePreferencesStore mine(storage), other(storage);
  platform_.set.preferences = &mine;
  const auto made = ConfigurationForRoot::make(root());
  QVGlobalConfiguration& configuration = *made;
  EXPECT_FALSE(configuration.haveUpdatedPluginContainersWithParentID());
  for (const bool flag : {true, false}) {
    configuration.setHaveUpdatedPluginContainersWithParentID(flag);
    // Synchronized at once: another process sees it, as a boolean.
    EXPECT_EQ(other.copyValue(key, "com.velto.quorvel", kScope), PlistValue(flag));
    EXPECT_EQ(configuration.haveUpdatedPluginContainersWithParentID(), flag);
  }
  for (const PlistValue& value : {PlistValue("false"), PlistValue(0)}) {
    other.setValue(key, value, "com.velto.quorvel", kScope);
    other.synchronize("com.velto.quorvel", kScope);
    EXPECT_TRUE(configuration.haveUpdatedPluginContainersWithParentID());
  }
  EXPECT_EQ(configuration.alternateThinningModelIdentifier(), std::nullopt);
  other.setValue("ThinnedAppVariantID", 7, "com.velto.lorvixstored", kScope);
  other.synchronize("com.velto.lorvixstored", kScope);
  EXPECT_EQ(configuration.alternateThinningModelIdentifier(), std::nullopt);
  other.setValue("ThinnedAppVariantID", "variant", "com.velto.lorvixstored", kScope);
  other.synchronize("com.velto.lorvixstored", kScope);
  EXPECT_EQ(configuration.alternateThinningModelIdentifier(), "variant");
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
}

// --- Threads ----------------------------------------------------------------------------------

// Counts how often a key is read.
class CountingPreferences final : public FakePreferencesStore {
 public:
  std::atomic<int> reads{0};
  std::optional<PlistValue> copyValue(const std::string&, const std::string&,
                                      PreferencesScope) override {
    ++reads;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return std::nullopt;
  }
};

TEST_F(Configuration, TheSharedInstanceIsMadeOnce) {
  CountingPreferences counting;
  platform_.set.preferences = &counting;
  std::array<const QVGlobalConfiguration*, 12> seen{};
  std::array<const std::set<std::string>*, 12> blacklists{};
  testing::OnThreads(12, [&](int i) {
    const auto at = static_cast<std::size_t>(i);
    seen[at] = &QVGlobalConfiguration::sharedInstance();
    blacklists[at] = &seen[at]->installationBlacklist();
  });
  EXPECT_THAT(seen, ::testing::Each(seen[0]));
  EXPECT_THAT(blacklists, ::testing::Each(blacklists[0]));
  EXPECT_EQ(counting.reads, 4);
}

TEST_F(Configuration, LazyMembersRescansAndTheBundleLockFromManyThreads) {
  for (const char* name : {"A", "B", "C"}) {
    app(std::string("Applications/") + name + ".app", name);
    app(std::string("VeltoInternal/Applications/i") + name + ".app", std::string("i") + name);
    app(std::string("System/Library/Frameworks/") + name + ".framework", name);
  }
  const auto made = ConfigurationForRoot::make(root());
  QVGlobalConfiguration& configuration = *made;
  std::atomic<int> wrong{0};
  testing::OnThreads(12, [&](int thread) {
    for (int round = 0; round < 8; ++round) {
      switch ((thread + round) % 6) {
        case 0:
          configuration.reScanSystemApps();
          configuration.reScanInternalApps();
          break;
        case 1:
          wrong += configuration.systemAppBundleIDToInfoMap()->size() == 3 ? 0 : 1;
          break;
        case 2:
          wrong += configuration.builtInFrameworkBundleIDs().size() == 3 ? 0 : 1;
          break;
        case 3:
          // The bundle lock alone, against those who hold the instance's.
          wrong += QVLoadInfoPlist(Path::directory(at("Applications/A.app")), std::nullopt) ? 0 : 1;
          break;
        case 4:
          wrong += configuration.builtInApplicationBundleIDs().size() == 6 ? 0 : 1;
          break;
        default:
          wrong += configuration.stagingRoot() == configuration.stagingRoot() ? 0 : 1;
          wrong += configuration.allFrameworksDirectories().size() == 4 ? 0 : 1;
          configuration.logDirectory();
      }
    }
  });
  EXPECT_EQ(wrong, 0);
}

TEST(ConfigurationWithoutServices, AnswersWhatIsKnownWithoutThem) {
  TestPlatform platform;
  platform.set.preferences = nullptr;
  const auto made = ConfigurationForRoot::make(Path::directory("/nowhere"));
  EXPECT_EQ(made->nSimultaneousInstallations(), 4);
  made->setHaveUpdatedPluginContainersWithParentID(true);
  EXPECT_FALSE(made->haveUpdatedPluginContainersWithParentID());
  EXPECT_EQ(made->alternateThinningModelIdentifier(), std::nullopt);
  EXPECT_TRUE(made->diskImageMountPoints().empty());
  EXPECT_EQ(made->mountPointForDevice(1), std::nullopt);
}

// What is still running when the process ends reads paths that removals are made from.
TEST(ConfigurationAtTheEnd, TheSharedInstanceOutlivesEverything) {
  const TestPlatform platform;
  EXPECT_EXIT(
      {
        // Registered first, so that it runs after the end of whatever is made afterwards.
        std::atexit([] {
          const QVGlobalConfiguration& shared = QVGlobalConfiguration::sharedInstance();
          const bool isWhole =
              shared.oldContainerPath().string() == "/private/var/mobile/Applications" &&
              shared.installationBlacklist().contains("com.velto.Kyo6Updater");
          ::_exit(isWhole ? 0 : 1);
        });
        (void)QVGlobalConfiguration::sharedInstance().installationBlacklist();
        std::exit(2);  // NOLINT(concurrency-mt-unsafe): the child has one thread
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace quorvel::tests
