// The standardization of trees, as root and as nobody, and walks that end early.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include "shared/support/Errors.h"
#include "tests/shared/FileManagerFixture.h"
#include "tests/support/Refusals.h"

namespace quorvel::tests {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kTraverse = "-[QVFileManager _traverseDirectory:error:withBlock:]";
constexpr const char* kVisitor =
    "__76-[QVFileManager standardizeOwnershipAtURL:toUID:GID:validateSymlinks:error:]_block_invoke";

class Standardization : public FileManager {
 protected:
  void SetUp() override { MakeDirectory(at("t")); }
  bool standardize(bool links = false, std::uint32_t uid = ::geteuid()) {
    return manager_.standardizeOwnershipAtURL(Path::directory(at("t")), {uid, uid, links}, &error_);
  }
  Fault& breakWalk(const char* operation, int nth, int number) {
    fault_ = std::make_unique<Fault>(operation, nth, number);
    walker_ = std::make_unique<FaultyTreeWalker>(platform_.treeWalker, *fault_);
    platform_.set.treeWalker = walker_.get();
    return *fault_;
  }
  void expectPosix(int code, const std::string& text) {
    EXPECT_TRUE(error_.is(PosixErrorDomain, code)) << FormatMessage("%@", error_);
    EXPECT_EQ(error_.description(), text);
    EXPECT_EQ(*error_.infoString(QVFunctionNameErrorKey), kTraverse);
  }
  // What everything below "t" is: mode and owner.
  std::map<std::string, std::string> standing() const {
    std::map<std::string, std::string> all;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(at("t"))) {
      const struct stat info = StatOf(entry.path());
      std::ostringstream text;
      text << std::oct << (info.st_mode & 07777) << ' ' << std::dec << info.st_uid << ':'
           << info.st_gid;
      all[entry.path().string().substr(at("t").size() + 1)] = text.str();
    }
    return all;
  }

  std::unique_ptr<FaultyTreeWalker> walker_;
};

TEST_F(Standardization, GivesOneOwnerAndModeToEveryKindOfItem) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs the right to change owners";
  MakeDirectory(at("t/closed"), 0700);
  MakeDirectory(at("t/closed/sticky"), 01777);
  WriteFile(at("t/closed/sticky/setuid"), "x", 04755);
  WriteFile(at("t/none"), "x", 0000);
  ASSERT_EQ(::mkfifo(at("t/pipe").c_str(), 0600), 0);
  WriteFile(at("outside"), "x", 0600);
  MakeLink("../outside", at("t/link"));
  EXPECT_TRUE(standardize(false, 33)) << FormatMessage("%@", error_);
  const std::map<std::string, std::string> expected = {{"closed", "755 33:33"},
                                                       {"closed/sticky", "755 33:33"},
                                                       {"closed/sticky/setuid", "644 33:33"},
                                                       {"none", "644 33:33"},
                                                       {"pipe", "644 33:33"},
                                                       {"link", "777 33:33"}};
  EXPECT_EQ(standing(), expected);
  EXPECT_EQ(StatOf(at("t")).st_uid, 33U);
  // The link's target is another's; and links have no modes here, so that none is changed.
  EXPECT_EQ(StatOf(at("outside")).st_uid, ::geteuid());
  EXPECT_EQ(StatOf(at("outside")).st_mode & 07777, 0600U);
  EXPECT_THAT(platform_.log.lines(), ::testing::IsEmpty());
}

TEST_F(Standardization, TouchesNothingWhenAllIsRight) {
  MakeDirectory(at("t/d"));
  MakeWide(at("t/d"), 200);
  MakeLink("d", at("t/link"));
  std::map<std::string, std::string> before;
  const auto changes = [&] {
    std::map<std::string, std::string> times;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(at("t"))) {
      const timespec time = StatOf(entry.path()).st_ctim;
      times[entry.path()] = std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
    }
    return times;
  };
  Fault none;
  FaultyFileSystem counting(platform_.fileSystem, none);
  platform_.set.fileSystem = &counting;
  const auto untouched = changes();
  EXPECT_TRUE(standardize(true));
  EXPECT_EQ(none.calls("lchmod"), 0);
  EXPECT_EQ(changes(), untouched);
  // One wrong file is one change; one wrong directory two, before and after its contents.
  ASSERT_EQ(::chmod(at("t/d/file-7").c_str(), 0600), 0);
  EXPECT_TRUE(standardize(true));
  EXPECT_EQ(none.calls("lchmod"), 1);
  ASSERT_EQ(::chmod(at("t/d").c_str(), 0700), 0);
  EXPECT_TRUE(standardize(true));
  EXPECT_EQ(none.calls("lchmod"), 3);
}

