// Environments in which a migration must not begin: each is told in a line, and nothing changes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include <cerrno>
#include <functional>

#include "host/console/NamespaceRefusal.h"
#include "host/console/ShellWord.h"
#include "tests/support/HostProcess.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/Refusals.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {
namespace {

constexpr const char* kRegistry = "/private/var/quorveld/Library/Registry/registry.db";
constexpr const char* HarborMap = "/private/var/mobile/Library/Quorvel/SafeHarbor.plist";

std::string Map(const std::string& groups) {
  return Dictionary("<key>GroupContainers</key>" + groups);
}

// Findings of a run or of an inspection, as "severity name path".
std::vector<std::string> FindingsOf(const HostRun& run) {
  std::vector<std::string> found;
  const json object = json::parse(run.out);
  for (const json& finding : object["preflight"]) {
    found.push_back(finding["severity"].get<std::string>() + " " +
                    finding["name"].get<std::string>() + " " + finding["path"].get<std::string>());
    EXPECT_FALSE(finding["detail"].get<std::string>().empty());
    EXPECT_FALSE(finding["remedy"].get<std::string>().empty());
  }
  return found;
}

// The run refuses with exactly these findings, a line each and one more, and leaves all as it was;
// an inspection finds the same.
void ExpectRefused(const Device& device, const std::vector<std::string>& expected,
                   const HostSetup& setup = {}) {
  const Facts before = Snapshot(device.root());
  const HostRun run = device.run({"migrate", "--json"}, setup);
  EXPECT_EQ(run.exitCode, 5) << run.out << run.err;
  EXPECT_EQ(FindingsOf(run), expected) << run.out;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), std::ssize(expected) + 1) << run.err;
  const HostRun looked = device.run({"inspect", "--json"}, setup);
  EXPECT_EQ(looked.exitCode, 5) << looked.err;
  EXPECT_EQ(FindingsOf(looked), expected) << looked.out;
  ExpectDocumented({run.out, looked.out});
  EXPECT_EQ(Snapshot(device.root()), before);
}

TEST(PreflightTest, DamagedRecordsRefuseTheRunUnlessItIsForced) {
  const ScratchTree tree;
  struct Case {
    const char* file;
    const char* damage;  // a line of a shell, for $F
    const char* finding;
  };
  const Case cases[] = {
      {kRegistry, "yes | head -c 9000 >$F", "registry-damaged"},
      {kRegistry, "truncate -s $(($(stat -c %s $F) / 2)) $F", "registry-damaged"},
      // Keeps its size and its first page.
      {kRegistry, "yes | dd of=$F bs=4k seek=1 count=1 conv=notrunc", "registry-damaged"},
      {InstallMap, "yes | head -c 9000 >$F", "install-map-damaged"},
      {InstallMap, "sed -i 's,<dict>.*<.dict>,<dict><key>GroupContainers</key><true/></dict>,' $F",
       "install-map-damaged"},
      {InstallMap, "rm $F && mkdir $F", "install-map-unreadable"},
      {HarborMap, "truncate -s $(($(stat -c %s $F) / 2)) $F", "harbor-map-damaged"},
      {HarborMap, "rm $F && mkdir $F", "harbor-map-unreadable"},
      {kRegistry, "rm $F && mkdir $F", "registry-unreadable"}};
  int number = 0;
  for (const Case& one : cases) {
    SCOPED_TRACE(std::to_string(number) + one.finding);
    const Device device(tree / ("device" + std::to_string(number++)));
    device.make();
    ASSERT_EQ(device.registerTunnel(), 0);
    ASSERT_EQ(std::system(
                  ("exec 2>/dev/null; F=" + device.root() + one.file + "; " + one.damage).c_str()),
              0);
    const std::string finding = std::string(one.finding) + " " + one.file;
    ExpectRefused(device, {"refuse " + finding});
    if (one.file == std::string(InstallMap)) {
      const HostRun other = device.run({"migrate", "--force-preflight", "no-space"});
      EXPECT_EQ(other.exitCode, 5);
      const HostRun run = device.run({"migrate", "--json", "--force-preflight", one.finding});
      EXPECT_EQ(FindingsOf(run), std::vector{"forced " + finding});
      EXPECT_NE(run.exitCode, 5);
    }
  }
}

