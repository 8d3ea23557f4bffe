// Bundles on a real disk: the info dictionary is read once, kept, and never taken for damaged
// because a call failed.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/plist/ParsedDictionaries.h"
#include "tests/plist/FilesFixture.h"
#include "tests/support/SystemCallFaults.h"

namespace quorvel::onlinux {
namespace {

using BundleFilesTest = FilesFixture;

TEST_F(BundleFilesTest, BundlesReadTheirInfoOnceAndKeepIt) {
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
TEST_F(BundleFilesTest, WhatABundleSaysNowIsNeverTakenFromWhatOneSaidBefore) {
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
TEST_F(BundleFilesTest, BundlesThatAreNone) {
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

TEST_F(BundleFilesTest, InfoDictionariesThatAreNone) {
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
TEST_F(BundleFilesTest, NoFailedCallMakesABundleUseless) {
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
TEST_F(BundleFilesTest, MemoryThatRunsOutIsNoDamage) {
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

// A migration goes twice through all apps: what was kept of the first ones must be there the second
// time, however many came after them, and that of the app at work must be there as well.
TEST(ParsedDictionariesTest, TheFirstAndTheMostRecentStay) {
  ParsedDictionaries parsed;
  const auto bytesOf = [](int app) {
    std::string text = std::to_string(app);
    text.resize(1'024, ' ');
    return std::vector<std::uint8_t>(text.begin(), text.end());
  };
  const auto found = [&](int app) { return parsed.find(bytesOf(app)) != nullptr; };
  constexpr int apps = 2'000;  // two megabytes, four times what is kept
  for (int app = 0; app < apps; ++app) {
    parsed.keep(bytesOf(app), std::make_shared<PlistDictionary>());
    ASSERT_TRUE(found(app));
    for (int last = std::max(0, app - 4); last < app; ++last) ASSERT_TRUE(found(last)) << app;
  }
  int kept = 0;
  for (int app = 0; app < apps; ++app) kept += found(app) ? 1 : 0;
  for (int app = 0; app < 400; ++app) EXPECT_TRUE(found(app)) << app;
  EXPECT_LE(kept, 512);
}

}  // namespace
}  // namespace quorvel::onlinux
