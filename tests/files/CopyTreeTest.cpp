// CopyTree on real trees: everything kept, nothing opened up, nothing written through.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <atomic>
#include <thread>

#include "tests/files/CopyTreeFixture.h"
#include "tests/support/Refusals.h"
#include "tests/support/SystemCallFaults.h"

namespace quorvel {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools

using CopyTreeTest = CopyTreeFixture;

void SetTimes(const std::string& path, timespec access, timespec modification) {
  const timespec times[] = {access, modification};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// One of everything that a copy keeps.
void MakeRichTree(const std::string& root) {
  MakeDirectory(root);
  MakeDirectory(root + "/sub");
  MakeDirectory(root + "/sub/setgid");
  MakeDirectory(root + "/sub/closed");
  WriteFile(root + "/sub/closed/file", "below mode 0");
  for (const unsigned mode : {0U, 0400U, 0604U, 0666U, 07777U}) {
    WriteFile(root + "/mode" + std::to_string(mode), std::string(mode, 'm'));
    if (::geteuid() == 0) {
      ASSERT_EQ(::chown((root + "/mode" + std::to_string(mode)).c_str(), 1234, 4321), 0);
    }
    ASSERT_EQ(::chmod((root + "/mode" + std::to_string(mode)).c_str(), mode), 0);
  }
  WriteFile(root + "/" + std::string(255, '\xc3'), "long name");
  WriteFile(root + "/-n\n%s", "odd name");
  MakeLink("sub/../sub", root + "/link");
  MakeLink(std::string(4000, 'x'), root + "/dangling");
  ASSERT_EQ(::lchown((root + "/dangling").c_str(), ::getuid(), ::getgid()), 0);
  ASSERT_EQ(::mkfifo((root + "/fifo").c_str(), 0600), 0);
  ASSERT_EQ(::chmod((root + "/fifo").c_str(), 0622), 0);
  if (::geteuid() == 0) {
    ASSERT_EQ(::mknod((root + "/device").c_str(), S_IFCHR | 0640, makedev(1, 3)), 0);
  }
  ASSERT_EQ(::link((root + "/mode438").c_str(), (root + "/again").c_str()), 0);
  ASSERT_EQ(::link((root + "/mode438").c_str(), (root + "/sub/again").c_str()), 0);
  ASSERT_EQ(::linkat(AT_FDCWD, (root + "/link").c_str(), AT_FDCWD,
                     (root + "/sub/setgid/same-link").c_str(), 0),
            0);
}

// Attributes, access lists and times for it, those of directories last.
void Adorn(const std::string& root) {
  ASSERT_TRUE(SetAttribute(root + "/again", "user.empty", ""));
  ASSERT_TRUE(SetAttribute(root + "/mode0", "user.binary", std::string("\0\xff\n=", 4)));
  ASSERT_TRUE(SetAttribute(root + "/mode256", "user." + std::string(250, 'n'), "read-only file"));
  ASSERT_TRUE(SetAttribute(root + "/sub", "user.large", std::string(3000, 'v')));
  ASSERT_TRUE(SetAttribute(root + "/mode388", "system.posix_acl_access", AccessListFor(77, 4, 4)));
  ASSERT_TRUE(SetAttribute(root + "/sub", "system.posix_acl_default", AccessListFor(78, 6, 0)));
  SetTimes(root + "/mode0", {1, 1}, {-86400, 123456789});
  SetTimes(root + "/mode256", {5000000000, 999999999}, {4000000000, 1});
  SetTimes(root + "/link", {7, 8}, {9, 10});
  SetTimes(root + "/fifo", {7, 8}, {11, 12});
  ASSERT_EQ(::chmod((root + "/sub/setgid").c_str(), 02751), 0);
  ASSERT_EQ(::chmod((root + "/sub/closed").c_str(), 0), 0);
  SetTimes(root + "/sub/setgid", {1, 2}, {3, 4});
  SetTimes(root + "/sub", {1, 2}, {5, 6});
  SetTimes(root, {1, 2}, {7, 8});
}

TEST_F(CopyTreeTest, KeepsEverythingWhateverTheUmask) {
  if (::geteuid() != 0) GTEST_SKIP() << "makes devices and other people's files";
  MakeRichTree(tree_ / "from");
  Adorn(tree_ / "from");
  const auto source = Snapshot(tree_ / "from");
  ASSERT_GT(source.size(), 15U);
  for (const mode_t mask : {0U, 022U, 077U}) {
    const mode_t before = ::umask(mask);
    const std::string to = tree_ / "to" + std::to_string(mask);
    EXPECT_EQ(copy(tree_ / "from", to), 0);
    EXPECT_EQ(Snapshot(to), source);
    EXPECT_EQ(copy(tree_ / "from", to), 0) << "onto an earlier copy";
    EXPECT_EQ(Snapshot(to), source);
    ::umask(before);
  }
  EXPECT_EQ(Snapshot(tree_ / "from"), source);
  ScratchTree other(OtherFileSystem());
  EXPECT_EQ(copy(tree_ / "from", other / "to/"), 0);
  EXPECT_EQ(Snapshot(other / "to"), source);
}

TEST_F(CopyTreeTest, CopiesSingleItems) {
  WriteFile(tree_ / "file", "bytes", 04600);
  MakeLink("file", tree_ / "link");
  MakeDirectory(tree_ / "empty", 01700);
  for (const char* name : {"file", "link", "empty"}) {
    EXPECT_EQ(copy(tree_ / name, tree_ / std::string("copy-of-") + name), 0);
    EXPECT_EQ(Describe(tree_ / std::string("copy-of-") + name), Describe(tree_ / name));
  }
  // The access times are those of before the copy.
  EXPECT_EQ(StatOf(tree_ / "copy-of-link").st_mtim.tv_nsec, StatOf(tree_ / "link").st_mtim.tv_nsec);
}

TEST_F(CopyTreeTest, NamesTheSocketsThatItLeavesOut) {
  MakeDirectory(tree_ / "from");
  WriteFile(tree_ / "from/file", "x");
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{AF_UNIX, {}};
  (tree_ / "from/socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(socket);
  EXPECT_EQ(copy(tree_ / "from", tree_ / "to"), 0);
  EXPECT_FALSE(Exists(tree_ / "to/socket"));
  EXPECT_EQ(ReadFile(tree_ / "to/file"), "x");
  EXPECT_EQ(leftOut_, std::vector{tree_ / "from/socket"});
  EXPECT_EQ(copy(tree_ / "from/socket", tree_ / "alone"), EOPNOTSUPP);
}

TEST_F(CopyTreeTest, KeepsAttributesOfLinksAndPipes) {
  if (!NoProc().empty()) GTEST_SKIP() << NoProc();
  MakeDirectory(tree_ / "from");
  MakeLink("nowhere", tree_ / "from/link");
  ASSERT_EQ(::mkfifo((tree_ / "from/pipe").c_str(), 0600), 0);
  for (const char* name : {"link", "pipe"}) {
    const std::string path = tree_ / "from/" + name;
    if (::lsetxattr(path.c_str(), "trusted.note", "kept", 4, 0) != 0) {
      GTEST_SKIP() << "no privilege, or no file system, for such attributes";
    }
  }
  EXPECT_EQ(copy(tree_ / "from", tree_ / "to"), 0);
  for (const char* name : {"link", "pipe"}) {
    char value[8] = "";
    EXPECT_EQ(::lgetxattr((tree_ / "to/" + name).c_str(), "trusted.note", value, sizeof value), 4);
    EXPECT_STREQ(value, "kept");
  }
}

// Bytes that tell where they are.
TEST_F(CopyTreeTest, ReplacesFilesAndMergesDirectories) {
  WriteFile(tree_ / "canary", "kept");
  MakeDirectory(tree_ / "from", 0750);
  MakeDirectory(tree_ / "from/sub", 0700);
  WriteFile(tree_ / "from/sub/file", "new", 0600);
  WriteFile(tree_ / "from/link", "new");
  WriteFile(tree_ / "from/dangling", "new");
  WriteFile(tree_ / "from/hard", "new");
  MakeLink("sub", tree_ / "from/becomes-link");
  MakeDirectory(tree_ / "to", 0777);
  MakeDirectory(tree_ / "to/sub", 0777);
  WriteFile(tree_ / "to/sub/file", "old and longer", 0666);
  WriteFile(tree_ / "to/sub/other", "stays");
  MakeLink(tree_ / "canary", tree_ / "to/link");
  MakeLink(tree_ / "planted", tree_ / "to/dangling");
  ASSERT_EQ(::link((tree_ / "canary").c_str(), (tree_ / "to/hard").c_str()), 0);
  WriteFile(tree_ / "to/becomes-link", "old");

  EXPECT_EQ(copy(tree_ / "from", tree_ / "to"), 0);
  EXPECT_EQ(ReadFile(tree_ / "to/sub/other"), "stays");
  EXPECT_EQ(ReadFile(tree_ / "canary"), "kept");
  EXPECT_FALSE(Exists(tree_ / "planted"));
  ::unlink((tree_ / "to/sub/other").c_str());
  SetTimes(tree_ / "to/sub", {}, StatOf(tree_ / "from/sub").st_mtim);
  EXPECT_EQ(Snapshot(tree_ / "to"), Snapshot(tree_ / "from"));
}

TEST_F(CopyTreeTest, RefusesWhatCannotBeReplaced) {
  MakeDirectory(tree_ / "from");
  MakeDirectory(tree_ / "from/inner");
  WriteFile(tree_ / "from/file", "file");
  ASSERT_EQ(::link((tree_ / "from/file").c_str(), (tree_ / "hard").c_str()), 0);
  MakeDirectory(tree_ / "dir");
  WriteFile(tree_ / "dir/file", "stays");
  MakeLink("dir", tree_ / "link");
  MakeLink("from/inner", tree_ / "shortcut");
  const auto before = Snapshot(tree_.path());
  struct Case {
    const char *from, *to;
    int number;
  };
  const Case cases[] = {
      {"from/file", "dir", EISDIR},     {"link", "dir", EISDIR},
      {"from", "dir/file", ENOTDIR},    {"from", "link", ENOTDIR},
      {"from", "from", EINVAL},         {"from", "from/inner", EINVAL},
      {"from", "from/new", EINVAL},     {"from", "from/inner/new", EINVAL},
      {"from", "shortcut/new", EINVAL}, {"from/file", "from/file", EINVAL},
      {"from/file", "hard", EINVAL},    {"missing", "new", ENOENT},
      {"from", "missing/new", ENOENT},  {"from", "dir/..", EINVAL},
      {"from/file", ".", EINVAL},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(copy(tree_ / c.from, tree_ / c.to), c.number) << c.from << " to " << c.to;
  }
  EXPECT_EQ(copy(tree_ / "from", tree_ / "new", kFlags & ~CLONETREE_RECURSIVE), EISDIR);
  EXPECT_EQ(copy(tree_ / "from", tree_ / "new", kFlags & ~CLONETREE_NOFOLLOW_SRC), EINVAL);
  EXPECT_EQ(Snapshot(tree_.path()), before);
}

TEST_F(CopyTreeTest, TakesNoAccessListFromTheDestination) {
  MakeDirectory(tree_ / "from", 0750);
  MakeDirectory(tree_ / "from/sub", 0755);
  WriteFile(tree_ / "from/sub/file", "x", 0640);
  WriteFile(tree_ / "from/file", "x", 0666);
  MakeDirectory(tree_ / "parent");
  ASSERT_TRUE(SetAttribute(tree_ / "parent", "system.posix_acl_default", AccessListFor(99, 7, 7)));
  EXPECT_EQ(copy(tree_ / "from", tree_ / "parent/to"), 0);
  EXPECT_EQ(Snapshot(tree_ / "parent/to"), Snapshot(tree_ / "from"));
  // The same for a directory that is merged into.
  MakeDirectory(tree_ / "merged");
  ASSERT_TRUE(SetAttribute(tree_ / "merged", "system.posix_acl_default", AccessListFor(99, 7, 7)));
  ASSERT_TRUE(SetAttribute(tree_ / "merged", "system.posix_acl_access", AccessListFor(99, 7, 7)));
  EXPECT_EQ(copy(tree_ / "from", tree_ / "merged"), 0);
  EXPECT_EQ(Snapshot(tree_ / "merged"), Snapshot(tree_ / "from"));
}

// What an attribute's place holds differs: memory takes values that a disk refuses.
TEST_F(CopyTreeTest, AnAttributeThatDoesNotFitFailsTheCopy) {
  ScratchTree disk(OtherFileSystem());
  const std::string large(60000, 'v');
  WriteFile(tree_ / "file", "x");
  if (!SetAttribute(tree_ / "file", "user.large", large)) GTEST_SKIP() << "no large attributes";
  WriteFile(disk / "probe", "x");
  if (SetAttribute(disk / "probe", "user.large", large)) GTEST_SKIP() << "no limit on disk";
  const int limit = errno;
  EXPECT_EQ(copy(tree_ / "file", disk / "file"), limit);
  EXPECT_FALSE(Exists(disk / "file"));
  EXPECT_EQ(copy(tree_ / "file", tree_ / "again"), 0);
  EXPECT_EQ(AttributesOf(tree_ / "again").at("user.large"), large);
}

TEST_F(CopyTreeTest, ADestinationWithoutAttributesTakesOnlyItemsWithout) {
  EXPECT_TRUE(InChild([&] {
    WriteFile(tree_ / "plain", "x");
    WriteFile(tree_ / "marked", "x");
    ASSERT_TRUE(SetAttribute(tree_ / "marked", "user.mark", "x"));
    FailSystemCall(SYS_fsetxattr, ENOTSUP);
    EXPECT_EQ(copy(tree_ / "plain", tree_ / "plain2"), 0);
    EXPECT_EQ(copy(tree_ / "marked", tree_ / "marked2"), ENOTSUP);
  }));
}

TEST_F(CopyTreeTest, AsNobodyKeepsWhatItMayAndLendsNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs files of others";
  MakeDirectory(tree_ / "from");
  WriteFile(tree_ / "from/setuid", "x", 06755);
  WriteFile(tree_ / "from/group", "x", 0664);
  WriteFile(tree_ / "from/own", "x", 0640);
  ASSERT_EQ(::chown((tree_ / "from/own").c_str(), kNobody, kNobody), 0);
  ASSERT_EQ(::chmod((tree_ / "from/own").c_str(), 06760), 0);
  WriteFile(tree_ / "from/lent", "x");
  ASSERT_EQ(::chown((tree_ / "from/lent").c_str(), 0, kNobody), 0);
  ASSERT_EQ(::chmod((tree_ / "from/lent").c_str(), 04755), 0);
  ASSERT_EQ(::chmod(tree_.path().c_str(), 0777), 0);
  EXPECT_TRUE(InChild([&] {
    BecomeNobody();
    EXPECT_EQ(copy(tree_ / "from", tree_ / "to"), 0);
    EXPECT_EQ(StatOf(tree_ / "to/setuid").st_mode & 07777, 0755U);
    EXPECT_EQ(StatOf(tree_ / "to/lent").st_mode & 07777, 0755U) << "with its own group";
    EXPECT_EQ(StatOf(tree_ / "to/group").st_mode & 07777, 0644U);
    EXPECT_EQ(StatOf(tree_ / "to/own").st_mode & 07777, 06760U);
    EXPECT_EQ(StatOf(tree_ / "to/setuid").st_uid, kNobody);
    // Its own directories without permissions, deeper than what stays open.
    const std::string closed = tree_ / "to/closed";
    MakeDirectory(closed);
    MakeDeep(closed, 25, "d", true);
    std::string path = closed;
    std::vector<std::string> all;
    for (int i = 0; i < 25; ++i) all.push_back(path += "/d");
    for (auto at = all.rbegin(); at != all.rend(); ++at) ::chmod(at->c_str(), 0500);
    EXPECT_EQ(copy(closed, tree_ / "to/closed2"), 0);
    EXPECT_EQ(Snapshot(tree_ / "to/closed2"), Snapshot(closed));
    ASSERT_EQ(::chmod((tree_ / "to/own").c_str(), 0), 0);
    EXPECT_EQ(copy(tree_ / "to/own", tree_ / "to/unread"), EACCES);
    EXPECT_EQ(copy(tree_ / "from", tree_ / "from/../from2/x"), ENOENT);
  }));
}

// Another thread looks at the copy all the time.
TEST_F(CopyTreeTest, IsNeverMoreAccessibleThanTheSource) {
  MakeDirectory(tree_ / "from", 0711);
  for (int i = 0; i < 300; ++i) {
    WriteFile(tree_ / "from/" + std::to_string(i), Pattern(200000), i % 2 == 0 ? 0600 : 0640);
  }
  MakeDirectory(tree_ / "to", 0777);
  std::atomic<bool> stop{false};
  std::atomic<long> seen{0};
  std::thread other([&] {
    for (int i = 0; !stop; i = (i + 1) % 300) {
      struct stat info;
      const std::string path = tree_ / "to/" + std::to_string(i);
      if (::lstat(path.c_str(), &info) != 0) continue;
      ++seen;
      EXPECT_EQ(info.st_mode & (i % 2 == 0 ? 0177 : 0137), 0U) << path;
      EXPECT_EQ(StatOf(tree_ / "to").st_mode & 066, 0U);
    }
  });
  EXPECT_EQ(copy(tree_ / "from", tree_ / "to"), 0);
  while (seen == 0) std::this_thread::yield();
  stop = true;
  other.join();
}

}  // namespace
}  // namespace quorvel
