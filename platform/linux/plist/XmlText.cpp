// Conversion of documents to UTF-8, and removal of what expat would stop at.
#include "platform/linux/plist/XmlText.h"

#include <iconv.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>

#include "platform/FileSystemRepresentation.h"
#include "platform/linux/plist/PropertyListText.h"

namespace quorvel::onlinux {

namespace {

constexpr const char* kUtf8 = "UTF-8";

struct Encoding {
  std::string name;
  std::size_t unit = 1;  // bytes that are passed over when they are no character
};

bool BeginsWith(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         ::strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

// What the first bytes give away. UTF-32 before UTF-16, whose marks its own begin with.
std::optional<Encoding> VisibleEncoding(std::string_view text) {
  using namespace std::string_view_literals;
  static constexpr struct {
    std::string_view start;
    const char* name;
    std::size_t unit;
  } kStarts[] = {
      {"\xFF\xFE\0\0"sv, "UTF-32LE", 4}, {"<\0\0\0"sv, "UTF-32LE", 4},
      {"\0\0\xFE\xFF"sv, "UTF-32BE", 4}, {"\0\0\0<"sv, "UTF-32BE", 4},
      {"\xFF\xFE"sv, "UTF-16LE", 2},     {"<\0"sv, "UTF-16LE", 2},
      {"\xFE\xFF"sv, "UTF-16BE", 2},     {"\0<"sv, "UTF-16BE", 2},
      {"\xEF\xBB\xBF"sv, kUtf8, 1},
  };
  for (const auto& [start, name, unit] : kStarts) {
    if (text.starts_with(start)) return Encoding{name, unit};
  }
  return std::nullopt;
}

// A document whose declaration could be read is in none of the wide encodings, whatever it says.
std::optional<Encoding> EncodingOf(std::string_view text, std::string_view declared) {
  if (auto visible = VisibleEncoding(text)) return visible;
  for (const char* name : {"UTF", "ISO-10646", "US-ASCII", "ASCII"}) {
    if (declared.empty() || BeginsWith(declared, name)) return Encoding{kUtf8};
  }
  if (BeginsWith(declared, "x-mac-roman")) return Encoding{"MACINTOSH"};
  // One byte a character, all of them: anything else would have to say so by its first bytes.
  for (const char* family : {"ISO-8859-", "ISO_8859-", "ISO8859-", "latin", "windows-125", "CP125",
                             "CP437", "CP85", "IBM437", "IBM85", "KOI8-", "macintosh"}) {
    if (BeginsWith(declared, family)) return Encoding{std::string(declared)};
  }
  return std::nullopt;
}

// One conversion of the C library.
class Converter {
 public:
  explicit Converter(const std::string& from) : handle_(::iconv_open(kUtf8, from.c_str())) {}
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() {
    if (isKnown()) ::iconv_close(handle_);
  }
  bool isKnown() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

  void convert(std::string_view text, std::size_t unit, MendedXml& out) {
    std::array<char, 4096> buffer;
    char* in = const_cast<char*>(text.data());  // iconv does not change what it reads
    std::size_t left = text.size();
    while (left > 0) {
      char* next = buffer.data();
      std::size_t space = buffer.size();
      const std::size_t result = ::iconv(handle_, &in, &left, &next, &space);
      // A full buffer is no failure: the next round goes on.
      const bool isBad = result == static_cast<std::size_t>(-1) && errno != E2BIG;
      out.text.append(buffer.data(), buffer.size() - space);
      if (!isBad) continue;
      out.text += kReplacementCharacter;
      out.isExact = false;
      // A whole unit, so that what follows stays aligned.
      const std::size_t passed = std::min(unit, left);
      in += passed;
      left -= passed;
    }
  }

 private:
  iconv_t handle_;
};

// Length of a reference to a character that XML cannot hold, at the front of the text; 0 when
// there is none.
std::size_t ImpossibleReference(std::string_view text) {
  const std::size_t end = text.find(';');
  // The caller passes a few bytes only: an honest reference is short.
  if (!text.starts_with("&#") || end == text.npos) return 0;
  const bool hexadecimal = text[2] == 'x';
  const char* const first = text.data() + (hexadecimal ? 3 : 2);
  const char* const last = text.data() + end;
  if (first >= last) return 0;
  std::uint32_t point = 0;
  const auto [stop, failure] = std::from_chars(first, last, point, hexadecimal ? 16 : 10);
  if (stop != last || failure == std::errc::invalid_argument) return 0;
  const bool possible = failure == std::errc() &&
                        (point >= 0x20 || point == '\t' || point == '\n' || point == '\r') &&
                        (point & ~0x7FFU) != 0xD800 && (point & ~1U) != 0xFFFE && point <= 0x10FFFF;
  return possible ? 0 : end + 1;
}

// Appends to `out` what can stand in a document.
void Mend(std::string_view text, MendedXml& out) {
  out.text.reserve(text.size());
  bool literal = false;  // in a CDATA section, where no markup is
  while (!text.empty()) {
    if (!literal && text.starts_with("<!--")) {
      const std::size_t end = text.find("-->", 4);
      // A comment without an end: the parser will say so.
      if (end == text.npos) break;
      text.remove_prefix(end + 3);
      continue;
    }
    if (text.starts_with("<![CDATA[")) literal = true;
    if (text.starts_with("]]>")) literal = false;
    const std::size_t reference = literal ? 0 : ImpossibleReference(text.substr(0, 32));
    const std::size_t length = reference != 0 ? reference : XmlCharacterLength(text);
    const bool fits = reference == 0 && length != 0;
    out.text += fits ? text.substr(0, length) : kReplacementCharacter;
    out.isExact = out.isExact && fits;
    // A character that XML cannot hold goes as a whole.
    text.remove_prefix(
        std::max({length, encoding_detail::Utf8SequenceLength(text), std::size_t{1}}));
  }
  out.text += text;
}

std::string_view TextOf(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

std::optional<MendedXml> MendXml(std::span<const std::uint8_t> bytes, std::string_view declared) {
  const std::optional<Encoding> encoding = EncodingOf(TextOf(bytes), declared);
  if (!encoding) return std::nullopt;
  MendedXml mended;
  if (encoding->name == kUtf8) {
    Mend(TextOf(bytes), mended);
    return mended;
  }
  // Two passes: an encoding is undone before anything is looked for in the text, whose bytes may
  // look like markup until then.
  Converter converter(encoding->name);
  if (!converter.isKnown()) return std::nullopt;
  MendedXml converted;
  converter.convert(TextOf(bytes), encoding->unit, converted);
  mended.isExact = converted.isExact;
  Mend(converted.text, mended);
  return mended;
}

bool IsWideXml(std::span<const std::uint8_t> bytes) {
  const std::optional<Encoding> encoding = VisibleEncoding(TextOf(bytes));
  return encoding && encoding->unit > 1;
}

}  // namespace quorvel::onlinux