// What must be copied to another disk is two mebibytes of data, two of a bundle and two of a group,
// and a file of a hundred with a hole. With the margin this is more than seven, without any of them
// it is less.
void PutLargeItems(const Device& device) {
  const std::string large(2 << 20, 'x');
  Put(device.container("A 1") + "/Documents/large", large);
  Put(device.container("A 1") + "/Tool One.app/large", large);
  Put(device.root() + Mobile + "/Groups/shared/large", large);
  Put(device.container("A 1") + "/Documents/sparse", "");
  fs::resize_file(device.container("A 1") + "/Documents/sparse", 100 << 20);
}

TEST(PreflightTest, AReadOnlyOrFullFileSystemRefusesTheRun) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  ASSERT_EQ(device.registerTunnel(), 0);
  const std::string containers = device.root() + Mobile + "/Containers";
  const std::string data = std::string(Mobile) + "/Containers";
  EXPECT_TRUE(WithMounts([&] {
    ASSERT_EQ(::mount(device.root().c_str(), device.root().c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(
        ::mount(nullptr, device.root().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
        0);
    const HostRun run = device.run({"migrate", "--json"});
    EXPECT_EQ(run.exitCode, 5);
    const auto found = FindingsOf(run);
    ASSERT_EQ(found.size(), 1U) << run.out;
    EXPECT_TRUE(found[0].starts_with("refuse read-only /private/var/mobile")) << found[0];
  }));
  PutLargeItems(device);
  fs::create_directories(containers);
  const std::tuple<const char*, const char*, bool> sizes[] = {
      {"size=7m", "no-space", true},
      {"size=16m,nr_inodes=20", "no-inodes", true},
      {"size=16m", "", false}};
  for (const auto& [options, name, refused] : sizes) {
    EXPECT_TRUE(WithMounts([&, options = options, name = name, refused = refused] {
      ASSERT_EQ(::mount("tmpfs", containers.c_str(), "tmpfs", 0, options), 0);
      if (refused) {
        ExpectRefused(device, {std::string("refuse ") + name + " " + data});
      } else {
        EXPECT_EQ(FindingsOf(device.run({"inspect", "--json"})), std::vector<std::string>());
      }
    }));
  }
}

bool SetFlags(const std::vector<std::string>& paths, int flags) {
  return std::all_of(paths.begin(), paths.end(), [flags](const std::string& path) {
    const UniqueDescriptor item(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return ::ioctl(item.get(), FS_IOC_SETFLAGS, &flags) == 0;
  });
}

TEST(PreflightTest, WhatMayNotBeMovedIsFound) {
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  const std::string home = Mobile;
  Put(device.root() + InstallMap,
      Map("<dict><key>g</key><dict>" + Entry("Container", home + "/Held") +
          "</dict><key>h</key><dict>" + Entry("Container", home + "/Sealed") + "</dict></dict>"));
  Put(device.root() + home + "/Held/item", "of a group");
  Put(device.root() + home + "/Sealed/item", "of another");
  const std::vector<std::string> fixed = {
      device.root() + home + "/Held/item", device.root() + home + "/Sealed",
      device.container("A 1") + "/Documents", device.root() + home + "/Applications"};
  for (const int flag : {FS_IMMUTABLE_FL, FS_APPEND_FL}) {
    if (!SetFlags(fixed, flag)) {
      (void)SetFlags(fixed, 0);
      GTEST_SKIP() << "the immutable flag cannot be set here";
    }
    ExpectRefused(device, {"refuse immutable " + home + "/Applications",
                           "warning container-not-movable " + home + "/Applications/A 1",
                           "refuse group-not-movable " + home + "/Held",
                           "refuse group-not-movable " + home + "/Sealed"});
    ASSERT_TRUE(SetFlags(fixed, 0));
  }
  EXPECT_EQ(FindingsOf(device.run({"inspect", "--json"})), std::vector<std::string>());
  if (!NoMounts().empty()) return;
  EXPECT_TRUE(WithMounts([&] {
    for (const char* place : {"A 1/Documents", "E5"}) {
      ASSERT_EQ(::mount("tmpfs", device.container(place).c_str(), "tmpfs", 0, nullptr), 0);
    }
    auto found = FindingsOf(device.run({"inspect", "--json"}));
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector{"warning container-not-movable " + home + "/Applications/A 1",
                                  "warning container-not-movable " + home + "/Applications/E5"}));
  }));
}

TEST(PreflightTest, AnOrdinaryUserIsToldWhatHeMayNotMove) {
  if (!NoUnprivilegedCase().empty()) GTEST_SKIP() << NoUnprivilegedCase();
  const ScratchTree tree("/tmp");  // programs may be copied to it and run
  HostSetup setup;
  setup.asNobody = true;
  setup.program = CopyHostTo(tree / "bin");
  setup.environment["LD_LIBRARY_PATH"] = tree / "bin";
  const Device device(tree / "device");
  device.make();
  const std::string home = Mobile;
  ASSERT_EQ(std::system(("chown -R nobody " + device.root()).c_str()), 0);
  const std::string registry = "/private/var/quorveld/Library";
  fs::create_directories(device.inside(home + "/Containers"));
  fs::create_directories(device.inside(registry + "/Registry"));
  ::chmod(device.container("A 1").c_str(), 0555);
  ::chmod(device.container("D4").c_str(), 0600);
  ::chmod((device.container("E5") + "/Documents").c_str(), 0500);
  ASSERT_EQ(::mkdir((device.container("F6") + "/Documents/closed").c_str(), 0), 0);
  ::chmod(device.inside(registry).c_str(), 0700);
  EXPECT_TRUE(WithMounts([&] {
    const std::string containers = device.inside(home + "/Containers");
    ASSERT_EQ(::mount("tmpfs", containers.c_str(), "tmpfs", 0, "mode=0755"), 0);
    fs::create_directory(containers + "/Data");
    const HostRun run = device.run({"migrate", "--json"}, setup);
    EXPECT_EQ(run.exitCode, 5) << run.err;
    auto found = FindingsOf(run);
    std::sort(found.begin(), found.end());
    const std::vector<std::string> expected = {
        "refuse not-permitted " + home + "/Containers",
        "refuse not-permitted " + home + "/Containers/Data",
        "refuse not-permitted " + registry + "/Registry",
        "refuse registry-unreadable " + registry + "/Registry/registry.db",
        "warning container-not-movable " + home + "/Applications/A 1",
        "warning container-not-movable " + home + "/Applications/D4",
        "warning container-not-movable " + home + "/Applications/E5",
        "warning container-not-movable " + home + "/Applications/F6/Documents"};
    EXPECT_EQ(found, expected) << run.err;
  }));
}

TEST(PreflightTest, ARefusedNamespaceIsToldWithTheWayAroundIt) {
  if (!NoUnprivilegedCase().empty()) GTEST_SKIP() << NoUnprivilegedCase();
  const ScratchTree tree("/tmp");  // programs may be copied to it and run
  HostSetup setup;
  setup.asNobody = true;
  setup.program = CopyHostTo(tree / "bin");
  setup.environment["LD_LIBRARY_PATH"] = tree / "bin";
  const Device device(tree / "device");
  device.make();
  const Facts before = Snapshot(device.root());
  for (const auto& [error, remedy] : {std::pair(ENOSPC, "max_user_namespaces"),
                                      {EINVAL, "a kernel that has"},
                                      {EPERM, "as root"}}) {
    EXPECT_TRUE(InChild([&, error = error, remedy = remedy] {
      FailSystemCall(SYS_unshare, error);
      const HostRun run = device.run({"migrate", "--json"}, setup);
      EXPECT_EQ(run.exitCode, 4);
      EXPECT_EQ(json::parse(run.out)["reason"], "namespace-refused") << run.out;
      EXPECT_NE(run.err.find(remedy), std::string::npos) << run.err;
      EXPECT_LE(std::count(run.err.begin(), run.err.end(), '\n'), 3) << run.err;
      ExpectDocumented({run.out});
    }));
  }
  EXPECT_EQ(Snapshot(device.root()), before);
}

TEST(PreflightTest, WordsAreWhatAShellTakesForThem) {
  for (const std::string word : {"plain", "", "a b", "it's", "back\\slash", "tab\tline\nend",
                                 "caf\xc3\xa9 $HOME `x` \"", "raw \xff\x01 %d\\n'"}) {
    const std::string command = "test " + host::ShellWord(word) + " = \"$WORD\"";
    ::setenv("WORD", word.c_str(), 1);
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    EXPECT_EQ(command.find('\x01'), std::string::npos);
  }
  EXPECT_NE(host::RemedyForRefusedNamespace(ENOSPC).find("max_user_namespaces"), std::string::npos);
  EXPECT_EQ(host::RemedyForRefusedNamespace(ENOSYS).find("sysctl"), std::string::npos);
}

}  // namespace
}  // namespace quorvel::testing
