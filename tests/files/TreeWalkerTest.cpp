// Walks: every entry once, in fts's order, whatever the tree; or a walk that says it did not.
#include <sys/mount.h>
#include <sys/syscall.h>

#include <set>
#include <utility>

#include "platform/linux/files/TreeWalkerLinux.h"
#include "tests/support/Refusals.h"
#include "tests/support/TreeTools.h"

namespace quorvel {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools

constexpr int kOptions = FTS_PHYSICAL_OPTION | FTS_NOCHDIR_OPTION | FTS_XDEV_OPTION;
static_assert(kOptions == 0x54);

using Visitor = std::function<void(const TreeWalkEntry&)>;

// The number that ended the walk. Each entry is checked against what its parent and name lead to.
int Walk(const std::string& root, const Visitor& visit) {
  onlinux::TreeWalkerLinux walker;
  const auto walk = walker.open(root.c_str(), kOptions);
  if (walk == nullptr) return errno;
  while (const TreeWalkEntry* entry = walk->read()) {
    struct stat info;
    if (entry->kind != TreeWalkKind::noStat &&
        ::fstatat(entry->parent, entry->name, &info, AT_SYMLINK_NOFOLLOW) == 0) {
      EXPECT_EQ(info.st_ino, entry->info.inode) << entry->path;
    }
    visit(*entry);
  }
  const int number = errno;
  EXPECT_EQ(walk->read(), nullptr);
  EXPECT_EQ(errno, number);
  EXPECT_TRUE(walk->close());
  return number;
}

TEST(TreeWalkerTest, DeliversEveryEntryOnceAndDirectoriesTwice) {
  ScratchTree tree;
  MakeDirectory(tree / "root");
  MakeDirectory(tree / "root/a");
  MakeDirectory(tree / "root/a/b");
  MakeDirectory(tree / "root/c", 0700);
  WriteFile(tree / "root/a/b/file", "x", 04711);
  WriteFile(tree / "root/\xff\n", "x");
  MakeLink("a", tree / "root/link");
  MakeLink("missing", tree / "root/dangling");
  ASSERT_EQ(::mkfifo((tree / "root/fifo").c_str(), 0600), 0);

  std::map<std::string, TreeWalkKind> seen;
  std::vector<std::string> open;
  EXPECT_EQ(Walk(tree / "root//",
                 [&](const TreeWalkEntry& entry) {
                   const std::string path = entry.path;
                   if (entry.kind == TreeWalkKind::directoryAfter) {
                     ASSERT_EQ(open.back(), path);
                     open.pop_back();
                     return;
                   }
                   EXPECT_TRUE(seen.emplace(path, entry.kind).second) << path;
                   EXPECT_EQ(entry.info.mode, StatOf(path).st_mode);
                   EXPECT_TRUE(open.empty() || path.starts_with(open.back() + "/"));
                   if (entry.kind == TreeWalkKind::directoryBefore) open.push_back(path);
                 }),
            0);
  EXPECT_TRUE(open.empty());
  const std::string root = tree / "root";
  using K = TreeWalkKind;
  EXPECT_EQ(seen, (std::map<std::string, K>{{root, K::directoryBefore},
                                            {root + "/a", K::directoryBefore},
                                            {root + "/a/b", K::directoryBefore},
                                            {root + "/c", K::directoryBefore},
                                            {root + "/a/b/file", K::file},
                                            {root + "/\xff\n", K::file},
                                            {root + "/link", K::symbolicLink},
                                            {root + "/dangling", K::symbolicLink},
                                            {root + "/fifo", K::other}}));
}

TEST(TreeWalkerTest, RootsThatAreNoDirectories) {
  ScratchTree tree;
  MakeDirectory(tree / "dir");
  WriteFile(tree / "dir/file", "x");
  MakeLink("dir", tree / "link");
  struct Case {
    std::string root;
    TreeWalkKind kind;
    int number;
  };
  const Case cases[] = {{tree / "dir/file", TreeWalkKind::file, 0},
                        {tree / "link", TreeWalkKind::symbolicLink, 0},
                        {tree / "link/", TreeWalkKind::symbolicLink, 0},
                        {tree / "missing", TreeWalkKind::noStat, ENOENT},
                        {tree / "dir/file/below", TreeWalkKind::noStat, ENOTDIR},
                        {"", TreeWalkKind::noStat, ENOENT}};
  for (const Case& c : cases) {
    int entries = 0;
    EXPECT_EQ(Walk(c.root,
                   [&](const TreeWalkEntry& entry) {
                     ++entries;
                     EXPECT_EQ(entry.kind, c.kind) << c.root;
                     EXPECT_EQ(entry.errorNumber, c.number) << c.root;
                     EXPECT_EQ(entry.parent, AT_FDCWD);
                   }),
              0);
    EXPECT_EQ(entries, 1) << c.root;
  }
  onlinux::TreeWalkerLinux walker;
  EXPECT_EQ(walker.open((tree / "dir").c_str(), FTS_NOCHDIR_OPTION), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST(TreeWalkerTest, DepthIsWalkedWholeWithFewDescriptors) {
  ScratchTree tree;
  const std::pair<int, std::string> shapes[] = {{5000, std::string(200, 'd')}, {20000, "d"}};
  for (const auto& shape : shapes) {
    const int levels = shape.first;
    const std::string& name = shape.second;
    MakeDirectory(tree / "root");
    MakeDeep(tree / "root", levels, name, true);
    EXPECT_TRUE(InChild([&] {
      LimitDescriptors(20);
      int before = 0;
      int after = 0;
      int files = 0;
      EXPECT_EQ(Walk(tree / "root",
                     [&](const TreeWalkEntry& entry) {
                       before += entry.kind == TreeWalkKind::directoryBefore;
                       after += entry.kind == TreeWalkKind::directoryAfter;
                       files += entry.kind == TreeWalkKind::file;
                     }),
                0);
      EXPECT_EQ(before, levels + 1);
      EXPECT_EQ(after, levels + 1);
      EXPECT_EQ(files, levels);
    }));
    RemoveWithSystem(tree / "root");
  }
}

// Directories that come back from closing must go on where they were.
TEST(TreeWalkerTest, WidthAndDepthAtOnceAreWalkedWhole) {
  ScratchTree tree;
  MakeDirectory(tree / "root");
  for (int i = 0; i < 3000; ++i) {
    const std::string name = tree / "root/entry-" + std::to_string(i);
    MakeDirectory(name);
    if (i % 100 == 0) MakeDeep(name, 40, "d");
  }
  std::set<std::string> paths;
  int entries = 0;
  EXPECT_EQ(Walk(tree / "root",
                 [&](const TreeWalkEntry& entry) {
                   if (entry.kind != TreeWalkKind::directoryBefore) return;
                   ++entries;
                   paths.insert(entry.path);
                 }),
            0);
  EXPECT_EQ(entries, 1 + 3000 + 30 * 40);
  EXPECT_EQ(paths.size(), static_cast<std::size_t>(entries));
}

TEST(TreeWalkerTest, ADirectoryIsOpenedAfterItsFirstVisit) {
  ScratchTree tree;
  if (::geteuid() != 0) GTEST_SKIP() << "needs files of others";
  MakeDirectory(tree / "root", 0777);
  MakeDirectory(tree / "root/foreign", 0);
  WriteFile(tree / "root/foreign/file", "x");
  EXPECT_TRUE(InChild([&] {
    BecomeNobody();
    MakeDirectory(tree / "root/own", 0755);
    WriteFile(tree / "root/own/file", "x");
    ASSERT_EQ(::chmod((tree / "root/own").c_str(), 0), 0);
    std::vector<std::pair<std::string, TreeWalkKind>> seen;
    EXPECT_EQ(Walk(tree / "root",
                   [&](const TreeWalkEntry& entry) {
                     const std::string path = entry.path;
                     if (path != tree / "root") seen.emplace_back(path, entry.kind);
                     if (entry.kind != TreeWalkKind::directoryBefore) return;
                     ::chmod(entry.path, 0755);  // as the owner may
                   }),
              0);
    const auto has = [&](const char* path, TreeWalkKind kind) {
      return std::count(seen.begin(), seen.end(), std::pair(tree / path, kind)) == 1;
    };
    EXPECT_EQ(seen.size(), 5U);
    EXPECT_TRUE(has("root/own", TreeWalkKind::directoryBefore));
    EXPECT_TRUE(has("root/own/file", TreeWalkKind::file));
    EXPECT_TRUE(has("root/own", TreeWalkKind::directoryAfter));
    EXPECT_TRUE(has("root/foreign", TreeWalkKind::directoryBefore));
    EXPECT_TRUE(has("root/foreign", TreeWalkKind::unreadableDirectory));
  }));
}

// What goes between its listing and its visit is handed over as gone, not passed over.
TEST(TreeWalkerTest, VanishedEntriesAreDelivered) {
  ScratchTree tree;
  MakeDirectory(tree / "root");
  MakeDirectory(tree / "root/dir");
  std::vector<std::pair<TreeWalkKind, int>> seen;
  const auto visit = [&](const TreeWalkEntry& entry) {
    seen.emplace_back(entry.kind, entry.errorNumber);
    if (entry.kind == TreeWalkKind::directoryBefore && entry.parent != AT_FDCWD) {
      ::rmdir(entry.path);
    }
    if (entry.kind == TreeWalkKind::file) {
      ::unlink((tree / "root/a").c_str());
      ::unlink((tree / "root/b").c_str());
    }
  };
  EXPECT_EQ(Walk(tree / "root", visit), 0);
  using K = TreeWalkKind;
  EXPECT_EQ(seen, (std::vector<std::pair<K, int>>{{K::directoryBefore, 0},
                                                  {K::directoryBefore, 0},
                                                  {K::unreadableDirectory, ENOENT},
                                                  {K::directoryAfter, 0}}));
  seen.clear();
  WriteFile(tree / "root/a", "");
  WriteFile(tree / "root/b", "");
  EXPECT_EQ(Walk(tree / "root", visit), 0);
  EXPECT_EQ(
      seen,
      (std::vector<std::pair<K, int>>{
          {K::directoryBefore, 0}, {K::file, 0}, {K::noStat, ENOENT}, {K::directoryAfter, 0}}));
}

TEST(TreeWalkerTest, OtherDevicesAreDeliveredButNotEntered) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  EXPECT_TRUE(WithMounts([] {
    ScratchTree tree;
    MakeDirectory(tree / "root");
    MakeDirectory(tree / "root/mounted");
    ASSERT_EQ(::mount("tmpfs", (tree / "root/mounted").c_str(), "tmpfs", 0, nullptr), 0);
    WriteFile(tree / "root/mounted/file", "x");
    std::vector<TreeWalkKind> kinds;
    EXPECT_EQ(Walk(tree / "root", [&](const TreeWalkEntry& e) { kinds.push_back(e.kind); }), 0);
    EXPECT_EQ(kinds, (std::vector{TreeWalkKind::directoryBefore, TreeWalkKind::directoryBefore,
                                  TreeWalkKind::directoryAfter, TreeWalkKind::directoryAfter}));
    ::umount((tree / "root/mounted").c_str());
  }));
}

TEST(TreeWalkerTest, NoWalkEndsShortInSilence) {
  ScratchTree tree;
  MakeDirectory(tree / "root");
  MakeDeep(tree / "root", 30, "d", true);
  EXPECT_TRUE(InChild([&] {
    FailSystemCall(SYS_getdents64, EIO);
    EXPECT_EQ(Walk(tree / "root", [](const TreeWalkEntry&) {}), EIO);
  }));
  // Two descriptors are too few, and that must be told, too.
  EXPECT_TRUE(InChild([&] {
    LimitDescriptors(4);
    EXPECT_EQ(Walk(tree / "root", [](const TreeWalkEntry&) {}), EMFILE);
  }));
  // A directory between the root and the walk's place moves away.
  MakeDirectory(tree / "canary");
  WriteFile(tree / "canary/kept", "x");
  std::string middle = tree / "root";
  for (int i = 0; i < 10; ++i) middle += "/d";
  bool strayed = false;
  EXPECT_EQ(Walk(tree / "root",
                 [&](const TreeWalkEntry& entry) {
                   if (std::string(entry.name) == "kept") strayed = true;
                   if (std::string(entry.path).size() != middle.size() + 40) return;
                   ::rename(middle.c_str(), (tree / "canary/moved").c_str());
                 }),
            ESTALE);
  EXPECT_FALSE(strayed);
}

}  // namespace
}  // namespace quorvel
