// Error records, formats, the level test, values, path texts and the encoding of names.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <random>
#include <set>
#include <thread>

#include "shared/configuration/InfoPlist.h"
#include "shared/support/Errors.h"
#include "shared/support/PathStrings.h"
#include "shared/support/Values.h"
#include "tests/support/FaultWrappers.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/Threads.h"

namespace quorvel::tests {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> KeysOf(const Error& error) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : error.userInfo()) keys.push_back(key);
  return keys;
}

// --- Error records -------------------------------------------------------------------------

TEST(ErrorRecords, CreateErrorHasThreeEntriesAndLogsNothing) {
  TestPlatform platform;
  const Error error =
      _CreateError("-[X y]", 281, PosixErrorDomain, ENOENT, "mkdir of %@ failed: %s",
                   Path::directory("/a b").string(), ErrnoDescription(ENOENT));
  EXPECT_TRUE(error.is("PosixErrorDomain", 2));
  EXPECT_THAT(KeysOf(error), ElementsAre("FunctionName", "LocalizedDescription", "SourceFileLine"));
  EXPECT_EQ(error.description(), "mkdir of /a b failed: No such file or directory");
  EXPECT_EQ(*error.infoString(QVFunctionNameErrorKey), "-[X y]");
  EXPECT_EQ(std::get<PlistValue>(error.userInfo().at(QVSourceFileLineErrorKey)), PlistValue(281));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST(ErrorRecords, LoggedRecordTakesExtraEntriesAndCause) {
  TestPlatform platform;
  const Error error = _CreateAndLogError(
      {"_f", 281}, QVInstallerErrorDomain, 4,
      {QVPosixCause(EACCES), {{QVPathArgumentErrorKey, PlistValue("/p")}}}, "no %s", "luck");
  EXPECT_THAT(KeysOf(error), ElementsAre("FunctionName", "LocalizedDescription", "PathArgument",
                                         "SourceFileLine", "UnderlyingError"));
  EXPECT_TRUE(error.underlying().is(PosixErrorDomain, EACCES));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(LogLine{3, "_f", "281: no luck (PosixErrorDomain 13 {})"}));
  platform.log.clear();
  _CreateAndLogError({"_f", 281}, QVInstallerErrorDomain, 4, {}, "100%% %@", "%d %s");
  EXPECT_THAT(platform.log.messages(3), ElementsAre("281: 100% %d %s"));
}

// Which of two entries of one key survives.
TEST(ErrorRecords, TheConstructorsOwnEntriesWin) {
  TestPlatform platform;
  const auto extra = [] {
    return Error::UserInfo{{QVFunctionNameErrorKey, PlistValue("forged")},
                           {QVSourceFileLineErrorKey, PlistValue("forged")},
                           {LocalizedDescriptionKey, PlistValue("given")},
                           {UnderlyingErrorKey, QVPosixCause(EIO)}};
  };
  const Error with =
      _CreateAndLogError({"_f", 1}, "d", 7, {QVPosixCause(EPERM), extra()}, "formatted");
  EXPECT_EQ(*with.infoString(QVFunctionNameErrorKey), "_f");
  EXPECT_EQ(with.infoString(QVSourceFileLineErrorKey), nullptr);  // a number now
  EXPECT_EQ(with.description(), "formatted");
  EXPECT_EQ(with.underlying().code(), EPERM);
  platform.log.clear();
  const Error without = _CreateAndLogError({"_f", 1}, "d", 7, {{}, extra()}, std::nullopt);
  EXPECT_EQ(without.description(), "given");
  EXPECT_EQ(without.underlying().code(), EIO);
  EXPECT_EQ(*without.infoString(QVFunctionNameErrorKey), "_f");
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

// --- Logging --------------------------------------------------------------------------------

TEST(Logging, LevelTestDecidesAndSparesTheArguments) {
  struct Row {
    int handle;  // -1: none
    int level;
    bool written;
  };
  const Row rows[] = {{-1, 3, true}, {-1, 5, true}, {-1, 7, false}, {2, 3, false}, {3, 3, true},
                      {3, 5, false}, {5, 5, true},  {6, 7, false},  {7, 7, true},  {7, 3, true}};
  for (const Row& row : rows) {
    TestPlatform platform;
    std::optional<LogHandleScope> handle;
    if (row.handle >= 0) handle.emplace(row.handle);
    bool evaluated = false;
    const auto argument = [&] { return evaluated = true, std::string("x"); };
    QV_LOG(row.level, "_f", "returning: %@", argument());
    EXPECT_EQ(evaluated, row.written) << row.handle << ' ' << row.level;
    ASSERT_EQ(platform.log.lines().size(), row.written ? 1U : 0U);
    if (row.written) {
      EXPECT_EQ(platform.log.lines()[0], (LogLine{row.level, "_f", "returning: x", gLogHandle}));
    }
  }
}

TEST(Logging, HostLinesKeepTheirCallSiteWithoutALevelTest) {
  TestPlatform platform;
  const LogHandleScope quiet(0);
  HostLog("Ravelle/R.cpp", "-[QVRavelle init]", 12, "Corvennad", 5, "QVRavelle: %@ %ld",
          Path::directory("/x"), 3L);
  const auto lines = platform.hostLog.lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].message, "QVRavelle: file:///x/ 3");
  EXPECT_EQ(lines[0].file + lines[0].function + lines[0].category,
            "Ravelle/R.cpp-[QVRavelle init]Corvennad");
  EXPECT_EQ(lines[0].line * 100 + lines[0].level, 1205);
}

