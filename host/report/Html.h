// Text and numbers as a page shows them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quorvel::host {

// Any text of any origin, harmless between tags and in a quoted attribute: made printable
// (TerminalText.h), then with entities for what HTML means something by.
std::string Escaped(std::string_view text);

// "12,345".
std::string Grouped(std::uint64_t number);
// "1 app", "12,345 apps".
std::string Counted(std::uint64_t number, const char* one, const char* many);
// "820 bytes", "1.2 MB": powers of ten.
std::string ByteSize(std::uint64_t bytes);
// "12 µs", "0.8 ms", "42 ms", "1.25 s", "3 min 5 s", "2 h 7 min".
std::string Duration(double seconds);
// With so many digits behind the point, whatever the locale.
std::string Fixed(double number, int digits);
// "12.5" for 1 of 8. Of nothing everything is 0.
std::string Percentage(double part, double whole, int digits);

// <td> with a number that the page's script sorts by.
std::string NumberCell(double value, const std::string& shown);
std::string Cell(const std::string& html);

}  // namespace quorvel::host
