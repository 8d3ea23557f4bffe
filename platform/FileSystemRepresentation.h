// The platform's file-system encoding: how a path text becomes the bytes of a system call.
//
// Texts are UTF-8 throughout the system, so that they can stand in property lists, logs and
// JSON. File names are arbitrary bytes. The encoding is therefore UTF-8 with an escape: a byte
// of a name that is not part of valid UTF-8, or that no XML document can hold, is written as
// one character of the private range U+10FE00..U+10FEFF (U+10FE00 + byte), and a name that
// really contains a character of that range has each of its four bytes escaped. Decoding is
// thus total and reversible: every name has exactly one text and comes back from it unchanged.
//
// The escape range lies at the end of the last private plane, in which nobody's standard assigns
// characters, so that a name hardly ever holds one of its own. Were such names refused instead, a
// container with one odd file could never be migrated; were the bytes replaced, two names could
// become one.
//
// Everything here is pure and any thread may call it. Only bytes count: names are never normalised,
// since the file systems below do not normalise either. What makes a text may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace quorvel {

namespace encoding_detail {

// Length of the valid UTF-8 sequence at the front of `bytes`, or 0. `bytes` is not empty. Strict:
// the shortest form only, no surrogates, nothing above U+10FFFF. A decoder that took more would
// give two byte strings one text.
inline std::size_t Utf8SequenceLength(std::string_view bytes) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const auto continues = [&](std::size_t i) { return (at(i) & 0xC0U) == 0x80U; };
  // C0 and C1 could only begin overlong forms of ASCII.
  const unsigned lead = at(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return bytes.size() >= 2 && continues(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (bytes.size() < 3 || !continues(1) || !continues(2)) return 0;
    if (lead == 0xE0 && at(1) < 0xA0) return 0;  // overlong
    if (lead == 0xED && at(1) > 0x9F) return 0;  // surrogate
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (bytes.size() < 4 || !continues(1) || !continues(2) || !continues(3)) return 0;
    if (lead == 0xF0 && at(1) < 0x90) return 0;  // overlong
    if (lead == 0xF4 && at(1) > 0x8F) return 0;  // above U+10FFFF
    return 4;
  }
  return 0;
}

// U+10FE00..U+10FEFF are the sequences F4 8F B8..BB 80..BF. Asked of the beginning of a text, which
// may be longer than the character. The last byte is not looked at: in valid UTF-8 it can only be a
// continuation.
inline bool IsEscapeCharacter(std::string_view sequence) {
  return sequence.size() >= 4 && sequence[0] == '\xF4' && sequence[1] == '\x8F' &&
         (static_cast<unsigned char>(sequence[2]) & 0xFCU) == 0xB8U;
}

// Whether a valid sequence may stand in a text unescaped: XML has no control characters but
// tab, line feed and carriage return, and neither U+FFFE nor U+FFFF. DEL and the controls of U+0080
// to U+009F may stand in XML and are left alone.
inline bool StandsForItself(std::string_view sequence) {
  if (sequence.size() == 1) {
    const auto byte = static_cast<unsigned char>(sequence[0]);
    return byte >= 0x20 || byte == '\t' || byte == '\n' || byte == '\r';
  }
  if (sequence.size() == 3) return !(sequence.starts_with("\xEF\xBF") && sequence[2] >= '\xBE');
  return !IsEscapeCharacter(sequence);
}

// Whether none of eight bytes is below 0x20 or above 0x7F. In the difference the first byte below
// 0x20 sets its upper bit; before it nothing was borrowed.
inline bool EightArePlain(const char* bytes) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof(word));
  return ((word | (word - 0x2020202020202020U)) & 0x8080808080808080U) == 0;
}

