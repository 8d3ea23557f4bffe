// Placeholders: what the registry is handed before an app is moved, and what a failure leaves.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/ravelle/RavelleFixture.h"
#include "tests/support/FaultWrappers.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::tests {
namespace {

using PlaceholderTest = RavelleFixture;

TEST_F(PlaceholderTest, PlaceholderHoldsOnlyTheIdentityThatTheAppHas) {
  makeApp("A", "com.example.a", {{"PKBundleExecutable", "Foo"}, {"Secret", "not taken over"}});
  markAsPlaceholder(legacy("A") + "/Foo.app");
  EXPECT_TRUE(migrateContainer("A"));
  const auto proxy = workspace_.bundleProxyForIdentifier("com.example.a");
  const auto info =
      platform_.propertyLists.readDictionary(proxy->bundlePath->child("Info.plist"), nullptr);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(*info, (PlistDictionary{{"PKBundleIdentifier", "com.example.a"},
                                    {"PKBundleExecutable", "Foo"},
                                    {"PKBundleVersion", "1.0"}}));
  const std::string directory =
      platform_.tree.path() + "/private/var/tmp/com.velto.quorvel.migrator/com.example.a.app";
  EXPECT_THAT(log_.takeErrors(),
              ElementsAre(std::string("3 ") + kIcon +
                              "QVRavelle: Failed to create icon from bundle PKBundle <" +
                              legacy("A") + "/Foo.app>",
                          std::string("3 ") + kPlaceholder +
                              "QVRavelle: Writing placeholder icon for app com.example.a to " +
                              directory + "/Icon.png failed"));
  EXPECT_FALSE(exists(directory));
  EXPECT_TRUE(exists(platform_.tree.path() + "/private/var/tmp/com.velto.quorvel.migrator"));
}

TEST_F(PlaceholderTest, PlaceholderTakesNothingFromAnInterruptedRun) {
  makeApp("A", "com.example.a");
  const std::string staged =
      platform_.tree.path() + "/private/var/tmp/com.velto.quorvel.migrator/com.example.a.app";
  writeFile(staged + "/Icon.png", "of another run");
  EXPECT_TRUE(makePlugin()->_stageAndInstallPlaceholderForBundleAtURL(
      Path::directory(legacy("A") + "/Foo.app"), "com.example.a", legacyPath("A")));
  const auto proxy = workspace_.bundleProxyForIdentifier("com.example.a");
  EXPECT_TRUE(exists(proxy->bundlePath->string() + "/Info.plist"));
  EXPECT_FALSE(exists(proxy->bundlePath->string() + "/Icon.png"));
}

TEST_F(PlaceholderTest, PlaceholderFailuresAreNamedAndLeaveNoDirectory) {
  const auto install = [this](const std::string& container) {
    log_.take();
    return makePlugin()->_stageAndInstallPlaceholderForBundleAtURL(
        Path::directory(legacy(container) + "/Foo.app"), "com.example.a", legacyPath(container));
  };
  const std::string prefix = std::string("3 ") + kPlaceholder + "QVRavelle: ";
  const std::string staged =
      platform_.tree.path() + "/private/var/tmp/com.velto.quorvel.migrator/com.example.a.app";
  EXPECT_FALSE(install("missing"));
  EXPECT_THAT(log_.take(), ElementsAre(prefix + "Failed to create PKBundle for " +
                                       legacy("missing") + "/Foo.app"));
  writeFile(legacy("B") + "/Foo.app/Info.plist", "garbage");
  EXPECT_FALSE(install("B"));
  EXPECT_THAT(log_.take(), ElementsAre(prefix + "Failed to get bundle info dictionary for bundle " +
                                       legacy("B") + "/Foo.app"));
  EXPECT_FALSE(exists(staged));

  makeApp("A", "com.example.a");
  std::filesystem::create_directory(legacy("A") + "/LorvixMetadata.plist");
  workspace_.placeholderScripts["com.example.a"] = {
      {}, Error(PosixErrorDomain, 28, {{"Reason", PlistValue("full")}})};
  EXPECT_FALSE(install("A"));
  EXPECT_THAT(withoutIconLines(log_.takeErrors()),
              ElementsAre(StartsWith(prefix + "Failed to read " + legacy("A") +
                                     "/LorvixMetadata.plist : PosixErrorDomain"),
                          prefix + "Failed to install placeholder for com.example.a: {Reason = "
                                   "\"full\"}"));
  EXPECT_FALSE(exists(staged));

  std::filesystem::remove_all(platform_.tree.path() + "/private/var/tmp");
  writeFile(platform_.tree.path() + "/private/var/tmp", "a file");
  EXPECT_FALSE(install("A"));
  EXPECT_THAT(
      log_.take(),
      ElementsAre(StartsWith(prefix + "Failed to create staged placeholder directory at file://" +
                             staged + "/ : PosixErrorDomain 20 {")));
}

TEST_F(PlaceholderTest, HostileIdentifierStaysInTheTemporaryDirectory) {
  const std::string canary = platform_.tree.path() + "/canary.app";
  writeFile(canary + "/file", "alive");
  makeApp("A", "../../../canary");
  EXPECT_TRUE(migrateContainer("A"));
  EXPECT_EQ(readFile(canary + "/file"), "alive");
  EXPECT_TRUE(workspace_.applicationIsInstalled("../../../canary"));
  // Longer than any file name.
  makeApp("B", std::string(300, 'x'));
  log_.take();
  EXPECT_FALSE(migrateContainer("B"));
  EXPECT_THAT(log_.takeErrors(),
              ElementsAre(HasSubstr("Failed to create staged placeholder directory at ")));
  EXPECT_TRUE(exists(marker("B")) && exists(legacy("B") + "/Documents/letter"));
}

}  // namespace
}  // namespace quorvel::tests
