// What is done to a document that expat does not take, before it is given another chance.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quorvel::onlinux {

struct MendedXml {
  std::string text;
  bool isExact = true;  // nothing was replaced
};

// The document in UTF-8, without what other readers bear and expat does not: bytes that are no
// characters of the encoding, characters and references to characters that XML cannot hold (each
// becomes U+FFFD), and comments. `declared` is the encoding that the document names, or empty;
// what it obviously is counts more. None when the encoding is not known. UTF-16, UTF-32, US-ASCII
// and those of one byte a character are: what the C library would load for others is not code to
// meet hostile bytes with.
std::optional<MendedXml> MendXml(std::span<const std::uint8_t> bytes, std::string_view declared);

// Whether the document begins like one in UTF-16 or UTF-32. expat takes any two units of UTF-16 for
// a character when the first is a surrogate.
bool IsWideXml(std::span<const std::uint8_t> bytes);

}  // namespace quorvel::onlinux
