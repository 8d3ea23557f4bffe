// The binary encoding: its variety, its hostile forms, and what its writer makes.
#include <gtest/gtest.h>

#include <bit>
#include <chrono>
#include <limits>
#include <string>

#include "tests/support/PropertyListTesting.h"

namespace quorvel::onlinux {
namespace {

using testing::BinaryList;
using testing::Number;
using testing::Read;
using testing::Verdict;
using testing::Written;

TEST(BinaryPropertyList, BinaryWritesEqualScalarsOnceAndIsNarrow) {
  const std::string text(100, 'a');
  const std::string bytes =
      Written(PlistArray(5000, PlistDictionary{{text, text}}), PropertyListFormat::binary);
  // Each dictionary: marker, two 2-byte references, its own 2-byte reference, a 2-byte offset.
  EXPECT_LT(bytes.size(), 5000 * 9 + 200U);
  EXPECT_EQ(Written(PlistArray{1, true}, PropertyListFormat::binary).size(),
            8 + 3 + 2 + 1 + 3 + 32U);
  // Sharing ends where a bounded reader would take the file for an attack.
  const PlistValue repeated = PlistArray(300, PlistValue(std::string(10'000, 'x')));
  EXPECT_TRUE(Read(Written(repeated, PropertyListFormat::binary)) == repeated);
}

TEST(BinaryPropertyList, ReadsBinaryInItsVariety) {
  using namespace std::string_literals;
  const struct {
    std::string object;
    PlistValue value;
  } cases[] = {
      {"\x08"s, false},
      {"\x09"s, true},
      {"\x10\xFF"s, 255},
      {"\x11\xFF\xFE"s, 65534},
      {"\x12\xFF\xFF\xFF\xFF"s, UINT32_MAX},
      {"\x13" + std::string(8, '\xFF'), -1},
      {"\x14" + std::string(8, '\0') + std::string(8, '\xFF'), UINT64_MAX},
      {"\x14" + std::string(16, '\xFF'), -1},
      {"\x14" + std::string(8, '\0') + Number(7, 8), 7},
      {"\x22\x3F\xC0\0\0"s, 1.5},
      {"\x33" + Number(std::bit_cast<std::uint64_t>(-2.5), 8), PlistDate{-2.5}},
      {"\x41z"s, PlistData{'z'}},
      {"\x4F\x13" + Number(2, 8) + "zz", PlistData{'z', 'z'}},
      {"\x5F\x10\x03"
       "abc"s,
       "abc"},
      {"\x62\0A\x26\x3A"s, "A\xE2\x98\xBA"},
      {"\x62\xD8\x3D\xDE\x00"s, "\xF0\x9F\x98\x80"},
      {"\x52"
       "a\0"s,
       "a\0"s},
      {"\xA0"s, PlistArray{}},
      {"\xD0"s, PlistDictionary{}},
  };
  for (const auto& [object, value] : cases) {
    EXPECT_TRUE(Read(BinaryList{object}.text()) == value) << ::testing::PrintToString(object);
  }
  // Shared objects, and of two equal keys the last.
  EXPECT_TRUE(Read(BinaryList{"\xA3\1\1\2"s, "\xA1\2"s, "\x09"s}.text()) ==
              PlistValue(PlistArray{PlistArray{true}, PlistArray{true}, true}));
  EXPECT_TRUE(Read(BinaryList{"\xD2\1\1\2\3"s, "\x51k"s, "\x08"s, "\x09"s}.text()) ==
              PlistValue(PlistDictionary{{"k", true}}));
  // Odd widths.
  EXPECT_TRUE(Read(BinaryList{"\xA1\0\0\1"s, "\x09"s}.text(3, 7)) == PlistValue(PlistArray{true}));
}

TEST(BinaryPropertyList, ReadsWhatOthersRead) {
  using namespace std::string_literals;
  const std::string none = "\xEF\xBF\xBD";
  const struct {
    std::string object;
    PlistValue value;
  } cases[] = {
      {"\x14" + Number(1, 8) + Number(0, 8), 18446744073709551616.0},
      {"\x14" + std::string(8, '\xFF') + Number(0, 8), -18446744073709551616.0},
      {"\x23" + Number(0xFFF0000000000001, 8), std::numeric_limits<double>::quiet_NaN()},
      {"\x80\x07"s, 7},
      {"\x81\x01\x00"s, 256},
      {"\x62\xD8\0\0A"s, none + "A"},
      {"\x62\xDC\0\xD8\0"s, none + none},
      {"\x53\xC3\xA9\x80"s, "\xC3\xA9" + none},
      {"\x72\xC3\xA9"s, "\xC3\xA9"},
      {"\xB0"s, PlistArray{}},
      {"\xC0"s, PlistArray{}},
  };
  for (const auto& [object, value] : cases) {
    EXPECT_TRUE(Read(BinaryList{object}.text()) == value) << ::testing::PrintToString(object);
  }
  // Null is passed over, with its key.
  EXPECT_TRUE(Read(BinaryList{"\xA3\1\2\1"s, "\x00"s, "\x09"s}.text()) ==
              PlistValue(PlistArray{true}));
  EXPECT_TRUE(Read(BinaryList{"\xD2\1\2\3\1"s, "\x51k"s, "\x51n"s, "\x00"s}.text()) ==
              PlistValue(PlistDictionary{{"n", "k"}}));
}

TEST(BinaryPropertyList, TellsDamageFromWhatItDoesNotRead) {
  // Every marker without content: what is whole by its marker alone, what may mean something to
  // another reader, and the rest.
  for (int marker = 0; marker < 256; ++marker) {
    const bool isWhole = marker == 0x08 || marker == 0x09 || marker == 0x40 || marker == 0x50 ||
                         marker == 0x60 || marker == 0x70 || marker == 0xA0 || marker == 0xB0 ||
                         marker == 0xC0 || marker == 0xD0;
    const bool isUnknown = marker < 0x10 || marker >> 4 == 9 || marker >> 4 >= 14;
    EXPECT_EQ(Verdict(BinaryList{std::string(1, static_cast<char>(marker))}.text()), isWhole ? '='
                                                                                     : isUnknown
                                                                                         ? '?'
                                                                                         : '!')
        << marker;
  }
}

TEST(BinaryPropertyList, TellsDamagedObjectsFromUnknownOnes) {
  using namespace std::string_literals;
  const std::string damaged[] = {"\x4F\x13" + Number(UINT64_MAX, 8),
                                 "\x4F\x13" + Number(std::uint64_t{1} << 60U, 8),
                                 "\x5F\x13" + Number(std::uint64_t{1} << 63U, 8),
                                 "\x6F\x13" + Number(UINT64_MAX / 2 + 1, 8),
                                 "\xAF\x13" + Number(UINT64_MAX, 8),
                                 "\xDF\x13" + Number(std::uint64_t{1} << 63U, 8),
                                 "\x4F\x14" + std::string(16, '\0'),
                                 "\x4F\x51z"s,
                                 "\x4F\x22\0\0\0\0"s,
                                 "\x4F\x12\0"s,
                                 "\xA1\1"s,
                                 "\xA1\xFF"s};  // no such object
  for (const std::string& object : damaged) {
    EXPECT_EQ(Verdict(BinaryList{object}.text()), '!') << ::testing::PrintToString(object);
  }
  const std::string unknown[] = {"\x15" + std::string(32, '\0'),
                                 "\x20\0"s,
                                 "\x24" + std::string(16, '\0'),
                                 "\x32\0\0\0\0"s,
                                 "\xA1\0"s,
                                 "\xA2\0\0"s,
                                 "\xC1\0"s};  // cycles
  for (const std::string& object : unknown) {
    EXPECT_EQ(Verdict(BinaryList{object}.text()), '?') << ::testing::PrintToString(object);
  }
  // Cycles through two containers, and through the value of a dictionary.
  EXPECT_EQ(Verdict(BinaryList{"\xA1\1"s, "\xA1\0"s}.text()), '?');
  EXPECT_EQ(Verdict(BinaryList{"\xD1\1\0"s, "\x51k"s}.text()), '?');
}

TEST(BinaryPropertyList, RefusesBrokenTrailers) {
  BinaryList list{"\xA1\1", "\x09"};
  const std::string good = list.text();
  ASSERT_TRUE(Read(good));
  // Offsets of the fields from the end, with their widths.
  const struct {
    std::size_t fromEnd, width;
  } fields[] = {{26, 1}, {25, 1}, {24, 8}, {16, 8}, {8, 8}};
  const std::uint64_t high = std::uint64_t{1} << 63U;
  for (const auto& [fromEnd, width] : fields) {
    for (const std::uint64_t value : {std::uint64_t{9}, std::uint64_t{100}, std::uint64_t{255},
                                      high, high + 1, UINT64_MAX, UINT64_MAX / 2, UINT64_MAX - 7}) {
      std::string changed = good;
      changed.replace(changed.size() - fromEnd, width, Number(value, width));
      EXPECT_EQ(Verdict(changed), changed == good ? '=' : '!') << fromEnd << " " << value;
    }
  }
  // An object's offset: into the header, at and inside the table, past the end.
  for (const unsigned offset : {0U, 7U, 11U, 12U, 13U, 40U, 255U}) {
    std::string changed = good;
    changed[good.size() - 33] = static_cast<char>(offset);
    EXPECT_EQ(Verdict(changed), '!') << offset;
  }
  EXPECT_EQ(Verdict("bplist00"), '!');
  EXPECT_EQ(Verdict("bplist00" + std::string(32, '\0')), '!');
  EXPECT_EQ(Verdict("bplist01" + good.substr(8)), '=');
}

TEST(BinaryPropertyList, SharedReferencesCannotExplode) {
  using namespace std::string_literals;
  const auto start = std::chrono::steady_clock::now();
  BinaryList doubling, dictionaries, foreign, texts;
  for (int i = 0; i < 30; ++i) {
    const std::string next(1, static_cast<char>(i + 1));
    doubling.add("\xA2" + next + next);
    dictionaries.add("\xD2\x1F\x20" + next + next);
    foreign.add("\xD2" + next + next + next + next);
  }
  for (BinaryList* list : {&doubling, &dictionaries, &foreign}) list->add("\x09");
  dictionaries.add(
      "\x51"
      "a");
  dictionaries.add(
      "\x51"
      "b");
  EXPECT_EQ(Verdict(doubling.text()), '?');
  EXPECT_EQ(Verdict(dictionaries.text()), '?');
  EXPECT_TRUE(Read(foreign.text()));  // nothing of it is looked into
  // One long text many times: content is bounded as well as the number of values.
  texts.add("\xAF\x12" + Number(40'000, 4) + std::string(40'000, '\1'));
  texts.add("\x5F\x12" + Number(100'000, 4) + std::string(100'000, 'x'));
  EXPECT_EQ(Verdict(texts.text()), '?');
  // What is borne: 4 KB that hold 3 MB.
  BinaryList much{"\xAF\x11" + Number(3000, 2) + std::string(3000, '\1')};
  much.add("\x5F\x11" + Number(1000, 2) + std::string(1000, 'x'));
  EXPECT_EQ(Verdict(much.text()), '=');
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(BinaryPropertyList, ForeignKeysAreCounted) {
  using namespace std::string_literals;
  const std::string bytes =
      BinaryList{"\xD3\1\2\3\4\4\4"s, "\x10\1"s, "\x51k"s, "\xA0"s, "\x09"s}.text();
  const auto value = Read(bytes);
  ASSERT_TRUE(value && value->dictionary() != nullptr);
  EXPECT_EQ(value->dictionary()->foreignKeyCount(), 2U);
  EXPECT_TRUE(*value == PlistValue(PlistDictionary{{"k", true}}));
}

}  // namespace
}  // namespace quorvel::onlinux
