// The text forms of property-list scalars, and the checks on text that both encodings share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/PlistValue.h"

namespace quorvel::onlinux {

// Stands for what no text can hold.
inline constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

// Each is none when the text is anything but the form described in PropertyList.h. The first gives
// a real when the integer is beyond 64 bits.
std::optional<PlistValue> IntegerFromText(std::string_view text);
std::optional<double> RealFromText(std::string_view text);
std::optional<PlistDate> DateFromText(std::string_view text);
std::optional<PlistData> DataFromText(std::string_view text);

// The shortest text that reads back as the same number.
std::string TextFromReal(double real);
// The text of the last whole second not after the date, kept within the years 1 to 9999.
std::string TextFromDate(PlistDate date);
// Base64 of at most 57 bytes, which give a line of at most 76 characters. Appended.
void AppendBase64(std::vector<std::uint8_t>& out, const std::uint8_t* bytes, std::size_t count);

bool IsXmlSpace(char character);
// Whether the text is UTF-8 throughout.
bool IsUtf8(std::string_view text);
bool IsAscii(std::string_view text);
// The text with every byte that belongs to no UTF-8 character replaced.
std::string WithoutInvalidUtf8(std::string_view text);
// Appends big-endian UTF-16. False when a surrogate stands alone: it is replaced.
bool Utf8FromUtf16(const std::uint8_t* units, std::size_t count, std::string& text);
// Length of the character at the front of the text, which is not empty; 0 when it is one that XML
// cannot hold, or not in UTF-8.
std::size_t XmlCharacterLength(std::string_view text);

}  // namespace quorvel::onlinux