// How many bytes at the front are printable ASCII (or DEL), which stand for themselves one by one.
inline std::size_t LeadingPlainBytes(std::string_view bytes) {
  std::size_t count = 0;
  while (count + 8 <= bytes.size() && EightArePlain(bytes.data() + count)) count += 8;
  while (count < bytes.size() && static_cast<unsigned char>(bytes[count]) >= 0x20 &&
         static_cast<unsigned char>(bytes[count]) < 0x80) {
    ++count;
  }
  return count;
}

// The escape of one byte: U+10FE00 plus its value, in UTF-8. The upper two bits of the value are
// the lower two of the third byte, the other six those of the fourth.
inline void AppendEscaped(std::string& text, char byte) {
  const auto value = static_cast<unsigned char>(byte);
  text += "\xF4\x8F";
  text += static_cast<char>(0xB8U | (value >> 6U));
  text += static_cast<char>(0x80U | (value & 0x3FU));
}

}  // namespace encoding_detail

// Whether the bytes are their own text, as nearly all names are; then they need not be converted.
inline bool AreTheirOwnText(std::string_view bytes) {
  return encoding_detail::LeadingPlainBytes(bytes) == bytes.size();
}

// The text of a byte string that names a path. Never fails; an empty string gives an empty one.
// Slashes are ASCII and stand for themselves: a path may be encoded whole or component by
// component, with the same text. The text is valid UTF-8 that an XML document can hold. It is up to
// four times as long as the bytes.
inline std::string StringFromFileSystemRepresentation(std::string_view bytes) {
  using namespace encoding_detail;
  std::string text;
  text.reserve(bytes.size());
  const std::size_t plain = LeadingPlainBytes(bytes);  // nearly always all of them
  text += bytes.substr(0, plain);
  bytes.remove_prefix(plain);
  while (!bytes.empty()) {
    const std::size_t length = Utf8SequenceLength(bytes);
    if (length != 0 && StandsForItself(bytes.substr(0, length))) {
      text += bytes.substr(0, length);
      bytes.remove_prefix(length);
    } else {
      // An unwanted but valid sequence is escaped byte by byte: its continuation bytes cannot
      // start a sequence, so the next rounds escape them as well.
      AppendEscaped(text, bytes[0]);
      bytes.remove_prefix(1);
    }
  }
  return text;
}

// The bytes that name the path of a text: the inverse of StringFromFileSystemRepresentation. Of a
// text that does not come from there, what is no escape is copied as it is, valid or not. An escape
// may stand for any byte, a slash or NUL among them: whoever uses the bytes as one name judges
// them, not the text.
inline std::string BytesOfFileSystemRepresentation(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  while (!text.empty()) {
    if (encoding_detail::IsEscapeCharacter(text)) {
      bytes += static_cast<char>(((static_cast<unsigned char>(text[2]) & 3U) << 6U) |
                                 (static_cast<unsigned char>(text[3]) & 0x3FU));
      text.remove_prefix(4);
    } else {
      const std::size_t next = text.find('\xF4', 1);  // the next that may begin an escape
      bytes += text.substr(0, next);
      text.remove_prefix(next == std::string_view::npos ? text.size() : next);
    }
  }
  return bytes;
}

// The NUL-terminated bytes of a path text for a system call. It refers to the text, which must
// outlive it, and copies only when the text holds escapes (rare: found by one scan for F4).
// Made for one call and gone with it; neither copied nor kept. A text that holds NUL ends there for
// a system call, as every C string does.
class FileSystemRepresentation {
 public:
  explicit FileSystemRepresentation(const std::string& text) : text_(text.c_str()) {
    if (text.find('\xF4') != std::string::npos) {
      decoded_ = BytesOfFileSystemRepresentation(text);
      text_ = nullptr;
    }
  }
  FileSystemRepresentation(const FileSystemRepresentation&) = delete;
  FileSystemRepresentation& operator=(const FileSystemRepresentation&) = delete;

  const char* c_str() const { return text_ != nullptr ? text_ : decoded_.c_str(); }

 private:
  const char* text_;
  std::string decoded_;
};

}  // namespace quorvel
