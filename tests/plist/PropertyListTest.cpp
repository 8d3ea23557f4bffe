// Property lists in memory: what is read is what was meant, what is written reads back equal, and
// whatever else comes in is refused.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <string_view>

#include "tests/support/PropertyListTesting.h"
#include "tests/support/TreeTools.h"

namespace quorvel::onlinux {
namespace {

using testing::BinaryList;
using testing::Number;
using testing::Read;
using testing::Repeated;
using testing::Verdict;
using testing::Written;

std::string InPlist(std::string_view inner) {
  return "<plist version=\"1.0\">" + std::string(inner) + "</plist>";
}

// Text in ASCII, in UTF-16 with the low byte first.
std::string Utf16(std::string_view text) {
  std::string wide;
  for (const char character : text) wide += {character, '\0'};
  return wide;
}

std::string InEncoding(const std::string& name, const std::string& text) {
  return "<?xml version='1.0' encoding='" + name + "'?><plist><string>" + text +
         "</string></plist>";
}

std::string Sample(const std::string& name) {
  return testing::ReadFile(QUORVEL_SAMPLES "/" + name);
}

PlistValue EveryKind() {
  return PlistDictionary{
      {"array", PlistArray{1, 1.0, true, PlistArray{}, PlistDictionary{}}},
      {"big", UINT64_MAX},
      {"data", PlistData{0, 1, 2, 0xFE, 0xFF}},
      {"date", PlistDate{415324798}},
      {"false", false},
      {"negative", INT64_MIN},
      {"real", -1.5e-3},
      {"text & <key>", "a<b>\"'\xF0\x9F\x98\x80\xC3\xA9\n  c"},
      {"zero", ""},
  };
}

// A container within a container, `depth` in all.
PlistValue Nested(std::size_t depth) {
  PlistValue value = PlistArray{};
  for (std::size_t i = 1; i < depth; ++i) {
    PlistArray outer;
    outer.push_back(std::move(value));
    value = std::move(outer);
  }
  return value;
}

TEST(PropertyList, ReadsWhatOtherSoftwareWrote) {
  for (const char* name :
       {"every-kind.xml.plist", "every-kind.utf16.plist", "every-kind.binary.plist"}) {
    EXPECT_TRUE(Read(Sample(name)) == EveryKind()) << name;
  }
}

TEST(PropertyList, EveryValueSurvivesBothEncodings) {
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  PlistArray values = {EveryKind(), PlistArray{}, PlistDictionary{}, PlistData{}, "", true, false};
  for (const std::int64_t number :
       std::initializer_list<std::int64_t>{0, 1, -1, 127, 128, 255, 256, 65535, 65536, UINT32_MAX,
                                           UINT32_MAX + 1LL, INT64_MAX, INT64_MIN, -128}) {
    values.emplace_back(number);
  }
  values.emplace_back(std::uint64_t{1} << 63U);
  values.emplace_back(UINT64_MAX);
  // XML has whole seconds of four-digit years.
  const auto isDateOfXml = [](double seconds) {
    return seconds == std::floor(seconds) && seconds >= -63113904000.0 &&
           seconds <= 252423993599.0 && !(seconds == 0 && std::signbit(seconds));
  };
  for (const double number : {0.0, -0.0, 1.0, 0.1, -1e308, 5e-324, 2.2250738585072014e-308, inf,
                              -inf, nan, 9007199254740993.0, -63113904000.0, -63113904001.0,
                              252423993599.0, 252423993600.0, 252423993599.5, -0.5, 1e300}) {
    values.emplace_back(number);
    if (isDateOfXml(number)) values.emplace_back(PlistDate{number});
  }
  for (const char* text : {" \t\n\r\r\n", "]]>", "&amp;", "\xEF\xBB\xBF", "\xF4\x8F\xBF\xBF",
                           "\xC2\x80", "\x7F", "fifteen chars..", "\xED\x9F\xBF\xEE\x80\x80"}) {
    values.emplace_back(text);
    values.emplace_back(PlistDictionary{{text, text}});
  }
  for (std::size_t size = 1; size < 60; ++size) {
    values.emplace_back(PlistData(size, static_cast<std::uint8_t>(size * 37)));
    values.emplace_back(std::string(size, 'x'));
  }
  values.emplace_back(PlistArray(300, PlistValue("same")));
  values.emplace_back(std::string(70'000, 'y'));
  for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    for (const PlistValue& value : values) {
      const std::string bytes = Written(value, format);
      EXPECT_TRUE(Read(bytes) == value) << bytes.substr(0, 300);
    }
    EXPECT_TRUE(Read(Written(values, format)) == PlistValue(values));
  }
}

TEST(PropertyList, XmlTextIsPlainAndStable) {
  const PlistValue value = PlistDictionary{
      {"a<&>", PlistArray{-5, 0.5, PlistDate{0.5}, PlistDate{1}}},
      {"d", PlistData(60, 0)},
      {"e", PlistArray{}},
      {"s", "x\ry\tz\n"},
  };
  EXPECT_EQ(Written(value, PropertyListFormat::xml),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
            "\t<key>a&lt;&amp;&gt;</key>\n\t<array>\n\t\t<integer>-5</integer>\n"
            "\t\t<real>0.5</real>\n"
            "\t\t<date>2001-01-01T00:00:00Z</date>\n"
            "\t\t<date>2001-01-01T00:00:01Z</date>\n\t</array>\n"
            "\t<key>d</key>\n\t<data>\n\t" +
                std::string(76, 'A') +
                "\n\tAAAA\n\t</data>\n"
                "\t<key>e</key>\n\t<array/>\n\t<key>s</key>\n"
                "\t<string>x&#13;y\tz\n</string>\n</dict>\n</plist>\n");
}

TEST(PropertyList, ReadsXmlInItsVariety) {
  const struct {
    const char* inner;
    PlistValue value;
  } cases[] = {
      {"<integer>+1</integer>", 1},
      {"<integer> -0x10\n</integer>", -16},
      {"<integer>0X7fffffffffffffff</integer>", INT64_MAX},
      {"<integer>-0x8000000000000000</integer>", INT64_MIN},
      {"<integer>0xffffffffffffffff</integer>", UINT64_MAX},
      {"<integer>000000000000000000000000000012</integer>", 12},
      {"<integer><!-- x -->4<![CDATA[2]]></integer>", 42},
      {"<real>+.5</real>", 0.5},
      {"<real> 7 </real>", 7.0},
      {"<real>-Infinity</real>", -std::numeric_limits<double>::infinity()},
      {"<real>+infinity</real>", std::numeric_limits<double>::infinity()},
      {"<true> </true>", true},
      {"<data> A A = = </data>", PlistData{0}},
      {"<data>AAA=</data>", PlistData{0, 0}},
      {"<data></data>", PlistData{}},
      {"<date>2000-02-29T00:00:00Z</date>", PlistDate{-26524800}},
      {"<string a='b'>x</string>", "x"},
      {"<string>\r\n&#13;\r</string>", "\n\r\n"},
      {"<string> &#x41;&#66; </string>", " AB "},
      {"<dict><key>k</key><true/><key>k</key><false/></dict>", PlistDictionary{{"k", false}}},
      {"<dict><key>z</key><true/><key>a</key><false/></dict>",
       PlistDictionary{{"a", false}, {"z", true}}},
      {"<dict><key/><string/></dict>", PlistDictionary{{"", ""}}},
      {"<array><![CDATA[ \n]]><?pi?><!-- c --></array>", PlistArray{}},
  };
  for (const auto& [inner, value] : cases) EXPECT_TRUE(Read(InPlist(inner)) == value) << inner;
  EXPECT_TRUE(Read("\xEF\xBB\xBF<?xml version='1.0'?>\n<!DOCTYPE other SYSTEM 'file:///etc/passwd'>"
                   "<plist><true/></plist>\n<!-- end -->") == PlistValue(true));
}

// What one reader or another takes is read too: who cannot read an info dictionary deletes an app.
void ExpectRead(const std::vector<std::pair<std::string, PlistValue>>& cases) {
  for (const auto& [text, value] : cases) {
    EXPECT_TRUE(Read(text) == value) << ::testing::PrintToString(text);
  }
}

TEST(PropertyList, ReadsTheScalarsThatOthersRead) {
  const double inf = std::numeric_limits<double>::infinity();
  ExpectRead({
      {InPlist("<real>1e-999</real>"), 0.0},
      {InPlist("<real>-1e-99999</real>"), -0.0},
      {InPlist("<real>-1e999</real>"), -inf},
      {InPlist("<real>" + std::string(400, '9') + "</real>"), inf},
      {InPlist("<data>QR==</data>"), PlistData{'A'}},
      {InPlist("<data>QUJ</data>"), PlistData{'A', 'B'}},
      {InPlist("<data>AAAA====</data>"), PlistData{0, 0, 0}},
      {InPlist("<integer>18446744073709551616</integer>"), 18446744073709551616.0},
      {InPlist("<integer>-0x10000000000000000</integer>"), -18446744073709551616.0},
      // A malformed scalar is kept as its text.
      {InPlist("<integer/>"), ""},
      {InPlist("<integer>1.0</integer>"), "1.0"},
      {InPlist("<integer>--1</integer>"), "--1"},
      {InPlist("<integer>0x1g</integer>"), "0x1g"},
      {InPlist("<integer>0x</integer>"), "0x"},
      {InPlist("<real>1,5</real>"), "1,5"},
      {InPlist("<real>nan(0x0000000000001)</real>"), "nan(0x0000000000001)"},
      {InPlist("<date>2001-02-29T00:00:00Z</date>"), "2001-02-29T00:00:00Z"},
      {InPlist("<date>2001-01-01T24:00:00Z</date>"), "2001-01-01T24:00:00Z"},
      {InPlist("<date>2001-01-01T00:00:00.5Z</date>"), "2001-01-01T00:00:00.5Z"},
      {InPlist("<data>A</data>"), "A"},
      {InPlist("<data>AA-_</data>"), "AA-_"},
  });
}

TEST(PropertyList, ReadsTheTextsThatOthersRead) {
  const PlistValue yes = PlistArray{true};
  ExpectRead({
      // Beside the values.
      {"<array><true/></array>", yes},
      {InPlist("x<array>y<true>z</true></array>"), yes},
      {"\n <?xml version='1.0'?><plist><array><true/></array></plist>", yes},
      {"<plist><array><true/></array></plist>x\1", yes},
      {"<array><true/></array>x\1", yes},
      {InPlist("<!-- -- --><array><true/></array>"), yes},
      // No characters.
      {InPlist("<string>a&#1;&#xD800;&#0;&#65;</string>"),
       "a\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"
       "A"},
      {InPlist("<string>a\1\xFF<![CDATA[&#1;]]></string>"), "a\xEF\xBF\xBD\xEF\xBF\xBD&#1;"},
      {InPlist("<string>\xED\xA0\x80\xEF\xBF\xBF</string>"),
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xFF\xFE" + Utf16("<array><string>") + std::string("\0\xD8", 2) +
           Utf16("</string></array>"),
       PlistArray{"\xEF\xBF\xBD"}},
      // Encodings.
      {InEncoding("ISO-8859-1", "\xE9"), "\xC3\xA9"},
      {InEncoding("ISO-8859-15", "\xA4"), "\xE2\x82\xAC"},
      {InEncoding("windows-1252", "\x80\x81"), "\xE2\x82\xAC\xEF\xBF\xBD"},
      {InEncoding("x-mac-roman", "\x8E"), "\xC3\xA9"},
      {InEncoding("US-ASCII", "\xC3\xA9"), "\xC3\xA9"},
      {InEncoding("UTF-16", "\xC3\xA9"), "\xC3\xA9"},
  });
}

TEST(PropertyList, TellsDamageFromWhatItDoesNotRead) {
  for (const char* inner : {"", "x", "<array>", "<true>", "<array></dict>", "</array>", "<string>&",
                            "<string>&#</string>", "<string a='1' a='2'/>", "<string>a<</string>",
                            "<string><!-- </string>"}) {
    EXPECT_EQ(Verdict(InPlist(inner)), '!') << inner;
  }
  for (const char* text : {"", " ", "plist", "<Plist><true/></Plist>", "<html/>", "bplis",
                           "<plist><array><true/></array>", "\1\2\3"}) {
    EXPECT_EQ(Verdict(text), '!') << text;
  }
  EXPECT_EQ(Verdict(std::string(5000, '\0')), '!');
  for (const char* inner :
       {"<true/><true/>", "<null/>", "<array><True/></array>", "<plist><true/></plist>",
        "<key>k</key>", "<array><key>k</key></array>", "<dict><key>k</key></dict>",
        "<dict><true/></dict>", "<dict><key>a</key><key>b</key><true/></dict>",
        "<dict><key>a</key><true/><true/></dict>", "<dict><key><b/></key><true/></dict>",
        "<string><true/></string>", "<string>&nbsp;</string>"}) {
    EXPECT_EQ(Verdict(InPlist(inner)), '?') << inner;
  }
  for (const std::string& text : {std::string("{ a = b; }"), std::string("bplist15 and more"),
                                  InEncoding("EBCDIC-X", ""), InEncoding("Shift_JIS", "")}) {
    EXPECT_EQ(Verdict(text), '?') << text;
  }
}

TEST(PropertyList, RefusesEntities) {
  std::string laughs = "<!DOCTYPE plist [<!ENTITY a 'ha'>";
  for (char c = 'b'; c < 'z'; ++c) {
    const std::string before = "&" + std::string(1, static_cast<char>(c - 1)) + ";";
    laughs += "<!ENTITY " + std::string(1, c) + " '" + Repeated(before, 10) + "'>";
  }
  const auto document = [](const std::string& start, const std::string& text) {
    return start + "<plist><string>" + text + "</string></plist>";
  };
  for (const std::string& text :
       {document(laughs + "]>", "&y;"), document("<!DOCTYPE plist [<!ENTITY a 'x'>]>", ""),
        document("<!DOCTYPE plist [<!ENTITY a SYSTEM '/etc/passwd'>]>", "&a;"),
        document("<!DOCTYPE plist [<!ENTITY % p SYSTEM '/etc/passwd'> %p;]>", ""),
        document("<!DOCTYPE plist [%p; <!ENTITY a 'x'>]>", "&a;"),
        document("<!DOCTYPE plist SYSTEM 'x.dtd'>", "&a;")}) {
    EXPECT_EQ(Verdict(text), '?') << text;
  }
}

TEST(PropertyList, DepthIsBoundedBothWays) {
  for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    const PlistValue deepest = Nested(PropertyListDepthLimit);
    EXPECT_TRUE(Read(Written(deepest, format)) == deepest);
    EXPECT_EQ(Written(Nested(PropertyListDepthLimit + 1), format), "");
  }
  const std::size_t levels = 100'000;
  EXPECT_EQ(Verdict(InPlist(Repeated("<array>", levels) + Repeated("</array>", levels))), '?');
  EXPECT_EQ(Verdict(InPlist(Repeated("<dict><key/>", levels))), '?');
  BinaryList chain;
  for (std::size_t i = 0; i < levels; ++i) chain.add("\xA1" + Number(i + 1, 4));
  chain.add("\xA0");
  EXPECT_EQ(Verdict(chain.text(4)), '?');
}

TEST(PropertyList, WritersRefuseWhatTheyCannotHold) {
  for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    EXPECT_EQ(Written(PlistSet{{1}}, format), "");
    EXPECT_EQ(Written(PlistArray{PlistDictionary{{"k", PlistSet{}}}}, format), "");
    for (const char* text : {"\xFF", "a\xC3", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
      EXPECT_EQ(Written(text, format), "") << text;
      EXPECT_EQ(Written(PlistDictionary{{text, 1}}, format), "") << text;
    }
  }
  for (const std::string& text : {std::string(1, '\0'), std::string("\x1F"), std::string("\x0B"),
                                  std::string("\xEF\xBF\xBE"), std::string("\xEF\xBF\xBF")}) {
    EXPECT_EQ(Written(text, PropertyListFormat::xml), "");
    EXPECT_TRUE(Read(Written(text, PropertyListFormat::binary)) == PlistValue(text));
  }
  // Beyond the size limit, though sharing could hold it in little space.
  const PlistArray repeated(3000, PlistValue(std::string(100'000, 'x')));
  EXPECT_EQ(Written(repeated, PropertyListFormat::binary), "");
}

TEST(PropertyList, EveryTruncationIsRefused) {
  const PlistValue value = EveryKind();
  for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    // What stands after the document's last ">" is no part of it.
    const std::string whole = Written(value, format);
    const std::size_t needed = format == PropertyListFormat::xml ? whole.size() - 1 : whole.size();
    for (std::size_t size = 0; size < needed; ++size) {
      EXPECT_EQ(Verdict(whole.substr(0, size)), '!') << size;
    }
  }
}

// Whatever a changed byte makes of the file: it is refused or it is a value that can be written.
TEST(PropertyList, EveryChangedByteIsRefusedOrRead) {
  std::size_t refused = 0;
  for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    const std::string whole = Written(EveryKind(), format);
    for (std::size_t at = 0; at < whole.size(); ++at) {
      for (int byte = 0; byte < 256; byte += format == PropertyListFormat::xml ? 5 : 1) {
        std::string changed = whole;
        changed[at] = static_cast<char>(byte);
        const auto value = Read(changed);
        if (value) {
          EXPECT_TRUE(Read(Written(*value, PropertyListFormat::binary)) == *value);
        } else {
          ++refused;
        }
      }
    }
  }
  EXPECT_GT(refused, 10'000U);
}

TEST(PropertyList, AMillionSiblings) {
  EXPECT_EQ(Read(InPlist("<array>" + Repeated("<true/>", 1'000'000) + "</array>"))->array()->size(),
            1'000'000U);
  PlistArray values;
  for (int i = 0; i < 1'000'000; ++i) values.emplace_back(i);
  EXPECT_TRUE(Read(Written(values, PropertyListFormat::binary)) == PlistValue(values));
  EXPECT_EQ(Written(PlistArray(PropertyListNodeLimit, true), PropertyListFormat::binary), "");
}

}  // namespace
}  // namespace quorvel::onlinux
