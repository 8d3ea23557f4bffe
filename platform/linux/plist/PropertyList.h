// Property lists in memory: bytes to values and back, in both encodings.
//
// The input may be hostile. Reading never recurses, never looks outside the bytes, and is
// bounded: PropertyListSizeLimit bytes, PropertyListDepthLimit containers inside one another,
// PropertyListNodeLimit values, and no more content than a large file has, so that references
// shared between objects cannot multiply a file without end (PropertyListBudget.h). What the
// writers write is within the same bounds, so that it can be read again.
//
// Whoever cannot read a file takes it for absent, and what depends on it for useless. So the
// readers take what others take, and say of the rest whether it is certainly damaged.
//
// XML (by libexpat): in UTF-8, UTF-16, UTF-32 or an encoding of one byte a character that the
// document names. Any document type line may stand in a file; what it names is never fetched, and
// one that declares an entity is not read (ENOTSUP). The plist element may be missing. Attributes,
// comments, processing instructions, text between elements and whatever follows the document are
// passed over; what is no character becomes U+FFFD. White space may surround integers, reals and
// dates and may stand anywhere in data. A scalar in none of these forms is read as its text:
//   - integers: decimal or 0x hexadecimal, signed; beyond -2^63 to 2^64-1 a real
//   - reals: as std::from_chars reads them (no locale), "nan", "inf", "infinity"; what is too large
//     is infinity, what is too small is 0
//   - dates: "YYYY-MM-DDThh:mm:ssZ". One that this cannot hold is written as the last second
//     before it, or the nearest end of the years 1 to 9999
//   - data: in base 64, with or without padding, whatever the bits that no byte needs
// None is written with a document type line.
//
// Binary ("bplist0" and any digit): every kind that PlistValue has. Sets are read as arrays, uids
// as integers; null is passed over, and what is no character becomes U+FFFD. Objects of other kinds
// are not read (ENOTSUP). A string may hold U+0000, which XML cannot: such a value is refused by
// the XML writer only. Containers may be shared between parents; each parent gets its own copy.
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

inline constexpr std::size_t PropertyListSizeLimit = std::size_t{64} << 20U;  // bytes
inline constexpr std::size_t PropertyListDepthLimit = 512;                    // containers
inline constexpr std::size_t PropertyListNodeLimit = std::size_t{4} << 20U;   // values

// The value that the bytes hold: binary when they begin with "bplist0", XML otherwise. Of equal
// keys in one dictionary the last wins. Null with an Error as PropertyListStore::readDictionary()
// tells it, whose description says what is wrong and where. `isExact`, where given, tells whether
// the value is all that the bytes say: false when something was passed over, approximated or
// replaced. Any thread may call.
std::unique_ptr<PlistValue> ParsePropertyList(std::span<const std::uint8_t> bytes, Error* error,
                                              bool* isExact = nullptr);

// Replaces `out` by the value in the wanted encoding; reading it gives an equal value, but
// for dates and the kinds of not-a-number that XML cannot hold (above). False with
// PlatformErrorDomain PlatformPropertyListWriteInvalidError, and `out` empty, when the encoding
// cannot hold the value: sets, text that is no UTF-8, in XML also control characters, and what
// is beyond the limits above. Any thread may call.
bool SerializePropertyList(const PlistValue& value, PropertyListFormat format,
                           std::vector<std::uint8_t>& out, Error* error);

}  // namespace quorvel::onlinux