// --- Formats --------------------------------------------------------------------------------

TEST(Formats, NumbersTextsAndObjects) {
  EXPECT_EQ(FormatMessage("%d|%u|%ld|%lld|%zd|%zu", -1, 4000000000U, -2L, -3LL, ssize_t{-4},
                          std::size_t{5}),
            "-1|4000000000|-2|-3|-4|5");
  EXPECT_EQ(FormatMessage("0x%08X (%d)", std::int32_t{-536870206}, std::int32_t{-536870206}),
            "0xE00002C2 (-536870206)");
  EXPECT_EQ(FormatMessage("%lld %@", LLONG_MIN, UINT64_MAX),
            "-9223372036854775808 18446744073709551615");
  EXPECT_EQ(FormatMessage("%@ %@ %@", Path(), Error(), std::optional<std::string>()),
            "(null) (null) (null)");
  EXPECT_EQ(FormatMessage("%@", std::vector<Path>{Path::directory("/a"), Path("/b")}),
            "(file:///a/, file:///b)");
  const PlistDictionary dictionary{{"k", PlistValue(PlistArray{"a\"", 1, true, PlistData{0xAB}})}};
  EXPECT_EQ(FormatMessage("%@", dictionary), "{k = (\"a\\\"\", 1, 1, <ab>)}");
  EXPECT_EQ(FormatMessage("100%%"), "100%");
  // What an argument holds is never a format, and any bytes pass.
  EXPECT_EQ(FormatMessage("%@%s", std::string("%s%@"), "%n\xFF"), "%s%@%n\xFF");
}

TEST(Formats, TooFewArgumentsAtRunTimeStayVisible) {
  EXPECT_EQ(QVFormatMessageV("%d and %@", {}), "%d and %@");
  EXPECT_EQ(QVFormatMessageV("ends in %", {}), "ends in %");
}

TEST(Formats, AnErrorShowsDomainCodeAndInfoDownToItsCause) {
  const Error cause("PosixErrorDomain", 28, {});
  const Error error("D", -4, {{"Note", PlistValue("n")}, {UnderlyingErrorKey, cause}});
  EXPECT_EQ(FormatMessage("%@", error),
            "D -4 {Note = \"n\"; UnderlyingError = PosixErrorDomain 28 {}}");
}

// A hostile value may be deep: its description ends, and does not end the process.
TEST(Formats, DescriptionsOfDeepValuesAreCut) {
  PlistValue deep = 1;
  for (int i = 0; i < 2000; ++i) deep = PlistArray{std::move(deep)};
  const std::string text = QVDescribeValue(deep);
  EXPECT_LT(text.size(), 100U);
  EXPECT_NE(text.find("..."), std::string::npos);
}

// --- Values ---------------------------------------------------------------------------------

TEST(Values, Coercions) {
  const auto text = [](const PlistValue& value) { return *QVStringifyObject(&value); };
  EXPECT_EQ(QVStringifyObject(nullptr), std::nullopt);
  EXPECT_EQ(text(5), "5");
  EXPECT_EQ(text("as \"it\" is"), "as \"it\" is");
  EXPECT_EQ(text(UINT64_MAX), "18446744073709551615");

  const auto truth = [](const PlistValue& value, bool otherwise) {
    return QVBooleanValue(&value, otherwise);
  };
  EXPECT_FALSE(truth("true", false));
  EXPECT_TRUE(truth("false", true));
  EXPECT_FALSE(truth(0, true));
  EXPECT_TRUE(truth(-1, false));
  EXPECT_TRUE(truth(0.25, false));
  EXPECT_FALSE(truth(-0.0, true));
  EXPECT_TRUE(truth(UINT64_MAX, false));
  EXPECT_FALSE(truth(false, true));
  EXPECT_TRUE(QVBooleanValue(nullptr, true));
  EXPECT_TRUE(truth(PlistArray{}, true));
}

