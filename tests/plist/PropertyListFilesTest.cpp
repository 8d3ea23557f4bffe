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
#include "platform/linux/files/FileDataLinux.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/plist/PropertyListFiles.h"
#include "tests/support/SystemCallFaults.h"
#include "tests/support/TreeTools.h"

namespace quorvel::onlinux {
namespace {

namespace fs = std::filesystem;
using quorvel::testing::TemporaryTree;

constexpr uid_t kNobody = 65534;

std::vector<std::uint8_t> BytesOf(std::string_view text) { return {text.begin(), text.end()}; }

std::vector<std::string> NamesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

mode_t ModeOf(const std::string& file) { return testing::StatOf(file).st_mode & 07777U; }

// Runs the function in a child process without privileges; whether it returned true there.
template <class Function>
bool AsNobody(Function function) {
  const pid_t child = ::fork();
  if (child == 0) {
    const bool dropped = ::geteuid() != 0 || (::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
    ::_exit(dropped && function() ? 0 : 1);
  }
  int status = -1;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status == 0;
}

class FilesTest : public ::testing::Test {
 protected:
  FilesTest() : file_(Path::file(tree_.at("list.plist"))) {}

  // Everything that is no regular file, or a link to one, under its name; and what reading says.
  std::vector<std::pair<std::string, int>> makeForeignKinds() {
    tree_.write("real", "<plist><dict/></plist>");
    fs::create_directory(tree_.at("directory"));
    fs::create_symlink("real", tree_.at("link"));
    EXPECT_EQ(::mkfifo(tree_.at("fifo").c_str(), 0600), 0);
    return {{"directory", EISDIR}, {"link", ELOOP}, {"fifo", EINVAL}, {"real/child", ENOTDIR}};
  }

  TemporaryTree tree_;
  const Path file_;
  PropertyListFiles lists_;
  FileDataLinux data_;
};

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

TEST_F(FilesTest, BundlesReadTheirInfoOnceAndKeepIt) {
  BundleReaderLinux reader;
  fs::create_directory(tree_.at("A.app"));
  const Path directory = Path::directory(tree_.at("A.app"));
  const Path info = directory.child("Info.plist");
  ASSERT_TRUE(lists_.writeDictionary({{"PKBundleIdentifier", "com.example.a"}, {"b", 2}, {"c", 3}},
                                     info, PropertyListFormat::binary, nullptr));
  const auto bundle = reader.open(directory, nullptr);
  ASSERT_TRUE(bundle != nullptr);
  EXPECT_EQ(bundle->path(), directory);
  // The bundle goes on with the directory that it opened.
  fs::rename(tree_.at("A.app"), tree_.at("moved"));
  ASSERT_TRUE(bundle->identifier() != nullptr);
  EXPECT_EQ(*bundle->identifier(), "com.example.a");
  fs::remove_all(tree_.at("moved"));
  const PlistDictionary* full = bundle->infoDictionary();
  ASSERT_TRUE(full != nullptr);
  EXPECT_EQ(*full->findString(PKBundleInfoPlistURLKey), info.string());
  EXPECT_EQ(full->size(), 4U);
  const auto filtered = bundle->filteredInfo({"b", "x", PKBundleInfoPlistURLKey});
  EXPECT_TRUE(*filtered == PlistValue(PlistDictionary{{"b", 2}}));
}

// A reader parses what it has parsed before only once, and tells old from new by the bytes alone.
TEST_F(FilesTest, WhatABundleSaysNowIsNeverTakenFromWhatOneSaidBefore) {
  BundleReaderLinux reader;
  const std::string file = tree_.at("A.app/Info.plist");
  const auto identifier = [&](Error* error) {
    const auto bundle = reader.open(Path::directory(tree_.at("A.app")), nullptr);
    const std::string* found = bundle->identifier(error);
    return found != nullptr ? *found : std::string("(none)");
  };
  std::filesystem::create_directories(tree_.at("A.app"));
  std::filesystem::file_time_type written;
  // More of them than are kept, the same size and time each, and every one asked for again.
  for (int i = 0; i < 2400; ++i) {
    const std::string name = "id." + std::to_string(10000 + i % 1200);
    std::ofstream(file) << "<plist><dict><key>PKBundleIdentifier</key><string>" << name
                        << "</string><key>Filler</key><string>" << std::string(500, 'x')
                        << "</string></dict></plist>";
    if (i == 0) written = std::filesystem::last_write_time(file);
    std::filesystem::last_write_time(file, written);
    ASSERT_EQ(identifier(nullptr), name);
    ASSERT_EQ(identifier(nullptr), name);
  }
  std::filesystem::resize_file(file, 100);
  Error error;
  EXPECT_EQ(identifier(&error), "(none)");
  EXPECT_TRUE(error.is(PlatformErrorDomain, PlatformPropertyListReadCorruptError));
}

// A container is removed on what these answers say.
TEST_F(FilesTest, BundlesThatAreNone) {
  BundleReaderLinux reader;
  Error error;
  const auto opens = [&](const std::string& name) {
    error = {};
    return reader.open(Path::directory(tree_.at(name)), &error) != nullptr;
  };
  makeForeignKinds();
  fs::create_directory_symlink("directory", tree_.at("link to directory"));
  for (const char* name : {"real", "fifo", "real/child", "nothing"}) {
    EXPECT_FALSE(opens(name)) << name;
    EXPECT_TRUE(IsCertainlyUnusable(error)) << name << ": " << error.description();
  }
  for (const char* name : {"link", "link to directory"}) {
    EXPECT_FALSE(opens(name)) << name;
    EXPECT_TRUE(error.is(PosixErrorDomain, ELOOP)) << name << ": " << error.description();
    EXPECT_FALSE(IsCertainlyUnusable(error));
  }
  EXPECT_FALSE(IsCertainlyUnusable(Error()));
}

// What the info dictionary "directory/Info.plist" is worth, written first unless it is null: 'i'
// when the identifier could be read, 'd' when only the dictionary could; when neither, '!' for what
// is certainly no info dictionary, '?' otherwise.
char Answer(const quorvel::testing::TemporaryTree& tree, const char* info) {
  if (info != nullptr) tree.write("directory/Info.plist", info);
  const auto bundle = BundleReaderLinux().open(Path::directory(tree.at("directory")), nullptr);
  Error whole, filtered, none;
  const bool read = bundle->infoDictionary(&whole) != nullptr;
  EXPECT_EQ(bundle->filteredInfo({}, &filtered) != nullptr, read);
  EXPECT_EQ(whole.code(), filtered.code());
  if (bundle->identifier(&none) != nullptr) return 'i';
  EXPECT_TRUE(!read || none.is(PlatformErrorDomain, PlatformPropertyListReadCorruptError));
  EXPECT_TRUE(read || none.code() == whole.code());
  if (read) return 'd';
  return IsCertainlyUnusable(whole) ? '!' : '?';
}

TEST_F(FilesTest, InfoDictionariesThatAreNone) {
  const auto answer = [&](const char* info) { return Answer(tree_, info); };
  fs::create_directory(tree_.at("directory"));
  EXPECT_EQ(answer(nullptr), '!');
  EXPECT_EQ(answer(""), '!');
  EXPECT_EQ(answer("<plist><array/></plist>"), '!');
  EXPECT_EQ(answer("<plist><dict/></plist>"), 'd');
  const std::string start = "<plist><dict><key>PKBundleIdentifier</key>", end = "</dict></plist>";
  EXPECT_EQ(answer((start + "<integer>1</integer>" + end).c_str()), 'd');
  EXPECT_EQ(answer((start + "<string></string>" + end).c_str()), 'i');
  EXPECT_EQ(answer((start + "<string>a</string>" + end).c_str()), 'i');
  // A link is followed beneath the bundle; one that leads elsewhere says nothing about the bundle.
  const std::string info = tree_.at("directory/Info.plist");
  fs::rename(info, tree_.at("directory/real.plist"));
  fs::create_directory(tree_.at("directory/sub"));
  fs::create_symlink("../real.plist", tree_.at("directory/sub/back"));
  fs::create_symlink("./sub/", tree_.at("directory/way"));
  const std::pair<std::string, char> links[] = {
      {"real.plist", 'i'},        {"way/../sub//back", 'i'},
      {"../real", '?'},           {"sub/../../directory/real.plist", '?'},
      {"missing", '?'},           {tree_.at("directory/real.plist"), '?'},
      {"Info.plist", '?'},        {"way/real.plist", '?'},
      {"real.plist/deeper", '?'}, {"sub", '?'}};
  for (const auto& [target, expected] : links) {
    fs::remove(info);
    fs::create_symlink(target, info);
    EXPECT_EQ(answer(nullptr), expected) << target;
  }
  fs::remove(info);
  fs::create_directory(info);
  EXPECT_EQ(answer(nullptr), '?');
}

// Whichever call fails, with whatever number: never does a bundle seem to be certainly unusable.
TEST_F(FilesTest, NoFailedCallMakesABundleUseless) {
  tree_.write("A.app/real.plist",
              "<dict><key>PKBundleIdentifier</key><string>com.example.a</string></dict>");
  fs::create_symlink("real.plist", tree_.at("A.app/Info.plist"));
  const auto look = [&] {
    Error error;
    const auto bundle = BundleReaderLinux().open(Path::directory(tree_.at("A.app")), &error);
    if (bundle != nullptr && bundle->identifier(&error) != nullptr) return 0;
    return IsCertainlyUnusable(error) ? 2 : 1;
  };
  for (const int number : {EIO, EUCLEAN, EMFILE, ELOOP, ENOMEM, ETIMEDOUT}) {
    int failed = 0;
    for (long call = 1;; ++call) {
      const auto run = tests::RunWithFault(look, {call, number, tests::CountedCalls::looking});
      if (!run.wasTraced || !tests::CanFailSystemCalls) GTEST_SKIP() << "needs ptrace";
      if (!run.fired) break;
      EXPECT_LT(run.exitStatus, 2) << ErrnoDescription(number) << " from call " << call;
      failed += run.exitStatus;
    }
    // Two openings, one status, one reading; but ELOOP is what the first look at a link meets
    // anyway.
    EXPECT_GE(failed, number == ELOOP ? 3 : 4) << ErrnoDescription(number);
  }
}

#ifndef __SANITIZE_ADDRESS__  // which needs all the address space there is
TEST_F(FilesTest, MemoryThatRunsOutIsNoDamage) {
  constexpr std::size_t kMegabyte = std::size_t{1} << 20U;
  const std::string text(2 * kMegabyte, 'x');
  std::string nested = "<plist><dict><key>k</key><array>";
  for (int i = 0; i < 20; ++i) nested += "<string>" + text + "</string>";
  tree_.write("list.plist", nested + "</array></dict></plist>");
  ASSERT_EQ(::chmod(tree_.path().c_str(), 0755), 0);
  const auto ends = [&](rlim_t megabytes, bool withMemoryRunOut) {
    return AsNobody([&] {
      const rlimit limit = {megabytes * kMegabyte, megabytes * kMegabyte};
      Error error;
      if (::setrlimit(RLIMIT_AS, &limit) != 0) return false;
      const bool read = lists_.readDictionary(file_, &error) != nullptr;
      return withMemoryRunOut ? error.is(PosixErrorDomain, ENOMEM) : read;
    });
  };
  rlim_t megabytes = 20;
  while (ends(megabytes, true)) megabytes += 15;
  EXPECT_GT(megabytes, 80U);
  EXPECT_TRUE(ends(megabytes, false)) << megabytes;
}
#endif

}  // namespace
}  // namespace quorvel::onlinux
