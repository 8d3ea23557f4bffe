// What callers may rely on of the application registry and the installation service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"
#include "tests/support/RegistryTesting.h"

namespace quorvel::tests {
namespace {

const std::set<std::string> kBlacklist{"com.velto.never"};

class OnDisk {
 public:
  explicit OnDisk(const std::string& root)
      : registry_(files_, bundles_,
                  {.deviceRoot = root, .isBlacklisted = [](const auto& identifier) {
                     return kBlacklist.contains(identifier);
                   }}) {}
  ApplicationWorkspace& workspace() { return registry_.workspace(); }
  InstallationService& service() { return registry_.installationService(); }
  bool registerIdentifier(const std::string& id) {
    return registry_.registerIdentifier(id, nullptr);
  }
  std::vector<BundleProxy> bundles() { return snapshot().bundles; }
  std::vector<onlinux::SafeHarborRecord> harbors() { return snapshot().safeHarbors; }
  bool dataProtectionUpdated() { return snapshot().dataProtectionUpdated; }

 private:
  onlinux::RegistrySnapshot snapshot() {
    onlinux::RegistrySnapshot result;
    EXPECT_TRUE(registry_.snapshot(&result, nullptr));
    return result;
  }
  onlinux::FileSystemLinux files_;
  onlinux::BundleReaderLinux bundles_;
  onlinux::ApplicationRegistryLinux registry_;
};

class ApplicationRegistryContract : public ::testing::Test {
 protected:
  // Made late, so that a test can put built-in apps there first.
  OnDisk& registry() {
    if (!registry_) registry_ = std::make_unique<OnDisk>(device.root());
    return *registry_;
  }
  ApplicationWorkspace& workspace() { return registry().workspace(); }
  bool install(const Path& staging, const PlistDictionary& options) {
    reports.clear();
    error = {};
    return workspace().installApplication(
        staging, options, &error,
        [&](const PlistDictionary& report) { reports.push_back(report); });
  }
  BundleProxy proxy(const std::string& identifier) {
    auto found = workspace().bundleProxyForIdentifier(identifier);
    EXPECT_TRUE(found.has_value()) << identifier;
    return found.value_or(BundleProxy{});
  }
  // Refused with an Error and one report; staging directory and records as before.
  void expectRefused(const Path& staging, const PlistDictionary& options) {
    const auto before = TreeOf(staging);
    EXPECT_FALSE(install(staging, options));
    EXPECT_TRUE(error);
    EXPECT_FALSE(error.description().empty());
    ASSERT_EQ(reports.size(), 1U);
    for (const char* key : {"Error", "ErrorDescription", "ErrorDetail"}) {
      EXPECT_NE(reports[0].find(key), nullptr) << key;
    }
    EXPECT_NE(*reports[0].findString("Error"), RXErrorApplicationAlreadyInstalled);
    EXPECT_EQ(TreeOf(staging), before);
    device.expectNoOrphans(registry().bundles());
  }

  RegistryDevice device;
  std::vector<PlistDictionary> reports;
  Error error;

