// Listings, and tests and settings of single items.
#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>

#include "tests/shared/FileManagerFixture.h"

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

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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
  EXPECT_TRUE(manager_.createSymbolicLinkAtURL(file("slash"), Path::linkText("to//"), &error_));
  EXPECT_EQ(manager_.destinationOfSymbolicLinkAtURL(file("slash"))->string(), "to//");
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
