// Property lists in memory: bytes to values and back, in both encodings.
//
// The input may be hostile. Reading never recurses, never looks outside the bytes, and is
// bounded: PropertyListSizeLimit bytes, PropertyListDepthLimit containers inside one another,
// PropertyListNodeLimit values, and content in proportion to the input, so that references
// shared between objects cannot multiply a small file into a large value. What the writers
// write is within the same bounds, so that it can be read again.
//
// XML (by libexpat: UTF-8, UTF-16, ISO-8859-1, US-ASCII). Any document type line may stand in a
// file; what it names is never fetched, and one that declares an entity is refused. Attributes,
// comments and processing instructions are passed over. White space may surround integers,
// reals and dates and may stand anywhere in data. None is written with a document type line.
//   - integers: decimal or 0x hexadecimal, signed, -2^63 to 2^64-1
//   - reals: as std::from_chars reads them (no locale), "nan", "inf", "infinity", and
//     "nan(0x<13 hex digits>)" for the fraction bits of any other not-a-number; a finite text
//     that overflows is refused
//   - dates: "YYYY-MM-DDThh:mm:ssZ". One that this cannot hold exactly (fractions of a second,
//     years outside 1 to 9999) is written as the last second before it, or the nearest end of
//     the range, with the exact value in an attribute that other readers pass over:
//     <date seconds="0.5">2001-01-01T00:00:00Z</date>, seconds since 2001-01-01 00:00:00 UTC
//
// Binary ("bplist00"): every kind that PlistValue has. Sets, uids, null and the other rare kinds
// are refused. A string may hold U+0000, which XML cannot: such a value is refused by the XML
// writer only. Containers may be shared between parents; each parent gets its own copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "platform/Error.h"
#include "platform/PlistValue.h"
#include "platform/PropertyListStore.h"

namespace quorvel::onlinux {

inline constexpr std::size_t PropertyListSizeLimit = std::size_t{256} << 20U;  // bytes
inline constexpr std::size_t PropertyListDepthLimit = 512;                     // containers
inline constexpr std::size_t PropertyListNodeLimit = std::size_t{4} << 20U;    // values

// The value that the bytes hold: binary when they begin with "bplist00", XML otherwise. Of equal
// keys in one dictionary the last wins. Null with an Error as PropertyListStore::readDictionary()
// tells it, whose description says what is wrong and where. Any thread may call.
std::unique_ptr<PlistValue> ParsePropertyList(std::span<const std::uint8_t> bytes, Error* error);

// Replaces `out` by the value in the wanted encoding; reading it gives an equal value. False with
// PlatformErrorDomain PlatformPropertyListWriteInvalidError, and `out` empty, when the encoding
// cannot hold the value: sets, text that is no UTF-8, in XML also control characters, and what
// is beyond the limits above. Any thread may call.
bool SerializePropertyList(const PlistValue& value, PropertyListFormat format,
                           std::vector<std::uint8_t>& out, Error* error);

}  // namespace quorvel::onlinux
