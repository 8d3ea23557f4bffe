// Preferences: one contract for the store on disk and the one in memory, and for the one on disk
// what several processes, kills and damaged files must not do to it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/plist/PreferencesPlist.h"
#include "platform/linux/plist/PropertyListFiles.h"
#include "tests/support/FakePreferencesStore.h"
#include "tests/support/TemporaryTree.h"
#include "tests/support/Threads.h"
#include "tests/support/TreeTools.h"

namespace quorvel {
namespace {

namespace fs = std::filesystem;
using onlinux::PreferencesPlist;
using testing::FakePreferencesStore;
using testing::TemporaryTree;

constexpr auto kCurrentHost = PreferencesScope::currentUserCurrentHost;
constexpr auto kAnyHost = PreferencesScope::currentUserAnyHost;
const std::string kDomain = "com.example.service";

bool Holds(PreferencesStore& store, const std::string& key, const PlistValue& value,
           PreferencesScope scope = kCurrentHost) {
  const auto stored = store.copyValue(key, kDomain, scope);
  return stored && *stored == value;
}

// Makes stores that share what they keep.
using Opener = std::function<std::unique_ptr<PreferencesStore>()>;

class PreferencesContract : public ::testing::TestWithParam<bool> {
 protected:
  PreferencesContract() {
    const Path directory = Path::directory(tree_.at("mobile/Preferences"));
    const auto storage = std::make_shared<FakePreferencesStore::Storage>();
    if (GetParam()) {
      open = [directory] { return std::make_unique<PreferencesPlist>(directory); };
    } else {
      open = [storage] { return std::make_unique<FakePreferencesStore>(storage); };
    }
  }

