// Disk images: which drives are mounted where, and the apps on them.
#include <memory>

#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "tests/shared/ConfigurationFixture.h"
#include "tests/support/FaultWrappers.h"

namespace quorvel::tests {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class DiskImages : public ConfigurationFixture {
 protected:
  HardwareEntry controller() { return hardware_.addService(HRVDKXControllerClass); }
  // A drive with a whole medium and its partitions.
  HardwareEntry drive(HardwareEntry parent, const std::vector<std::string>& media) {
    const HardwareEntry entry = hardware_.addChild(parent, HRVDKXHDDriveClass);
    HardwareEntry above = hardware_.addChild(entry, "Scheme");
    for (const std::string& name : media) above = hardware_.addChild(above, HRMediaClass, name);
    return entry;
  }
  void TearDown() override {
    EXPECT_EQ(hardware_.outstandingReferences(), 0U);
    EXPECT_EQ(hardware_.misuses(), 0U);
  }
  const std::unique_ptr<QVGlobalConfiguration> made_ = ConfigurationForRoot::make(root());
  QVGlobalConfiguration& configuration_ = *made_;
};

TEST_F(DiskImages, NoneIsSilence) {
  const LogHandleScope everything(7);
  EXPECT_THAT(configuration_.diskImageApplicationsDirectories(),
              ElementsAre(Path::directory(at("Developer/Applications"))));
  EXPECT_THAT(platform_.log.lines(),
              ElementsAre(LogLine{7, "-[QVGlobalConfiguration diskImageApplicationsDirectories]",
                                  "returning: (file://" + at("Developer/Applications") + "/)",
                                  gLogHandle}));
}

TEST_F(DiskImages, EachMountedDriveOnceInRegistryOrder) {
  const HardwareEntry top = controller();
  drive(top, {"disk1", "disk1s1", "disk1s2"});  // two mounted partitions: the first found
  drive(top, {"disk2"});                        // not mounted
  const HardwareEntry hub = hardware_.addChild(top, "Hub");
  drive(hardware_.addChild(hub, "Port"), {"disk3"});  // not mounted
  drive(hardware_.addChild(hub, "Port"), {"disk4s1"});
  drive(hub, {"disk5s1"});  // behind the first of its hub
  hardware_.addChild(top, "Other");
  drive(top, {"disk6"});
  hardware_.addClass("HRSpecialMedia", HRMediaClass);
  hardware_.addClass("HRSpecialDrive", HRVDKXHDDriveClass);
  const HardwareEntry special = hardware_.addChild(top, "HRSpecialDrive");
  hardware_.addChild(special, "Unrelated", "disk6");
  hardware_.addChild(special, HRMediaClass);  // no name
  hardware_.addChild(special, "HRSpecialMedia", "disk7");
  mounts_.table = {{"/dev/vda", "/"},        {"/dev/disk1s2", "/two"}, {"/dev/disk1s1", "/one"},
                   {"/dev/disk4s1", "/m4"},  {"/dev/disk5s1", "/m5"},  {"/dev/disk6", "/six"},
                   {"/dev/disk6", "/later"}, {"/dev/disk7", "/s\xFF"}, {"/dev/disk", "/no"}};
  EXPECT_THAT(configuration_.diskImageMountPoints(),
              ElementsAre("/one", "/m4", "/six", StringFromFileSystemRepresentation("/s\xFF")));
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
}

TEST_F(DiskImages, FailuresCostWhatTheyConcern) {
  const HardwareEntry top = controller();
  const HardwareEntry broken = drive(top, {"disk1"});
  const HardwareEntry hub = hardware_.addChild(top, "Hub");
  drive(hub, {"disk2"});
  drive(top, {"disk3"});
  mounts_.table = {{"/dev/disk1", "/1"}, {"/dev/disk2", "/2"}, {"/dev/disk3", "/3"}};
  hardware_.failIterators(broken, 5);
  hardware_.failIterators(hub, 5);  // skipped without a word
  EXPECT_THAT(configuration_.diskImageMountPoints(), ElementsAre("/3"));
  EXPECT_THAT(platform_.log.lines(),
              ElementsAre(LogLine{3, "-[QVGlobalConfiguration mountPointForDevice:]",
                                  "HRRegistryEntryCreateIterator failed for deviceObj (" +
                                      std::to_string(broken) + ")"}));
  platform_.log.clear();
  hardware_.failIterators(broken, 0);
  mounts_.table.clear();
  mounts_.failure = EMFILE;
  EXPECT_THAT(configuration_.diskImageMountPoints(), IsEmpty());
  EXPECT_THAT(platform_.log.messages(3), ElementsAre("getmntinfo failed: Too many open files",
                                                     "getmntinfo failed: Too many open files"));
  platform_.log.clear();
  hardware_.failIterators(top, std::int32_t{-536870206});
  EXPECT_THAT(configuration_.diskImageMountPoints(), IsEmpty());
  EXPECT_THAT(platform_.log.lines(),
              ElementsAre(LogLine{3, "-[QVGlobalConfiguration diskImageMountPoints]",
                                  "unable to create controller child iterator: error 0xE00002C2 "
                                  "(-536870206)"}));
}

TEST_F(DiskImages, DirectoriesAndTheirAppsTheLaterOnesWinning) {
  const HardwareEntry top = controller();
  for (const char* disk : {"disk1", "disk2", "disk3", "disk4"}) drive(top, {disk});
  mounts_.table = {{"/dev/disk1", at("one")},
                   {"/dev/disk2", "/private/var/debug_mount2/x"},
                   {"/dev/disk3", at("Developer")},
                   {"/dev/disk4", at("four")}};
  EXPECT_THAT(configuration_.diskImageApplicationsDirectories(),
              ElementsAre(Path::directory(at("one/Applications")),
                          Path::directory(at("Developer/Applications")),
                          Path::directory(at("four/Applications"))));
  app("one/Applications/A.app", "a");
  app("four/Applications/Other.app", "a");
  app("Developer/Applications/D.app", "d");
  app("Applications/S.app", "s");
  const QVBundleMap apps = configuration_.diskImageAppBundleIDToInfoMap();
  EXPECT_THAT(keys(&apps), ElementsAre("a", "d"));
  EXPECT_EQ(*apps.at("a").findString(QVBundleURLKey), at("four/Applications/Other.app"));
  EXPECT_THAT(configuration_.builtInApplicationBundleIDs(), ElementsAre("a", "d", "s"));
}

}  // namespace
}  // namespace quorvel::tests
