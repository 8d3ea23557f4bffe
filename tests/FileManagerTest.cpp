// The file manager over real trees: every way in which an operation fails, with what it says, and
// moves between file systems that are killed at every step.
#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <thread>

#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "shared/support/PathStrings.h"
#include "tests/FaultWrappers.h"
#include "tests/SystemCallFaults.h"
#include "tests/TestPlatform.h"
#include "tests/TreeTools.h"

namespace {
// What the reading of directories does in this program.
std::atomic<bool> hideEntryTypes{false};
std::atomic<int> failReadingAfter{-1};  // entries; -1: never
}  // namespace

// Stands before the C library's: a directory reader that tells no types, or that fails.
struct dirent* readdir(DIR* directory) {
  using Function = struct dirent* (*)(DIR*);
  static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "readdir64"));
  if (failReadingAfter >= 0 && failReadingAfter-- == 0) {
    errno = EIO;
    return nullptr;
  }
  struct dirent* entry = real(directory);
  if (entry != nullptr && hideEntryTypes) entry->d_type = DT_UNKNOWN;
  return entry;
}

namespace quorvel::tests {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

constexpr const char* kRemove = "-[QVFileManager removeItemAtURL:error:]";
constexpr const char* kCreate =
    "-[QVFileManager createDirectoryAtURL:withIntermediateDirectories:mode:class:error:]";
constexpr const char* kCopy = "-[QVFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]";
constexpr const char* kMove = "-[QVFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]";

class FileManager : public ::testing::Test {
 protected:
  // Breaks one operation of the file system for the rest of the test.
  Fault& breakCall(const char* operation, int nth, int number) {
    fault_ = std::make_unique<Fault>(operation, nth, number);
    broken_ = std::make_unique<FaultyFileSystem>(platform_.fileSystem, *fault_);
    platform_.set.fileSystem = broken_.get();
    return *fault_;
  }
  void repair() { platform_.set.fileSystem = &platform_.fileSystem; }
  std::string at(const std::string& name) const { return tree_ / name; }
  Path file(const std::string& name) const { return Path(at(name)); }
  Path directory(const std::string& name) const { return Path::directory(at(name)); }
  std::string url(const std::string& name) const { return "file://" + at(name); }

  // `error` as it must be, and nothing in the log.
  void expectPosix(const Error& error, int code, const std::string& text, const char* function) {
    EXPECT_TRUE(error.is(PosixErrorDomain, code)) << FormatMessage("%@", error);
    EXPECT_EQ(error.description(), text);
    ASSERT_NE(error.infoString(QVFunctionNameErrorKey), nullptr);
    EXPECT_EQ(*error.infoString(QVFunctionNameErrorKey), function);
    EXPECT_EQ(error.userInfo().size(), 3U);
    EXPECT_THAT(platform_.log.messages(), IsEmpty());
  }

  TestPlatform platform_;
  ScratchTree tree_;
  std::unique_ptr<Fault> fault_;
  std::unique_ptr<FaultyFileSystem> broken_;
  QVFileManager& manager_ = QVFileManager::defaultManager();
  Error error_;
};

TEST(FileManagerInstance, IsOneForAllThreads) {
  std::set<QVFileManager*> instances;
  std::mutex mutex;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      QVFileManager* instance = &QVFileManager::defaultManager();
      const std::lock_guard guard(mutex);
      instances.insert(instance);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(instances.size(), 1U);
}

// --- Removal ----------------------------------------------------------------------------------

TEST_F(FileManager, RemovesTreesLinksAndWhatIsMissing) {
  MakeDirectory(at("outside"));
  WriteFile(at("outside/kept"), "x");
  MakeDirectory(at("tree"));
  MakeLink("../outside", at("tree/link"));
  MakeDeep(at("tree"), 3000, "d");
  EXPECT_TRUE(manager_.removeItemAtURL(directory("tree"), &error_));
  EXPECT_FALSE(Exists(at("tree")));
  MakeLink("outside", at("link"));
  EXPECT_TRUE(manager_.removeItemAtURL(directory("link")));
  EXPECT_TRUE(Exists(at("outside/kept")));
  EXPECT_TRUE(manager_.removeItemAtURL(directory("tree"), &error_));
  EXPECT_FALSE(error_);
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
}

TEST_F(FileManager, RemovalOfNothingIsAFault) {
  EXPECT_FALSE(manager_.removeItemAtURL(Path(), &error_));
  expectPosix(error_, EFAULT, "nil url passed to -removeItemAtURL:error:", kRemove);
}

TEST_F(FileManager, AnItemThatCannotBeRemovedIsNamedAndTheRestGoes) {
  MakeDirectory(at("t"));
  MakeDirectory(at("t/locked"));
  WriteFile(at("t/locked/f"), "x");
  MakeDirectory(at("t/open"));
  WriteFile(at("t/open/f"), "x");
  for (const char* name : {"t", "t/open", "t/open/f", "t/locked", "t/locked/f"}) {
    ASSERT_EQ(::lchown(at(name).c_str(), ::geteuid() == 0 ? kNobody : ::geteuid(), -1U), 0);
  }
  ASSERT_EQ(::chmod(at("t/locked").c_str(), 0555), 0);
  EXPECT_TRUE(InChild([&] {
    BecomeNobody();
    EXPECT_FALSE(manager_.removeItemAtURL(directory("t"), &error_));
    EXPECT_TRUE(error_.is(PosixErrorDomain, EACCES));
    EXPECT_EQ(error_.description(), "wipetree of " + url("t/") + " failed: Permission denied");
    const auto lines = platform_.log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0],
              (LogLine{3, "_wipetree_error_callback",
                       "wipetree hit error for " + at("t/locked/f") + " : Permission denied"}));
  }));
  EXPECT_FALSE(Exists(at("t/open")));
  EXPECT_TRUE(Exists(at("t/locked/f")));
}

