// Scalars as text without the locale.
#include "platform/linux/plist/PropertyListText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <locale>
#include <sstream>

#include "platform/FileSystemRepresentation.h"

namespace quorvel::onlinux {

namespace {

// Where the format's dates are counted from.
constexpr std::chrono::sys_days kReferenceDay = std::chrono::year(2001) / 1 / 1;
constexpr std::int64_t kSecondsPerDay = 86400;
// The first and last second whose text form others understand: years 1 to 9999. 730,485 days before
// the reference day, and 2,921,574 after it less a second.
constexpr double kFirstDateSeconds = -63'113'904'000.0;
constexpr double kLastDateSeconds = 252'423'993'599.0;

constexpr std::uint64_t kSignBit = std::uint64_t{1} << 63U;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && IsXmlSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsXmlSpace(text.back())) text.remove_suffix(1);
  return text;
}

// Takes one sign off the front; whether it was a minus.
bool TakeSign(std::string_view& text) {
  if (text.empty() || (text.front() != '-' && text.front() != '+')) return false;
  const bool negative = text.front() == '-';
  text.remove_prefix(1);
  return negative;
}

// The whole text as an unsigned number; none when it is empty, too large or anything else.
template <class Number>
std::optional<Number> Unsigned(std::string_view digits, int base) {
  Number number = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, failure] = std::from_chars(digits.data(), end, number, base);
  if (failure != std::errc() || stop != end) return std::nullopt;
  return number;
}

bool EqualsIgnoringCase(std::string_view text, std::string_view lowercase) {
  return std::equal(text.begin(), text.end(), lowercase.begin(), lowercase.end(),
                    [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + 32 : a) == b; });
}

// The decimal number in the text, infinity when it is too large and 0 when it is too small; none
// when it is anything else. std::from_chars does not say which of the two it met; a stream does.
std::optional<double> Decimal(std::string_view text) {
  double real = 0;
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, real);
  if (stop != end || failure == std::errc::invalid_argument) return std::nullopt;
  if (failure != std::errc::result_out_of_range) return real;
  std::istringstream stream{std::string(text)};
  stream.imbue(std::locale::classic());
  stream >> real;
  return stream ? real : kInfinity;
}

std::optional<double> PositiveReal(std::string_view text) {
  if (text.empty()) return std::nullopt;
  // from_chars would also take words of its own, such as those with a not-a-number's payload.
  if (text.front() == '.' || (text.front() >= '0' && text.front() <= '9')) return Decimal(text);
  if (EqualsIgnoringCase(text, "nan")) return std::numeric_limits<double>::quiet_NaN();
  if (EqualsIgnoringCase(text, "inf") || EqualsIgnoringCase(text, "infinity")) return kInfinity;
  return std::nullopt;
}

// The digits as an approximation; none when they are no digits. Beyond 64 bits only a real is left;
// as a text it would be no number at all.
std::optional<PlistValue> LargeInteger(std::string_view digits, bool hexadecimal, bool negative) {
  const char* const kDigits = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
  if (digits.empty() || digits.find_first_not_of(kDigits) != digits.npos) return std::nullopt;
  double real = 0;
  if (hexadecimal) {
    // Rounds at each digit beyond the 53rd bit: an approximation is what is promised.
    for (const char digit : digits) real = real * 16 + *Unsigned<unsigned>({&digit, 1}, 16);
  } else {
    real = *Decimal(digits);
  }
  return std::optional<PlistValue>(std::in_place, negative ? -real : real);
}

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kBase64Space = 64;
constexpr std::uint8_t kBase64Invalid = 65;