TEST(Values, ArrayifyTestsInItsOrder) {
  using Array = PlistArray;
  const auto of = [](const PlistValue& value, PlistType type) {
    return QVArrayifyThing(&value, type);
  };
  EXPECT_EQ(QVArrayifyThing(nullptr, PlistType::string), std::nullopt);
  EXPECT_EQ(of("a", PlistType::string), Array{"a"});
  EXPECT_EQ(of(Array{"a", 1}, PlistType::string), std::nullopt);
  EXPECT_EQ(of(Array{}, PlistType::string), Array{});
  EXPECT_EQ(of(PlistDictionary{}, PlistType::string), std::nullopt);
  EXPECT_EQ(of(true, PlistType::number), Array{true});
  EXPECT_EQ(of(1, PlistType::boolean), std::nullopt);
  // An array is not wrapped, even when arrays are wanted; a set is when sets are.
  EXPECT_EQ(of(Array{"a"}, PlistType::array), std::nullopt);
  EXPECT_EQ(of(Array{Array{}}, PlistType::array), Array{Array{}});
  EXPECT_EQ(of(PlistSet{{"b", "a"}}, PlistType::string), (Array{"b", "a"}));
  EXPECT_EQ(of(PlistSet{{"b", 1}}, PlistType::string), std::nullopt);
  EXPECT_EQ(of(PlistSet{{"b", 1}}, PlistType::set), (Array{PlistSet{{"b", 1}}}));
}

// --- Path texts -----------------------------------------------------------------------------

TEST(PathTexts, DotDotComponentsAndComponents) {
  for (const char* path : {"a/../b", "..", "/x/..", "../", "//..//"}) {
    EXPECT_TRUE(QuorvelAdditions::containsDotDotPathComponents(path)) << path;
  }
  for (const char* path : {"", "/", "/a/b", "a/..b", "...", "a../b", "/.. /x"}) {
    EXPECT_FALSE(QuorvelAdditions::containsDotDotPathComponents(path)) << path;
  }
  EXPECT_THAT(QVPathComponents("/var//mobile/"), ElementsAre("/", "var", "mobile"));
  EXPECT_THAT(QVPathComponents("a/./b"), ElementsAre("a", ".", "b"));
  EXPECT_THAT(QVPathComponents(""), IsEmpty());
}

TEST(PathTexts, URLFormEscapesTheNamesBytes) {
  EXPECT_EQ(QVURLForm(Path::directory("/var/mobile/x")), "file:///var/mobile/x/");
  EXPECT_EQ(QVURLForm(Path::directory("/")), "file:///");
  EXPECT_EQ(QVURLForm(Path("/a b/100%?#[].plist")), "file:///a%20b/100%25%3F%23%5B%5D.plist");
  EXPECT_EQ(QVURLForm(Path("/sub-delims!$&'()*+,;=:@~_")), "file:///sub-delims!$&'()*+,%3B=:@~_");
  EXPECT_EQ(QVURLForm(Path("/\xC3\xBC")), "file:///%C3%BC");
  // A name that is no UTF-8 shows the bytes that it has on disk, not their stand-ins.
  const Path raw(QuorvelAdditions::stringWithFileSystemRepresentation("/\xFF\n\x01", 4));
  EXPECT_EQ(QVURLForm(raw), "file:///%FF%0A%01");
}

TEST(PathTexts, LengthCountsNotTheTerminator) {
  EXPECT_EQ(QuorvelAdditions::stringWithFileSystemRepresentation("", 0), "");
  EXPECT_EQ(QuorvelAdditions::stringWithFileSystemRepresentation("abcdef", 3), "abc");
  EXPECT_EQ(QuorvelAdditions::stringWithFileSystemRepresentation("abc"), "abc");
}

// --- The encoding of names ------------------------------------------------------------------