// A removal that reports what it is told to.
class ScriptedRemoval final : public FileSystem {
 public:
  std::vector<int> numbers;  // reported one after another
  int result = 0;
  int resultErrno = 0;

  std::unique_ptr<WipeTreeState> allocateWipeTreeState() override {
    return std::make_unique<State>();
  }
  int RemoveTree(const char* path, unsigned flags, WipeTreeState& given) override {
    EXPECT_EQ(flags, 1U);
    auto& state = static_cast<State&>(given);
    for (const int number : numbers) {
      state.number = number;
      EXPECT_EQ(state.callback(state, (std::string(path) + "/i").c_str(), state.context), 0);
    }
    errno = resultErrno;
    return result;
  }
  int CopyTree(const char*, const char*, std::uint32_t) override { return -1; }
  int MakePath(const char*, mode_t) override { return EIO; }
  int GetProtectionClass(int) override { return -1; }
  int SetProtectionClass(int, int) override { return -1; }
  ssize_t getxattr(const char*, const char*, void*, std::size_t, std::uint32_t, int) override {
    return -1;
  }
  int setxattr(const char*, const char*, const void*, std::size_t, std::uint32_t, int) override {
    return -1;
  }
  int lchmod(int, const char*, mode_t) override { return -1; }
  int SyncDirectory(const char*) override { return -1; }
  int SyncFileSystem(const char*) override { return -1; }

 private:
  struct State final : WipeTreeState {
    bool setErrorCallback(ErrorCallback given) override { return callback = given, true; }
    bool setErrorContext(void* given) override { return context = given, true; }
    bool getErrorNumber(int* out) const override {
      *out = number;
      return number != 0;  // 0 stands for a number that cannot be read
    }
    ErrorCallback callback = nullptr;
    void* context = nullptr;
    int number = 0;
  };
};

// The first number reported stays; missing items hide nothing unless they come first.
TEST_F(FileManager, RemovalKeepsTheFirstNumber) {
  struct Row {
    std::vector<int> numbers;
    int result, resultErrno;
    int expected;  // 0: success
    std::vector<std::string> lines;
  };
  const std::string item = at("x") + "/i";
  const auto heard = [&](int n) {
    return "wipetree hit error for " + item + " : " + ErrnoDescription(n);
  };
  const std::string unreadable =
      "wipetree hit error for " + item + " but we failed to get the error number";
  const Row rows[] = {
      {{}, 0, 0, 0, {}},
      {{}, -1, ENOENT, 0, {}},
      {{}, -1, EBUSY, EBUSY, {}},
      {{EPERM, EBUSY}, 0, 0, EPERM, {heard(EPERM), heard(EBUSY)}},
      {{EPERM}, -1, ENOENT, EPERM, {heard(EPERM)}},
      {{ENOENT, EBUSY}, 0, 0, 0, {heard(EBUSY)}},
      {{EBUSY, ENOENT}, 0, 0, EBUSY, {heard(EBUSY)}},
      {{EPERM}, -1, EIO, EIO, {heard(EPERM)}},
      {{0, EBUSY}, 0, 0, 0, {unreadable, heard(EBUSY)}},
  };
  ScriptedRemoval removal;
  platform_.set.fileSystem = &removal;
  for (const Row& row : rows) {
    platform_.log.clear();
    removal.numbers = row.numbers;
    removal.result = row.result;
    removal.resultErrno = row.resultErrno;
    Error error;
    EXPECT_EQ(manager_.removeItemAtURL(file("x"), &error), row.expected == 0);
    EXPECT_EQ(error.code(), row.expected);
    if (row.expected != 0) {
      EXPECT_EQ(error.description(),
                "wipetree of " + url("x") + " failed: " + ErrnoDescription(row.expected));
    }
    EXPECT_EQ(platform_.log.messages(3), row.lines);
  }
}