constexpr std::array<std::uint8_t, 256> MakeBase64Values() {
  std::array<std::uint8_t, 256> values{};
  values.fill(kBase64Invalid);
  for (std::size_t i = 0; i < kBase64Alphabet.size(); ++i) {
    values[static_cast<std::uint8_t>(kBase64Alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  for (const char space : {' ', '\t', '\n', '\r'}) {
    values[static_cast<std::uint8_t>(space)] = kBase64Space;
  }
  return values;
}
// Digit values by character, made at compile time.
constexpr std::array<std::uint8_t, 256> kBase64Values = MakeBase64Values();

// Takes the padding and white space off the end. Not everyone writes all of the padding.
void TakePadding(std::string_view& text) {
  while (!text.empty() && (IsXmlSpace(text.back()) || text.back() == '=')) text.remove_suffix(1);
}

void AppendUtf8(std::string& text, std::uint32_t point) {
  const auto add = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
  if (point < 0x80) {
    add(point);
    return;
  }
  if (point < 0x800) {
    add(0xC0U | point >> 6U);
  } else if (point < 0x10000) {
    add(0xE0U | point >> 12U);
    add(0x80U | (point >> 6U & 0x3FU));
  } else {
    add(0xF0U | point >> 18U);
    add(0x80U | (point >> 12U & 0x3FU));
    add(0x80U | (point >> 6U & 0x3FU));
  }
  add(0x80U | (point & 0x3FU));
}

}  // namespace

bool IsXmlSpace(char character) {
  return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

// Eight bytes at a time, and without leaving early: nearly every text is ASCII to its end.
bool IsAscii(std::string_view text) {
  std::uint64_t all = 0;
  const auto take = [&](const char* from) {
    std::uint64_t word = 0;
    std::memcpy(&word, from, sizeof word);
    all |= word;
  };
  if (text.size() >= 8) {
    for (std::size_t at = 0; at + 8 <= text.size(); at += 8) take(text.data() + at);
    take(text.data() + text.size() - 8);  // the rest, and some of what was before it
  } else {
    for (const char c : text) all |= static_cast<unsigned char>(c);
  }
  return (all & 0x8080808080808080U) == 0;
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = encoding_detail::Utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string WithoutInvalidUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = encoding_detail::Utf8SequenceLength(text);
    valid += length != 0 ? text.substr(0, length) : kReplacementCharacter;
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return valid;
}

bool Utf8FromUtf16(const std::uint8_t* units, std::size_t count, std::string& text) {
  const auto unit = [&](std::size_t i) {
    return static_cast<std::uint32_t>(units[2 * i] << 8U | units[2 * i + 1]);
  };
  bool sound = true;
  // A lower bound, which for ASCII is exact.
  text.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t point = unit(i);
    if ((point & 0xF800U) == 0xD800U) {
      const std::uint32_t second = i + 1 < count ? unit(i + 1) : 0;
      // A high half followed by a low half is one character of the upper planes.
      if (point < 0xDC00U && (second & 0xFC00U) == 0xDC00U) {
        point = 0x10000U + ((point & 0x3FFU) << 10U) + (second & 0x3FFU);
        ++i;
      } else {
        point = 0xFFFDU;
        sound = false;
      }
    }
    AppendUtf8(text, point);
  }
  return sound;
}

std::size_t XmlCharacterLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  // XML 1.0 has no other control characters.
  if (first < 0x20) return first == '\t' || first == '\n' || first == '\r' ? 1 : 0;
  if (text.starts_with("\xEF\xBF\xBE") || text.starts_with("\xEF\xBF\xBF")) return 0;
  return encoding_detail::Utf8SequenceLength(text);
}

std::optional<PlistValue> IntegerFromText(std::string_view text) {
  text = Trimmed(text);
  const bool negative = TakeSign(text);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  const auto magnitude = Unsigned<std::uint64_t>(text, hexadecimal ? 16 : 10);
  if (!magnitude || (negative && *magnitude > kSignBit)) {
    return LargeInteger(text, hexadecimal, negative);
  }
  if (!negative) return std::optional<PlistValue>(std::in_place, *magnitude);
  // Unsigned negation wraps to the two's complement, which also -2^63 has.
  return std::optional<PlistValue>(std::in_place, static_cast<std::int64_t>(0 - *magnitude));
}

std::optional<double> RealFromText(std::string_view text) {
  text = Trimmed(text);
  const bool negative = TakeSign(text);
  const auto magnitude = PositiveReal(text);
  if (!magnitude || !negative || std::isnan(*magnitude)) return magnitude;
  return -*magnitude;
}

std::string TextFromReal(double real) {
  if (std::isnan(real)) return "nan";
  if (std::isinf(real)) return real < 0 ? "-inf" : "inf";
  char text[32];
  return {text, std::to_chars(text, text + sizeof text, real).ptr};
}

std::optional<PlistDate> DateFromText(std::string_view text) {
  text = Trimmed(text);
  // The one form in which property lists have dates, always UTC.
  constexpr std::string_view shape = "YYYY-MM-DDThh:mm:ssZ";
  if (text.size() != shape.size()) return std::nullopt;
  for (const std::size_t at : {4U, 7U, 10U, 13U, 16U, 19U}) {
    if (text[at] != shape[at]) return std::nullopt;
  }
  const auto field = [&](std::size_t at, std::size_t count) {
    return Unsigned<unsigned>(text.substr(at, count), 10);
  };
  const auto year = field(0, 4), month = field(5, 2), day = field(8, 2);
  const auto hour = field(11, 2), minute = field(14, 2), second = field(17, 2);
  if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
  const auto date = std::chrono::year_month_day(std::chrono::year(static_cast<int>(*year)),
                                                std::chrono::month(*month), std::chrono::day(*day));
  if (!date.ok() || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
  const std::int64_t days = (std::chrono::sys_days(date) - kReferenceDay).count();
  return PlistDate{
      static_cast<double>(days * kSecondsPerDay + *hour * 3600 + *minute * 60 + *second)};
}

std::string TextFromDate(PlistDate date) {
  // A date that is not a number becomes the reference day.
  const double wanted = std::isnan(date.seconds) ? 0.0 : std::floor(date.seconds);
  const double kept = std::clamp(wanted, kFirstDateSeconds, kLastDateSeconds);
  const auto seconds = static_cast<std::int64_t>(kept);
  // Rounded towards the past, as remainders of a negative number of seconds need it.
  const std::int64_t days = seconds / kSecondsPerDay - (seconds % kSecondsPerDay < 0 ? 1 : 0);
  const auto inDay = static_cast<int>(seconds - days * kSecondsPerDay);
  const std::chrono::year_month_day civil(kReferenceDay + std::chrono::days(days));
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(civil.year()),
                static_cast<unsigned>(civil.month()), static_cast<unsigned>(civil.day()),
                inDay / 3600, inDay / 60 % 60, inDay % 60);
  return text;
}

std::optional<PlistData> DataFromText(std::string_view text) {
  TakePadding(text);
  PlistData data;
  // White space makes this too much, never too little.
  data.reserve(text.size() / 4 * 3 + 3);
  std::uint32_t group = 0;
  unsigned digits = 0;
  for (const char character : text) {
    const std::uint8_t value = kBase64Values[static_cast<std::uint8_t>(character)];
    if (value == kBase64Space) continue;
    if (value == kBase64Invalid) return std::nullopt;
    group = group << 6U | value;
    if (++digits < 4) continue;
    data.push_back(static_cast<std::uint8_t>(group >> 16U));
    data.push_back(static_cast<std::uint8_t>(group >> 8U));
    data.push_back(static_cast<std::uint8_t>(group));
    group = digits = 0;
  }
  // Two digits carry one byte and four spare bits, three carry two bytes and two. What the spare
  // bits are is of no importance to a decoder.
  // Six bits carry no byte.
  if (digits == 1) return std::nullopt;
  if (digits == 0) return data;
  group <<= 6 * (4 - digits);
  data.push_back(static_cast<std::uint8_t>(group >> 16U));
  if (digits == 3) data.push_back(static_cast<std::uint8_t>(group >> 8U));
  return data;
}

void AppendBase64(std::vector<std::uint8_t>& out, const std::uint8_t* bytes, std::size_t count) {
  for (std::size_t at = 0; at < count; at += 3) {
    const std::size_t left = std::min<std::size_t>(count - at, 3);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i) group = group << 8U | (i < left ? bytes[at + i] : 0U);
    for (unsigned i = 0; i < 4; ++i) {
      const char digit = i <= left ? kBase64Alphabet[group >> (18 - 6 * i) & 63U] : '=';
      out.push_back(static_cast<std::uint8_t>(digit));
    }
  }
}

}  // namespace quorvel::onlinux