// Independent of the encoder: strict UTF-8 without the characters that XML lacks.
bool CanStandInXml(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto at = [&](std::size_t k) {
      return i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0U;
    };
    std::size_t length = 1;
    unsigned point = at(0);
    if (point >= 0xF0) {
      length = 4,
      point = (point & 7U) << 18U | (at(1) & 63U) << 12U | (at(2) & 63U) << 6U | (at(3) & 63U);
    } else if (point >= 0xE0) {
      length = 3, point = (point & 15U) << 12U | (at(1) & 63U) << 6U | (at(2) & 63U);
    } else if (point >= 0xC0) {
      length = 2, point = (point & 31U) << 6U | (at(1) & 63U);
    } else if (point >= 0x80) {
      return false;
    }
    for (std::size_t k = 1; k < length; ++k) {
      if ((at(k) & 0xC0U) != 0x80U) return false;
    }
    static constexpr unsigned kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (point < kLeast[length] || point > 0x10FFFF) return false;
    if (point >= 0xD800 && point <= 0xDFFF) return false;
    if (point == 0xFFFE || point == 0xFFFF) return false;
    if (point < 0x20 && point != '\t' && point != '\n' && point != '\r') return false;
    i += length;
  }
  return true;
}

void ExpectReversible(const std::string& bytes) {
  const std::string text = StringFromFileSystemRepresentation(bytes);
  ASSERT_EQ(BytesOfFileSystemRepresentation(text), bytes) << ::testing::PrintToString(bytes);
  ASSERT_TRUE(CanStandInXml(text)) << ::testing::PrintToString(bytes);
  ASSERT_STREQ(FileSystemRepresentation(text).c_str(), bytes.c_str());
}

TEST(NameEncoding, EveryNameComesBackAndCanStandInXml) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) {
    ExpectReversible(std::string(1, static_cast<char>(byte)));
    all += static_cast<char>(byte);
    for (int second = 1; second < 256; ++second) {
      ExpectReversible({static_cast<char>(byte), static_cast<char>(second)});
    }
  }
  ExpectReversible(all);
  const std::string pieces[] = {"a",
                                "\xC3\xBC",
                                "\xE2\x82\xAC",
                                "\xF0\x9F\x98\x80",
                                "\xF4\x8F",
                                "\xF4\x8F\xB8\x80",
                                "\xF4\x8F\xBB\xBF",
                                "\xF4\x8F\xBC\x80",
                                "\xFF",
                                "\xC0\xAF",
                                "\xED\xA0\x80",
                                "\xEF\xBF\xBE",
                                "\xEF\xBF\xBF",
                                "\xEF\xBF\xBD",
                                "\xF4\x90\x80\x80",
                                "\x80",
                                "\x01",
                                "\n"};
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    std::string name;
    for (auto n = random() % 6; n > 0; --n) name += pieces[random() % std::size(pieces)];
    ExpectReversible(name);
  }
}

// Plain bytes are passed eight at a time: none that needs an escape may hide among them.
TEST(NameEncoding, AByteThatNeedsAnEscapeIsSeenAnywhere) {
  const std::string plain = "\x7F ~abcdefghijklmno";
  EXPECT_TRUE(AreTheirOwnText(plain));
  for (std::size_t place = 0; place < plain.size(); ++place) {
    for (int byte = 1; byte < 256; ++byte) {
      std::string name = plain;
      name[place] = static_cast<char>(byte);
      ASSERT_EQ(AreTheirOwnText(name), byte >= 0x20 && byte < 0x80) << place << " " << byte;
      ExpectReversible(name);
    }
  }
}

TEST(NameEncoding, TextsOfDifferentNamesDiffer) {
  std::set<std::string> texts;
  const std::string bytes[] = {"\xFF", "\xF4\x8F\xBB\xBF", "\xFE", "\xF4\x8F\xBB", "\xC3"};
  for (const std::string& name : bytes) texts.insert(StringFromFileSystemRepresentation(name));
  EXPECT_EQ(texts.size(), std::size(bytes));
  // A valid name is its own text.
  EXPECT_EQ(StringFromFileSystemRepresentation("\xC3\xBC.app"), "\xC3\xBC.app");
}

// --- Info dictionaries ----------------------------------------------------------------------

class InfoDictionaries : public ::testing::Test {
 protected:
  Path bundle(const PlistDictionary& info) {
    const Path directory = Path::directory(platform_.tree.at("A.app"));
    std::filesystem::create_directory(directory.string());
    EXPECT_TRUE(platform_.propertyLists.writeDictionary(info, directory.child("Info.plist"),
                                                        PropertyListFormat::binary, nullptr));
    return directory;
  }
  const std::set<std::string> keys_ = {"PKBundleIdentifier", "PKBundleVersion"};
  TestPlatform platform_;
};