TEST_F(FileManager, RemovalGoesOnWithoutItsCallback) {
  WriteFile(at("a"), "x");
  breakCall("setErrorCallback", 1, ENOMEM);
  EXPECT_TRUE(manager_.removeItemAtURL(file("a")));
  WriteFile(at("b"), "x");
  breakCall("setErrorContext", 1, ENOMEM);
  EXPECT_TRUE(manager_.removeItemAtURL(file("b")));
  EXPECT_FALSE(Exists(at("a")) || Exists(at("b")));
  EXPECT_THAT(platform_.log.lines(),
              ElementsAre(LogLine{3, kRemove,
                                  "wipetree_state_set WIPETREE_STATE_ERROR_CALLBACK failed: Cannot "
                                  "allocate memory"},
                          LogLine{3, kRemove,
                                  "wipetree_state_set WIPETREE_STATE_ERROR_CONTEXT failed: Cannot "
                                  "allocate memory"}));
}

// --- Creation ---------------------------------------------------------------------------------

TEST_F(FileManager, CreatesDirectoriesWithModeAndClass) {
  const mode_t previous = ::umask(0077);
  EXPECT_TRUE(manager_.createDirectoryAtURL(
      directory("a/b/c"), {.withIntermediateDirectories = true, .protectionClass = 4}));
  ::umask(previous);
  EXPECT_EQ(StatOf(at("a")).st_mode & 07777, 0755U);
  EXPECT_EQ(StatOf(at("a/b/c")).st_mode & 07777, 0755U);
  std::int32_t number = 0;
  EXPECT_TRUE(manager_.dataProtectionClassOfItemAtURL(directory("a/b/c"), &number));
  EXPECT_EQ(number, 4);
  // Existing ones succeed and get the class, too.
  EXPECT_TRUE(manager_.createDirectoryAtURL(directory("a"), {.protectionClass = 2}, &error_));
  EXPECT_TRUE(manager_.createDirectoryAtURL(directory("a/b"), {true, 0755, 3}, &error_));
  EXPECT_TRUE(manager_.dataProtectionClassOfItemAtURL(directory("a"), &number));
  EXPECT_EQ(number, 2);
  EXPECT_TRUE(manager_.createDirectoryAtURL(directory("a/new"), {}, &error_));
  WriteFile(at("file"), "");
  EXPECT_TRUE(manager_.createDirectoryAtURL(file("file"), {}, &error_));
  EXPECT_FALSE(error_);
}

TEST_F(FileManager, CreationFailsWithItsStep) {
  WriteFile(at("file"), "");
  MakeDirectory(at("real"));
  MakeLink("real", at("link"));
  EXPECT_FALSE(manager_.createDirectoryAtURL(directory("no/x"), {}, &error_));
  expectPosix(error_, ENOENT, "mkdir of " + at("no/x") + " failed: No such file or directory",
              kCreate);
  EXPECT_FALSE(manager_.createDirectoryAtURL(directory("file/x"), {true, 0755, -1}, &error_));
  expectPosix(error_, ENOTDIR, "ensuredirs_np of " + at("file/x") + " failed: Not a directory",
              kCreate);
  EXPECT_FALSE(manager_.createDirectoryAtURL(file("file"), {.protectionClass = 4}, &error_));
  expectPosix(error_, ENOTDIR, "opendir of " + at("file") + " failed: Not a directory", kCreate);
  // The class is never set through a link.
  EXPECT_FALSE(manager_.createDirectoryAtURL(directory("link"), {.protectionClass = 4}, &error_));
  std::int32_t number = 0;
  EXPECT_TRUE(manager_.dataProtectionClassOfItemAtURL(directory("real"), &number));
  EXPECT_EQ(number, 0);
  breakCall("SetProtectionClass", 1, ENOTSUP);
  EXPECT_FALSE(manager_.createDirectoryAtURL(directory("real"), {.protectionClass = 4}, &error_));
  expectPosix(error_, ENOTSUP,
              "Failed to setclass(4) on directory " + at("real") + ": " + ErrnoDescription(ENOTSUP),
              kCreate);
}