  TemporaryTree tree_;
  Opener open;
};

TEST_P(PreferencesContract, PendingValuesAreTheOwnersUntilSynchronized) {
  const auto store = open();
  EXPECT_FALSE(store->copyValue("a", kDomain, kCurrentHost));
  store->setValue("a", true, kDomain, kCurrentHost);
  store->setValue("b", PlistArray{1, 2.0, "x\x01"}, kDomain, kCurrentHost);
  EXPECT_TRUE(Holds(*store, "a", true));
  EXPECT_FALSE(open()->copyValue("a", kDomain, kCurrentHost));
  EXPECT_TRUE(store->synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(Holds(*open(), "a", true));
  EXPECT_TRUE(Holds(*open(), "b", PlistArray{1, 2.0, "x\x01"}));
  store->setValue("a", false, kDomain, kCurrentHost);
  EXPECT_TRUE(Holds(*store, "a", false));
  EXPECT_TRUE(Holds(*open(), "a", true));
  EXPECT_TRUE(store->synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(store->synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(Holds(*open(), "a", false));
  EXPECT_FALSE(open()->copyValue("a", kDomain, kAnyHost));
  EXPECT_FALSE(open()->copyValue("a", "com.example.other", kCurrentHost));
}

TEST_P(PreferencesContract, KeysOfOthersStay) {
  const auto first = open(), second = open();
  first->setValue("first", 1, kDomain, kAnyHost);
  second->setValue("second", 2, kDomain, kAnyHost);
  first->setValue("both", "first", kDomain, kAnyHost);
  second->setValue("both", "second", kDomain, kAnyHost);
  EXPECT_TRUE(second->synchronize(kDomain, kAnyHost));
  EXPECT_TRUE(first->synchronize(kDomain, kAnyHost));
  const auto third = open();
  for (PreferencesStore* store : {first.get(), second.get(), third.get()}) {
    EXPECT_TRUE(Holds(*store, "first", 1, kAnyHost));
    EXPECT_TRUE(Holds(*store, "second", 2, kAnyHost));
    EXPECT_TRUE(Holds(*store, "both", "first", kAnyHost));
  }
}

TEST_P(PreferencesContract, UserDefaultsAskTheCurrentHostFirst) {
  const auto store = open();
  EXPECT_FALSE(store->stringFromUserDefaults("k", kDomain));
  store->setValue("k", "any", kDomain, kAnyHost);
  EXPECT_EQ(store->stringFromUserDefaults("k", kDomain), "any");
  store->setValue("k", "current", kDomain, kCurrentHost);
  EXPECT_EQ(store->stringFromUserDefaults("k", kDomain), "current");
  store->setValue("k", 7, kDomain, kCurrentHost);
  EXPECT_FALSE(store->stringFromUserDefaults("k", kDomain));
}

TEST_P(PreferencesContract, DomainsArePlainNames) {
  const auto store = open();
  for (const char* domain : {"", ".", "..", "a/b", "/", "../escape"}) {
    store->setValue("k", 1, domain, kAnyHost);
    EXPECT_FALSE(store->copyValue("k", domain, kAnyHost)) << domain;
    EXPECT_FALSE(store->synchronize(domain, kAnyHost)) << domain;
  }
  EXPECT_FALSE(fs::exists(tree_.at("mobile")));
}

TEST_P(PreferencesContract, ThreadsLoseNothing) {
  const auto store = open();
  testing::OnThreads(4, [&](int thread) {
    for (int i = 0; i <= 20; ++i) {
      store->setValue(std::to_string(thread), i, kDomain, kCurrentHost);
      EXPECT_TRUE(store->synchronize(kDomain, kCurrentHost));
      EXPECT_TRUE(Holds(*store, std::to_string(thread), i));
    }
  });
  for (int thread = 0; thread < 4; ++thread) {
    EXPECT_TRUE(Holds(*open(), std::to_string(thread), 20));
  }
}

INSTANTIATE_TEST_SUITE_P(Stores, PreferencesContract, ::testing::Bool(), [](const auto& suite) {
  return suite.param ? std::string("OnDisk") : std::string("InMemory");
});

class PreferencesOnDisk : public ::testing::Test {
 protected:
  std::string file(const std::string& suffix = "") const {
    return tree_.at("Preferences/ByHost/" + kDomain + ".plist" + suffix);
  }
  void writeFile(const std::string& bytes) const {
    tree_.write("Preferences/ByHost/" + kDomain + ".plist", bytes);
  }
  // Forks a process that sets the key to 1, 2 and so on up to the last and synchronizes each.
  pid_t startWriter(const std::string& key, int last) const {
    const pid_t child = ::fork();
    if (child != 0) return child;
    PreferencesPlist store(directory_);
    for (int i = 1; i <= last; ++i) {
      store.setValue(key, i, kDomain, kCurrentHost);
      if (!store.synchronize(kDomain, kCurrentHost)) ::_exit(1);
    }
    ::_exit(0);
  }

  TemporaryTree tree_{"/dev/shm"};  // these tests flush a thousand times
  const Path directory_ = Path::directory(tree_.at("Preferences"));
  PreferencesPlist store_{directory_};
};

TEST_F(PreferencesOnDisk, FilesAndDirectoriesStayWhoseTheyAre) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving files away needs privileges";
  constexpr uid_t user = 501;
  const auto owner = [](const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return std::pair(info.st_uid, info.st_mode & 07777U);
  };
  const mode_t previous = ::umask(077);
  ASSERT_EQ(::chown(tree_.path().c_str(), user, user), 0);
  store_.setValue("Key", 1, kDomain, kCurrentHost);
  EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  EXPECT_EQ(owner(tree_.at("Preferences/ByHost")), std::pair(user, 0755U));
  EXPECT_EQ(owner(file()), std::pair(user, 0644U));
  EXPECT_EQ(owner(tree_.at("Preferences/ByHost/." + kDomain + ".plist.lock")),
            std::pair(user, 0644U));
  ASSERT_EQ(::chmod(file().c_str(), 0600), 0);
  const bool hasAttributes = ::lsetxattr(file().c_str(), "user.mark", "kept", 4, 0) == 0;
  store_.setValue("Key", 2, kDomain, kCurrentHost);
  EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  ::umask(previous);
  EXPECT_EQ(owner(file()), std::pair(user, 0600U));
  char mark[8] = {};
  EXPECT_EQ(::lgetxattr(file().c_str(), "user.mark", mark, sizeof mark), hasAttributes ? 4 : -1);
  // Neither does one that was set aside make its successor more readable.
  ASSERT_EQ(::truncate(file().c_str(), 20), 0);
  store_.setValue("Key", 3, kDomain, kCurrentHost);
  EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  EXPECT_EQ(owner(file()), std::pair(user, 0600U));
  EXPECT_EQ(store_.filesSetAside(), std::vector{file(".damaged")});
}

TEST_F(PreferencesOnDisk, FilesStandWhereOthersLookForThem) {
  const mode_t previous = ::umask(077);
  store_.setValue("k", 1, kDomain, kCurrentHost);
  store_.setValue("k", 2, kDomain, kAnyHost);
  EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(store_.synchronize(kDomain, kAnyHost));
  ::umask(previous);
  onlinux::PropertyListFiles lists;
  const auto read = [&](const std::string& name) {
    return lists.readDictionary(Path::file(name), nullptr);
  };
  ASSERT_TRUE(read(file()) != nullptr);
  EXPECT_TRUE(*read(file()) == PlistDictionary({{"k", 1}}));
  EXPECT_TRUE(*read(tree_.at("Preferences/" + kDomain + ".plist")) == PlistDictionary({{"k", 2}}));
  struct stat status {};
  ASSERT_EQ(::stat(tree_.at("Preferences/ByHost").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0755U);
  ASSERT_EQ(::stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);
  // What other software writes is read, and kept.
  writeFile("<plist><dict><key>theirs</key><date>2001-01-01T00:00:00Z</date></dict></plist>");
  EXPECT_TRUE(Holds(store_, "theirs", PlistDate{0}));
  store_.setValue("ours", 1, kDomain, kCurrentHost);
  EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(*read(file()) == PlistDictionary({{"ours", 1}, {"theirs", PlistDate{0}}}));
  // So is what can only be taken over in part; the whole of it is set aside.
  const std::string odd = "<plist><dict><key>theirs</key><integer/></dict></plist>";
  writeFile(odd);
  store_.setValue("ours", 1, kDomain, kCurrentHost);
  EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(*read(file()) == PlistDictionary({{"ours", 1}, {"theirs", ""}}));
  EXPECT_EQ(tree_.read("Preferences/ByHost/" + kDomain + ".plist.damaged"), odd);
}

TEST_F(PreferencesOnDisk, ProcessesLoseNothing) {
  std::vector<pid_t> writers;
  for (const char* key : {"a", "b", "c"}) writers.push_back(startWriter(key, 100));
  for (const pid_t writer : writers) {
    int status = -1;
    EXPECT_EQ(::waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
  }
  for (const char* key : {"a", "b", "c"}) EXPECT_TRUE(Holds(store_, key, 100)) << key;
}

TEST_F(PreferencesOnDisk, KilledProcessesLoseNothing) {
  store_.setValue("kept", "value", kDomain, kCurrentHost);
  ASSERT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  std::int64_t last = 0;
  for (int round = 0; round < 40; ++round) {
    const pid_t writer = startWriter("count", 1'000'000);
    ::usleep(static_cast<useconds_t>(2000 + round * 173));
    ::kill(writer, SIGKILL);
    ::waitpid(writer, nullptr, 0);
    EXPECT_TRUE(Holds(store_, "kept", "value"));
    if (const auto count = store_.copyValue("count", kDomain, kCurrentHost)) {
      last = *count->signedInteger();
    }
  }
  EXPECT_GT(last, 0);  // the writers got somewhere
  store_.setValue("end", 1, kDomain, kCurrentHost);
  EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  for (const auto& entry : fs::directory_iterator(tree_.at("Preferences/ByHost"))) {
    EXPECT_FALSE(entry.path().string().ends_with(".tmp")) << entry.path();
  }
}

TEST_F(PreferencesOnDisk, DamagedFilesAreSetAside) {
  store_.setValue("k", 1, kDomain, kCurrentHost);
  ASSERT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  const std::string whole = tree_.read("Preferences/ByHost/" + kDomain + ".plist");
  for (std::size_t size = 0; size < whole.size(); ++size) {
    writeFile(whole.substr(0, size));
    EXPECT_FALSE(store_.copyValue("k", kDomain, kCurrentHost));
    store_.setValue("k", 2, kDomain, kCurrentHost);
    EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
    EXPECT_TRUE(Holds(store_, "k", 2));
    const std::string aside = size == 0 ? ".damaged" : ".damaged." + std::to_string(size + 1);
    EXPECT_EQ(tree_.read("Preferences/ByHost/" + kDomain + ".plist" + aside),
              whole.substr(0, size));
  }
}

TEST_F(PreferencesOnDisk, WhatCannotBeReadIsNotReplaced) {
  fs::create_directories(file());
  store_.setValue("k", 1, kDomain, kCurrentHost);
  EXPECT_FALSE(store_.synchronize(kDomain, kCurrentHost));
  fs::remove(file());
  tree_.write("elsewhere", "<plist><dict/></plist>");
  fs::create_symlink(tree_.at("elsewhere"), file());
  EXPECT_FALSE(store_.synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(fs::is_symlink(file()));
  EXPECT_EQ(tree_.read("elsewhere"), "<plist><dict/></plist>");
  fs::remove(file());
  // What was pending still is.
  EXPECT_TRUE(Holds(store_, "k", 1));
  EXPECT_TRUE(store_.synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(Holds(*std::make_unique<PreferencesPlist>(directory_), "k", 1));
  // A value that no file can hold.
  store_.setValue("set", PlistSet{}, kDomain, kCurrentHost);
  EXPECT_FALSE(store_.synchronize(kDomain, kCurrentHost));
  EXPECT_TRUE(Holds(*std::make_unique<PreferencesPlist>(directory_), "k", 1));
}

TEST_F(PreferencesOnDisk, AFileOfAnotherUserIsLeftAlone) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs a second user";
  writeFile("<plist><dict><key>k</key><integer>1</integer></dict></plist>");
  ASSERT_EQ(::chmod(file().c_str(), 0600), 0);
  for (const char* name : {"", "Preferences", "Preferences/ByHost"}) {
    ASSERT_EQ(::chmod(tree_.at(name).c_str(), 0777), 0);
  }
  EXPECT_TRUE(testing::InChild([&] {
    PreferencesPlist store(directory_);
    store.setValue("mine", 1, kDomain, kCurrentHost);
    testing::BecomeNobody();
    EXPECT_FALSE(store.copyValue("k", kDomain, kCurrentHost));
    EXPECT_FALSE(store.synchronize(kDomain, kCurrentHost));
  }));
  EXPECT_TRUE(Holds(store_, "k", 1));
}

}  // namespace
}  // namespace quorvel
