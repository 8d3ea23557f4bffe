// CopyTree at its limits: holes, files that change, depth, hard links and no space.
#include <sys/mount.h>
#include <sys/syscall.h>

#include <atomic>
#include <thread>
#include <utility>

#include "tests/files/CopyTreeFixture.h"
#include "tests/support/Refusals.h"
#include "tests/support/SystemCallFaults.h"

namespace quorvel {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools

using CopyTreeLimitsTest = CopyTreeFixture;

void MakeSparse(const std::string& path, off_t size, const std::vector<off_t>& dataAt) {
  const UniqueDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644));
  ASSERT_EQ(::ftruncate(file.get(), size), 0);
  for (const off_t at : dataAt) ASSERT_EQ(::pwrite(file.get(), "data", 4, at), 4);
}

TEST_F(CopyTreeLimitsTest, KeepsDataAndHolesHoweverTheKernelHelps) {
  ScratchTree disk(OtherFileSystem());
  for (const ScratchTree* place : {&tree_, &disk}) {
    const std::string from = *place / "from";
    MakeDirectory(from);
    for (const std::size_t size :
         {0U, 1U, 4095U, 65535U, 65536U, 65537U, 262144U, 262145U, 3000001U}) {
      WriteFile(from + "/" + std::to_string(size), Pattern(size));
    }
    constexpr off_t kMiB = 1 << 20;
    MakeSparse(from + "/hole", 1000 * kMiB, {});
    MakeSparse(from + "/small-hole", 5000, {});
    MakeSparse(from + "/holes", 30 * kMiB, {kMiB, 10 * kMiB + 17, 20 * kMiB});
    MakeSparse(from + "/ends-with-data", 10 * kMiB, {0, 10 * kMiB - 4});
    const UniqueDescriptor reserved(::open((from + "/reserved").c_str(), O_WRONLY | O_CREAT, 0600));
    ::fallocate(reserved.get(), 0, 0, 4 * kMiB);

    for (const long call : {-1L, long{SYS_copy_file_range}, long{SYS_ioctl}}) {
      const std::string to = *place / "to" + std::to_string(call);
      EXPECT_TRUE(InChild([&] {
        if (call >= 0) FailSystemCall(call, call == SYS_ioctl ? ENOTTY : EXDEV);
        EXPECT_EQ(copy(from, to), 0);
      }));
      for (const auto& entry : std::filesystem::directory_iterator(from)) {
        const std::string name = "/" + entry.path().filename().string();
        const auto source = StatOf(from + name);
        const auto made = StatOf(to + name);
        EXPECT_EQ(made.st_size, source.st_size) << name;
        EXPECT_LE(made.st_blocks, source.st_blocks + 16) << name;
        if (source.st_size < 40 * kMiB) {
          EXPECT_TRUE(ReadFile(from + name) == ReadFile(to + name)) << name;
        }
      }
      RemoveWithSystem(to);
    }
  }
}

TEST_F(CopyTreeLimitsTest, ReadsFilesThatDoNotKnowTheirSize) {
  if (!NoProc().empty()) GTEST_SKIP() << NoProc();
  EXPECT_EQ(copy("/proc/version", tree_ / "version"), 0);
  EXPECT_EQ(ReadFile(tree_ / "version"), ReadFile("/proc/version"));
  EXPECT_FALSE(ReadFile(tree_ / "version").empty());
}

TEST_F(CopyTreeLimitsTest, AFileThatChangesMeanwhileEndsTheCopyInTime) {
  const std::string path = tree_ / "changing";
  WriteFile(path, Pattern(1 << 20));
  std::atomic<bool> stop{false};
  std::thread other([&] {
    const UniqueDescriptor file(::open(path.c_str(), O_WRONLY | O_APPEND));
    const std::string block = Pattern(1 << 16);
    for (int i = 0; !stop; ++i) {
      if (::write(file.get(), block.data(), block.size()) < 0) return;
      if (i % 64 == 63) ::ftruncate(file.get(), 1000);
    }
  });
  for (int i = 0; i < 100; ++i) {
    const int number = copy(path, tree_ / "copy");
    EXPECT_EQ(number, 0);
    EXPECT_LE(StatOf(tree_ / "copy").st_size, 16 << 20);
  }
  stop = true;
  other.join();
}