TEST_F(FileManager, TemporaryDirectoriesAreNewAndPrivate) {
  error_ = PosixCause(EIO);
  const auto one = manager_.createTemporaryDirectoryInDirectoryURL(directory(""), &error_);
  const auto two = manager_.createTemporaryDirectoryInDirectoryURL(directory(""));
  ASSERT_TRUE(one && two);
  EXPECT_FALSE(error_);  // cleared on entry
  EXPECT_NE(*one, *two);
  EXPECT_THAT(std::string(one->lastPathComponent()), MatchesRegex("temp\\.[A-Za-z0-9]{6}"));
  EXPECT_TRUE(one->isDirectory());
  EXPECT_EQ(StatOf(one->string()).st_mode & 07777, 0700U);

  EXPECT_FALSE(manager_.createTemporaryDirectoryInDirectoryURL(directory("no"), &error_));
  EXPECT_TRUE(error_.is("QVInstallerErrorDomain", 4));
  EXPECT_THAT(error_.description(), StartsWith("Failed to create temp dir at path " + at("no")));
  EXPECT_TRUE(error_.underlying().is(PosixErrorDomain, ENOENT));
  EXPECT_TRUE(error_.underlying().userInfo().empty());
  EXPECT_EQ(*error_.infoString("PathArgument"), at("no/temp.XXXXXX"));
  ASSERT_EQ(platform_.log.lines().size(), 1U);
  EXPECT_EQ(platform_.log.lines()[0].function,
            "-[QVFileManager createTemporaryDirectoryInDirectoryURL:error:]");
}

// --- Copy and move ----------------------------------------------------------------------------

TEST_F(FileManager, MissingSourcesAreQuietOnlyForTheIfExistsForms) {
  EXPECT_TRUE(manager_.copyItemIfExistsAtURL(file("no"), file("to"), &error_));
  EXPECT_TRUE(manager_.moveItemIfExistsAtURL(file("no"), file("to"), &error_));
  EXPECT_FALSE(Exists(at("to")));
  EXPECT_FALSE(manager_.copyItemAtURL(file("no"), file("to"), &error_));
  expectPosix(
      error_, ENOENT,
      "clonetree of " + url("no") + " to " + url("to") + " failed: No such file or directory",
      kCopy);
  EXPECT_FALSE(manager_.moveItemAtURL(file("no"), directory("to"), &error_));
  expectPosix(error_, ENOENT,
              "rename of " + url("no") + " to " + url("to/") + " failed: No such file or directory",
              kMove);
  WriteFile(at("file"), "");
  EXPECT_FALSE(manager_.copyItemIfExistsAtURL(file("file/x"), file("to"), &error_));
  expectPosix(error_, ENOTDIR, "stat of " + url("file/x") + " failed: Not a directory", kCopy);
  EXPECT_FALSE(manager_.moveItemIfExistsAtURL(file("file/x"), file("to"), &error_));
  expectPosix(error_, ENOTDIR, "stat of " + url("file/x") + " failed: Not a directory", kMove);
}

TEST_F(FileManager, ADanglingLinkExistsAndTravelsAsALink) {
  MakeLink("nowhere", at("link"));
  EXPECT_TRUE(manager_.copyItemIfExistsAtURL(file("link"), file("copy"), &error_));
  EXPECT_TRUE(manager_.moveItemIfExistsAtURL(file("link"), file("moved"), &error_));
  EXPECT_EQ(std::filesystem::read_symlink(at("copy")), "nowhere");
  EXPECT_EQ(std::filesystem::read_symlink(at("moved")), "nowhere");
  EXPECT_FALSE(Exists(at("link")));
}

TEST_F(FileManager, AMoveWithinOneFileSystemIsOneRename) {
  MakeDirectory(at("d"));
  WriteFile(at("d/f"), "x");
  const ino_t inode = StatOf(at("d/f")).st_ino;
  Fault& fault = breakCall("*", 0, EIO);
  EXPECT_TRUE(manager_.moveItemAtURL(directory("d"), directory("e"), &error_));
  EXPECT_FALSE(fault.fired());
  EXPECT_EQ(StatOf(at("e/f")).st_ino, inode);
}

// Moves between two file systems: from a disk (or what TMPDIR is) into memory.
class MoveAcross : public FileManager {
 protected:
  void SetUp() override {
    if (StatOf(tree_.path()).st_dev == StatOf(disk_.path()).st_dev) {
      GTEST_SKIP() << "TMPDIR and /dev/shm are one file system";
    }
  }
  void fill(const std::string& root) {
    MakeDirectory(root, 0750);
    WriteFile(root + "/a", "first", 0600);
    WriteFile(root + "/b", std::string(100000, 'b'));
    MakeDirectory(root + "/sub", 0700);
    WriteFile(root + "/sub/c", "third");
    MakeLink("../a", root + "/sub/link");
    SetAttribute(root + "/a", "user.note", "kept");
  }
  Path source() const { return Path::directory(disk_ / "Documents"); }
  std::string sourceURL() const { return "file://" + (disk_ / "Documents") + "/"; }

  ScratchTree disk_{OtherFileSystem()};
};

TEST_F(MoveAcross, CopiesWholeThenRemovesTheSource) {
  fill(source().string());
  const auto before = Snapshot(source().string());
  EXPECT_TRUE(manager_.moveItemAtURL(source(), directory("to"), &error_));
  EXPECT_EQ(Snapshot(at("to")), before);
  EXPECT_TRUE(std::filesystem::is_empty(disk_.path()));
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
}