 private:
  std::unique_ptr<OnDisk> registry_;
};

TEST_F(ApplicationRegistryContract, InstallsAnAppWithPluginMetadataAndGroups) {
  const Path staging = device.stageApp({"com.a", "2.1", {"group.x", "group.y"}}, true);
  WriteBundle(RegistryDevice::payload(staging).childDirectory("Net.vpnplugin"),
              {"com.a.vpn", "1.0", {"group.y"}});
  EXPECT_FALSE(workspace().applicationIsInstalled("com.a"));
  EXPECT_FALSE(workspace().bundleProxyForIdentifier("com.a"));
  ASSERT_TRUE(install(staging, CustomerOptions("com.a"))) << error.description();
  EXPECT_TRUE(reports.empty());
  EXPECT_FALSE(Exists(staging));

  const BundleProxy app = proxy("com.a");
  EXPECT_EQ(app.bundleType, "App");
  EXPECT_EQ(app.bundleVersion, "2.1");
  EXPECT_TRUE(app.foundBackingBundle);
  EXPECT_FALSE(app.isPlaceholder);
  EXPECT_EQ(ContentOf(app.bundlePath->child("code")), "code of com.a 2.1");
  EXPECT_EQ(app.bundlePath, app.bundleContainerPath->childDirectory("Foo.app"));
  EXPECT_EQ(ContentOf(app.bundleContainerPath->child("LorvixArtwork")), "staged LorvixArtwork");
  EXPECT_EQ(ContentOf(app.bundleContainerPath->child("GeoJSON/inside")), "a directory");
  ASSERT_EQ(app.groupContainerPaths->size(), 2U);

  const BundleProxy plugin = proxy("com.a.vpn");
  EXPECT_EQ(plugin.bundleType, "VPNPlugin");
  EXPECT_EQ(plugin.groupContainerPaths->at("group.y"), app.groupContainerPaths->at("group.y"));
  EXPECT_NE(plugin.dataContainerPath, app.dataContainerPath);
  EXPECT_TRUE(workspace().applicationIsInstalled("com.a.vpn"));
  const auto bundles = registry().bundles();
  EXPECT_EQ(bundles.size(), 2U);
  device.expectNoOrphans(bundles);
  EXPECT_EQ(device.containers("Group").size(), 2U);
}

TEST_F(ApplicationRegistryContract, FullInstallOverAPlaceholderKeepsTheData) {
  PlistDictionary options = PlaceholderOptions("com.a");
  options.set(RXLorvixMetadataKey, PlistValue(PlistData{'s', 't', 'o', 'r', 'e'}));
  const Path placeholder = device.stagePlaceholder({"com.a", "2.0", {"group.x"}});
  ASSERT_TRUE(install(placeholder, options)) << error.description();
  EXPECT_FALSE(Exists(placeholder));
  const BundleProxy before = proxy("com.a");
  EXPECT_TRUE(before.isPlaceholder);
  EXPECT_TRUE(workspace().applicationIsInstalled("com.a"));
  EXPECT_TRUE(before.groupContainerPaths->empty());
  EXPECT_EQ(ContentOf(before.bundleContainerPath->child("LorvixMetadata.plist")), "store");
  std::ofstream(Native(before.dataContainerPath->child("document"))) << "mine";

  const Path staging = device.stageApp({"com.a", "2.0", {"group.x"}}, true);
  ASSERT_TRUE(install(staging, CustomerOptions("com.a")));
  const BundleProxy after = proxy("com.a");
  EXPECT_FALSE(after.isPlaceholder);
  EXPECT_EQ(after.dataContainerPath, before.dataContainerPath);
  EXPECT_EQ(ContentOf(after.dataContainerPath->child("document")), "mine");
  EXPECT_FALSE(Exists(*before.bundleContainerPath));
  EXPECT_EQ(after.groupContainerPaths->count("group.x"), 1U);
  device.expectNoOrphans(registry().bundles());
  // The other way round the full bundle stays.
  expectRefused(device.stagePlaceholder({"com.a"}), PlaceholderOptions("com.a"));
  EXPECT_FALSE(proxy("com.a").isPlaceholder);
}

TEST_F(ApplicationRegistryContract, RefusesWhatItCannotInstall) {
  expectRefused(device.at("missing"), CustomerOptions("com.a"));
  std::filesystem::create_directories(Native(device.at("empty/Payload/Foo.app.zip")));
  expectRefused(device.at("empty"), CustomerOptions("com.a"));
  // A bundle with another identifier, and a foreign second app.
  const Path foreign = device.stageApp({"com.b"}, true, "foreign");
  expectRefused(foreign, CustomerOptions("com.a"));
  WriteBundle(RegistryDevice::payload(foreign).childDirectory("Bar.app"), {"com.a"});
  expectRefused(foreign, CustomerOptions("com.a"));
  // A plug-in alone must be the requested one; beside an app it may not have the app's name.
  const Path plugin = device.at("plugin");
  WriteBundle(RegistryDevice::payload(plugin).childDirectory("Net.vpnplugin"), {"com.a.vpn"});
  expectRefused(plugin, CustomerOptions("com.a"));
  WriteBundle(RegistryDevice::payload(plugin).childDirectory("Foo.app"), {"com.a.vpn"});
  expectRefused(plugin, CustomerOptions("com.a.vpn"));
  // An info dictionary that cannot be read; a link is no bundle.
  const Path damaged = device.stageApp({"com.a"}, false, "damaged");
  std::ofstream(Native(RegistryDevice::payload(damaged).child("Foo.app/Info.plist"))) << "<plist>";
  expectRefused(damaged, CustomerOptions("com.a"));
  std::filesystem::create_directories(Native(RegistryDevice::payload(device.at("link"))));
  std::filesystem::create_directory_symlink(
      Native(foreign.childDirectory("Payload/Bar.app")),
      Native(RegistryDevice::payload(device.at("link")).child("Foo.app")));
  expectRefused(device.at("link"), CustomerOptions("com.a"));
  // Options that say nothing.
  const Path good = device.stageApp({"com.a"}, false, "good");
  for (const char* key : {RXBundleIdentifierKey, RXPackageTypeKey, RXInstallTypeKey}) {
    PlistDictionary options = CustomerOptions("com.a");
    options.erase(key);
    expectRefused(good, options);
  }
  EXPECT_TRUE(registry().bundles().empty());
}

TEST_F(ApplicationRegistryContract, BlacklistHoldsUnlessSkipped) {
  const Path staging = device.stageApp({"com.velto.never"});
  PlistDictionary options = CustomerOptions("com.velto.never");
  options.set(RXSkipBlacklistKey, PlistValue(1));  // a number is no boolean
  expectRefused(staging, options);
  options.erase(RXSkipBlacklistKey);
  expectRefused(staging, options);
  // The same for the plug-in beside an app.
  const Path beside = device.stageApp({"com.a"}, false, "beside");
  WriteBundle(RegistryDevice::payload(beside).childDirectory("N.vpnplugin"), {"com.velto.never"});
  PlistDictionary plain = CustomerOptions("com.a");
  plain.erase(RXSkipBlacklistKey);
  expectRefused(beside, plain);
  EXPECT_TRUE(install(staging, CustomerOptions("com.velto.never")));
}

TEST_F(ApplicationRegistryContract, PluginAloneTakesTheMetadataAndKeepsItsData) {
  ASSERT_TRUE(registry().registerIdentifier("com.vpn"));
  const BundleProxy known = proxy("com.vpn");
  EXPECT_EQ(known.bundleType, "VPNPlugin");
  EXPECT_FALSE(known.foundBackingBundle);
  EXPECT_FALSE(known.bundlePath);
  EXPECT_TRUE(known.groupContainerPaths->empty());
  EXPECT_FALSE(workspace().applicationIsInstalled("com.vpn"));
  ASSERT_TRUE(registry().registerIdentifier("com.vpn"));

  const Path staging = device.at("Staging");
  WriteBundle(RegistryDevice::payload(staging).childDirectory("Net.vpnplugin"), {"com.vpn"});
  std::ofstream(Native(staging.child("Manifest.plist"))) << "m";
  ASSERT_TRUE(install(staging, CustomerOptions("com.vpn")));
  const BundleProxy installed = proxy("com.vpn");
  EXPECT_TRUE(installed.foundBackingBundle);
  EXPECT_EQ(installed.dataContainerPath, known.dataContainerPath);
  EXPECT_EQ(ContentOf(installed.bundleContainerPath->child("Manifest.plist")), "m");
  device.expectNoOrphans(registry().bundles());
  // An app may not take over the plug-in's identifier, and with it its data.
  expectRefused(device.stageApp({"com.vpn"}), CustomerOptions("com.vpn"));
}

TEST_F(ApplicationRegistryContract, RepeatedRequestIsSatisfiedByTheFirst) {
  const Path staging = device.stageApp({"com.a"});
  ASSERT_TRUE(install(staging, CustomerOptions("com.a")));
  const BundleProxy first = proxy("com.a");
  EXPECT_TRUE(install(staging, CustomerOptions("com.a")));
  // As a resumed migration leaves it: made again, with metadata that came late.
  std::filesystem::create_directories(Native(RegistryDevice::payload(staging)));
  std::ofstream(Native(staging.child("GeoJSON"))) << "late";
  EXPECT_TRUE(install(staging, CustomerOptions("com.a"))) << error.description();
  EXPECT_FALSE(Exists(staging));
  EXPECT_EQ(proxy("com.a").bundlePath, first.bundlePath);
  EXPECT_EQ(ContentOf(first.bundleContainerPath->child("GeoJSON")), "late");
  // An app that is installed wants no bundle, whichever package it came from; another does.
  EXPECT_TRUE(install(device.at("Other"), CustomerOptions("com.a")));
  EXPECT_EQ(proxy("com.a").bundlePath, first.bundlePath);
  expectRefused(staging, CustomerOptions("com.b"));

  const Path placeholder = device.stagePlaceholder({"com.p"});
  ASSERT_TRUE(install(placeholder, PlaceholderOptions("com.p")));
  EXPECT_TRUE(install(placeholder, PlaceholderOptions("com.p")));
}

TEST_F(ApplicationRegistryContract, BuiltInAppsAreInstalledAndNewerOnesWin) {
  device.addBuiltIn("Mail.app", {"com.mail", "10.2", {"group.mail"}});
  std::filesystem::create_directory_symlink(Native(device.at("Applications/Mail.app")),
                                            Native(device.at("Applications/Linked.app")));
  EXPECT_TRUE(workspace().applicationIsInstalled("com.mail"));
  const BundleProxy builtIn = proxy("com.mail");
  EXPECT_EQ(builtIn.bundlePath, device.at("Applications/Mail.app"));
  EXPECT_FALSE(builtIn.bundleContainerPath);
  EXPECT_TRUE(builtIn.foundBackingBundle);
  EXPECT_EQ(builtIn.groupContainerPaths->count("group.mail"), 1U);
  ASSERT_TRUE(builtIn.dataContainerPath);
  EXPECT_EQ(proxy("com.mail").dataContainerPath, builtIn.dataContainerPath);

  // Older: reported, failed and discarded, as often as it is asked for.
  const Path staging = device.stageApp({"com.mail", "9.12"}, true);
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(install(staging, CustomerOptions("com.mail")));
    EXPECT_TRUE(error);
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(*reports[0].findString("Error"), RXErrorApplicationAlreadyInstalled);
    EXPECT_FALSE(Exists(staging));
  }
  EXPECT_EQ(proxy("com.mail").bundlePath, builtIn.bundlePath);
  expectRefused(device.stagePlaceholder({"com.mail"}), PlaceholderOptions("com.mail"));