TEST_F(InfoDictionaries, AllOrChosenKeysAsAnOwnCopy) {
  const Path directory = bundle({{"PKBundleIdentifier", "i"}, {"Other", 1}, {"More", 2}});
  EXPECT_EQ(*QVLoadInfoPlist(directory, keys_), (PlistDictionary{{"PKBundleIdentifier", "i"}}));
  const auto whole = QVLoadInfoPlist(directory, std::nullopt);
  EXPECT_EQ(*whole, (PlistDictionary{{"PKBundleIdentifier", "i"}, {"Other", 1}, {"More", 2}}));
  whole->set("Other", "changed");
  EXPECT_EQ(*QVLoadInfoPlist(directory, std::nullopt)->find("Other"), PlistValue(1));
  EXPECT_THAT(platform_.log.lines(), IsEmpty());
}

TEST_F(InfoDictionaries, EachFailureIsOneLine) {
  const LogHandleScope everything(7);
  const std::string url = "file://" + platform_.tree.path();
  const auto failing = [&](const char* operation, bool filtered) {
    Fault fault(operation, 0, EIO);
    FaultyBundleReader bundles(platform_.bundles, fault);
    platform_.set.bundles = &bundles;
    platform_.log.clear();
    const Path directory = Path::directory(platform_.tree.at("A.app"));
    const auto keys = filtered ? std::optional(keys_) : std::nullopt;
    EXPECT_EQ(QVLoadInfoPlist(directory, keys), nullptr);
    platform_.set.bundles = &platform_.bundles;
    EXPECT_EQ(platform_.log.lines().size(), 1U);
    return platform_.log.lines().empty() ? LogLine{} : platform_.log.lines()[0];
  };
  const auto line = [](int level, const std::string& message) {
    return LogLine{level, "QVLoadInfoPlist", message, gLogHandle};
  };
  EXPECT_EQ(failing("none", true), line(7, "Missing Info.plist at " + url + "/A.app/Info.plist"));
  bundle({{"Other", 1}});
  EXPECT_EQ(failing("open", true),
            line(3, "Failed to create PKBundle from URL " + url + "/A.app/"));
  EXPECT_EQ(failing("infoDictionary", false),
            line(3, "PKBundleGetInfoDictionary failed for bundle " + url + "/A.app/"));
  EXPECT_THAT(failing("filteredInfo", true).message,
              ::testing::StartsWith("Failed to get filtered Info.plist with keys "
                                    "(\"PKBundleIdentifier\", \"PKBundleVersion\") from bundle "));
  EXPECT_EQ(failing("filteredInfo type", true),
            line(3,
                 "Object returned from _PKBundleCreateFilteredInfoPlist was not a dictionary, was "
                 "type string"));
  // Every path has released the lock.
  EXPECT_NE(QVLoadInfoPlist(Path::directory(platform_.tree.at("A.app")), keys_), nullptr);
}

// A reader that notices when two bundles are open at the same time.
class ExclusiveReader final : public BundleReader {
 public:
  std::unique_ptr<PKBundle> open(const Path& directory, Error*) override {
    return std::make_unique<Bundle>(*this, directory);
  }
  std::atomic<int> open_{0};
  std::atomic<bool> overlapped{false};

 private:
  class Bundle final : public PKBundle {
   public:
    Bundle(ExclusiveReader& reader, Path path) : reader_(reader), path_(std::move(path)) {
      if (reader_.open_.fetch_add(1) != 0) reader_.overlapped = true;
      std::this_thread::yield();
    }
    ~Bundle() override { reader_.open_.fetch_sub(1); }
    const Path& path() const override { return path_; }
    const std::string* identifier(Error*) override { return nullptr; }
    const PlistDictionary* infoDictionary(Error*) override { return &info_; }
    std::unique_ptr<PlistValue> filteredInfo(const std::set<std::string>&, Error*) override {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
      return std::make_unique<PlistValue>(info_);
    }

   private:
    ExclusiveReader& reader_;
    const Path path_;
    const PlistDictionary info_{{"k", 1}};
  };
};

TEST_F(InfoDictionaries, BundlesAreReadOneAtATime) {
  const Path directory = bundle({});
  ExclusiveReader reader;
  platform_.set.bundles = &reader;
  testing::OnThreads(8, [&](int) {
    for (int n = 0; n < 50; ++n) EXPECT_NE(QVLoadInfoPlist(directory, keys_), nullptr);
  });
  EXPECT_FALSE(reader.overlapped);
}

}  // namespace
}  // namespace quorvel::tests