TEST_F(MoveAcross, AFailedCopyIsTheMovesErrorAndTheSourceStays) {
  fill(source().string());
  const auto before = Snapshot(source().string());
  breakCall("CopyTree", 1, ENOSPC);
  EXPECT_FALSE(manager_.moveItemAtURL(source(), directory("to"), &error_));
  expectPosix(
      error_, ENOSPC,
      "clonetree of " + sourceURL() + " to " + url("to/") + " failed: No space left on device",
      kCopy);
  breakCall("SyncFileSystem", 1, EIO);
  EXPECT_FALSE(manager_.moveItemAtURL(source(), directory("to"), &error_));
  EXPECT_TRUE(error_.is(PosixErrorDomain, EIO));
  EXPECT_EQ(Snapshot(source().string()), before);
}

TEST_F(MoveAcross, ASourceThatStaysIsOnlyLogged) {
  fill(source().string());
  breakCall("RemoveTree", 2, EBUSY);  // the first clears the way for the new name
  EXPECT_TRUE(manager_.moveItemAtURL(source(), directory("to"), &error_));
  EXPECT_FALSE(error_);
  ASSERT_EQ(platform_.log.lines().size(), 1U);
  EXPECT_EQ(platform_.log.lines()[0].function, kMove);
  EXPECT_THAT(platform_.log.lines()[0].message,
              StartsWith("Failed to remove move source after copy at " + source().string() +
                         " : PosixErrorDomain 16 {"));
  // What stayed is known for what it is.
  repair();
  manager_.removeRemainsOfMovesInDirectory(Path::directory(disk_.path()));
  EXPECT_TRUE(std::filesystem::is_empty(disk_.path()));
}

TEST_F(MoveAcross, NamesOfAnyLengthAndFilesAndLinksMove) {
  const std::string longest(255, 'n');
  fill(disk_ / longest);
  EXPECT_TRUE(
      manager_.moveItemAtURL(Path::directory(disk_ / longest), directory(longest), &error_));
  WriteFile(disk_ / "file", "x");
  MakeLink("file", disk_ / "link");
  EXPECT_TRUE(manager_.moveItemAtURL(Path(disk_ / "file"), file("file"), &error_));
  EXPECT_TRUE(manager_.moveItemAtURL(Path(disk_ / "link"), file("link"), &error_));
  EXPECT_TRUE(std::filesystem::is_empty(disk_.path()));
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
}

// Kills the move just before each of its changes, or lets that change fail, and repeats it as the
// migration does: what is at the destination goes first, then the source moves if it is there.
TEST_F(MoveAcross, WhereverItIsInterruptedTheRepeatLosesNothing) {
  fill(disk_ / "pattern");
  const auto whole = Snapshot(disk_ / "pattern");
  const Path destination = directory("to");
  for (const int number : {0, EIO}) {
    bool fired = true;
    int killedWithoutSource = 0;
    for (long call = 1; fired; ++call) {
      if (number != 0 && !CanFailSystemCalls) break;
      ASSERT_EQ(std::system(("cp -a " + (disk_ / "pattern") + " " + source().string()).c_str()), 0);
      const FaultedRun run = RunWithFault(
          [&] { return manager_.moveItemIfExistsAtURL(source(), destination) ? 0 : 1; },
          {call, number});
      if (!run.wasTraced) GTEST_SKIP() << "no tracing of processes here";
      fired = run.fired;
      // Never half of it under the source's name; and whole under one name at least.
      const bool sourceThere = Exists(source().string());
      if (sourceThere) {
        ASSERT_EQ(Snapshot(source().string()), whole) << "call " << call;
        ASSERT_TRUE(manager_.removeItemAtURL(destination));
      } else {
        ++killedWithoutSource;
        ASSERT_EQ(Snapshot(destination.string()), whole) << "call " << call;
      }
      ASSERT_TRUE(manager_.moveItemIfExistsAtURL(source(), destination));
      ASSERT_EQ(Snapshot(destination.string()), whole) << "call " << call;
      manager_.removeRemainsOfMovesInDirectory(Path::directory(disk_.path()));
      ASSERT_EQ(std::filesystem::directory_iterator(disk_.path())->path(), disk_ / "pattern");
      ASSERT_TRUE(manager_.removeItemAtURL(destination));
    }
    EXPECT_GT(killedWithoutSource, 2) << "the removal of the source was never interrupted";
  }
}

// --- Listing ----------------------------------------------------------------------------------

