// RemoveTree on real trees: arguments, kinds, failures, depth, width, mounts and races.
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include "platform/linux/files/FileSystemLinux.h"
#include "tests/support/Refusals.h"
#include "tests/support/TreeTools.h"

namespace quorvel {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools
using Reports = std::vector<std::pair<std::string, int>>;

struct Listener {
  Reports reports;
  int answer = WIPETREE_PROCEED;
  std::function<void()> onFirst;
};

int Listen(WipeTreeState& state, const char* path, void* context) {
  auto* listener = static_cast<Listener*>(context);
  int number = -1;
  EXPECT_TRUE(state.getErrorNumber(&number));
  listener->reports.emplace_back(path, number);
  if (listener->onFirst) std::exchange(listener->onFirst, nullptr)();
  return listener->answer;
}

class RemoveTreeTest : public ::testing::Test {
 protected:
  // 0, or the errno of the result.
  int remove(const std::string& path, unsigned flags = WIPETREE_RECURSIVE) {
    listener_.reports.clear();
    const auto state = files_.allocateWipeTreeState();
    EXPECT_TRUE(state->setErrorCallback(Listen));
    EXPECT_TRUE(state->setErrorContext(&listener_));
    const int result = files_.RemoveTree(path.c_str(), flags, *state);
    const int number = errno;
    int outside = 0;
    EXPECT_FALSE(state->getErrorNumber(&outside));
    return result == 0 ? 0 : number;
  }

