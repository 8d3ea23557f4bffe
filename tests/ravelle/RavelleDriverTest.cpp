// The host's protocol: in which order things are worked off, and every message on the way.
#include <atomic>
#include <thread>

#include "Ravelle/Preview.h"
#include "tests/ravelle/RavelleFixture.h"
#include "tests/support/FaultWrappers.h"

namespace quorvel::tests {
namespace {

constexpr const char* kInit = "-[QVRavelle init] ";
constexpr const char* kPerform = "-[QVRavelle performMigration] ";
constexpr const char* kFinal =
    "3 -[QVRavelle performMigration] QVRavelle: Returning migration failed. Please include the "
    "contents of /var/mobile/Library/Logs/Quorvel and /var/Mobile/Library/Logs/Corvenna in a bug "
    "report.";

class DriverTest : public RavelleFixture {
 protected:
  std::string installMap() const {
    return root_ + "/private/var/mobile/Library/Caches/com.velto.quorvel.plist";
  }
  std::string harborMap() const {
    return root_ + "/private/var/mobile/Library/Quorvel/SafeHarbor.plist";
  }
};

TEST_F(DriverTest, WithoutLegacyDirectoryTheClosingStepsStillRun) {
  const auto plugin = makePlugin();
  ASSERT_EQ(plugin->init(), plugin.get());
  EXPECT_STREQ(plugin->dataClassName(), "QVRavelle");
  EXPECT_EQ(plugin->estimatedDuration(), 20.0F);
  EXPECT_EQ(plugin->migrationProgress(), 0.5F);
  EXPECT_TRUE(plugin->performMigration());
  EXPECT_EQ(log_.take(), Lines{});
  const PlistDictionary expected{{"UpdateSystemAppDataContainerDataProtection", true}};
  ASSERT_EQ(service_.dataProtectionRequests.size(), 1U);
  EXPECT_EQ(service_.dataProtectionRequests[0], expected);
}

TEST_F(DriverTest, EmptyLegacyDirectoryGoesWithItsInstallMap) {
  std::filesystem::create_directories(legacy());
  writePlist(installMap(), {});
  const auto plugin = makePlugin();
  ASSERT_NE(plugin->init(), nullptr);
  EXPECT_FALSE(exists(legacy()));
  EXPECT_FALSE(exists(installMap()));
  EXPECT_EQ(plugin->migrationProgress(), 0.5F);
  EXPECT_EQ(log_.take(), Lines{});
}

TEST_F(DriverTest, LegacyDirectoryThatCannotBeListedMakesNoInstance) {
  writeFile(legacy(), "a file");
  EXPECT_EQ(makePlugin()->init(), nullptr);
  const Lines lines = log_.take();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines[0], HasSubstr(std::string("3 ") + kInit +
                                  "QVRavelle: Failed to get items at file://" + legacy() +
                                  "/ : "
                                  "PosixErrorDomain 20 {"));
  EXPECT_TRUE(exists(legacy()));
}

// Found out before anything is touched, by the plug-in and by its preview.
TEST_F(DriverTest, ServiceThatIsMissingMakesNoInstance) {
  makeApp("one", "com.example.one");
  const PlatformServices whole = platform_.set;
  const auto lacks = [&](auto PlatformServices::*member, const std::string& name) {
    platform_.set = whole;
    platform_.set.*member = nullptr;
    const std::string text = "No " + name + " is among the platform's services";
    EXPECT_EQ(makePlugin()->init(), nullptr) << name;
    EXPECT_EQ(log_.take(), Lines{std::string("3 ") + kInit + "QVRavelle: " + text});
    Error error;
    EXPECT_FALSE(RavellePreview(*configuration_).preview(account_, &error)) << name;
    EXPECT_EQ(error.description(), text);
  };
  lacks(&PlatformServices::workspace, "ApplicationWorkspace");
  lacks(&PlatformServices::installationService, "InstallationService");
  lacks(&PlatformServices::bundles, "BundleReader");
  lacks(&PlatformServices::icons, "IconRenderer");
  lacks(&PlatformServices::propertyLists, "PropertyListStore");
  lacks(&PlatformServices::fileData, "FileData");
  lacks(&PlatformServices::fileSystem, "FileSystem");
  lacks(&PlatformServices::treeWalker, "TreeWalker");
  platform_.set = whole;
  EXPECT_EQ(account_.take(), Lines{});
  EXPECT_TRUE(exists(legacy("one") + "/Foo.app/executable"));
}

TEST_F(DriverTest, InstallMapAndHarborMapAreLoadedOrMissed) {
  makeApp("A", "com.example.a");
  const auto initLines = [this] {
    EXPECT_NE(makePlugin()->init(), nullptr);
    return log_.take();
  };
  const std::string items = std::string("5 ") + kInit + "QVRavelle: 1 items to migrate";
  EXPECT_THAT(initLines(),
              ElementsAre(items, std::string("5 ") + kInit +
                                     "QVRavelle: Old install map not found at " + installMap()));
  writePlist(installMap(), {{"GroupContainers", "none"}});
  writeFile(harborMap(), "no property list");
  EXPECT_THAT(initLines(),
              ElementsAre(items,
                          std::string("5 ") + kInit +
                              "QVRavelle: No group container map found in install map",
                          std::string("3 ") + kInit +
                              "QVRavelle: Failed to load existing harbor map from " + harborMap()));
  writePlist(installMap(), {{"GroupContainers", PlistDictionary{}}}, PropertyListFormat::binary);
  writePlist(harborMap(), {});
  EXPECT_THAT(initLines(), ElementsAre(items));
}

TEST_F(DriverTest, EstimateGrowsWithTheEntries) {
  for (int i = 0; i < 4; ++i) writeFile(legacy(std::to_string(i)), "");
  const auto four = makePlugin();
  ASSERT_NE(four->init(), nullptr);
  EXPECT_EQ(four->estimatedDuration(), 29.0F);
  EXPECT_EQ(four->migrationProgress(), 0.0F);
  for (int i = 4; i < 10; ++i) writeFile(legacy(std::to_string(i)), "");
  const auto ten = makePlugin();
  ASSERT_NE(ten->init(), nullptr);
  EXPECT_EQ(ten->estimatedDuration(), 42.5F);
}

TEST_F(DriverTest, AppsComeFirstInReverseOrderOfDiscovery) {
  for (const char* name : {"1", "2", "3", "4", "5", "6"}) {
    const bool app = name[0] % 2 == 1;
    const std::string identifier = std::string("id.") + name;
    makeBundle(name, app ? "Foo.app" : "Tun.vpnplugin", identifier);
    registry_.registerIdentifier(identifier, nullptr);
  }
  EXPECT_TRUE(migrate());
  Lines apps;
  Lines plugins;
  Lines migrated;
  for (const std::string& line : log_.take()) {
    if (line.find("Introspecting") != std::string::npos) {
      const std::string identifier = "id." + line.substr(line.size() - 1);
      if (line.back() % 2 == 1) {
        apps.insert(apps.begin(), identifier);
      } else {
        plugins.push_back(identifier);
      }
    }
    const std::string prefix = std::string("5 ") + kPerform + "QVRavelle: Migrating ";
    if (line.starts_with(prefix)) migrated.push_back(line.substr(prefix.size(), 4));
  }
  apps.insert(apps.end(), plugins.begin(), plugins.end());
  EXPECT_EQ(migrated, apps);
  EXPECT_EQ(migrated.size(), 6U);
}

TEST_F(DriverTest, NoticeFileIsRemovedUnseenAndItsLookalikeIntrospected) {
  writeFile(legacy("WhereDidMyApplicationsGo.txt"), "moved");
  EXPECT_TRUE(migrate());
  EXPECT_THAT(log_.take(),
              ElementsAre(HasSubstr("1 items to migrate"), HasSubstr("Old install map not found"),
                          HasSubstr("Introspecting")));
  writeFile(legacy("wheredidmyapplicationsgo.txt"), "moved");
  EXPECT_TRUE(migrate());
  EXPECT_THAT(log_.takeErrors(),
              ElementsAre(std::string("3 ") + kIntrospect + "QVRavelle: Found regular file at " +
                          legacy("wheredidmyapplicationsgo.txt") + " ; removing"));
  EXPECT_FALSE(exists(legacy()));
}

TEST_F(DriverTest, LinkInTheLegacyDirectoryIsNoItemButRemains) {
  makeApp("A", "com.example.a");
  std::filesystem::create_symlink("A", legacy("link"));
  writePlist(installMap(), {});
  const auto plugin = makePlugin();
  ASSERT_NE(plugin->init(), nullptr);
  EXPECT_EQ(plugin->estimatedDuration(), 22.25F);
  log_.take();
  EXPECT_FALSE(plugin->performMigration());
  EXPECT_EQ(plugin->migrationProgress(), 1.0F);
  EXPECT_THAT(withoutIconLines(log_.takeErrors()),
              ElementsAre(std::string("3 ") + kPerform + "QVRavelle: Not removing " + installMap() +
                              " because 1 items remain unmigrated.",
                          kFinal));
  EXPECT_TRUE(exists(legacy("link")));
  EXPECT_TRUE(exists(installMap()));
}

TEST_F(DriverTest, FailedProtectionUpdateAndFailedHarborFailTheRunButNotTheRest) {
  makeApp("A", "com.example.a");
  service_.insteadOfDataProtection = [] { return 0; };
  EXPECT_FALSE(migrate());
  EXPECT_THAT(withoutIconLines(log_.takeErrors()),
              ElementsAre(std::string("3 ") + kPerform +
                              "QVRavelle: Failed to update container data protection",
                          kFinal));
  EXPECT_FALSE(exists(legacy()));
  EXPECT_EQ(readFile(dataOf("com.example.a") + "/Documents/letter"), "letter of com.example.a");
  service_.insteadOfDataProtection = nullptr;
  makeApp("B", "com.example.b");
  writePlist(harborMap(), {{"h", PlistDictionary{{"HarborPathKey", root_ + "/missing"}}}});
  EXPECT_FALSE(migrate());
  EXPECT_THAT(withoutIconLines(log_.takeErrors()),
              ElementsAre(HasSubstr("Failed to migrate safe harbor for identifier h"), kFinal));
  EXPECT_FALSE(exists(legacy()));
}

TEST_F(DriverTest, LegacyDirectoryThatCannotBeListedAtTheEndIsOnlyLogged) {
  service_.insteadOfDataProtection = [this] {
    std::filesystem::remove_all(legacy());
    writeFile(legacy(), "now a file");
    return 1;
  };
  makeApp("A", "com.example.a");
  EXPECT_TRUE(migrate());
  EXPECT_THAT(withoutIconLines(log_.takeErrors()),
              ElementsAre(HasSubstr(std::string("3 ") + kPerform +
                                    "QVRavelle: Failed to determine if any items were remaining "
                                    "to migrate: PosixErrorDomain 20 {")));
}

TEST_F(DriverTest, ProgressIsReadWholeFromAnotherThread) {
  for (int i = 0; i < 60; ++i) makeApp(std::to_string(i), "com.example.a" + std::to_string(i));
  const auto plugin = makePlugin();
  ASSERT_NE(plugin->init(), nullptr);
  std::atomic<bool> done{false};
  bool monotonous = true;
  std::thread reader([&] {
    for (float last = 0; !done;) {
      const float now = plugin->migrationProgress();
      monotonous = monotonous && now >= last && now <= 1.0F;
      last = now;
    }
  });
  EXPECT_TRUE(plugin->performMigration());
  done = true;
  reader.join();
  EXPECT_TRUE(monotonous);
  EXPECT_EQ(plugin->migrationProgress(), 1.0F);
}

}  // namespace
}  // namespace quorvel::tests