class Listing : public FileManager {
 protected:
  void SetUp() override {
    MakeDirectory(at("l"));
    MakeDirectory(at("l/dir.app"));
    WriteFile(at("l/file"), "");
    WriteFile(at("l/\xFF\xFE"), "");
    MakeLink("dir.app", at("l/link"));
    ASSERT_EQ(::mkfifo(at("l/pipe").c_str(), 0644), 0);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    at("l/socket").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(socket);
  }
  std::vector<Path> expected(bool link) const {
    std::vector<Path> items = {
        directory("l/dir.app"), file("l/file"), file("l/pipe"), file("l/socket"),
        Path(QuorvelAdditions::stringWithFileSystemRepresentation(at("l/\xFF\xFE").c_str()))};
    if (link) items.push_back(file("l/link"));
    return items;
  }
  static constexpr const char* kFunction =
      "-[QVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]";
};

TEST_F(Listing, FlagsDirectoriesAlsoWhenTheReaderTellsNoTypes) {
  for (const bool hidden : {false, true}) {
    hideEntryTypes = hidden;
    platform_.log.clear();
    const auto all = manager_.urlsForItemsInDirectoryAtURL(directory("l"), false, &error_);
    ASSERT_TRUE(all);
    EXPECT_THAT(*all, ::testing::UnorderedElementsAreArray(expected(true)));
    EXPECT_THAT(platform_.log.messages(), IsEmpty());
    const auto some = manager_.urlsForItemsInDirectoryAtURL(directory("l"), true, &error_);
    hideEntryTypes = false;
    ASSERT_TRUE(some);
    EXPECT_THAT(*some, ::testing::UnorderedElementsAreArray(expected(false)));
    EXPECT_THAT(platform_.log.lines(),
                ElementsAre(LogLine{5,
                                    "__69-[QVFileManager urlsForItemsInDirectoryAtURL:"
                                    "ignoringSymlinks:error:]_block_invoke",
                                    "Ignoring symlink at " + at("l") + "/link"}));
  }
}

TEST_F(Listing, KeepsTheReadersOrderAndListsEmptyDirectories) {
  MakeWide(at("l/dir.app"), 500);
  std::vector<std::string> order;
  for (const auto& entry : std::filesystem::directory_iterator(at("l/dir.app"))) {
    order.push_back(entry.path());
  }
  const auto items = manager_.urlsForItemsInDirectoryAtURL(directory("l/dir.app"), false);
  ASSERT_TRUE(items);
  std::vector<std::string> listed;
  for (const Path& item : *items) listed.push_back(item.string());
  EXPECT_EQ(listed, order);
  MakeDirectory(at("empty"));
  const auto none = manager_.urlsForItemsInDirectoryAtURL(directory("empty"), true, &error_);
  ASSERT_TRUE(none);
  EXPECT_THAT(*none, IsEmpty());
}

TEST_F(Listing, FailsWithTheWalksNumberAndLeaksNoDescriptor) {
  const auto failing = [&](const Path& path, int number) {
    EXPECT_FALSE(manager_.urlsForItemsInDirectoryAtURL(path, false, &error_));
    expectPosix(error_, number,
                "_IterateDirectory for " + path.string() + " returned " + ErrnoDescription(number),
                kFunction);
  };
  failing(directory("l/file"), ENOTDIR);
  failing(directory("l/link"), ENOTDIR);
  failing(directory("l/no"), ENOENT);
  const int lowest = ::dup(0);
  ::close(lowest);
  for (int after = 0; after < 5; ++after) {
    failReadingAfter = after;
    failing(directory("l"), EIO);
  }
  failReadingAfter = -1;
  const int now = ::dup(0);
  ::close(now);
  EXPECT_EQ(now, lowest);
}

// --- Store metadata ---------------------------------------------------------------------------

class Capture : public FileManager {
 protected:
  void SetUp() override {
    MakeDirectory(at("from"));
    MakeDirectory(at("to"));
  }
  void fillAll() {
    for (const char* name : kNames) WriteFile(at(std::string("from/") + name), name);
  }
  // Makes the carrying of an item fail: a file cannot replace a directory.
  void block(const std::string& name) {
    MakeDirectory(at("to/" + name));
    WriteFile(at("to/" + name + "/f"), "");
  }
  bool carry(StoreDataCapture how) {
    return manager_.captureStoreDataFromDirectory(directory("from"), directory("to"), how, &error_);
  }
  static constexpr const char* kNames[] = {"Manifest.plist", "LorvixArtwork",
                                           "LorvixMetadata.plist", "GeoJSON"};
};

TEST_F(Capture, CarriesWhatIsThere) {
  EXPECT_TRUE(carry({.failureIsFatal = true}));
  WriteFile(at("from/LorvixMetadata.plist"), "m");
  MakeDirectory(at("from/GeoJSON"));
  WriteFile(at("from/other"), "o");
  EXPECT_TRUE(carry({.doCopy = true}));
  EXPECT_TRUE(Exists(at("from/GeoJSON")) && Exists(at("to/GeoJSON")));
  ASSERT_TRUE(manager_.removeItemAtURL(directory("to/GeoJSON")));
  EXPECT_TRUE(carry({.failureIsFatal = true}));
  EXPECT_FALSE(Exists(at("from/LorvixMetadata.plist")) || Exists(at("from/GeoJSON")));
  EXPECT_EQ(ReadFile(at("to/LorvixMetadata.plist")), "m");
  EXPECT_TRUE(Exists(at("from/other")));
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
}

