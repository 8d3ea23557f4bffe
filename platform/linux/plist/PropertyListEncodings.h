// The readers and writers of the two encodings; PropertyList.h is their public face.
//
// A reader returns the failure, an Error without a record on success; a writer the reason of a
// failure, empty on success.
//
// Neither the size of the whole file nor the first bytes are judged here: whoever calls a reader
// has bounded the one and looked at the other.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/PlistValue.h"
#include "platform/PropertyListStore.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::onlinux {

// The bytes are certainly no property list. Only for what is surely damaged or something else,
// since files may be removed on this account (IsCertainlyUnusable()). When in doubt it is a
// Refusal.
inline Error Damage(const std::string& reason) {
  return PlatformFailure(PlatformPropertyListReadCorruptError,
                         "This is no property list: " + reason);
}

// Another reader might read the bytes; this one does not. Says nothing about the file.
inline Error Refusal(int number, const std::string& reason) {
  return Error(
      PosixErrorDomain, number,
      {{LocalizedDescriptionKey, PlistValue("This property list is not read: " + reason)}});
}

// What a reader made of the bytes.
struct PlistReading {
  PlistValue value;
  // Whether the value is all that the bytes say: nothing was passed over, approximated or replaced.
  bool isExact = true;
};

// Both throw std::bad_alloc.
// The result is in `out` on success; on failure `out` is of no use.
Error ReadXmlPropertyList(std::span<const std::uint8_t> bytes, PlistReading& out);
Error ReadBinaryPropertyList(std::span<const std::uint8_t> bytes, PlistReading& out);

// Appended to `out`, which on failure holds some of it.
std::string WriteXmlPropertyList(const PlistValue& value, std::vector<std::uint8_t>& out);
std::string WriteBinaryPropertyList(const PlistValue& value, std::vector<std::uint8_t>& out);

}  // namespace quorvel::onlinux
