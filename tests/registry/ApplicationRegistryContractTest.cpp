// What every application registry and installation service keeps: run over the ones on disk and
// the ones in memory.
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

const std::set<std::string> Blacklist{"com.velto.never"};

class OnDisk {
 public:
  explicit OnDisk(const std::string& root)
      : registry_(files_, bundles_,
                  {.deviceRoot = root, .isBlacklisted = [](const auto& identifier) {
                     return Blacklist.contains(identifier);
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

template <class Registry>
class ApplicationRegistryContract : public ::testing::Test {
 protected:
  // Made late, so that a test can put built-in apps there first.
  Registry& registry() {
    if (!registry_) registry_ = std::make_unique<Registry>(device.root());
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
  std::unique_ptr<Registry> registry_;
};

using Implementations = ::testing::Types<OnDisk>;
TYPED_TEST_SUITE(ApplicationRegistryContract, Implementations);

TYPED_TEST(ApplicationRegistryContract, InstallsAnAppWithPluginMetadataAndGroups) {
  const Path staging = this->device.stageApp({"com.a", "2.1", {"group.x", "group.y"}}, true);
  WriteBundle(RegistryDevice::payload(staging).childDirectory("Net.vpnplugin"),
              {"com.a.vpn", "1.0", {"group.y"}});
  EXPECT_FALSE(this->workspace().applicationIsInstalled("com.a"));
  EXPECT_FALSE(this->workspace().bundleProxyForIdentifier("com.a"));
  ASSERT_TRUE(this->install(staging, CustomerOptions("com.a"))) << this->error.description();
  EXPECT_TRUE(this->reports.empty());
  EXPECT_FALSE(Exists(staging));

  const BundleProxy app = this->proxy("com.a");
  EXPECT_EQ(app.bundleType, "App");
  EXPECT_EQ(app.bundleVersion, "2.1");
  EXPECT_TRUE(app.foundBackingBundle);
  EXPECT_FALSE(app.isPlaceholder);
  EXPECT_EQ(ContentOf(app.bundlePath->child("code")), "code of com.a 2.1");
  EXPECT_EQ(app.bundlePath, app.bundleContainerPath->childDirectory("Foo.app"));
  EXPECT_EQ(ContentOf(app.bundleContainerPath->child("LorvixArtwork")), "staged LorvixArtwork");
  EXPECT_EQ(ContentOf(app.bundleContainerPath->child("GeoJSON/inside")), "a directory");
  ASSERT_EQ(app.groupContainerPaths->size(), 2U);

  const BundleProxy plugin = this->proxy("com.a.vpn");
  EXPECT_EQ(plugin.bundleType, "VPNPlugin");
  EXPECT_EQ(plugin.groupContainerPaths->at("group.y"), app.groupContainerPaths->at("group.y"));
  EXPECT_NE(plugin.dataContainerPath, app.dataContainerPath);
  EXPECT_TRUE(this->workspace().applicationIsInstalled("com.a.vpn"));
  const auto bundles = this->registry().bundles();
  EXPECT_EQ(bundles.size(), 2U);
  this->device.expectNoOrphans(bundles);
  EXPECT_EQ(this->device.containers("Group").size(), 2U);
}

TYPED_TEST(ApplicationRegistryContract, FullInstallOverAPlaceholderKeepsTheData) {
  PlistDictionary options = PlaceholderOptions("com.a");
  options.set(RXLorvixMetadataKey, PlistValue(PlistData{'s', 't', 'o', 'r', 'e'}));
  const Path placeholder = this->device.stagePlaceholder({"com.a", "2.0", {"group.x"}});
  ASSERT_TRUE(this->install(placeholder, options)) << this->error.description();
  EXPECT_FALSE(Exists(placeholder));
  const BundleProxy before = this->proxy("com.a");
  EXPECT_TRUE(before.isPlaceholder);
  EXPECT_TRUE(this->workspace().applicationIsInstalled("com.a"));
  EXPECT_TRUE(before.groupContainerPaths->empty());
  EXPECT_EQ(ContentOf(before.bundleContainerPath->child("LorvixMetadata.plist")), "store");
  std::ofstream(Native(before.dataContainerPath->child("document"))) << "mine";

  const Path staging = this->device.stageApp({"com.a", "2.0", {"group.x"}}, true);
  ASSERT_TRUE(this->install(staging, CustomerOptions("com.a")));
  const BundleProxy after = this->proxy("com.a");
  EXPECT_FALSE(after.isPlaceholder);
  EXPECT_EQ(after.dataContainerPath, before.dataContainerPath);
  EXPECT_EQ(ContentOf(after.dataContainerPath->child("document")), "mine");
  EXPECT_FALSE(Exists(*before.bundleContainerPath));
  EXPECT_EQ(after.groupContainerPaths->count("group.x"), 1U);
  this->device.expectNoOrphans(this->registry().bundles());
  // The other way round the full bundle stays.
  this->expectRefused(this->device.stagePlaceholder({"com.a"}), PlaceholderOptions("com.a"));
  EXPECT_FALSE(this->proxy("com.a").isPlaceholder);
}

TYPED_TEST(ApplicationRegistryContract, RefusesWhatItCannotInstall) {
  this->expectRefused(this->device.at("missing"), CustomerOptions("com.a"));
  std::filesystem::create_directories(Native(this->device.at("empty/Payload/Foo.app.zip")));
  this->expectRefused(this->device.at("empty"), CustomerOptions("com.a"));
  // A bundle with another identifier, and a foreign second app.
  const Path foreign = this->device.stageApp({"com.b"}, true, "foreign");
  this->expectRefused(foreign, CustomerOptions("com.a"));
  WriteBundle(RegistryDevice::payload(foreign).childDirectory("Bar.app"), {"com.a"});
  this->expectRefused(foreign, CustomerOptions("com.a"));
  // A plug-in alone must be the requested one; beside an app it may not have the app's name.
  const Path plugin = this->device.at("plugin");
  WriteBundle(RegistryDevice::payload(plugin).childDirectory("Net.vpnplugin"), {"com.a.vpn"});
  this->expectRefused(plugin, CustomerOptions("com.a"));
  WriteBundle(RegistryDevice::payload(plugin).childDirectory("Foo.app"), {"com.a.vpn"});
  this->expectRefused(plugin, CustomerOptions("com.a.vpn"));
  // An info dictionary that cannot be read; a link is no bundle.
  const Path damaged = this->device.stageApp({"com.a"}, false, "damaged");
  std::ofstream(Native(RegistryDevice::payload(damaged).child("Foo.app/Info.plist"))) << "<plist>";
  this->expectRefused(damaged, CustomerOptions("com.a"));
  std::filesystem::create_directories(Native(RegistryDevice::payload(this->device.at("link"))));
  std::filesystem::create_directory_symlink(
      Native(foreign.childDirectory("Payload/Bar.app")),
      Native(RegistryDevice::payload(this->device.at("link")).child("Foo.app")));
  this->expectRefused(this->device.at("link"), CustomerOptions("com.a"));
  // Options that say nothing.
  const Path good = this->device.stageApp({"com.a"}, false, "good");
  for (const char* key : {RXBundleIdentifierKey, RXPackageTypeKey, RXInstallTypeKey}) {
    PlistDictionary options = CustomerOptions("com.a");
    options.erase(key);
    this->expectRefused(good, options);
  }
  EXPECT_TRUE(this->registry().bundles().empty());
}

TYPED_TEST(ApplicationRegistryContract, BlacklistHoldsUnlessSkipped) {
  const Path staging = this->device.stageApp({"com.velto.never"});
  PlistDictionary options = CustomerOptions("com.velto.never");
  options.set(RXSkipBlacklistKey, PlistValue(1));  // a number is no boolean
  this->expectRefused(staging, options);
  options.erase(RXSkipBlacklistKey);
  this->expectRefused(staging, options);
  // The same for the plug-in beside an app.
  const Path beside = this->device.stageApp({"com.a"}, false, "beside");
  WriteBundle(RegistryDevice::payload(beside).childDirectory("N.vpnplugin"), {"com.velto.never"});
  PlistDictionary plain = CustomerOptions("com.a");
  plain.erase(RXSkipBlacklistKey);
  this->expectRefused(beside, plain);
  EXPECT_TRUE(this->install(staging, CustomerOptions("com.velto.never")));
}

TYPED_TEST(ApplicationRegistryContract, PluginAloneTakesTheMetadataAndKeepsItsData) {
  ASSERT_TRUE(this->registry().registerIdentifier("com.vpn"));
  const BundleProxy known = this->proxy("com.vpn");
  EXPECT_EQ(known.bundleType, "VPNPlugin");
  EXPECT_FALSE(known.foundBackingBundle);
  EXPECT_FALSE(known.bundlePath);
  EXPECT_TRUE(known.groupContainerPaths->empty());
  EXPECT_FALSE(this->workspace().applicationIsInstalled("com.vpn"));
  ASSERT_TRUE(this->registry().registerIdentifier("com.vpn"));

  const Path staging = this->device.at("Staging");
  WriteBundle(RegistryDevice::payload(staging).childDirectory("Net.vpnplugin"), {"com.vpn"});
  std::ofstream(Native(staging.child("Manifest.plist"))) << "m";
  ASSERT_TRUE(this->install(staging, CustomerOptions("com.vpn")));
  const BundleProxy installed = this->proxy("com.vpn");
  EXPECT_TRUE(installed.foundBackingBundle);
  EXPECT_EQ(installed.dataContainerPath, known.dataContainerPath);
  EXPECT_EQ(ContentOf(installed.bundleContainerPath->child("Manifest.plist")), "m");
  this->device.expectNoOrphans(this->registry().bundles());
  // An app may not take over the plug-in's identifier, and with it its data.
  this->expectRefused(this->device.stageApp({"com.vpn"}), CustomerOptions("com.vpn"));
}

TYPED_TEST(ApplicationRegistryContract, RepeatedRequestIsSatisfiedByTheFirst) {
  const Path staging = this->device.stageApp({"com.a"});
  ASSERT_TRUE(this->install(staging, CustomerOptions("com.a")));
  const BundleProxy first = this->proxy("com.a");
  EXPECT_TRUE(this->install(staging, CustomerOptions("com.a")));
  // As a resumed migration leaves it: made again, with metadata that came late.
  std::filesystem::create_directories(Native(RegistryDevice::payload(staging)));
  std::ofstream(Native(staging.child("GeoJSON"))) << "late";
  EXPECT_TRUE(this->install(staging, CustomerOptions("com.a"))) << this->error.description();
  EXPECT_FALSE(Exists(staging));
  EXPECT_EQ(this->proxy("com.a").bundlePath, first.bundlePath);
  EXPECT_EQ(ContentOf(first.bundleContainerPath->child("GeoJSON")), "late");
  // An app that is installed wants no bundle, whichever package it came from; another does.
  EXPECT_TRUE(this->install(this->device.at("Other"), CustomerOptions("com.a")));
  EXPECT_EQ(this->proxy("com.a").bundlePath, first.bundlePath);
  this->expectRefused(staging, CustomerOptions("com.b"));

  const Path placeholder = this->device.stagePlaceholder({"com.p"});
  ASSERT_TRUE(this->install(placeholder, PlaceholderOptions("com.p")));
  EXPECT_TRUE(this->install(placeholder, PlaceholderOptions("com.p")));
}

TYPED_TEST(ApplicationRegistryContract, BuiltInAppsAreInstalledAndNewerOnesWin) {
  this->device.addBuiltIn("Mail.app", {"com.mail", "10.2", {"group.mail"}});
  std::filesystem::create_directory_symlink(Native(this->device.at("Applications/Mail.app")),
                                            Native(this->device.at("Applications/Linked.app")));
  EXPECT_TRUE(this->workspace().applicationIsInstalled("com.mail"));
  const BundleProxy builtIn = this->proxy("com.mail");
  EXPECT_EQ(builtIn.bundlePath, this->device.at("Applications/Mail.app"));
  EXPECT_FALSE(builtIn.bundleContainerPath);
  EXPECT_TRUE(builtIn.foundBackingBundle);
  EXPECT_EQ(builtIn.groupContainerPaths->count("group.mail"), 1U);
  ASSERT_TRUE(builtIn.dataContainerPath);
  EXPECT_EQ(this->proxy("com.mail").dataContainerPath, builtIn.dataContainerPath);

  // Older: reported, failed and discarded, as often as it is asked for.
  const Path staging = this->device.stageApp({"com.mail", "9.12"}, true);
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(this->install(staging, CustomerOptions("com.mail")));
    EXPECT_TRUE(this->error);
    ASSERT_EQ(this->reports.size(), 1U);
    EXPECT_EQ(*this->reports[0].findString("Error"), RXErrorApplicationAlreadyInstalled);
    EXPECT_FALSE(Exists(staging));
  }
  EXPECT_EQ(this->proxy("com.mail").bundlePath, builtIn.bundlePath);
  this->expectRefused(this->device.stagePlaceholder({"com.mail"}), PlaceholderOptions("com.mail"));

  // The same version, or a newer one, is installed and counts.
  for (const char* version : {"10.2", "10.10"}) {
    ASSERT_TRUE(
        this->install(this->device.stageApp({"com.mail", version}), CustomerOptions("com.mail")));
    const BundleProxy installed = this->proxy("com.mail");
    EXPECT_EQ(installed.bundleVersion, version);
    EXPECT_TRUE(installed.bundleContainerPath);
    EXPECT_EQ(installed.dataContainerPath, builtIn.dataContainerPath);
  }
  this->device.expectNoOrphans(this->registry().bundles());
}

TYPED_TEST(ApplicationRegistryContract, IdentifiersAreNoFileNames) {
  const std::vector<std::string> identifiers{"../../etc",
                                             "/",
                                             "..",
                                             "a/b",
                                             std::string(10'000, 'x'),
                                             "com.\xC3\xBC\n%s'\"; --",
                                             std::string("nul\0inside", 10)};
  for (const std::string& identifier : identifiers) {
    const Path staging = this->device.stageApp({identifier, "1", {identifier}});
    ASSERT_TRUE(this->install(staging, CustomerOptions(identifier))) << identifier;
    EXPECT_TRUE(this->workspace().applicationIsInstalled(identifier));
    EXPECT_EQ(this->proxy(identifier).bundleIdentifier, identifier);
  }
  EXPECT_FALSE(this->workspace().applicationIsInstalled("nul"));
  EXPECT_EQ(this->registry().bundles().size(), identifiers.size());
  this->device.expectNoOrphans(this->registry().bundles());
}

TYPED_TEST(ApplicationRegistryContract, BundleNamesAreBytesAndForeignItemsStay) {
  const Path staging = this->device.at("Staging");
  const std::string name = StringFromFileSystemRepresentation("\xFF\x01 %s\n.app");
  WriteBundle(RegistryDevice::payload(staging).childDirectory(name), {"com.a"});
  std::ofstream(Native(RegistryDevice::payload(staging).child("notes"))) << "not understood";
  ASSERT_TRUE(this->install(staging, CustomerOptions("com.a"))) << this->error.description();
  EXPECT_EQ(this->proxy("com.a").bundlePath->lastPathComponent(), name);
  EXPECT_TRUE(Exists(this->proxy("com.a").bundlePath->child("code")));
  EXPECT_EQ(ContentOf(RegistryDevice::payload(staging).child("notes")), "not understood");
}

TYPED_TEST(ApplicationRegistryContract, SafeHarborsAndDataProtection) {
  InstallationService& service = this->registry().service();
  const std::string directory = this->device.root() + "/harbor";
  std::filesystem::create_directories(directory + "/other");
  std::ofstream(directory + "/file") << "x";
  std::filesystem::create_directory_symlink(directory, this->device.root() + "/link");
  EXPECT_NE(0, service.QuorvelRegisterSafeHarborForContainerType(directory, "com.a", 2, nullptr));
  for (const std::string& bad :
       {std::string(), directory + "/file", directory + "/none", this->device.root() + "/link"}) {
    EXPECT_EQ(0, service.QuorvelRegisterSafeHarborForContainerType(bad, "com.b", 2, nullptr));
  }
  EXPECT_NE(0, service.QuorvelRegisterSafeHarborForContainerType(directory, "com.a", 3, nullptr));
  EXPECT_NE(0, service.QuorvelRegisterSafeHarborForContainerType(directory + "/other", "com.a", 2,
                                                                 nullptr));
  const auto harbors = this->registry().harbors();
  ASSERT_EQ(harbors.size(), 2U);
  EXPECT_EQ(harbors[0].path, directory + "/other");
  EXPECT_EQ(harbors[0].containerType, 2);
  EXPECT_EQ(harbors[1].path, directory);

  EXPECT_FALSE(this->registry().dataProtectionUpdated());
  EXPECT_NE(0, service.QuorvelUpdateContainerDataProtectionForMigratorOnly(
                   {{kQVUpdateSystemAppDataContainerDataProtection, PlistValue(true)}}));
  EXPECT_TRUE(this->registry().dataProtectionUpdated());
}

}  // namespace
}  // namespace quorvel::tests