TEST_F(Capture, AFatalFailureEndsItWithTheItemsOwnKey) {
  fillAll();
  block("LorvixArtwork");
  EXPECT_FALSE(carry({.failureIsFatal = true}));
  EXPECT_TRUE(error_.is("QVInstallerErrorDomain", 24));
  EXPECT_EQ(*error_.infoString("LegacyErrorString"), "LorvixArtworkCaptureFailed");
  EXPECT_EQ(error_.description(),
            "Failed to move " + url("from/LorvixArtwork") + " to " + url("to/LorvixArtwork"));
  EXPECT_EQ(*error_.underlying().infoString(QVFunctionNameErrorKey), kMove);
  EXPECT_TRUE(Exists(at("to/Manifest.plist")));
  EXPECT_TRUE(Exists(at("from/LorvixMetadata.plist")) && Exists(at("from/GeoJSON")));
  EXPECT_EQ(platform_.log.lines().size(), 1U);
  EXPECT_EQ(platform_.log.lines()[0].function,
            "-[QVFileManager captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:"
            "withError:]");
}

TEST_F(Capture, OtherFailuresAreLoggedAndPassedOver) {
  fillAll();
  block("Manifest.plist");
  block("LorvixMetadata.plist");
  EXPECT_TRUE(carry({.doCopy = true}));
  EXPECT_FALSE(error_);
  const auto messages = platform_.log.messages(3);
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_THAT(messages[0], ::testing::HasSubstr("Failed to copy " + url("from/Manifest.plist")));
  EXPECT_THAT(messages[1],
              ::testing::HasSubstr("Failed to copy " + url("from/LorvixMetadata.plist")));
  EXPECT_TRUE(Exists(at("to/LorvixArtwork")) && Exists(at("to/GeoJSON")));
}

// --- Attributes -------------------------------------------------------------------------------

TEST_F(FileManager, ExistenceIsByTheItemItselfAndDoubtIsNeither) {
  MakeLink("nowhere", at("link"));
  WriteFile(at("file"), "");
  EXPECT_TRUE(manager_.itemExistsAtURL(file("link")));
  EXPECT_FALSE(manager_.itemDoesNotExistAtURL(file("link")));
  EXPECT_FALSE(manager_.itemExistsAtURL(file("no")));
  EXPECT_TRUE(manager_.itemDoesNotExistAtURL(file("no")));
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
  EXPECT_FALSE(manager_.itemExistsAtURL(file("file/x")));
  EXPECT_FALSE(manager_.itemDoesNotExistAtURL(file("file/x")));
  const std::string text = "Failed to determine if " + url("file/x") + " exists: Not a directory";
  EXPECT_THAT(platform_.log.lines(),
              ElementsAre(LogLine{3, "-[QVFileManager itemExistsAtURL:]", text},
                          LogLine{3, "-[QVFileManager itemDoesNotExistAtURL:]", text}));
}

TEST_F(FileManager, LinksHoldTheTargetUnchanged) {
  constexpr const char* create =
      "-[QVFileManager createSymbolicLinkAtURL:withDestinationURL:error:]";
  const std::string target = "../" + std::string(1021, 't');
  EXPECT_TRUE(manager_.createSymbolicLinkAtURL(file("link"), Path(target), &error_));
  EXPECT_EQ(manager_.destinationOfSymbolicLinkAtURL(file("link"))->string(), target);
  EXPECT_FALSE(manager_.createSymbolicLinkAtURL(file("link"), Path("t"), &error_));
  expectPosix(error_, EEXIST,
              "Could not create symlink containing t at " + at("link") + ": File exists", create);
  EXPECT_FALSE(manager_.destinationOfSymbolicLinkAtURL(file("no"), &error_));
  expectPosix(error_, ENOENT, "Could not readlink " + at("no") + " : No such file or directory",
              "-[QVFileManager destinationOfSymbolicLinkAtURL:error:]");
}

