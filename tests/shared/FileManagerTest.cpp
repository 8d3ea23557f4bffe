// Removal, creation, and the capture of store metadata: every way to fail, with what it says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/shared/FileManagerFixture.h"
#include "tests/support/Threads.h"

namespace quorvel::tests {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr const char* kRemove = "-[QVFileManager removeItemAtURL:error:]";
constexpr const char* kCreate =
    "-[QVFileManager createDirectoryAtURL:withIntermediateDirectories:mode:class:error:]";

TEST(FileManagerInstance, IsOneForAllThreads) {
  std::set<QVFileManager*> instances;
  std::mutex mutex;
  testing::OnThreads(8, [&](int) {
    QVFileManager* instance = &QVFileManager::defaultManager();
    const std::lock_guard guard(mutex);
    instances.insert(instance);
  });
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
class ScriptedRemoval final : public FaultyFileSystem {
 public:
  using FaultyFileSystem::FaultyFileSystem;
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
  Fault none;
  ScriptedRemoval removal(platform_.fileSystem, none);
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
  for (const mode_t mask : {0U, 077U, 0777U}) {
    const std::string name = "a/new" + std::to_string(mask);
    ::umask(mask);
    EXPECT_TRUE(manager_.createDirectoryAtURL(directory(name), {}, &error_));
    ::umask(previous);
    EXPECT_EQ(StatOf(at(name)).st_mode & 07777, 0755U);
  }
  // A link to a directory is an existing directory.
  MakeLink("a", at("link"));
  for (const bool parents : {false, true}) {
    const std::int32_t wanted = parents ? 1 : 5;
    EXPECT_TRUE(manager_.createDirectoryAtURL(directory("link"), {parents, 0755, wanted}, &error_));
    EXPECT_TRUE(manager_.dataProtectionClassOfItemAtURL(directory("a"), &number));
    EXPECT_EQ(number, wanted);
  }
  WriteFile(at("file"), "");
  EXPECT_TRUE(manager_.createDirectoryAtURL(file("file"), {}, &error_));
  EXPECT_FALSE(error_);
}

TEST_F(FileManager, CreationFailsWithItsStep) {
  WriteFile(at("file"), "");
  MakeDirectory(at("real"));
  EXPECT_FALSE(manager_.createDirectoryAtURL(directory("no/x"), {}, &error_));
  expectPosix(error_, ENOENT, "mkdir of " + at("no/x") + " failed: No such file or directory",
              kCreate);
  EXPECT_FALSE(manager_.createDirectoryAtURL(directory("file/x"), {true, 0755, -1}, &error_));
  expectPosix(error_, ENOTDIR, "ensuredirs_np of " + at("file/x") + " failed: Not a directory",
              kCreate);
  EXPECT_FALSE(manager_.createDirectoryAtURL(file("file"), {.protectionClass = 4}, &error_));
  expectPosix(error_, ENOTDIR, "opendir of " + at("file") + " failed: Not a directory", kCreate);
  breakCall("SetProtectionClass", 1, ENOTSUP);
  EXPECT_FALSE(manager_.createDirectoryAtURL(directory("real"), {.protectionClass = 4}, &error_));
  expectPosix(error_, ENOTSUP,
              "Failed to setclass(4) on directory " + at("real") + ": " + ErrnoDescription(ENOTSUP),
              kCreate);
}

TEST_F(FileManager, TemporaryDirectoriesAreNewAndPrivate) {
  error_ = QVPosixCause(EIO);
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

}  // namespace
}  // namespace quorvel::tests
