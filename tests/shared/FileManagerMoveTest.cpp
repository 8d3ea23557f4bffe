// Copies and moves, also between file systems and killed at every change that they make.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/DeviceNames.h"
#include "tests/shared/FileManagerFixture.h"
#include "tests/support/SystemCallFaults.h"

namespace quorvel::tests {
namespace {

using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr const char* kCopy = "-[QVFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]";

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
  breakCall("RemoveTree", 1, EBUSY);
  EXPECT_TRUE(manager_.moveItemAtURL(source(), directory("to"), &error_));
  EXPECT_FALSE(error_);
  ASSERT_EQ(platform_.log.lines().size(), 1U);
  EXPECT_EQ(platform_.log.lines()[0].function, kMove);
  EXPECT_THAT(platform_.log.lines()[0].message,
              StartsWith("Failed to remove move source after copy at " +
                         (disk_ / (std::string(MoveRemainPrefix) + "1/Documents")) +
                         " : PosixErrorDomain 16 {"));
  // What stayed is known for what it is.
  repair();
  // What only has the name of such remains is the user's.
  WriteFile(disk_ / ".com.velto.quorvel.moved.notes", "mine");
  std::filesystem::create_directory(disk_ / ".com.velto.quorvel.moved.7");
  WriteFile(disk_ / ".com.velto.quorvel.moved.7/file", "mine");
  manager_.removeRemainsOfMovesInDirectory(Path::directory(disk_.path()));
  EXPECT_EQ(ReadFile(disk_ / ".com.velto.quorvel.moved.notes"), "mine");
  EXPECT_EQ(ReadFile(disk_ / ".com.velto.quorvel.moved.7/file"), "mine");
  EXPECT_FALSE(Exists(disk_ / ".com.velto.quorvel.moved.1"));
}

TEST_F(MoveAcross, WhatFailsSpeaksForItself) {
  WriteFile(disk_ / "file", "x");
  breakCall("SyncFileSystem", 1, EIO);
  EXPECT_FALSE(manager_.moveItemAtURL(Path(disk_ / "file"), file("file"), &error_));
  expectPosix(error_, EIO, "sync of " + at("file") + " failed: Input/output error",
              "-[QVFileManager syncFileSystemsOfItems:error:]");
  EXPECT_EQ(ReadFile(disk_ / "file"), "x");
  repair();
  ASSERT_EQ(::mknod((disk_ / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
  const Path socket(disk_ / "socket");
  EXPECT_FALSE(manager_.moveItemAtURL(socket, file("socket"), &error_));
  expectPosix(error_, EOPNOTSUPP,
              "clonetree of file://" + socket.string() + " to " + url("socket") +
                  " failed: " + ErrnoDescription(EOPNOTSUPP),
              "-[QVFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]");
  EXPECT_TRUE(Exists(socket.string()));
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

}  // namespace
}  // namespace quorvel::tests
