// The property that both property-list fuzzers check.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "fuzz/Fuzzing.h"
#include "platform/linux/plist/PropertyList.h"

namespace quorvel::fuzzing {

// Whether the values are equal, but for dates, of which XML holds whole seconds.
inline bool EqualButForDates(const PlistValue& a, const PlistValue& b) {
  const auto same = [](const auto& left, const auto& right, auto equal) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), equal);
  };
  if (a.kind() != b.kind()) return false;
  if (a.date() != nullptr) return true;
  if (a.array() != nullptr) return same(*a.array(), *b.array(), EqualButForDates);
  if (a.dictionary() == nullptr) return a == b;
  return same(*a.dictionary(), *b.dictionary(),
              [](const PlistEntry& left, const PlistEntry& right) {
                return left.key == right.key && EqualButForDates(left.value, right.value);
              });
}

// Writes a value that was read and requires that it reads back equal. XML may refuse a value, for
// its characters; binary must not.
inline void RequireRoundTrip(const PlistValue& value) {
  for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
    std::vector<std::uint8_t> written;
    Error error;
    if (onlinux::SerializePropertyList(value, format, written, &error)) {
      const auto again = onlinux::ParsePropertyList(written, &error);
      Require(again != nullptr);
      Require(format == PropertyListFormat::xml ? EqualButForDates(*again, value)
                                                : *again == value);
    } else {
      Require(format == PropertyListFormat::xml &&
              error.is(PlatformErrorDomain, PlatformPropertyListWriteInvalidError));
    }
  }
}

// Reads the bytes: this gives a value that survives writing, or an error.
inline void RequireReadable(std::span<const std::uint8_t> bytes) {
  Error error;
  const std::unique_ptr<PlistValue> value = onlinux::ParsePropertyList(bytes, &error);
  Require((value == nullptr) == static_cast<bool>(error));
  if (value != nullptr) RequireRoundTrip(*value);
}

}  // namespace quorvel::fuzzing
