// The text forms of property-list scalars, and the checks on text that both encodings share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/PlistValue.h"

namespace quorvel::onlinux {

// What a date's text form is, and whether it is the whole truth about the date.
struct DateText {
  std::string text;  // "YYYY-MM-DDThh:mm:ssZ"
  bool exact = false;
};

// Each is none when the text is anything but the form described in PropertyList.h.
std::optional<PlistValue> IntegerFromText(std::string_view text);
std::optional<double> RealFromText(std::string_view text);
std::optional<PlistDate> DateFromText(std::string_view text);
std::optional<PlistData> DataFromText(std::string_view text);

// The shortest text that reads back as the same bits.
std::string TextFromReal(double real);
// The text of the last whole second not after the date, kept within the years 1 to 9999.
DateText TextFromDate(PlistDate date);
// Base64 of at most 57 bytes, which give a line of at most 76 characters. Appended.
void AppendBase64(std::vector<std::uint8_t>& out, const std::uint8_t* bytes, std::size_t count);

bool IsXmlSpace(char character);
// Whether the text is UTF-8 throughout.
bool IsUtf8(std::string_view text);
bool IsAscii(std::string_view text);

}  // namespace quorvel::onlinux
