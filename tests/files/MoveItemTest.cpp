// Moves between two real file systems, killed around every service call and repeated.
#include <utility>

#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/files/MoveTree.h"
#include "tests/support/TreeTools.h"

namespace quorvel {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools

// Ends the process, or fails, at one of the calls that change or flush the file system: before it
// takes effect, or after.
class FaultyFiles final : public FileSystem {
 public:
  enum class Fault { killBefore, killAfter, fail };
  FaultyFiles(int call, Fault fault) : left_(call), fault_(fault) {}
  bool fired() const { return left_ < 0; }
  std::vector<std::string> flushed;  // directories, in their order

  std::unique_ptr<WipeTreeState> allocateWipeTreeState() override {
    return real_.allocateWipeTreeState();
  }
  int RemoveTree(const char* path, unsigned flags, WipeTreeState& state) override {
    return at([&] { return real_.RemoveTree(path, flags, state); });
  }
  int CopyTree(const char* source, const char* destination, std::uint32_t flags,
               const LeftOutCallback& leftOut) override {
    return at([&] { return real_.CopyTree(source, destination, flags, leftOut); });
  }
  int MakePath(const char* path, mode_t mode) override { return real_.MakePath(path, mode); }
  int GetProtectionClass(int item) override { return real_.GetProtectionClass(item); }
  int SetProtectionClass(int item, int number) override {
    return real_.SetProtectionClass(item, number);
  }
  ssize_t getxattr(const char* path, const char* name, void* value, std::size_t size,
                   std::uint32_t position, int options) override {
    return real_.getxattr(path, name, value, size, position, options);
  }
  int setxattr(const char* path, const char* name, const void* value, std::size_t size,
               std::uint32_t position, int options) override {
    return at([&] { return real_.setxattr(path, name, value, size, position, options); });
  }
  int lchmod(int directory, const char* name, mode_t mode) override {
    return real_.lchmod(directory, name, mode);
  }
  bool LinksHaveModes() override { return real_.LinksHaveModes(); }
  int SyncDirectory(const char* path) override {
    flushed.emplace_back(path);
    return at([&] { return real_.SyncDirectory(path); });
  }
  int SyncFileSystem(const char* path) override {
    return at([&] { return real_.SyncFileSystem(path); });
  }

 private:
  int at(const std::function<int()>& call) {
    const bool now = left_-- == 0;
    if (now && fault_ == Fault::fail) {
      errno = EIO;
      return -1;
    }
    if (now && fault_ == Fault::killBefore) ::_exit(42);
    const int result = call();
    const int number = errno;
    if (now && fault_ == Fault::killAfter) ::_exit(42);
    errno = number;
    return result;
  }

