// The binary property-list encoding, for its reader and its writer.
//
// A file is: "bplist00"; the objects, each a marker byte (kind in the high nibble) and content;
// the table of the objects' offsets; a trailer of 32 bytes: 6 unused, the width of a table entry,
// the width of a reference, and as 8-byte numbers the count of objects, the number of the root
// object and the offset of the table. All numbers are big-endian. A container's content is
// references, which are indexes into the table; a dictionary has all keys first, then all values.
// In the low nibble stands the count of bytes, characters or entries; 15 says that an integer
// object follows that holds it. For integers and reals the low nibble is the logarithm of the
// width; for uids it is the width less one.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel::onlinux::binary {

inline constexpr std::size_t HeaderSize = 8;
inline constexpr std::size_t TrailerSize = 32;
inline constexpr unsigned CountFollows = 15;

// High nibbles of the markers.
inline constexpr unsigned Simple = 0x0;
inline constexpr unsigned Integer = 0x1;
inline constexpr unsigned Real = 0x2;
inline constexpr unsigned Date = 0x3;
inline constexpr unsigned Data = 0x4;
inline constexpr unsigned AsciiString = 0x5;
inline constexpr unsigned Utf16String = 0x6;
inline constexpr unsigned Utf8String = 0x7;
inline constexpr unsigned Uid = 0x8;
inline constexpr unsigned Array = 0xA;
inline constexpr unsigned OrderedSet = 0xB;
inline constexpr unsigned Set = 0xC;
inline constexpr unsigned Dictionary = 0xD;

// Whole markers.
inline constexpr std::uint8_t Null = 0x00;
inline constexpr std::uint8_t False = 0x08;
inline constexpr std::uint8_t True = 0x09;
inline constexpr std::uint8_t Fill = 0x0F;
inline constexpr std::uint8_t DateMarker = 0x33;

// The big-endian number in `width` (1 to 8) bytes. With a constant 8 it is one load.
inline std::uint64_t ReadNumber(const std::uint8_t* bytes, std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < width; ++i) number = number << 8U | bytes[i];
  return number;
}

}  // namespace quorvel::onlinux::binary
