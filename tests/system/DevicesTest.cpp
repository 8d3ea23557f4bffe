// Attached images and mounts, from made kernel directories and from the real ones.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "platform/linux/system/HardwareRegistryLinux.h"
#include "platform/linux/system/MountTableLinux.h"
#include "tests/support/FakeHardwareRegistry.h"
#include "tests/support/Refusals.h"
#include "tests/support/TemporaryTree.h"
#include "tests/support/Threads.h"

namespace quorvel::onlinux {
namespace {

using testing::FakeHardwareRegistry;
using testing::TemporaryTree;

// A block-device directory as the kernel lays it out: loop2 and loop10 attached, loop2 with
// partitions, loop0 and a disk not.
void MakeBlockTree(const TemporaryTree& tree) {
  for (const char* device : {"loop0", "sda", "sda/sda1", "loop2/loop2p1", "loop2/loop2p10",
                             "loop2/loop2p2", "loop2/queue", "loop10/holders", "loopback", "loop",
                             "loop99999999999999999999", "loop2/loop2px"}) {
    std::filesystem::create_directories(tree.at(device));
  }
  tree.write("loop2/loop/backing_file", "/images/developer disk\n");
  tree.write("loop10/loop/backing_file", "/images/b\n");
}

// The same tree in the real and in the fake registry: what is told of one must hold for both.
class RegistryContract : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    MakeBlockTree(tree_);
    real_ = std::make_unique<HardwareRegistryLinux>(tree_.path());
    const HardwareEntry controller = fake_.addService(HRVDKXControllerClass);
    const HardwareEntry drive2 = fake_.addChild(controller, HRVDKXHDDriveClass);
    const HardwareEntry whole2 = fake_.addChild(drive2, HRMediaClass, "loop2");
    for (const char* name : {"loop2p1", "loop2p2", "loop2p10"}) {
      fake_.addChild(whole2, HRMediaClass, name);
    }
    const HardwareEntry drive10 = fake_.addChild(controller, HRVDKXHDDriveClass);
    fake_.addChild(drive10, HRMediaClass, "loop10");
  }
  HardwareRegistry& registry() {
    return GetParam() ? static_cast<HardwareRegistry&>(*real_) : fake_;
  }
  // What an iterator gives, as class initials and names; releases everything.
  std::string walk(HardwareIterator iterator) {
    std::string text;
    while (const HardwareEntry entry = registry().next(iterator)) {
      const auto name = registry().stringProperty(entry, HRBSDNameKey);
      if (registry().conformsTo(entry, HRVDKXHDDriveClass)) text += "drive ";
      if (registry().conformsTo(entry, HRMediaClass)) text += name.value_or("?") + " ";
      registry().release(entry);
    }
    registry().release(iterator);
    return text;
  }

  TemporaryTree tree_;
  std::unique_ptr<HardwareRegistryLinux> real_;
  FakeHardwareRegistry fake_;
};

TEST_P(RegistryContract, WalksChildrenAndDescendantsInOrder) {
  const HardwareEntry controller = registry().firstMatchingService(HRVDKXControllerClass);
  ASSERT_NE(controller, 0U);
  EXPECT_TRUE(registry().conformsTo(controller, HRVDKXControllerClass));
  EXPECT_FALSE(registry().conformsTo(controller, HRMediaClass));
  EXPECT_EQ(registry().stringProperty(controller, HRBSDNameKey), std::nullopt);
  HardwareIterator iterator = 0;
  ASSERT_EQ(registry().createDescendantIterator(controller, HRServicePlane, &iterator), 0);
  EXPECT_EQ(walk(iterator), "drive loop2 loop2p1 loop2p2 loop2p10 drive loop10 ");
  ASSERT_EQ(registry().createChildIterator(controller, HRServicePlane, &iterator), 0);
  const HardwareEntry drive = registry().next(iterator);
  EXPECT_EQ(walk(iterator), "drive ");
  ASSERT_EQ(registry().createDescendantIterator(drive, HRServicePlane, &iterator), 0);
  EXPECT_EQ(walk(iterator), "loop2 loop2p1 loop2p2 loop2p10 ");
  registry().release(drive);
  registry().release(controller);
  EXPECT_FALSE(registry().conformsTo(controller, HRVDKXControllerClass)) << "still held";
}

