// Directories made with their parents, modes, protection classes, attributes and flushes.
#include <sys/syscall.h>

#include <thread>
#include <utility>

#include "platform/linux/files/FileSystemLinux.h"
#include "tests/support/Refusals.h"
#include "tests/support/TreeTools.h"

namespace quorvel {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools

class FileAttributesTest : public ::testing::Test {
 protected:
  int make(const std::string& path, mode_t mode = 0755) {
    return files_.MakePath(path.c_str(), mode);
  }
  mode_t modeOf(const std::string& path) { return StatOf(path).st_mode & 07777; }

  ScratchTree tree_;
  onlinux::FileSystemLinux files_;
};

TEST_F(FileAttributesTest, MakePathTellsDirectoriesFromEverythingElse) {
  MakeDirectory(tree_ / "there");
  WriteFile(tree_ / "file", "x");
  MakeLink("there", tree_ / "link");
  MakeLink("missing", tree_ / "dangling");
  const std::pair<std::string, int> cases[] = {
      {tree_ / "there", EEXIST},
      {tree_ / "there///", EEXIST},
      {tree_ / "there/.", EEXIST},
      {tree_ / "there/..", EEXIST},
      {"/", EEXIST},
      {".", EEXIST},
      {"", ENOENT},
      {tree_ / "file", ENOTDIR},
      {tree_ / "file/below", ENOTDIR},
      {tree_ / "link", EEXIST},
      {tree_ / "link/", EEXIST},
      {tree_ / "dangling", ENOENT},
      {tree_ / "new", 0},
      {tree_ / "new", EEXIST},
      {tree_ / "a//b/c//", 0},
      {tree_ / "a/x/../y", 0},
      {tree_ / "link/through/it", 0},
      {tree_ / std::string(256, 'n'), ENAMETOOLONG},
  };
  for (const auto& [path, number] : cases) EXPECT_EQ(make(path), number) << path;
  EXPECT_TRUE(Exists(tree_ / "there/through/it"));
  EXPECT_TRUE(Exists(tree_ / "a/y"));
  EXPECT_FALSE(Exists(tree_ / "missing"));
  EXPECT_EQ(files_.MakePath(nullptr, 0755), EFAULT);
}

TEST_F(FileAttributesTest, MakePathGivesTheModeAskedFor) {
  MakeDirectory(tree_ / "setgid", 02755);
  for (const mode_t mask : {0U, 077U, 0777U}) {
    const mode_t before = ::umask(mask);
    const std::string base = tree_ / "setgid/" + std::to_string(mask);
    EXPECT_EQ(make(base + "/b/c", 0755), 0);
    EXPECT_EQ(modeOf(base), 0755U);
    EXPECT_EQ(modeOf(base + "/b/c"), 0755U);
    ::umask(before);
  }
  // Longer than any path, and by many threads at once.
  std::string deep = tree_.path();
  for (int i = 0; i < 60; ++i) deep += "/" + std::string(100, 'd');
  std::vector<std::thread> threads;
  std::vector<int> results(4);
  for (int& result : results) threads.emplace_back([&] { result = make(deep); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::count(results.begin(), results.end(), 0), 1);
  EXPECT_EQ(std::count(results.begin(), results.end(), EEXIST), 3);
  EXPECT_EQ(DepthOf(tree_.path(), std::string(100, 'd')), 60);
}

TEST_F(FileAttributesTest, LchmodNeverGoesThroughALink) {
  if (!NoProc().empty()) GTEST_SKIP() << NoProc();
  WriteFile(tree_ / "file", "x", 0600);
  MakeDirectory(tree_ / "dir", 0700);
  MakeLink("file", tree_ / "link");
  const auto check = [&](mode_t mode) {
    const UniqueDescriptor parent(::open(tree_.path().c_str(), O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(files_.lchmod(parent.get(), "file", mode), 0);
    EXPECT_EQ(files_.lchmod(AT_FDCWD, (tree_ / "dir").c_str(), mode), 0);
    EXPECT_EQ(modeOf(tree_ / "file"), mode);
    EXPECT_EQ(modeOf(tree_ / "dir"), mode);
    EXPECT_EQ(files_.lchmod(parent.get(), "link", 0777), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
    EXPECT_EQ(modeOf(tree_ / "file"), mode);
    EXPECT_EQ(files_.lchmod(parent.get(), "missing", 0777), -1);
    EXPECT_EQ(errno, ENOENT);
  };
  check(04711);
  constexpr long kFchmodat2 = 452;
  onlinux::FileSystemLinux early;  // the child's own: see below
  for (const int number : {ENOSYS, EPERM}) {
    // The descriptors' directory was opened by the parent, so the child must not trust it.
    EXPECT_TRUE(InChild([&] {
      FailSystemCall(kFchmodat2, number);
      const int result = early.lchmod(AT_FDCWD, (tree_ / "file").c_str(), 0640);
      EXPECT_EQ(result, -1);
      EXPECT_EQ(modeOf(tree_ / "file"), 04711U);
    }));
  }
  EXPECT_TRUE(InChild([&] {
    onlinux::FileSystemLinux own;
    FailSystemCall(kFchmodat2, ENOSYS);
    EXPECT_EQ(own.lchmod(AT_FDCWD, (tree_ / "file").c_str(), 0640), 0);
    EXPECT_EQ(modeOf(tree_ / "file"), 0640U);
    EXPECT_EQ(own.lchmod(AT_FDCWD, (tree_ / "link").c_str(), 0777), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
    EXPECT_EQ(own.MakePath((tree_ / "made").c_str(), 0751), 0);
    EXPECT_EQ(modeOf(tree_ / "made"), 0751U);
  }));
}

TEST_F(FileAttributesTest, ProtectionClassesAreKeptOnTheItem) {
  if (!NoProc().empty()) GTEST_SKIP() << NoProc();
  const std::string name = "user.com.velto.quorveld.protectionclass";
  MakeDirectory(tree_ / "dir", 0755);
  const UniqueDescriptor directory(::open((tree_ / "dir").c_str(), O_RDONLY | O_NOFOLLOW));
  EXPECT_EQ(files_.GetProtectionClass(directory.get()), 0);
  EXPECT_EQ(files_.SetProtectionClass(directory.get(), 4), 0);
  EXPECT_EQ(files_.GetProtectionClass(directory.get()), 4);
  EXPECT_EQ(AttributesOf(tree_ / "dir").at(name), std::string("\4\0\0\0", 4));
  EXPECT_EQ(files_.SetProtectionClass(directory.get(), 0x01020304), 0);
  EXPECT_EQ(AttributesOf(tree_ / "dir").at(name), "\4\3\2\1");
  EXPECT_EQ(files_.GetProtectionClass(directory.get()), 0x01020304);
  EXPECT_EQ(files_.SetProtectionClass(directory.get(), -1), -1);
  EXPECT_EQ(errno, EINVAL);
  for (const std::string& value : {std::string(), std::string("abc"), std::string("abcde"),
                                   std::string(100, 'x'), std::string("\0\0\0\xff", 4)}) {
    ASSERT_TRUE(SetAttribute(tree_ / "dir", name, value));
    EXPECT_EQ(files_.GetProtectionClass(directory.get()), -1) << value;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(files_.GetProtectionClass(-1), -1);
  EXPECT_EQ(errno, EBADF);
  // The kernel's own tree has no attributes of users.
  const UniqueDescriptor proc(::open("/proc/self", O_RDONLY | O_DIRECTORY));
  EXPECT_EQ(files_.GetProtectionClass(proc.get()), 0);
  EXPECT_EQ(files_.SetProtectionClass(proc.get(), 4), -1);
}

TEST_F(FileAttributesTest, AttributesGoByTheSystemsNames) {
  const char* name = "com.velto.quorveld.placeholder";
  MakeDirectory(tree_ / "dir");
  MakeLink("dir", tree_ / "link");
  const std::string path = tree_ / "dir";
  char value[8] = {};
  EXPECT_EQ(files_.getxattr(path.c_str(), name, value, 4, 0, XATTR_NOFOLLOW), -1);
  EXPECT_EQ(errno, ENODATA);
  EXPECT_EQ(files_.setxattr(path.c_str(), name, "\1\0\0\0", 4, 0, XATTR_NOFOLLOW), 0);
  EXPECT_EQ(AttributesOf(path).at(std::string("user.") + name), std::string("\1\0\0\0", 4));
  EXPECT_EQ(files_.getxattr(path.c_str(), name, value, sizeof value, 0, 0), 4);
  EXPECT_EQ(files_.getxattr(path.c_str(), name, nullptr, 0, 0, XATTR_NOFOLLOW), 4);
  EXPECT_EQ(files_.getxattr(path.c_str(), name, value, 2, 0, XATTR_NOFOLLOW), -1);
  EXPECT_EQ(errno, ERANGE);
  for (const auto& [position, options] : {std::pair(1U, 1), std::pair(0U, 2)}) {
    EXPECT_EQ(files_.getxattr(path.c_str(), name, value, 4, position, options), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(files_.setxattr(path.c_str(), name, value, 4, position, options), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  // Through the link it would succeed.
  EXPECT_EQ(files_.setxattr((tree_ / "link").c_str(), name, "x", 1, 0, XATTR_NOFOLLOW), -1);
  EXPECT_EQ(files_.getxattr((tree_ / "link").c_str(), name, value, 8, 0, XATTR_NOFOLLOW), -1);
  EXPECT_EQ(files_.getxattr((tree_ / "missing").c_str(), name, value, 8, 0, 1), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileAttributesTest, FlushesReachTheirFileSystem) {
  ScratchTree disk(OtherFileSystem());
  WriteFile(disk / "file", "x");
  MakeLink("missing", disk / "link");
  ASSERT_EQ(::mkfifo((disk / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(files_.SyncDirectory(disk.path().c_str()), 0);
  EXPECT_EQ(files_.SyncDirectory((disk / "file").c_str()), -1);
  EXPECT_EQ(errno, ENOTDIR);
  for (const char* name : {"file", "link", "fifo", ".", ""}) {
    EXPECT_EQ(files_.SyncFileSystem((disk / name).c_str()), 0) << name;
  }
  EXPECT_EQ(files_.SyncFileSystem((disk / "missing").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(InChild([&] {
    FailSystemCall(SYS_syncfs, EIO);
    EXPECT_EQ(files_.SyncFileSystem((disk / "file").c_str()), -1);
    EXPECT_EQ(errno, EIO);
  }));
}

}  // namespace
}  // namespace quorvel
