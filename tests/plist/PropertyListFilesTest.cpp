// Property-list files, whole-file data and bundles on a real disk: what is replaced is replaced
// whole, what was left behind is taken over, and nothing but regular files is read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "tests/plist/FilesFixture.h"
#include "tests/support/SystemCallFaults.h"

namespace quorvel::onlinux {
namespace {

using FilesTest = FilesFixture;

TEST_F(FilesTest, WritesReadsAndReplaces) {
  const mode_t previous = ::umask(077);
  for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    const PlistDictionary dictionary = {{"format", static_cast<int>(format)}, {"n", 1.5}};
    Error error;
    EXPECT_TRUE(lists_.writeDictionary(dictionary, file_, format, &error));
    EXPECT_FALSE(error);
    const auto read = lists_.readDictionary(file_, &error);
    ASSERT_TRUE(read != nullptr) << error.description();
    EXPECT_TRUE(*read == dictionary);
    EXPECT_EQ(ModeOf(file_.string()), 0644U);
  }
  ::umask(previous);
  EXPECT_EQ(NamesIn(tree_.path()), std::vector<std::string>{"list.plist"});
}

TEST_F(FilesTest, SaysWhyAFileCannotBeRead) {
  Error error;
  for (const auto& [name, failure] : makeForeignKinds()) {
    EXPECT_EQ(lists_.readDictionary(Path::file(tree_.at(name)), &error), nullptr);
    EXPECT_TRUE(error.is(PosixErrorDomain, failure)) << name << ": " << error.description();
    EXPECT_EQ(data_.readWholeFile(Path::file(tree_.at(name)), &error), nullptr);
    EXPECT_TRUE(error.is(PosixErrorDomain, failure)) << name << ": " << error.description();
  }
  EXPECT_EQ(lists_.readDictionary(file_, &error), nullptr);
  EXPECT_TRUE(error.is(PosixErrorDomain, ENOENT));
  for (const char* text : {"", "garbage", "<plist><array/></plist>", "<plist><dict>", "bplist00"}) {
    tree_.write("list.plist", text);
    EXPECT_EQ(lists_.readDictionary(file_, &error), nullptr);
    EXPECT_TRUE(error.is(PlatformErrorDomain, PlatformPropertyListReadCorruptError)) << text;
  }
  // Sparse: refused by its size, without being read.
  ASSERT_EQ(::truncate(file_.string().c_str(), off_t{1} << 40U), 0);
  EXPECT_EQ(lists_.readDictionary(file_, &error), nullptr);
  EXPECT_TRUE(error.is(PosixErrorDomain, EFBIG));
  EXPECT_EQ(data_.readWholeFile(file_, &error), nullptr);
  EXPECT_TRUE(error.is(PosixErrorDomain, EFBIG));
}

TEST_F(FilesTest, WholeFilesAreBytes) {
  Error error;
  EXPECT_EQ(data_.readWholeFile(file_, &error), nullptr);
  EXPECT_TRUE(error.is(PlatformErrorDomain, PlatformFileReadNoSuchFileError));
  for (const std::size_t size : {0U, 1U, 65'535U, 65'536U, 65'537U, 3'000'000U}) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 31 >> 3U);
    ASSERT_TRUE(data_.writeAtomically(bytes, file_, &error)) << error.description();
    const auto read = data_.readWholeFile(file_, &error);
    ASSERT_TRUE(read != nullptr);
    EXPECT_TRUE(*read == bytes) << size;
  }
  EXPECT_EQ(ModeOf(file_.string()), 0644U);
  EXPECT_EQ(data_.temporaryDirectory(), Path::directory("/private/var/tmp"));
  EXPECT_EQ(FileDataLinux(Path::directory("/x")).temporaryDirectory(), Path::directory("/x"));
}

TEST_F(FilesTest, ReadsAFileThatGrowsAndShrinks) {
  tree_.write("list.plist", std::string(100'000, 'x'));
  std::atomic<bool> stop = false;
  std::thread changer([&] {
    for (off_t size = 0; !stop; size = (size + 70'001) % 400'000) {
      EXPECT_EQ(::truncate(file_.string().c_str(), size), 0);
    }
  });
  for (int i = 0; i < 500; ++i) EXPECT_TRUE(data_.readWholeFile(file_, nullptr) != nullptr);
  stop = true;
  changer.join();
}

TEST_F(FilesTest, TakesOverWhatAKilledWriterLeft) {
  const std::string temporary = tree_.at(TemporaryNameFor("list.plist"));
  EXPECT_EQ(temporary, tree_.at(".list.plist.tmp"));
  tree_.write("canary", "safe");
  const auto replaces = [&] {
    Error error;
    const bool written = data_.writeAtomically(BytesOf("new"), file_, &error);
    return written && tree_.read("list.plist") == "new" && tree_.read("canary") == "safe" &&
           NamesIn(tree_.path()) == std::vector<std::string>{"canary", "list.plist"};
  };
  tree_.write(".list.plist.tmp", "stale");
  EXPECT_TRUE(replaces());
  fs::create_symlink("canary", temporary);
  EXPECT_TRUE(replaces());
  fs::create_symlink("nowhere", temporary);
  EXPECT_TRUE(replaces());
  ASSERT_EQ(::mkfifo(temporary.c_str(), 0600), 0);
  EXPECT_TRUE(replaces());
  fs::create_hard_link(tree_.at("canary"), temporary);
  EXPECT_TRUE(replaces());
  // The target may be a link as well: it is replaced, not followed.
  fs::remove(file_.string());
  fs::create_symlink("canary", file_.string());
  EXPECT_TRUE(replaces());
}

TEST_F(FilesTest, AFailureLeavesTheOldFileAlone) {
  tree_.write("list.plist", "old");
  Error error;
  fs::create_directory(tree_.at(".list.plist.tmp"));
  EXPECT_FALSE(data_.writeAtomically(BytesOf("new"), file_, &error));
  EXPECT_TRUE(error.is(PosixErrorDomain, EISDIR));
  fs::remove(tree_.at(".list.plist.tmp"));

  // Content that did not reach the disk gets no name that others read.
  EXPECT_TRUE(quorvel::testing::InChild([&] {
    quorvel::testing::FailSystemCall(SYS_fsync, EIO);
    EXPECT_FALSE(lists_.writeDictionary({}, file_, PropertyListFormat::xml, &error));
    EXPECT_TRUE(error.is(PosixErrorDomain, EIO));
  }));

  const PlistDictionary control = {{"k", "\x01"}};
  EXPECT_FALSE(lists_.writeDictionary(control, file_, PropertyListFormat::xml, &error));
  EXPECT_TRUE(error.is(PlatformErrorDomain, PlatformPropertyListWriteInvalidError));

  fs::create_directory(tree_.at("directory"));
  EXPECT_FALSE(data_.writeAtomically({}, Path::file(tree_.at("directory")), &error));
  EXPECT_TRUE(error.is(PosixErrorDomain, EISDIR));
  EXPECT_FALSE(data_.writeAtomically({}, Path::file(tree_.at("missing/file")), &error));
  EXPECT_TRUE(error.is(PosixErrorDomain, ENOENT));
  for (const char* name : {"/", "", "..", "."}) {
    EXPECT_FALSE(data_.writeAtomically({}, Path::file(name), &error)) << name;
  }
  EXPECT_EQ(tree_.read("list.plist"), "old");
  EXPECT_EQ(NamesIn(tree_.path()), (std::vector<std::string>{"directory", "list.plist"}));
}

// A write that cannot be completed: the file size limit stands in for a full disk.
TEST_F(FilesTest, AWriteThatFailsHalfwayLeavesNothing) {
  tree_.write("list.plist", "old");
  EXPECT_EQ(::chmod(tree_.path().c_str(), 0777), 0);
  EXPECT_TRUE(AsNobody([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {1000, 1000};
    Error error;
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
           !data_.writeAtomically(std::vector<std::uint8_t>(5000), file_, &error) &&
           error.is(PosixErrorDomain, EFBIG);
  }));
  EXPECT_EQ(tree_.read("list.plist"), "old");
  EXPECT_EQ(NamesIn(tree_.path()), std::vector<std::string>{"list.plist"});
}

TEST_F(FilesTest, PermissionsAreRespected) {
  tree_.write("list.plist", "<plist><dict/></plist>");
  EXPECT_EQ(::chmod(file_.string().c_str(), 0600), 0);
  EXPECT_EQ(::chmod(tree_.path().c_str(), 0755), 0);
  if (::geteuid() != 0) GTEST_SKIP() << "needs a second user";
  EXPECT_TRUE(AsNobody([&] {
    Error read, whole, write;
    return lists_.readDictionary(file_, &read) == nullptr &&
           data_.readWholeFile(file_, &whole) == nullptr &&
           !data_.writeAtomically({}, file_, &write) && read.is(PosixErrorDomain, EACCES) &&
           whole.is(PosixErrorDomain, EACCES) && write.is(PosixErrorDomain, EACCES);
  }));
  EXPECT_EQ(NamesIn(tree_.path()), std::vector<std::string>{"list.plist"});
}

// Readers and several writers at once: every reader sees one writer's content whole.
TEST_F(FilesTest, NoReaderEverSeesHalf) {
  constexpr std::size_t kSize = 50'000;
  ASSERT_TRUE(data_.writeAtomically(std::vector<std::uint8_t>(kSize, 'a'), file_, nullptr));
  std::atomic<int> running = 4;
  std::vector<std::thread> writers;
  for (std::uint8_t letter = 'a'; letter < 'e'; ++letter) {
    writers.emplace_back([&, letter] {
      const std::vector<std::uint8_t> bytes(kSize, letter);
      Error error;
      for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(data_.writeAtomically(bytes, file_, &error)) << error.description();
      }
      --running;
    });
  }
  while (running > 0) {
    const auto bytes = data_.readWholeFile(file_, nullptr);
    ASSERT_TRUE(bytes != nullptr);
    EXPECT_TRUE(*bytes == std::vector<std::uint8_t>(kSize, bytes->front()));
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(NamesIn(tree_.path()), std::vector<std::string>{"list.plist"});
}

// A writer that is at work holds a lock on its temporary file: it is waited for, not robbed.
TEST_F(FilesTest, WaitsForALivingWriter) {
  const std::string temporary = tree_.write(".list.plist.tmp", "at work");
  const UniqueDescriptor held(::open(temporary.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
  std::thread writer([&] { EXPECT_TRUE(data_.writeAtomically(BytesOf("new"), file_, nullptr)); });
  ::usleep(100'000);
  EXPECT_EQ(tree_.read(".list.plist.tmp"), "at work");
  ASSERT_EQ(::rename(temporary.c_str(), file_.string().c_str()), 0);
  EXPECT_EQ(tree_.read("list.plist"), "at work");
  ::flock(held.get(), LOCK_UN);
  writer.join();
  EXPECT_EQ(tree_.read("list.plist"), "new");
}

// A process killed at any moment leaves one whole content, and its successor no trace of it.
TEST_F(FilesTest, KilledWritersLeaveAWholeFile) {
  const std::size_t size = 200'000;
  for (int round = 0; round < 40; ++round) {
    const pid_t child = ::fork();
    if (child == 0) {
      for (std::uint8_t letter = 'a';; letter = letter == 'a' ? 'b' : 'a') {
        data_.writeAtomically(std::vector<std::uint8_t>(size, letter), file_, nullptr);
      }
    }
    ::usleep(static_cast<useconds_t>(1000 + round * 211));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    if (const auto bytes = data_.readWholeFile(file_, nullptr)) {
      ASSERT_EQ(bytes->size(), size);
      EXPECT_TRUE(*bytes == std::vector<std::uint8_t>(size, bytes->front()));
    }
  }
  ASSERT_TRUE(data_.writeAtomically(BytesOf("end"), file_, nullptr));
  EXPECT_EQ(NamesIn(tree_.path()), std::vector<std::string>{"list.plist"});
}

TEST_F(FilesTest, LongAndOddNames) {
  const std::string longest(255, 'n');
  for (const std::string& bytes :
       {longest, longest.substr(0, 251), std::string("\xFF\x01 \n.plist")}) {
    EXPECT_LE(TemporaryNameFor(bytes).size(), 255U);
    const Path file = Path::file(tree_.path()).child(StringFromFileSystemRepresentation(bytes));
    Error error;
    EXPECT_TRUE(data_.writeAtomically(BytesOf("x"), file, &error)) << error.description();
    EXPECT_EQ(tree_.read(bytes), "x");
  }
  EXPECT_EQ(NamesIn(tree_.path()).size(), 3U);
}

}  // namespace
}  // namespace quorvel::onlinux