TEST_P(RegistryContract, CountsWhatIsHeldAndRefusesWhatIsNot) {
  const HardwareEntry first = registry().firstMatchingService(HRVDKXControllerClass);
  const HardwareEntry second = registry().firstMatchingService(HRVDKXControllerClass);
  EXPECT_EQ(first, second);
  registry().release(first);
  HardwareIterator iterator = 77;
  EXPECT_NE(registry().createChildIterator(second, "HRPower", &iterator), 0);
  EXPECT_EQ(iterator, 77U) << "filled although it failed";
  ASSERT_EQ(registry().createChildIterator(second, HRServicePlane, &iterator), 0);
  registry().release(iterator);
  EXPECT_EQ(registry().next(iterator), 0U);
  registry().release(second);
  EXPECT_NE(registry().createChildIterator(second, HRServicePlane, &iterator), 0);
  EXPECT_FALSE(registry().conformsTo(second, HRVDKXControllerClass));
  registry().release(second);  // once too often: no one else's reference goes
  EXPECT_EQ(registry().firstMatchingService("HRNoSuchClass"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Both, RegistryContract, ::testing::Values(true, false),
                         [](const auto& which) { return which.param ? "Linux" : "Fake"; });

TEST(HardwareRegistryLinux, FollowsDevicesThatComeAndGo) {
  const TemporaryTree tree;
  HardwareRegistryLinux registry(tree.path());
  EXPECT_EQ(registry.firstMatchingService(HRVDKXControllerClass), 0U);
  tree.write("loop4/loop/backing_file", "/image\n");
  const HardwareEntry drive = registry.firstMatchingService(HRVDKXHDDriveClass);
  ASSERT_NE(drive, 0U);
  HardwareIterator iterator = 0;
  ASSERT_EQ(registry.createDescendantIterator(drive, HRServicePlane, &iterator), 0);
  std::filesystem::remove_all(tree.at("loop4"));
  HardwareIterator afterwards = 0;
  EXPECT_EQ(registry.createDescendantIterator(drive, HRServicePlane, &afterwards), 0);
  EXPECT_EQ(registry.next(afterwards), 0U) << "detached: nothing is below it";
  const HardwareEntry medium = registry.next(iterator);  // of before
  EXPECT_EQ(registry.stringProperty(medium, HRBSDNameKey), "loop4");
  EXPECT_EQ(registry.firstMatchingService(HRVDKXControllerClass), 0U);
  for (const std::uint32_t handle : {drive, iterator, afterwards, medium}) registry.release(handle);
  EXPECT_EQ(registry.stringProperty(medium, HRBSDNameKey), std::nullopt) << "still held";
  EXPECT_EQ(HardwareRegistryLinux(tree.at("missing")).firstMatchingService(HRVDKXControllerClass),
            0U);
}

TEST(HardwareRegistryLinux, ThreadsWalkAtOnceAndNothingStaysHeld) {
  const TemporaryTree tree;
  MakeBlockTree(tree);
  HardwareRegistryLinux registry(tree.path());
  testing::OnThreads(4, [&](int) {
    for (int round = 0; round < 20; ++round) {
      const HardwareEntry controller = registry.firstMatchingService(HRVDKXControllerClass);
      HardwareIterator iterator = 0;
      EXPECT_EQ(registry.createDescendantIterator(controller, HRServicePlane, &iterator), 0);
      std::size_t count = 0;
      while (const HardwareEntry entry = registry.next(iterator)) {
        ++count;
        registry.release(entry);
      }
      EXPECT_EQ(count, 7U);
      registry.release(iterator);
      registry.release(controller);
    }
  });
  // What somebody still held would keep its number.
  const HardwareEntry before = registry.firstMatchingService(HRVDKXControllerClass);
  registry.release(before);
  EXPECT_NE(registry.firstMatchingService(HRVDKXControllerClass), before);
}

std::string Shown(const std::vector<MountedFileSystem>& table) {
  std::string text;
  for (const auto& entry : table) text += "[" + entry.mountedFrom + "|" + entry.mountPoint + "]";
  return text;
}

TEST(MountTableLinux, UndoesEscapesInBothForms) {
  EXPECT_EQ(Shown(ParseMountTable(
                "36 35 98:0 / /mnt/a\\040b\\134040 rw master:1 - ext4 /dev/loop0p1 rw\n"
                "39 35 98:0 /part /bound rw - ext4 /dev/loop0p1 rw\n"  // a part of the same
                "37 35 0:5 / /dev rw,nosuid - tmpfs  rw\n"             // mounted from ""
                "38 35 0:6 / /x rw shared:1 master:2 propagate_from:3 - fuse.a\\040b - rw\n")),
            "[/dev/loop0p1|/mnt/a b\\040][|/bound][|/dev][-|/x]");
  EXPECT_EQ(Shown(ParseMountTable("/dev/loop1 /mnt/tab\\011new\\012hash\\043\\377 ext4 rw 0 0\n"
                                  "none /no\\04 tmpfs rw 0 0")),
            "[/dev/loop1|/mnt/tab\tnew\nhash#\xFF][none|/no\\04]");
}

TEST(MountTableLinux, PassesOverWhatIsNoEntryAndReadsLinesOfAnyLength) {
  EXPECT_EQ(
      Shown(ParseMountTable("\n\n \n1\n1 2\n1 2 3 4 5 6\n1 2 0:1 / /a rw -\n1 2 0:1 / /a rw - t"
                            "\n1 2 0:1 / /a rw opt opt\n\\ \\4 \\40 \\400\n- - - - - -\n")),
      "[\\|\\4][-|-]");
  const TemporaryTree tree;
  const std::string longName(300000, 'n');
  const std::string file = tree.write(
      "mounts", "/dev/" + longName + " /" + longName + " ext4 rw 0 0\n/dev/a /b c d 0 0");
  const auto table = MountTableLinux(file).read();
  ASSERT_EQ(table.size(), 2U);
  EXPECT_EQ(table[0].mountPoint, "/" + longName);
  EXPECT_EQ(table[1].mountPoint, "/b");
}

TEST(MountTableLinux, TellsWhyThereIsNoTable) {
  if (!quorvel::testing::NoProc().empty()) GTEST_SKIP() << quorvel::testing::NoProc();
  const TemporaryTree tree;
  MountTableLinux missing(tree.at("missing"));
  errno = 0;
  EXPECT_TRUE(missing.read().empty());
  EXPECT_EQ(errno, ENOENT);
  MountTableLinux directory(tree.path());
  EXPECT_TRUE(directory.read().empty());
  EXPECT_EQ(errno, EISDIR);
  MountTableLinux empty(tree.write("empty", ""));
  EXPECT_TRUE(empty.read().empty());
  EXPECT_NE(errno, 0);
  // The older table names the device also of what is no file system's own root.
  const auto own = MountTableLinux().read();
  const auto older = MountTableLinux("/proc/self/mounts").read();
  ASSERT_FALSE(own.empty());
  ASSERT_EQ(own.size(), older.size());
  for (std::size_t i = 0; i < own.size(); ++i) {
    EXPECT_EQ(own[i].mountPoint, older[i].mountPoint);
    EXPECT_TRUE(own[i].mountedFrom == older[i].mountedFrom || own[i].mountedFrom.empty());
  }
}

// A small image attached to a loop device and mounted, all undone at the end.
class AttachedImage {
 public:
  // Empty when it worked; else why not.
  std::string attach(const TemporaryTree& tree) {
    const std::string image = tree.write("image", "");
    std::filesystem::resize_file(image, 4 << 20);
    if (std::system(("mkfs.ext4 -q -F " + image + " >/dev/null 2>&1").c_str()) != 0) {
      return "mkfs.ext4 does not work here";
    }
    const UniqueDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    number = control ? ::ioctl(control.get(), LOOP_CTL_GET_FREE) : -1;
    if (number < 0) return "no loop device to be had";
    const std::string device = "/dev/loop" + std::to_string(number);
    loop_ = UniqueDescriptor(::open(device.c_str(), O_RDWR | O_CLOEXEC));
    const UniqueDescriptor file(::open(image.c_str(), O_RDWR | O_CLOEXEC));
    if (!loop_ || ::ioctl(loop_.get(), LOOP_SET_FD, file.get()) != 0) return "cannot attach";
    attached_ = true;
    mountPoint = tree.at("mount point");
    std::filesystem::create_directory(mountPoint);
    if (::mount(device.c_str(), mountPoint.c_str(), "ext4", 0, nullptr) != 0) {
      return "cannot mount";
    }
    mounted_ = true;
    return "";
  }
  void detach() {
    if (mounted_) ::umount(mountPoint.c_str());
    if (attached_) ::ioctl(loop_.get(), LOOP_CLR_FD, 0);
    loop_.reset();  // the device is cleared when its last user has closed it
    mounted_ = attached_ = false;
  }
  ~AttachedImage() { detach(); }

  int number = -1;
  std::string mountPoint;

 private:
  UniqueDescriptor loop_;
  bool attached_ = false;
  bool mounted_ = false;
};

// Names of all media that the registry shows.
std::vector<std::string> AllMedia(HardwareRegistry& registry) {
  std::vector<std::string> names;
  const HardwareEntry controller = registry.firstMatchingService(HRVDKXControllerClass);
  HardwareIterator iterator = 0;
  if (controller == 0 ||
      registry.createDescendantIterator(controller, HRServicePlane, &iterator) != 0) {
    return names;
  }
  while (const HardwareEntry entry = registry.next(iterator)) {
    if (const auto name = registry.stringProperty(entry, HRBSDNameKey)) names.push_back(*name);
    registry.release(entry);
  }
  registry.release(iterator);
  registry.release(controller);
  return names;
}

TEST(Devices, ARealImageIsFoundWhileItIsAttachedAndMounted) {
  if (::geteuid() != 0) GTEST_SKIP() << "attaching an image takes root";
  const TemporaryTree tree("/dev/shm");
  HardwareRegistryLinux registry;
  MountTableLinux mounts;
  AttachedImage image;
  const std::string problem = image.attach(tree);
  if (!problem.empty()) GTEST_SKIP() << problem;
  const std::string name = "loop" + std::to_string(image.number);
  const auto isShown = [&] {
    const auto media = AllMedia(registry);
    return std::find(media.begin(), media.end(), name) != media.end();
  };
  const auto mountedAt = [&]() -> std::string {
    for (const auto& entry : mounts.read()) {
      if (entry.mountedFrom == "/dev/" + name) return entry.mountPoint;
    }
    return "";
  };
  EXPECT_TRUE(isShown());
  EXPECT_EQ(mountedAt(), image.mountPoint);
  image.detach();
  EXPECT_EQ(mountedAt(), "");
  EXPECT_FALSE(isShown());
}

}  // namespace
}  // namespace quorvel::onlinux