  ScratchTree tree_;
  onlinux::FileSystemLinux files_;
  Listener listener_;
};

TEST_F(RemoveTreeTest, RefusesPathsThatNameNoItemOfADirectory) {
  MakeDirectory(tree_ / "a");
  WriteFile(tree_ / "a/kept", "x");
  const auto before = Snapshot(tree_.path());
  const std::pair<std::string, int> cases[] = {
      {"", EINVAL},
      {".", EINVAL},
      {"..", EINVAL},
      {"/", EBUSY},
      {"///", EBUSY},
      {tree_ / "a/.", EINVAL},
      {tree_ / "a/..", EINVAL},
      {tree_ / "a/../", EINVAL},
      {tree_ / "missing", ENOENT},
      {tree_ / "missing/below", ENOENT},
      {tree_ / "a/kept/below", ENOTDIR},
      {tree_ / std::string(256, 'n'), ENAMETOOLONG},
      {tree_ / std::string(5000, 'n'), ENAMETOOLONG},
  };
  for (const auto& [path, number] : cases) EXPECT_EQ(remove(path), number) << path;
  EXPECT_TRUE(listener_.reports.empty());
  EXPECT_EQ(files_.RemoveTree(nullptr, 1, *files_.allocateWipeTreeState()), -1);
  EXPECT_EQ(Snapshot(tree_.path()), before);
}

TEST_F(RemoveTreeTest, RemovesEveryKindAndFollowsNothing) {
  MakeDirectory(tree_ / "canary");
  WriteFile(tree_ / "canary/kept", "kept");
  MakeDirectory(tree_ / "root");
  const std::string root = tree_ / "root/";
  MakeLink("/", root + "to-root");
  MakeLink("..", root + "to-parent");
  MakeLink("self", root + "self");
  MakeLink("missing", root + "dangling");
  MakeLink("sub", root + "to-sibling");
  MakeLink(tree_ / "canary", root + "to-canary");
  MakeDirectory(root + "sub", 0);
  MakeDirectory(root + "sub2");
  ASSERT_EQ(::link((tree_ / "canary/kept").c_str(), (root + "sub2/hard").c_str()), 0);
  ASSERT_EQ(::mkfifo((root + "fifo").c_str(), 0600), 0);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{AF_UNIX, {}};
  (root + "socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(socket);
  for (const char* name : {"-rf", " ", "new\nline", "\xff\xfe", "%s%n", ".hidden"}) {
    WriteFile(root + name, "x", 0);
  }
  WriteFile(root + std::string(255, '\x80'), "x");
  const auto canary = Snapshot(tree_ / "canary");

  EXPECT_EQ(remove(tree_ / "root"), 0);
  EXPECT_TRUE(listener_.reports.empty());
  EXPECT_FALSE(Exists(tree_ / "root"));
  EXPECT_EQ(canary.at("kept").substr(0, 30), Snapshot(tree_ / "canary").at("kept").substr(0, 30));
  EXPECT_EQ(StatOf(tree_ / "canary/kept").st_nlink, 1U);
}

TEST_F(RemoveTreeTest, TakesALinkForTheItemWhateverFollowsIt) {
  MakeDirectory(tree_ / "canary");
  WriteFile(tree_ / "canary/kept", "kept");
  for (const char* slashes : {"", "/", "///"}) {
    MakeLink("canary", tree_ / "link");
    EXPECT_EQ(remove(tree_ / "link" + slashes), 0);
    EXPECT_FALSE(Exists(tree_ / "link"));
  }
  EXPECT_TRUE(Exists(tree_ / "canary/kept"));
}

TEST_F(RemoveTreeTest, WithoutTheRecursiveFlagAFullDirectoryStays) {
  MakeDirectory(tree_ / "full");
  WriteFile(tree_ / "full/file", "x");
  EXPECT_EQ(remove(tree_ / "full", 0), 0);
  EXPECT_EQ(listener_.reports, (Reports{{tree_ / "full", ENOTEMPTY}}));
  EXPECT_EQ(remove(tree_ / "full/file", 0), 0);
  EXPECT_EQ(remove(tree_ / "full", 0), 0);
  EXPECT_FALSE(Exists(tree_ / "full"));
}

TEST_F(RemoveTreeTest, ReportsWhatCannotBeRemovedAndGoesOn) {
  MakeDirectory(tree_ / "root");
  MakeDirectory(tree_ / "root/sub");
  for (const char* name : {"sub/a", "sub/fixed", "sub/z", "other"}) {
    WriteFile(tree_ / "root/" + name, "x");
  }
  const Immutable fixed(tree_ / "root/sub/fixed");
  if (!fixed.works()) GTEST_SKIP() << "no immutable files here";
  EXPECT_EQ(remove(tree_ / "root"), 0);
  const Reports expected = {{tree_ / "root/sub/fixed", EPERM},
                            {tree_ / "root/sub", ENOTEMPTY},
                            {tree_ / "root", ENOTEMPTY}};
  EXPECT_EQ(listener_.reports, expected);
  const auto left = Snapshot(tree_ / "root");
  EXPECT_EQ(left.size(), 3U);

  // An answer other than proceed, or nobody to ask, ends it.
  listener_.answer = 1;
  EXPECT_EQ(remove(tree_ / "root"), EPERM);
  EXPECT_EQ(listener_.reports.size(), 1U);
  const auto silent = files_.allocateWipeTreeState();
  EXPECT_EQ(files_.RemoveTree((tree_ / "root").c_str(), WIPETREE_RECURSIVE, *silent), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST_F(RemoveTreeTest, FilesOfTheRootGoBeforeItsDirectories) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs immutable files";
  MakeDirectory(tree_ / "t");
  std::vector<std::unique_ptr<Immutable>> kept;
  // Enough of both that no order of reading puts all files first by chance.
  for (int i = 0; i < 12; ++i) {
    const std::string directory = tree_ / ("t/directory" + std::to_string(i));
    MakeDirectory(directory);
    WriteFile(directory + "/kept", "x");
    kept.push_back(std::make_unique<Immutable>(directory + "/kept"));
    WriteFile(tree_ / ("t/note" + std::to_string(i)), "x");
  }
  int notes = 0;
  int directories = 0;
  listener_.onFirst = [&] {
    for (const auto& entry : std::filesystem::directory_iterator(tree_ / "t")) {
      ++(entry.is_directory() ? directories : notes);
    }
  };
  EXPECT_EQ(remove(tree_ / "t"), 0);
  EXPECT_EQ(notes, 0);
  EXPECT_EQ(directories, 12);
  EXPECT_EQ(listener_.reports.size(), 25U) << "each file, its directory, and the root, once";
}

TEST_F(RemoveTreeTest, AsItsOwnerOnlyRemovesWhatPermissionsAllow) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs to give files away";
  ASSERT_EQ(::chown(tree_.path().c_str(), kNobody, kNobody), 0);
  EXPECT_TRUE(InChild([&] {
    BecomeNobody();
    const std::string root = tree_ / "root";
    MakeDirectory(root);
    MakeDirectory(root + "/empty", 0);
    for (const char* name : {"/unreadable", "/unwritable", "/ordinary"}) {
      MakeDirectory(root + name);
      WriteFile(root + name + "/file", "x");
    }
    MakeDirectory(root + "/unwritable/below");
    WriteFile(root + "/unwritable/below/file", "x");
    ASSERT_EQ(::chmod((root + "/unreadable").c_str(), 0300), 0);
    ASSERT_EQ(::chmod((root + "/unwritable").c_str(), 0500), 0);
    EXPECT_EQ(remove(root), 0);
    const std::set<std::pair<std::string, int>> reports(listener_.reports.begin(),
                                                        listener_.reports.end());
    const std::set<std::pair<std::string, int>> expected = {
        {root + "/unreadable", EACCES},
        {root + "/unwritable/file", EACCES},
        {root + "/unwritable/below", EACCES},
        {root + "/unwritable", ENOTEMPTY},
        {root, ENOTEMPTY},
    };
    EXPECT_EQ(reports, expected);
    EXPECT_EQ(listener_.reports.size(), expected.size());
    EXPECT_EQ(listener_.reports.back().first, root);
    EXPECT_FALSE(Exists(root + "/unwritable/below/file"));
    EXPECT_FALSE(Exists(root + "/ordinary"));
    EXPECT_FALSE(Exists(root + "/empty"));
    EXPECT_EQ(StatOf(root + "/unwritable").st_mode & 07777, 0500U);
  }));
}

TEST_F(RemoveTreeTest, DepthNeedsNeitherDescriptorsNorPaths) {
  const std::pair<int, std::string> shapes[] = {{5000, std::string(200, 'd')}, {40000, "d"}};
  for (const auto& [levels, name] : shapes) {
    MakeDirectory(tree_ / "root");
    MakeDeep(tree_ / "root", levels, name, true);
    EXPECT_TRUE(InChild([&] {
      LimitDescriptors(20);
      EXPECT_EQ(remove(tree_ / "root"), 0);
      EXPECT_TRUE(listener_.reports.empty());
    }));
    EXPECT_FALSE(Exists(tree_ / "root"));
  }
}

TEST_F(RemoveTreeTest, ReportsPathsBeyondAnyLimit) {
  const std::string name(200, 'd');
  MakeDeep(tree_.path(), 100, name);
  UniqueDescriptor at(::open(tree_.path().c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < 100; ++i) at.reset(::openat(at.get(), name.c_str(), O_RDONLY));
  at.reset(::openat(at.get(), "fixed", O_RDONLY | O_CREAT, 0600));
  int flags = FS_IMMUTABLE_FL;
  if (::ioctl(at.get(), FS_IOC_SETFLAGS, &flags) != 0) GTEST_SKIP() << "no immutable files here";
  EXPECT_EQ(remove(tree_ / name), 0);
  ASSERT_EQ(listener_.reports.size(), 101U);
  EXPECT_EQ(listener_.reports.front().first.size(), tree_.path().size() + 100 * 201 + 6);
  EXPECT_EQ(listener_.reports.back().first, tree_ / name);
  flags = 0;
  ::ioctl(at.get(), FS_IOC_SETFLAGS, &flags);
}

TEST_F(RemoveTreeTest, WidthNeedsNoMemory) {
  MakeDirectory(tree_ / "root");
  MakeWide(tree_ / "root", 200000);
  EXPECT_TRUE(InChild([&] {
    rusage before;
    ::getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(remove(tree_ / "root"), 0);
    rusage after;
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 2048) << "KiB";
  }));
  EXPECT_FALSE(Exists(tree_ / "root"));
}

// Also where the kernel, or a filter, does not know the call that tells mount points.
TEST_F(RemoveTreeTest, LeavesMountsAndWhatIsInThem) {
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  MakeDirectory(tree_ / "canary");
  WriteFile(tree_ / "canary/kept", "kept");
  MakeDirectory(tree_ / "root");
  for (const char* name : {"root/bound", "root/mounted"}) MakeDirectory(tree_ / name);
  for (const int refusal : {0, ENOSYS, EPERM}) {
    WriteFile(tree_ / "root/file", "x");
    EXPECT_TRUE(WithMounts([&] {
      // The first has the device number of the tree around it.
      ASSERT_EQ(::mount((tree_ / "canary").c_str(), (tree_ / "root/bound").c_str(), nullptr,
                        MS_BIND, nullptr),
                0);
      ASSERT_EQ(::mount("tmpfs", (tree_ / "root/mounted").c_str(), "tmpfs", 0, nullptr), 0);
      WriteFile(tree_ / "root/mounted/kept", "kept");
      if (refusal != 0) FailSystemCall(SYS_openat2, refusal);
      EXPECT_EQ(remove(tree_ / "root/bound"), 0);
      EXPECT_EQ(listener_.reports, (Reports{{tree_ / "root/bound", EBUSY}}));
      listener_.reports.clear();
      EXPECT_EQ(remove(tree_ / "root"), 0);
      const std::set<std::pair<std::string, int>> reports(listener_.reports.begin(),
                                                          listener_.reports.end());
      const std::set<std::pair<std::string, int>> expected = {{tree_ / "root/bound", EBUSY},
                                                              {tree_ / "root/mounted", EBUSY},
                                                              {tree_ / "root", ENOTEMPTY}};
      EXPECT_EQ(reports, expected);
      EXPECT_TRUE(Exists(tree_ / "root/bound/kept"));
      EXPECT_TRUE(Exists(tree_ / "root/mounted/kept"));
      EXPECT_FALSE(Exists(tree_ / "root/file"));
    })) << refusal;
  }
}

TEST_F(RemoveTreeTest, AFailureToReadADirectoryIsReportedOnce) {
  MakeDirectory(tree_ / "root");
  WriteFile(tree_ / "root/file", "x");
  EXPECT_TRUE(InChild([&] {
    FailSystemCall(SYS_getdents64, EIO);
    EXPECT_EQ(remove(tree_ / "root"), 0);
    EXPECT_EQ(listener_.reports, (Reports{{tree_ / "root", EIO}}));
  }));
  EXPECT_TRUE(InChild([&] {
    FailSystemCall(SYS_unlinkat, EROFS);
    EXPECT_EQ(remove(tree_ / "root"), 0);
    EXPECT_EQ(listener_.reports, (Reports{{tree_ / "root/file", EROFS}, {tree_ / "root", EROFS}}));
  }));
  EXPECT_TRUE(InChild([&] {
    FailSystemCall(SYS_openat2, ENOSYS);  // as old kernels and some containers do
    FailSystemCall(SYS_statx, EPERM);
    EXPECT_EQ(remove(tree_ / "root"), 0);
    EXPECT_TRUE(listener_.reports.empty());
  }));
  EXPECT_FALSE(Exists(tree_ / "root"));
}

// The walk is 30 levels down when the directory 10 levels down is moved into another tree. Its
// ".." leads there then, and following it would remove that tree.
TEST_F(RemoveTreeTest, DoesNotClimbOutWithADirectoryThatWasMoved) {
  MakeDirectory(tree_ / "canary");
  WriteFile(tree_ / "canary/kept", "kept");
  MakeDirectory(tree_ / "root");
  MakeDeep(tree_ / "root", 30, "d", true);
  std::string middle = tree_ / "root";
  for (int i = 0; i < 10; ++i) middle += "/d";
  std::string deepest = middle;
  for (int i = 0; i < 20; ++i) deepest += "/d";
  WriteFile(deepest + "/fixed", "x");
  const std::string moved = tree_ / "canary/moved";
  std::string fixedNow = moved;
  for (int i = 0; i < 20; ++i) fixedNow += "/d";
  {
    const Immutable fixed(deepest + "/fixed");
    if (!fixed.works()) GTEST_SKIP() << "no immutable files here";
    listener_.onFirst = [&] { ASSERT_EQ(::rename(middle.c_str(), moved.c_str()), 0); };
    EXPECT_EQ(remove(tree_ / "root"), 0);
  }
  const bool stale = std::any_of(listener_.reports.begin(), listener_.reports.end(),
                                 [](const auto& report) { return report.second == ESTALE; });
  EXPECT_TRUE(stale);
  EXPECT_TRUE(Exists(tree_ / "canary/kept"));
  EXPECT_TRUE(Exists(fixedNow + "/fixed"));
  // What could still be reached by its names went.
  EXPECT_FALSE(Exists(tree_ / "root"));
}

// A directory and a link to a canary keep changing places while trees are removed.
TEST_F(RemoveTreeTest, ALinkExchangedForADirectoryNeverLeadsOutside) {
  MakeDirectory(tree_ / "canary");
  for (int i = 0; i < 20; ++i) WriteFile(tree_ / "canary/kept" + std::to_string(i), "kept");
  const auto before = Snapshot(tree_ / "canary");
  const std::string directory = tree_ / "root/dir";
  const std::string link = tree_ / "root/link";
  std::atomic<bool> stop{false};
  std::atomic<long> exchanges{0};
  std::thread racer([&] {
    while (!stop) {
      if (::renameat2(AT_FDCWD, directory.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE) == 0) {
        ++exchanges;
      }
    }
  });
  for (int round = 0; exchanges < 50000 && round < 20000; ++round) {
    MakeDirectory(tree_ / "root");
    MakeDirectory(directory);
    for (int i = 0; i < 10; ++i) ::mknod((directory + "/" + std::to_string(i)).c_str(), S_IFREG, 0);
    MakeLink(tree_ / "canary", link);
    for (int i = 0; Exists(tree_ / "root") && i < 100; ++i) remove(tree_ / "root");
    ASSERT_FALSE(Exists(tree_ / "root"));
  }
  stop = true;
  racer.join();
  EXPECT_GT(exchanges, 1000);
  EXPECT_EQ(Snapshot(tree_ / "canary"), before);
}

TEST_F(RemoveTreeTest, OthersThatRemoveAndCreateMeanwhileDoNoHarm) {
  std::atomic<bool> stop{false};
  std::thread other([&] {
    for (int i = 0; !stop; i = (i + 1) % 500) {
      const std::string path = tree_ / "root/sub/" + std::to_string(i);
      if (i % 2 == 0) ::unlink(path.c_str());
      if (i % 7 == 0) ::mknod(path.c_str(), S_IFREG | 0600, 0);
    }
  });
  for (int round = 0; round < 50; ++round) {
    MakeDirectory(tree_ / "root");
    MakeDirectory(tree_ / "root/sub");
    for (int i = 0; i < 500; ++i) {
      ::mknod((tree_ / "root/sub/" + std::to_string(i)).c_str(), S_IFREG | 0600, 0);
    }
    EXPECT_EQ(remove(tree_ / "root"), 0);
    // Only that somebody kept filling a directory may be told, besides what had vanished.
    for (const auto& [path, number] : listener_.reports) {
      EXPECT_TRUE(number == ENOENT || number == ENOTEMPTY) << path << ' ' << number;
    }
    // Out of the other's reach, where nobody wins against it.
    ::rename((tree_ / "root").c_str(), (tree_ / std::to_string(round)).c_str());
  }
  stop = true;
  other.join();
}

}  // namespace
}  // namespace quorvel
