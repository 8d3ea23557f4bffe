// Escapes what could move a cursor, and counts columns as terminals do.
#include "host/console/TerminalText.h"

#include <cwchar>

#include "platform/FileSystemRepresentation.h"

namespace quorvel::host {

namespace {

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

// The sequence is known to be valid: only its bits are put together.
char32_t CodePoint(std::string_view sequence) {
  const auto bits = [&](std::size_t i) {
    return static_cast<char32_t>(static_cast<unsigned char>(sequence[i]) & 0x3FU);
  };
  const auto lead = static_cast<char32_t>(static_cast<unsigned char>(sequence[0]));
  switch (sequence.size()) {
    case 1:
      return lead;
    case 2:
      return ((lead & 0x1FU) << 6U) | bits(1);
    case 3:
      return ((lead & 0x0FU) << 12U) | (bits(1) << 6U) | bits(2);
    default:
      return ((lead & 0x07U) << 18U) | (bits(1) << 12U) | (bits(2) << 6U) | bits(3);
  }
}

// Control characters move the cursor or worse; the others let one name look like another.
bool IsHarmless(char32_t character) {
  if (character < 0x20 || (character >= 0x7F && character <= 0x9F)) return false;
  // Soft hyphen, Arabic letter mark, byte order mark: invisible, or change the order.
  if (character == 0x00AD || character == 0x061C || character == 0xFEFF) return false;
  if (character >= 0x200B && character <= 0x200F) return false;  // joiners, direction marks
  if (character >= 0x2028 && character <= 0x202E) return false;  // separators, embeddings
  if (character >= 0x2060 && character <= 0x206F) return false;  // isolates, invisible operators
  return character < 0xE0000 || character > 0xE0FFF;             // tags
}

// Byte by byte, since what is escaped may be no character at all.
void AppendByteEscape(std::string& out, char byte) {
  static constexpr char digits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  switch (byte) {
    case '\n':
      out += "\\n";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\r':
      out += "\\r";
      return;
    default:
      break;
  }
  out += "\\x";
  out += digits[value >> 4U];
  out += digits[value & 0xFU];
}

// Length of the character at the front of a printable text.
std::size_t FrontLength(std::string_view text) {
  const std::size_t length = encoding_detail::Utf8SequenceLength(text);
  return length != 0 ? length : 1;
}

std::size_t WidthOf(std::string_view sequence) {
  // By the locale that Main sets; -1 for what it does not know.
  const int width = ::wcwidth(static_cast<wchar_t>(CodePoint(sequence)));
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

}  // namespace

// First back to the bytes that the file system has, so that a name that is no text shows its true
// bytes rather than their encoding.
std::string Printable(std::string_view text) {
  const std::string bytes = BytesOfFileSystemRepresentation(text);
  std::string_view rest = bytes;
  std::string out;
  out.reserve(rest.size());
  while (!rest.empty()) {
    const std::size_t length = encoding_detail::Utf8SequenceLength(rest);
    const std::string_view sequence = rest.substr(0, length == 0 ? 1 : length);
    // The escape's own sign, so that shown names stay unambiguous.
    if (sequence == "\\") {
      out += "\\\\";
    } else if (length != 0 && IsHarmless(CodePoint(sequence))) {
      out += sequence;
    } else {
      for (const char byte : sequence) AppendByteEscape(out, byte);
    }
    rest.remove_prefix(sequence.size());
  }
  return out;
}

std::size_t DisplayWidth(std::string_view printable) {
  std::size_t width = 0;
  while (!printable.empty()) {
    const std::size_t length = FrontLength(printable);
    width += WidthOf(printable.substr(0, length));
    printable.remove_prefix(length);
  }
  return width;
}

std::string CutEnd(std::string_view printable, std::size_t columns) {
  if (DisplayWidth(printable) <= columns) return std::string(printable);
  if (columns == 0) return {};
  // The ellipsis takes a column.
  std::size_t used = 1;
  std::size_t kept = 0;
  while (kept < printable.size()) {
    const std::size_t length = FrontLength(printable.substr(kept));
    used += WidthOf(printable.substr(kept, length));
    if (used > columns) break;
    kept += length;
  }
  return std::string(printable.substr(0, kept)).append(kEllipsis);
}

std::string Padded(std::string_view printable, std::size_t columns) {
  std::string out(printable);
  const std::size_t width = DisplayWidth(printable);
  if (width < columns) out.append(columns - width, ' ');
  return out;
}

}  // namespace quorvel::host
