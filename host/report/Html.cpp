// Escapes, groups and rounds.
#include "host/report/Html.h"

#include <charconv>
#include <cmath>

#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

constexpr double kMinute = 60;
constexpr double kHour = 3600;

// Both quotes as well, so that a text may stand in an attribute.
const char* EntityFor(char byte) {
  switch (byte) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&#39;";
    default:
      return nullptr;
  }
}

// "3 min 5 s": the larger unit's number whole, the smaller one's rounded down with it.
std::string InUnits(double seconds, double unit, const char* large, double part,
                    const char* small) {
  const auto whole = static_cast<std::uint64_t>(seconds / unit);
  const auto rest =
      static_cast<std::uint64_t>((seconds - static_cast<double>(whole) * unit) / part);
  return Grouped(whole) + large + std::to_string(rest) + small;
}

}  // namespace

// Printable first: what would reorder or hide text does so in a browser as on a terminal.
std::string Escaped(std::string_view text) {
  std::string out;
  const std::string printable = Printable(text);
  out.reserve(printable.size());
  for (const char byte : printable) {
    const char* entity = EntityFor(byte);
    if (entity != nullptr) {
      out += entity;
    } else {
      out += byte;
    }
  }
  return out;
}

std::string Grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, ",");
  return digits;
}

std::string Counted(std::uint64_t number, const char* one, const char* many) {
  return Grouped(number) + " " + (number == 1 ? one : many);
}

// By thousands, as the unit's names have it.
std::string ByteSize(std::uint64_t bytes) {
  if (bytes < 1000) return Counted(bytes, "byte", "bytes");
  constexpr const char* kUnits[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
  double size = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  // What would be shown as 1000 of one unit is 1.0 of the next.
  for (; size >= 999.95 && unit + 1 < std::size(kUnits); ++unit) size /= 1000;
  return Fixed(size, 1) + " " + kUnits[unit];
}

// Three digits or so in every range, more than which nobody compares.
std::string Duration(double seconds) {
  if (seconds < 1e-4) return Fixed(seconds * 1e6, 0) + " \u00b5s";
  if (seconds < 0.01) return Fixed(seconds * 1e3, 1) + " ms";
  if (seconds < 1) return Fixed(seconds * 1e3, 0) + " ms";
  if (seconds < kMinute) return Fixed(seconds, 2) + " s";
  if (seconds < kHour) return InUnits(seconds, kMinute, " min ", 1, " s");
  return InUnits(seconds, kHour, " h ", kMinute, " min");
}

std::string Fixed(double number, int digits) {
  // The largest double has 309 digits before the point.
  char text[400];
  const auto end =
      std::to_chars(text, text + sizeof text, number, std::chars_format::fixed, digits);
  return {text, end.ptr};
}

std::string Percentage(double part, double whole, int digits) {
  return Fixed(whole > 0 ? part / whole * 100 : 0, digits);
}

// The value itself goes along for sorting: the text shown has units.
std::string NumberCell(double value, const std::string& shown) {
  return "<td class=\"n\" data-v=\"" + Fixed(value, 6) + "\">" + shown + "</td>";
}

std::string Cell(const std::string& html) { return "<td>" + html + "</td>"; }

}  // namespace quorvel::host
