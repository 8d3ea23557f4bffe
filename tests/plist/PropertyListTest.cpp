// Property lists in memory: what is read is what was meant, what is written reads back equal, and
// whatever else comes in is refused.
#include <gtest/gtest.h>

#include <bit>
#include <cstdio>
#include <limits>
#include <string>
#include <string_view>

#include "tests/support/PropertyListTesting.h"

namespace quorvel::onlinux {
namespace {

using testing::BinaryList;
using testing::Number;
using testing::Read;
using testing::Repeated;
using testing::Written;

std::string InPlist(std::string_view inner) {
  return "<plist version=\"1.0\">" + std::string(inner) + "</plist>";
}

std::string Sample(const std::string& name) {
  std::string bytes;
  std::FILE* file = std::fopen((QUORVEL_SAMPLES "/" + name).c_str(), "rb");
  if (file == nullptr) return bytes;
  for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) bytes += static_cast<char>(c);
  std::fclose(file);
  return bytes;
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
  const auto odd = [](std::uint64_t bits) { return std::bit_cast<double>(bits); };
  PlistArray values = {EveryKind(), PlistArray{}, PlistDictionary{}, PlistData{}, "", true, false};
  for (const std::int64_t number :
       std::initializer_list<std::int64_t>{0, 1, -1, 127, 128, 255, 256, 65535, 65536, UINT32_MAX,
                                           UINT32_MAX + 1LL, INT64_MAX, INT64_MIN, -128}) {
    values.emplace_back(number);
  }
  values.emplace_back(std::uint64_t{1} << 63U);
  values.emplace_back(UINT64_MAX);
  for (const double number : {0.0,
                              -0.0,
                              1.0,
                              0.1,
                              -1e308,
                              5e-324,
                              2.2250738585072014e-308,
                              inf,
                              -inf,
                              nan,
                              -nan,
                              odd(0x7FF0000000000001),
                              odd(0xFFFFFFFFFFFFFFFF),
                              9007199254740993.0,
                              -63113904000.0,
                              -63113904001.0,
                              252423993599.0,
                              252423993600.0,
                              252423993599.5,
                              -0.5,
                              1e300}) {
    values.emplace_back(number);
    values.emplace_back(PlistDate{number});
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
            "\t\t<date seconds=\"0.5\">2001-01-01T00:00:00Z</date>\n"
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
  EXPECT_TRUE(
      Read("<?xml version='1.0' encoding='ISO-8859-1'?><plist><string>\xE9</string></plist>") ==
      PlistValue("\xC3\xA9"));
}

TEST(PropertyList, RefusesBrokenXml) {
  const char* const inner[] = {"",
                               "x<true/>",
                               "<true/>x",
                               "<true/><true/>",
                               "<null/>",
                               "<True/>",
                               "<DICT/>",
                               "<true>x</true>",
                               "<plist><true/></plist>",
                               "<key>k</key>",
                               "<array><key>k</key></array>",
                               "<dict><key>k</key></dict>",
                               "<dict><true/></dict>",
                               "<dict><key>a</key><key>b</key><true/></dict>",
                               "<dict><key>a</key><true/><true/></dict>",
                               "<dict>a</dict>",
                               "<array>a</array>",
                               "<dict><key><b/></key><true/></dict>",
                               "<string><true/></string>",
                               "<array>",
                               "<true>",
                               "<array></dict>",
                               "</array>",
                               "<integer/>",
                               "<integer>-</integer>",
                               "<integer>+</integer>",
                               "<integer>0x</integer>",
                               "<integer>--1</integer>",
                               "<integer>+-1</integer>",
                               "<integer>1.0</integer>",
                               "<integer>1 2</integer>",
                               "<integer>1e3</integer>",
                               "<integer>0x1g</integer>",
                               "<integer>18446744073709551616</integer>",
                               "<integer>-9223372036854775809</integer>",
                               "<integer>\xD9\xA3</integer>",
                               "<real/>",
                               "<real>1,5</real>",
                               "<real>1e999</real>",
                               "<real>-1e999</real>",
                               "<real>0x1p3</real>",
                               "<real>1 2</real>",
                               "<real>.</real>",
                               "<real>1e</real>",
                               "<real>--1</real>",
                               "<real>nan(0x0000000000000)</real>",
                               "<real>nan(1)</real>",
                               "<real>infin</real>",
                               "<date/>",
                               "<date>2001-02-29T00:00:00Z</date>",
                               "<date>2001-01-01</date>",
                               "<date>2001-01-01T24:00:00Z</date>",
                               "<date>2001-01-01T00:60:00Z</date>",
                               "<date>2001-01-01T00:00:60Z</date>",
                               "<date>2001-13-01T00:00:00Z</date>",
                               "<date>2001-00-01T00:00:00Z</date>",
                               "<date>+201-01-01T00:00:00Z</date>",
                               "<date>2001-01-01T00:00:00z</date>",
                               "<date>2001-01-01T00:00:00.5Z</date>",
                               "<date seconds='x'>2001-01-01T00:00:00Z</date>",
                               "<data>A</data>",
                               "<data>AA</data>",
                               "<data>AA=</data>",
                               "<data>AA==A</data>",
                               "<data>A===</data>",
                               "<data>====</data>",
                               "<data>AAAA=</data>",
                               "<data>AB==</data>",
                               "<data>AA=A</data>",
                               "<data>AA-_</data>",
                               "<string>&#0;</string>",
                               "<string>&#1;</string>",
                               "<string>&#xD800;</string>",
                               "<string>&#x110000;</string>",
                               "<string>&#xFFFF;</string>",
                               "<string>&nbsp;</string>",
                               "<string>\x01</string>",
                               "<string>\xFF</string>",
                               "<string>\xC0\x80</string>",
                               "<string>\xED\xA0\x80</string>",
                               "<string>]]></string>",
                               "<string><!-- -- --></string>",
                               "<string a='1' a='2'/>"};
  for (const char* text : inner) EXPECT_FALSE(Read(InPlist(text))) << text;
  const char* const whole[] = {
      "",
      " ",
      "plist",
      "{ a = b; }",
      "<dict/>",
      "<array><true/></array>",
      "<Plist><true/></Plist>",
      "<plist><true/></plist><plist><true/></plist>",
      "<plist><true/></plist>x",
      " <?xml version='1.0'?><plist><true/></plist>",
      "<?xml version='1.0' encoding='UTF-16'?><plist><true/></plist>",
      "<?xml version='1.0' encoding='EBCDIC-X'?><plist><true/></plist>",
      "<?xml version='1.0' encoding='US-ASCII'?><plist><string>\xC3\xA9</string></plist>"};
  for (const char* text : whole) EXPECT_FALSE(Read(text)) << text;
  EXPECT_FALSE(Read(std::string("<plist>\0<true/></plist>", 23)));
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
    EXPECT_FALSE(Read(text)) << text;
  }
}

TEST(PropertyList, DepthIsBoundedBothWays) {
  for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    const PlistValue deepest = Nested(PropertyListDepthLimit);
    EXPECT_TRUE(Read(Written(deepest, format)) == deepest);
    EXPECT_EQ(Written(Nested(PropertyListDepthLimit + 1), format), "");
  }
  const std::size_t levels = 100'000;
  EXPECT_FALSE(Read(InPlist(Repeated("<array>", levels) + Repeated("</array>", levels))));
  EXPECT_FALSE(Read(InPlist(Repeated("<dict><key/>", levels))));
  BinaryList chain;
  for (std::size_t i = 0; i < levels; ++i) chain.add("\xA1" + Number(i + 1, 4));
  chain.add("\xA0");
  EXPECT_FALSE(Read(chain.text(4)));
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
      EXPECT_FALSE(Read(whole.substr(0, size))) << size;
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