  // The same version, or a newer one, is installed and counts.
  for (const char* version : {"10.2", "10.10"}) {
    ASSERT_TRUE(install(device.stageApp({"com.mail", version}), CustomerOptions("com.mail")));
    const BundleProxy installed = proxy("com.mail");
    EXPECT_EQ(installed.bundleVersion, version);
    EXPECT_TRUE(installed.bundleContainerPath);
    EXPECT_EQ(installed.dataContainerPath, builtIn.dataContainerPath);
  }
  device.expectNoOrphans(registry().bundles());
}

TEST_F(ApplicationRegistryContract, IdentifiersAreNoFileNames) {
  const std::vector<std::string> identifiers{"../../etc",
                                             "/",
                                             "..",
                                             "a/b",
                                             std::string(10'000, 'x'),
                                             "com.\xC3\xBC\n%s'\"; --",
                                             std::string("nul\0inside", 10)};
  for (const std::string& identifier : identifiers) {
    const Path staging = device.stageApp({identifier, "1", {identifier}});
    ASSERT_TRUE(install(staging, CustomerOptions(identifier))) << identifier;
    EXPECT_TRUE(workspace().applicationIsInstalled(identifier));
    EXPECT_EQ(proxy(identifier).bundleIdentifier, identifier);
  }
  EXPECT_FALSE(workspace().applicationIsInstalled("nul"));
  EXPECT_EQ(registry().bundles().size(), identifiers.size());
  device.expectNoOrphans(registry().bundles());
}

TEST_F(ApplicationRegistryContract, BundleNamesAreBytesAndForeignItemsStay) {
  const Path staging = device.at("Staging");
  const std::string name = StringFromFileSystemRepresentation("\xFF\x01 %s\n.app");
  WriteBundle(RegistryDevice::payload(staging).childDirectory(name), {"com.a"});
  std::ofstream(Native(RegistryDevice::payload(staging).child("notes"))) << "not understood";
  ASSERT_TRUE(install(staging, CustomerOptions("com.a"))) << error.description();
  EXPECT_EQ(proxy("com.a").bundlePath->lastPathComponent(), name);
  EXPECT_TRUE(Exists(proxy("com.a").bundlePath->child("code")));
  EXPECT_EQ(ContentOf(RegistryDevice::payload(staging).child("notes")), "not understood");
}

TEST_F(ApplicationRegistryContract, SafeHarborsAndDataProtection) {
  InstallationService& service = registry().service();
  const std::string directory = device.root() + "/harbor";
  std::filesystem::create_directories(directory + "/other");
  std::ofstream(directory + "/file") << "x";
  std::filesystem::create_directory_symlink(directory, device.root() + "/link");
  EXPECT_NE(0, service.QuorvelRegisterSafeHarborForContainerType(directory, "com.a", 2, nullptr));
  for (const std::string& bad :
       {std::string(), directory + "/file", directory + "/none", device.root() + "/link"}) {
    EXPECT_EQ(0, service.QuorvelRegisterSafeHarborForContainerType(bad, "com.b", 2, nullptr));
  }
  EXPECT_NE(0, service.QuorvelRegisterSafeHarborForContainerType(directory, "com.a", 3, nullptr));
  EXPECT_NE(0, service.QuorvelRegisterSafeHarborForContainerType(directory + "/other", "com.a", 2,
                                                                 nullptr));
  const auto harbors = registry().harbors();
  ASSERT_EQ(harbors.size(), 2U);
  EXPECT_EQ(harbors[0].path, directory + "/other");
  EXPECT_EQ(harbors[0].containerType, 2);
  EXPECT_EQ(harbors[1].path, directory);

  EXPECT_FALSE(registry().dataProtectionUpdated());
  EXPECT_NE(0, service.QuorvelUpdateContainerDataProtectionForMigratorOnly(
                   {{kQVUpdateSystemAppDataContainerDataProtection, PlistValue(true)}}));
  EXPECT_TRUE(registry().dataProtectionUpdated());
}

}  // namespace
}  // namespace quorvel::tests