TEST_F(Standardization, WithoutThePrivilegeFailuresAreLoggedAndAllIsStillVisited) {
  WriteFile(at("t/theirs"), "x", 0666);
  MakeDirectory(at("t/mine"), 0000);
  WriteFile(at("mine"), "x");
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(at("t/mine").c_str(), kNobody, kNobody), 0);
  }
  EXPECT_TRUE(InChild([&] {
    BecomeNobody();
    EXPECT_TRUE(standardize(false, 33));
    std::set<std::string> messages;
    for (const LogLine& line : platform_.log.lines()) {
      EXPECT_EQ(line.function, kVisitor);
      EXPECT_EQ(line.level, 3);
      messages.insert(line.message);
    }
    EXPECT_TRUE(
        messages.contains("Could not chown " + at("t/theirs") + ": Operation not permitted"));
    EXPECT_TRUE(
        messages.contains("Could not chmod " + at("t/theirs") + ": Operation not permitted"));
    EXPECT_TRUE(messages.contains("Could not chown " + at("t/mine") + ": Operation not permitted"));
  }));
  EXPECT_EQ(standing().at("theirs").substr(0, 3), "666");
  EXPECT_EQ(standing().at("mine").substr(0, 3), "755");
}

TEST_F(Standardization, AnUnreadableDirectoryIsAnEntryLikeOthers) {
  MakeDirectory(at("t/theirs"), 0700);
  MakeDirectory(at("t/theirs/inner"), 0700);
  std::vector<TreeWalkKind> kinds;
  EXPECT_TRUE(InChild([&] {
    BecomeNobody();
    const bool walked = manager_._traverseDirectory(Path::directory(at("t")), &error_,
                                                    [&](const TreeWalkEntry& entry, Error*) {
                                                      kinds.push_back(entry.kind);
                                                      return true;
                                                    });
    EXPECT_TRUE(walked) << FormatMessage("%@", error_);
    using K = TreeWalkKind;
    const bool everywhere = ::access(at("t/theirs").c_str(), R_OK) == 0;
    if (!everywhere) {
      EXPECT_THAT(kinds, ElementsAre(K::directoryBefore, K::directoryBefore, K::unreadableDirectory,
                                     K::directoryAfter));
    }
    EXPECT_TRUE(standardize(false, kNobody));
  }));
}

TEST_F(Standardization, ValidLinksStayAndOthersStopTheWalk) {
  MakeDirectory(at("t/sub"));
  WriteFile(at("t/f"), "x");
  MakeLink("../f", at("t/sub/up"));
  MakeLink(".", at("t/self"));
  MakeLink("none", at("t/dangling"));
  EXPECT_TRUE(standardize(true)) << FormatMessage("%@", error_);
  const std::pair<std::string, std::string> bad[] = {
      {"t/absolute", "/etc/passwd"},
      {"t/absoluteInside", at("t/f")},
      {"t/sub/climbs", "../../outside"},
      {"t/loop", "loop"},
      {"t/\xFF", "../\xFE"},
  };
  for (const auto& [name, text] : bad) {
    MakeLink(text, at(name));
    platform_.log.clear();
    EXPECT_FALSE(standardize(true)) << name;
    EXPECT_TRUE(error_.is("QVInstallerErrorDomain", 70));
    EXPECT_EQ(error_.description(), "invalid symlink at " + at(name));
    EXPECT_EQ(*error_.infoString(QVFunctionNameErrorKey), kVisitor);
    EXPECT_FALSE(error_.underlying());
    EXPECT_EQ(std::get<PlistValue>(error_.userInfo().at("LegacyErrorString")), PlistValue(70));
    EXPECT_TRUE(platform_.log.mentions("invalid symlink at " + at(name)));
    // Without validation it is an item like any other.
    EXPECT_TRUE(standardize(false));
    ASSERT_EQ(::unlink(at(name).c_str()), 0);
  }
}