TEST_F(FileManager, ProtectionClassesAreReadSetAndRefused) {
  constexpr const char* get = "-[QVFileManager dataProtectionClassOfItemAtURL:class:error:]";
  constexpr const char* set =
      "-[QVFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]";
  WriteFile(at("file"), "");
  MakeLink("file", at("link"));
  std::int32_t number = -7;
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(file("file"), 3, nullptr, &error_));
  std::int32_t seen = 0;
  const auto refuse = [&](std::int32_t current) { return seen = current, false; };
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(file("file"), 4, refuse, &error_));
  EXPECT_EQ(seen, 3);
  EXPECT_TRUE(manager_.dataProtectionClassOfItemAtURL(file("file"), &number, &error_));
  EXPECT_EQ(number, 3);
  EXPECT_FALSE(manager_.dataProtectionClassOfItemAtURL(file("link"), &number, &error_));
  expectPosix(error_, ELOOP,
              "Failed to open " + at("link") + " : Too many levels of symbolic links", get);
  EXPECT_FALSE(manager_.setDataProtectionClassOfItemAtURL(file("no"), 4, nullptr, &error_));
  expectPosix(error_, ENOENT, "Failed to open " + at("no") + " : No such file or directory", set);
  breakCall("GetProtectionClass", 0, EIO);
  EXPECT_FALSE(manager_.dataProtectionClassOfItemAtURL(file("file"), &number, &error_));
  expectPosix(error_, EIO, "Failed to getclass of file " + at("file") + ": Input/output error",
              get);
  EXPECT_FALSE(manager_.setDataProtectionClassOfItemAtURL(file("file"), 4, refuse, &error_));
  expectPosix(error_, EIO, "Failed to getclass of file " + at("file") + ": Input/output error",
              set);
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(file("file"), 4, nullptr, &error_));
  breakCall("SetProtectionClass", 0, EROFS);
  EXPECT_FALSE(manager_.setDataProtectionClassOfItemAtURL(file("file"), 4, nullptr, &error_));
  expectPosix(error_, EROFS,
              "Failed to setclass(4) on file " + at("file") + ": Read-only file system", set);
  EXPECT_EQ(number, 3);  // failures left it alone
}

TEST_F(FileManager, MarksOnBundles) {
  MakeDirectory(at("B.app"));
  MakeLink("B.app", at("link"));
  const Path bundle = directory("B.app");
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(bundle));
  EXPECT_EQ(manager_.installTypeForBundle(bundle, &error_), 0U);
  EXPECT_TRUE(manager_.markBundleAsPlaceholder(bundle, &error_));
  EXPECT_TRUE(manager_.setInstallType(2, bundle, &error_));
  EXPECT_TRUE(manager_.bundleAtURLIsPlaceholder(bundle));
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(directory("link")));
  EXPECT_EQ(AttributesOf(at("B.app"))["user.com.velto.quorveld.installType"],
            std::string("\2\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(AttributesOf(at("B.app"))["user.com.velto.quorveld.placeholder"],
            std::string("\1\0\0\0", 4));
  EXPECT_TRUE(manager_.setInstallType(UINT64_MAX, bundle));
  EXPECT_EQ(manager_.installTypeForBundle(bundle), UINT64_MAX);
  // Any four bytes are a mark; other sizes are none, without a word.
  SetAttribute(at("B.app"), "user.com.velto.quorveld.placeholder", std::string(4, '\0'));
  EXPECT_TRUE(manager_.bundleAtURLIsPlaceholder(bundle));
  for (const std::size_t size : {0U, 3U, 8U}) {
    SetAttribute(at("B.app"), "user.com.velto.quorveld.placeholder", std::string(size, 1));
    EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(bundle)) << size;
  }
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(directory("no")));
  EXPECT_THAT(platform_.log.messages(), IsEmpty());
}

TEST_F(FileManager, MarksThatFailAreLoggedWithTheirCause) {
  MakeDirectory(at("B.app"));
  const auto check = [&](const std::string& text, const char* function, int cause) {
    EXPECT_TRUE(error_.is("QVInstallerErrorDomain", 4));
    EXPECT_EQ(error_.description(), text);
    EXPECT_EQ(*error_.infoString(QVFunctionNameErrorKey), function);
    EXPECT_EQ(error_.underlying().code(), cause);
    EXPECT_EQ(platform_.log.lines().size(), 1U);
    platform_.log.clear();
  };
  EXPECT_FALSE(manager_.markBundleAsPlaceholder(directory("no"), &error_));
  check("Could't set placeholder EA on \"" + at("no") + "\": No such file or directory",
        "-[QVFileManager markBundleAsPlaceholder:withError:]", ENOENT);
  EXPECT_FALSE(manager_.setInstallType(1, directory("no"), &error_));
  check("Could't set installType EA on \"" + at("no") + "\": No such file or directory",
        "-[QVFileManager setInstallType:onBundle:error:]", ENOENT);
  constexpr const char* get = "-[QVFileManager installTypeForBundle:error:]";
  EXPECT_FALSE(manager_.installTypeForBundle(directory("no"), &error_));
  check("Couldn't get installType EA from \"" + at("no") + "\": No such file or directory", get,
        ENOENT);
  SetAttribute(at("B.app"), "user.com.velto.quorveld.installType", "four");
  EXPECT_FALSE(manager_.installTypeForBundle(directory("B.app"), &error_));
  check("getxattr for installType EA on " + at("B.app") + " returned 4 (expected 8)", get, 0);
}

}  // namespace
}  // namespace quorvel::tests
