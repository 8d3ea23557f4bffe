// Introspection: what a container is found to be, what a marker says of it, and what is removed.
#include "Ravelle/Preview.h"
#include "tests/ravelle/RavelleFixture.h"
#include "tests/support/FaultWrappers.h"

namespace quorvel::tests {
namespace {

constexpr const char* kMarker = "-[QVRavelle _loadAndValidateMigrationMarkerAtURL:] ";

class IntrospectionTest : public RavelleFixture {
 protected:
  std::optional<ContainerRecord> introspect(const std::string& name) {
    early_ = false;
    return makePlugin()->_introspectContainer(legacyPath(name), &early_);
  }
  static std::string field(const std::optional<ContainerRecord>& record, const char* key) {
    const std::string* text = record ? record->findString(key) : nullptr;
    return text != nullptr ? *text : "(none)";
  }
  ContainerRecord marker(const std::string& container, const std::string& type = "App") {
    return {{"ContainerPath", legacy(container)},
            {"BundlePath", legacy(container) + "/Foo.app"},
            {"ContainerType", type},
            {"BundleIdentifier", "com.example.marked"}};
  }
  std::string markerFile(const std::string& container) {
    return legacy(container) + "/" + MigrationMarkerName;
  }
  bool early_ = false;
};

TEST_F(IntrospectionTest, AppWinsOverPluginWhateverTheOrder) {
  makeApp("A", "com.example.a");
  EXPECT_EQ(*introspect("A"), (ContainerRecord{{"ContainerPath", legacy("A")},
                                               {"BundlePath", legacy("A") + "/Foo.app"},
                                               {"ContainerType", "App"},
                                               {"BundleIdentifier", "com.example.a"}}));
  EXPECT_TRUE(early_);
  makeBundle("V", "Tun.vpnplugin", "com.example.v");
  EXPECT_EQ(field(introspect("V"), "ContainerType"), "VPNBundle");
  EXPECT_FALSE(early_);
  // Names chosen so that file systems that sort or hash list them in both orders.
  for (const char* name : {"Aaa.app", "Zzz.app", "0.app", "q.app"}) {
    const std::string container = std::string("B") + name;
    makeBundle(container, "Tun.vpnplugin", "com.example.v");
    makeBundle(container, name, "com.example.b");
    const auto record = introspect(container);
    EXPECT_EQ(field(record, "ContainerType"), "App");
    EXPECT_EQ(field(record, "BundleIdentifier"), "com.example.b");
    EXPECT_EQ(field(record, "SecondBundlePath"), legacy(container) + "/Tun.vpnplugin");
    EXPECT_TRUE(early_);
  }
}

// A container of an app, a VPN plug-in and the marker of neither; one of them cannot be read, once
// or for good, whatever the reason and whichever of them is looked at first.
TEST_F(IntrospectionTest, WhatCannotBeReadLeavesTheWholeContainerAlone) {
  makeApp("A", "com.example.a");
  makeBundle("A", "Tun.vpnplugin", "com.example.v");
  writeFile(markerFile("A"), "damaged");
  const auto before = [this] { return exists(legacy("A") + "/Foo.app/executable"); };
  for (const int number : {EIO, EACCES, EUCLEAN, EBADMSG, ENOKEY, ETIMEDOUT, EREMOTEIO, ENXIO,
                           EAGAIN, EOVERFLOW, ENOTCONN, ENODATA, ELOOP, ENOMEM, EMFILE, E2BIG}) {
    for (const char* operation : {"open", "identifier", "readDictionary"}) {
      for (const int nth : {1, 2, 0}) {
        if (operation == std::string("readDictionary") && nth == 2) continue;  // one marker
        Fault fault(operation, nth, number);
        FaultyBundleReader bundles(platform_.bundles, fault);
        FaultyPropertyListStore lists(platform_.propertyLists, fault);
        platform_.set.bundles = &bundles;
        platform_.set.propertyLists = &lists;
        account_.take();
        log_.take();
        EXPECT_FALSE(introspect("A").has_value()) << operation << nth << ErrnoDescription(number);
        EXPECT_TRUE(fault.fired() && before()) << operation << nth << ErrnoDescription(number);
        EXPECT_LE(fault.calls("open"), 2) << "something was read again";
        const Lines told = account_.take();
        EXPECT_EQ(told.back(), "ended left stays");
        EXPECT_THAT(told[told.size() - 2],
                    ::testing::MatchesRegex("stops introspect (bundle|marker)-unreadable .* " +
                                            std::to_string(number)));
        EXPECT_THAT(log_.takeErrors().back(),
                    HasSubstr(std::string("3 ") + kIntrospect + "QVRavelle: Leaving container " +
                              legacy("A") + " alone because " + legacy("A") + "/"));
      }
    }
  }
  platform_.set.bundles = &platform_.bundles;
  platform_.set.propertyLists = &platform_.propertyLists;
  EXPECT_EQ(field(introspect("A"), "SecondBundlePath"), legacy("A") + "/Tun.vpnplugin");
  // A valid marker says what to do whatever cannot be read.
  writePlist(markerFile("A"), marker("A"));
  Fault always("open", 0, EIO);
  FaultyBundleReader bundles(platform_.bundles, always);
  platform_.set.bundles = &bundles;
  EXPECT_EQ(field(introspect("A"), "BundleIdentifier"), "com.example.marked");
}

TEST_F(IntrospectionTest, TheAccountSaysWhatWentWithAnUnusableContainer) {
  writeFile(legacy("A") + "/Foo.app/Info.plist", "garbage");
  writeFile(legacy("A") + "/Documents/letter", "user data");
  std::filesystem::create_symlink("letter", legacy("A") + "/Documents/link");
  std::filesystem::create_directories(legacy("A") + "/Library");
  EXPECT_FALSE(introspect("A").has_value());
  EXPECT_THAT(
      account_.take(),
      ElementsAre("is empty ", "notes introspect bundle-unusable Foo.app 3840",
                  "stops introspect no-bundle A", "lost 3 16 Documents Library", "ended removed"));
  // What a failed removal left is not lost.
  writeFile(legacy("B") + "/Documents/letter", "user data");
  Fault fault("RemoveTree", 0, EACCES);
  FaultyFileSystem broken(platform_.fileSystem, fault);
  platform_.set.fileSystem = &broken;
  EXPECT_FALSE(introspect("B").has_value());
  EXPECT_THAT(account_.take(), ElementsAre("is empty ", "stops introspect no-bundle B",
                                           "stops removal not-removed B 13", "ended left stays"));
}

TEST_F(IntrospectionTest, UnusableBundlesAreNotRemembered) {
  makeBundle("A", "Foo.APP", "com.example.a");
  writeFile(legacy("B") + "/Bar.app/Info.plist", "garbage");
  writePlist(legacy("B") + "/Tun.vpnplugin/Info.plist", {{"PKBundleIdentifier", 5}});
  writeFile(legacy("C") + "/Documents/letter", "user data");
  for (const char* name : {"A", "B", "C"}) {
    log_.take();
    EXPECT_FALSE(introspect(name).has_value());
    EXPECT_FALSE(exists(legacy(name)));
    EXPECT_EQ(log_.takeErrors().back(), std::string("3 ") + kIntrospect +
                                            "QVRavelle: No app or vpn bundle found in "
                                            "container " +
                                            legacy(name) + " ; removing it");
  }
  makeBundle("D", "Tun.vpnplugin", "com.example.v");
  writeFile(legacy("D") + "/Bar.app/Info.plist", "garbage");
  EXPECT_EQ(field(introspect("D"), "ContainerType"), "VPNBundle");
  EXPECT_THAT(log_.takeErrors(), ElementsAre(std::string("3 ") + kIntrospect +
                                             "QVRavelle: Could not get identifier for bundle at " +
                                             legacy("D") + "/Bar.app"));
}

TEST_F(IntrospectionTest, LinksMakeTheContainerBeLeftAlone) {
  const struct {
    const char* container;
    std::string link;
    std::string message;
  } cases[] = {
      {"A", "Foo.app", "QVRavelle: Skipping container with app symlink at "},
      {"V", "Tun.vpnplugin", "QVRavelle: VPN plugin was symlink; skipping container "},
      {"M", MigrationMarkerName, "QVRavelle: Migration marker was symlink; skipping container "},
  };
  for (const auto& [container, link, message] : cases) {
    makeBundle(container, "Real.app", "com.example.real");
    const std::string path = legacy(container) + "/" + link;
    std::filesystem::create_symlink("Real.app", path);
    EXPECT_FALSE(introspect(container).has_value());
    EXPECT_THAT(log_.takeErrors(), ElementsAre(std::string("3 ") + kIntrospect + message + path));
    EXPECT_TRUE(exists(legacy(container) + "/Real.app/Info.plist"));
  }
}

TEST_F(IntrospectionTest, ContainersThatAreNoDirectories) {
  writeFile(legacy("file"), "stray");
  EXPECT_FALSE(introspect("file").has_value());
  EXPECT_FALSE(exists(legacy("file")));
  log_.take();
  EXPECT_FALSE(introspect("gone").has_value());
  EXPECT_THAT(
      log_.take(),
      ElementsAre(std::string("5 ") + kIntrospect + "QVRavelle: Got ENOENT when introspecting " +
                  legacy("gone") + " ; ignoring (likely raced with quorveld)"));
  std::filesystem::create_directory_symlink(".", legacy("loop"));
  EXPECT_FALSE(introspect("loop").has_value());
  EXPECT_THAT(log_.take(), ElementsAre(HasSubstr("QVRavelle: Found regular file at")))
      << "a link to a directory is refused as no directory";
}

TEST_F(IntrospectionTest, ValidMarkerIsReturnedWholeAndDecidesThePlace) {
  makeBundle("A", "Bar.app", "com.example.other");
  ContainerRecord record = marker("A");
  record.set("Note", PlistDictionary{{"by", "someone"}, {"n", 7}});
  writePlist(markerFile("A"), record, PropertyListFormat::binary);
  EXPECT_EQ(introspect("A"), record);
  EXPECT_TRUE(early_);
  writePlist(markerFile("A"), marker("A", "Other"));
  EXPECT_EQ(field(introspect("A"), "ContainerType"), "Other");
  EXPECT_FALSE(early_);
}

TEST_F(IntrospectionTest, InvalidMarkersYieldOneMessageEachAndAFreshRecord) {
  makeBundle("A", "Foo.app", "com.example.a");
  const std::string file = markerFile("A");
  const auto without = [&](std::initializer_list<const char*> keys) {
    ContainerRecord record = marker("A");
    for (const char* key : keys) record.erase(key);
    return record;
  };
  ContainerRecord number = marker("A");
  number.set("SecondBundlePath", 42);
  const struct {
    ContainerRecord record;
    std::string message;
  } cases[] = {
      {without({"BundlePath", "ContainerType"}),
       "Failed to get bundle path from migration marker "
       "file " +
           file},
      {without({"ContainerType", "ContainerPath"}),
       "Failed to get container type from migration "
       "marker file " +
           file},
      {without({"ContainerPath"}),
       "Failed to get container path from migration marker file " + file},
      {without({"BundleIdentifier"}),
       "Failed to get container bundle ID from migration marker "
       "file " +
           file},
      {number, "Second bundle path was not a string: 42"},
  };
  for (const auto& [record, message] : cases) {
    writePlist(file, record);
    EXPECT_EQ(field(introspect("A"), "BundleIdentifier"), "com.example.a");
    EXPECT_THAT(
        log_.takeErrors(),
        ElementsAre(std::string("3 ") + kMarker + "QVRavelle: " + message,
                    std::string("3 ") + kIntrospect +
                        "QVRavelle: Failed to load migration marker file from file://" + file));
  }
}

TEST_F(IntrospectionTest, MarkerCutAtAnyLengthNeverHidesTheBundle) {
  makeBundle("A", "Foo.app", "com.example.a");
  const std::string file = markerFile("A");
  for (const PropertyListFormat format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    writePlist(file, marker("A"), format);
    const std::string whole = readFile(file);
    for (std::size_t length = 0; length < whole.size(); ++length) {
      writeFile(file, whole.substr(0, length));
      const std::string identifier = field(introspect("A"), "BundleIdentifier");
      // Cut in the white space after the root a marker is still whole.
      if (identifier != "com.example.marked") {
        EXPECT_EQ(identifier, "com.example.a") << length;
        EXPECT_EQ(log_.takeErrors().size(), 2U) << length;
      } else {
        EXPECT_GE(length + 1, whole.size());
      }
      log_.take();
    }
  }
}

}  // namespace
}  // namespace quorvel::tests