TEST_F(CopyTreeLimitsTest, AMountOfTheDestinationInTheSourceIsNotCopiedForEver) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  EXPECT_TRUE(WithMounts([&] {
    MakeDirectory(tree_ / "from");
    MakeDirectory(tree_ / "from/mount");
    MakeDirectory(tree_ / "to");
    ASSERT_EQ(
        ::mount((tree_ / "to").c_str(), (tree_ / "from/mount").c_str(), nullptr, MS_BIND, nullptr),
        0);
    EXPECT_EQ(copy(tree_ / "from", tree_ / "to"), EINVAL);
    EXPECT_EQ(::umount((tree_ / "from/mount").c_str()), 0);
  }));
}

TEST_F(CopyTreeLimitsTest, DepthNeedsNeitherDescriptorsNorPaths) {
  const std::pair<int, std::string> shapes[] = {{5000, std::string(200, 'd')}, {20000, "d"}};
  for (const auto& [levels, name] : shapes) {
    MakeDirectory(tree_ / "from");
    MakeDeep(tree_ / "from", levels, name, true);
    EXPECT_TRUE(InChild([&] {
      LimitDescriptors(20);
      EXPECT_EQ(copy(tree_ / "from", tree_ / "to"), 0);
    }));
    EXPECT_EQ(DepthOf(tree_ / "to", name), levels);
    for (const char* root : {"from", "to"}) RemoveWithSystem(tree_ / root);
  }
}

// Links to a first copy that no path can name.
TEST_F(CopyTreeLimitsTest, OneFailedCallDoesNotPartTheNamesOfAFileInSilence) {
  struct stat first;
  struct stat second;
  long silent = 0;
  MakeDirectory(tree_ / "from");
  WriteFile(tree_ / "from/one", "text");
  ASSERT_EQ(::link((tree_ / "from/one").c_str(), (tree_ / "from/two").c_str()), 0);
  for (const auto& [counted, number] : {std::pair(tests::CountedCalls::changing, EPERM),
                                        std::pair(tests::CountedCalls::looking, EIO)}) {
    bool fired = true;
    for (long call = 1; fired; ++call) {
      const std::string to = tree_ / ("to" + std::to_string(number) + "-" + std::to_string(call));
      const tests::FaultedRun run =
          tests::RunWithFault([&] { return copy(tree_ / "from", to); }, {call, number, counted});
      if (!run.wasTraced) GTEST_SKIP() << "processes may not be traced here";
      fired = run.fired;
      if (run.exitStatus != 0) continue;
      ++silent;
      ASSERT_EQ(::lstat((to + "/one").c_str(), &first), 0) << call;
      ASSERT_EQ(::lstat((to + "/two").c_str(), &second), 0) << call;
      EXPECT_EQ(first.st_ino, second.st_ino) << "call " << call << " failed with " << number;
    }
  }
  EXPECT_GT(silent, 2);  // the undisturbed copies, and one that was repeated
}

TEST_F(CopyTreeLimitsTest, HardLinksReachAcrossDeepTrees) {
  const std::string name(200, 'd');
  MakeDirectory(tree_ / "from");
  MakeDeep(tree_ / "from", 60, name);
  UniqueDescriptor deepest(::open((tree_ / "from").c_str(), O_RDONLY));
  for (int i = 0; i < 60; ++i) deepest.reset(::openat(deepest.get(), name.c_str(), O_RDONLY));
  ASSERT_EQ(::mknodat(deepest.get(), "one", S_IFREG | 0644, 0), 0);
  for (const char* other : {"a", "z"}) {
    ASSERT_EQ(::linkat(deepest.get(), "one", AT_FDCWD, (tree_ / "from/" + other).c_str(), 0), 0);
  }
  EXPECT_EQ(copy(tree_ / "from", tree_ / "to"), 0);
  EXPECT_EQ(StatOf(tree_ / "to/a").st_nlink, 3U);
  EXPECT_EQ(StatOf(tree_ / "to/a").st_ino, StatOf(tree_ / "to/z").st_ino);
}

TEST_F(CopyTreeLimitsTest, NoSpaceFailsTheCopyAndLeavesNoHalfFile) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  EXPECT_TRUE(WithMounts([&] {
    MakeDirectory(tree_ / "small");
    ASSERT_EQ(::mount("tmpfs", (tree_ / "small").c_str(), "tmpfs", 0, "size=1m,nr_inodes=20"), 0);
    WriteFile(tree_ / "big", Pattern(2 << 20));
    EXPECT_EQ(copy(tree_ / "big", tree_ / "small/big"), ENOSPC);
    EXPECT_FALSE(Exists(tree_ / "small/big"));
    MakeDirectory(tree_ / "many");
    MakeWide(tree_ / "many", 30);
    EXPECT_EQ(copy(tree_ / "many", tree_ / "small/many"), ENOSPC);
  }));
}

}  // namespace
}  // namespace quorvel