  onlinux::FileSystemLinux real_;
  int left_;
  Fault fault_;
};

class MoveItemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (StatOf(near_.path()).st_dev == StatOf(far_.path()).st_dev) GTEST_SKIP() << "one device";
    MakeSource();
    whole_ = Snapshot(from_);
  }

  void MakeSource() {
    MakeDirectory(from_, 0750);
    MakeDirectory(from_ + "/sub");
    WriteFile(from_ + "/file", std::string(100000, 'f'), 0640);
    WriteFile(from_ + "/sub/file", "x");
    MakeLink("file", from_ + "/link");
    const timespec times[] = {{1, 1}, {2, 2}};
    for (const char* name : {"/sub/file", "/sub", "/file", "/link", ""}) {
      ::utimensat(AT_FDCWD, (from_ + name).c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
  }

  int move(const std::string& from, const std::string& to) {
    Error error;
    if (onlinux::MoveItem(files_, from.c_str(), to.c_str(), &error)) return 0;
    EXPECT_EQ(error.domain(), PosixErrorDomain);
    return static_cast<int>(error.code());
  }

  // The move is complete and, but for what goes as remains, nothing else is there.
  void expectMoved() {
    onlinux::RemoveRemainsOfMoves(files_, near_.path());
    EXPECT_EQ(Snapshot(to_), whole_);
    EXPECT_EQ(Snapshot(far_.path()).size(), 1 + whole_.size());
    EXPECT_EQ(Snapshot(near_.path()).size(), 1U);
  }

  ScratchTree near_;
  ScratchTree far_{OtherFileSystem()};
  std::string from_ = near_ / "from";
  std::string to_ = far_ / "to";
  std::map<std::string, std::string> whole_;
  onlinux::FileSystemLinux files_;
};

TEST_F(MoveItemTest, MovesWholeTreesAndTellsWhenItWasDone) {
  EXPECT_EQ(move(from_ + "/", to_), 0);
  expectMoved();
  EXPECT_EQ(move(from_, to_), 0) << "repeated";
  expectMoved();
  EXPECT_EQ(move(from_, far_ / "other"), ENOENT);
  EXPECT_EQ(move(to_, far_ / "renamed"), 0);
  EXPECT_EQ(Snapshot(far_ / "renamed"), whole_);
  // What an earlier version began for a long name is known by its name, and taken over.
  const std::string longest = near_ / std::string(255, 'n');
  WriteFile(near_ / ".c2c977771654d7a9.incoming", "part");
  EXPECT_EQ(move(far_ / "renamed", longest), 0);
  EXPECT_EQ(Snapshot(longest), whole_);
  EXPECT_EQ(Snapshot(near_.path()).size(), 1 + whole_.size());
}

TEST_F(MoveItemTest, DestroysNothingThatItDidNotPutThere) {
  MakeDirectory(to_);
  WriteFile(to_ + "/foreign", "kept");
  EXPECT_EQ(move(from_, to_), ENOTEMPTY);
  EXPECT_EQ(move(from_ + "/file", to_), EISDIR);
  EXPECT_EQ(move(from_, to_ + "/foreign"), ENOTDIR);
  EXPECT_EQ(move(from_, far_ / "missing/to"), ENOENT);
  EXPECT_EQ(ReadFile(to_ + "/foreign"), "kept");
  EXPECT_EQ(Snapshot(from_), whole_);
  EXPECT_EQ(Snapshot(far_.path()).size(), 3U);
  // A mark of an earlier move of something else proves nothing.
  WriteFile(far_ / ".to.moving", near_ / "elsewhere");
  EXPECT_EQ(move(from_, to_), ENOTEMPTY);
  EXPECT_EQ(Snapshot(from_), whole_);
}

TEST_F(MoveItemTest, ASecondCallCompletesWhatAKillEnded) {
  for (const auto fault : {FaultyFiles::Fault::killBefore, FaultyFiles::Fault::killAfter}) {
    int call = 0;
    for (bool fired = true; fired; ++call) {
      const pid_t child = ::fork();
      if (child == 0) {
        FaultyFiles faulty(call, fault);
        onlinux::MoveItem(faulty, from_.c_str(), to_.c_str(), nullptr);
        ::_exit(0);
      }
      int status = 0;
      ::waitpid(child, &status, 0);
      fired = WIFEXITED(status) && WEXITSTATUS(status) == 42;
      const bool source = Exists(from_) && Snapshot(from_) == whole_;
      const bool destination = Exists(to_) && Snapshot(to_) == whole_;
      EXPECT_TRUE(source || destination) << "call " << call;
      EXPECT_EQ(move(from_, to_), 0) << "call " << call;
      expectMoved();
      RemoveWithSystem(to_);
      MakeSource();
    }
    EXPECT_GT(call, 6) << "every service call was tried";
  }
}

// A power cut must not bring a file's source back once nothing marks its destination as the copy.
TEST_F(MoveItemTest, AFilesRemovalIsStoredBeforeTheMarkGoes) {
  FaultyFiles files(1000, FaultyFiles::Fault::fail);
  ASSERT_TRUE(onlinux::MoveItem(files, (from_ + "/file").c_str(), to_.c_str(), nullptr));
  EXPECT_EQ(files.flushed, (std::vector<std::string>{far_.path(), from_}));
}

TEST_F(MoveItemTest, AFailureLeavesOneOfThemWhole) {
  for (int call = 0;; ++call) {
    FaultyFiles faulty(call, FaultyFiles::Fault::fail);
    Error error;
    const bool moved = onlinux::MoveItem(faulty, from_.c_str(), to_.c_str(), &error);
    if (!faulty.fired()) break;
    ASSERT_LT(call, 20);
    const bool source = Exists(from_) && Snapshot(from_) == whole_;
    const bool destination = Exists(to_) && Snapshot(to_) == whole_;
    EXPECT_TRUE(destination || (source && !moved)) << "call " << call;
    EXPECT_EQ(error.code(), moved ? 0 : EIO);
    EXPECT_EQ(move(from_, to_), 0) << "call " << call;
    expectMoved();
    RemoveWithSystem(to_);
    MakeSource();
  }
}

}  // namespace
}  // namespace quorvel