TEST_F(Standardization, WhatWasNotVisitedStaysAsItWas) {
  // The file system's order decides which items come before the link; none may change after it.
  for (const char* name : {"a", "b", "c", "d"}) WriteFile(at(std::string("t/") + name), "x", 0600);
  MakeLink("/etc", at("t/bad"));
  std::vector<std::string> order;
  for (const auto& entry : std::filesystem::directory_iterator(at("t"))) {
    order.push_back(entry.path().filename());
  }
  EXPECT_FALSE(standardize(true));
  bool after = false;
  for (const std::string& name : order) {
    after = after || name == "bad";
    if (name != "bad") {
      EXPECT_EQ(standing().at(name).substr(0, 3), after ? "600" : "644") << name;
    }
  }
}

TEST_F(Standardization, AMissingRootFailsUnderItsName) {
  EXPECT_FALSE(manager_.standardizeOwnershipAtURL(Path::directory(at("no")), {}, &error_));
  expectPosix(ENOENT, "Error for path " + at("no") + ": No such file or directory");
}

TEST_F(Standardization, AWalkThatEndsEarlyIsNeverASuccess) {
  MakeDirectory(at("t/d"));
  MakeWide(at("t/d"), 5);
  const std::string failed = at("t") + ": Input/output error";
  breakWalk("open", 1, EIO);
  EXPECT_FALSE(standardize());
  expectPosix(EIO, "fts_open failed for " + at("t") + " with error Input/output error");
  int ends = 0;
  for (const char* operation : {"read", "entry"}) {
    for (int nth = 1;; ++nth) {
      error_ = {};
      const Fault& fault = breakWalk(operation, nth, EIO);
      const bool whole = standardize();
      if (!fault.fired()) {
        EXPECT_TRUE(whole);
        break;
      }
      ++ends;
      EXPECT_FALSE(whole) << operation << nth;
      expectPosix(EIO, "Error for path " + failed);
    }
  }
  EXPECT_EQ(ends, 10 + 9);  // nine entries and the end
  breakWalk("close", 1, EIO);
  EXPECT_FALSE(standardize());
  expectPosix(EIO, "fts_close failed for " + at("t") + " with error Input/output error");
}

TEST_F(Standardization, TheVisitorsErrorIsTheResultsAndOutlivesAFailedClose) {
  const Error mine = QVPosixCause(EDOM);
  breakWalk("close", 1, EIO);
  int visits = 0;
  EXPECT_FALSE(manager_._traverseDirectory(Path::directory(at("t")), &error_,
                                           [&](const TreeWalkEntry&, Error* error) {
                                             ++visits;
                                             return SetError(error, mine);
                                           }));
  EXPECT_EQ(visits, 1);
  EXPECT_TRUE(error_.is(PosixErrorDomain, EDOM));
}

TEST_F(Standardization, AnotherDeviceIsAnEntryWithoutItsContents) {
  MakeDirectory(at("t/mounted"), 0700);
  if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
  EXPECT_TRUE(WithMounts([&] {
    ASSERT_EQ(::mount("none", at("t/mounted").c_str(), "tmpfs", 0, "mode=0711"), 0);
    WriteFile(at("t/mounted/f"), "x", 0600);
    EXPECT_TRUE(standardize());
    EXPECT_EQ(StatOf(at("t/mounted")).st_mode & 07777, 0755U);
    EXPECT_EQ(StatOf(at("t/mounted/f")).st_mode & 07777, 0600U);
  }));
}

TEST_F(Standardization, DeeperThanAnyPathReaches) {
  MakeDeep(at("t"), 2500, "deep", true);
  // Links down there are judged like others.
  for (const auto& [text, valid] :
       {std::pair("../none", true), std::pair("/etc", false), std::pair("loop", false)}) {
    std::string name = "loop";
    EXPECT_TRUE(InChild([&] {
      ASSERT_EQ(::chdir(at("t").c_str()), 0);
      while (::chdir("deep") == 0) continue;
      ::unlink(name.c_str());
      ASSERT_EQ(::symlink(text, name.c_str()), 0);
    }));
    EXPECT_EQ(standardize(true), valid) << text << FormatMessage("%@", error_);
  }
  EXPECT_TRUE(standardize(false));
}

}  // namespace
}  // namespace quorvel::tests
