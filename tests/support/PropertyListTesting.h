// What the tests of property lists share: reading and writing with the contract checked, and binary
// property lists put together by hand, sound or not.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/plist/PropertyList.h"

namespace quorvel::testing {

inline std::optional<PlistValue> Read(std::string_view text) {
  // A block of exactly this size: a sanitizer sees the first byte read past it.
  const std::vector<std::uint8_t> bytes(text.begin(), text.end());
  Error error;
  const auto value = onlinux::ParsePropertyList(bytes, &error);
  EXPECT_EQ(value == nullptr, static_cast<bool>(error));
  return value != nullptr ? std::optional<PlistValue>(std::in_place, std::move(*value))
                          : std::nullopt;
}

// '=' when the bytes are read, '!' when they are certainly no property list, '?' when they are not
// read and may well be one.
inline char Verdict(std::string_view text) {
  const std::vector<std::uint8_t> bytes(text.begin(), text.end());
  Error error;
  if (onlinux::ParsePropertyList(bytes, &error) != nullptr) return '=';
  return IsCertainlyUnusable(error) ? '!' : '?';
}

inline std::string Written(const PlistValue& value, PropertyListFormat format) {
  std::vector<std::uint8_t> bytes = {1};
  Error error;
  const bool written = onlinux::SerializePropertyList(value, format, bytes, &error);
  EXPECT_NE(written, error.is(PlatformErrorDomain, PlatformPropertyListWriteInvalidError));
  EXPECT_NE(written, bytes.empty());
  return {bytes.begin(), bytes.end()};
}

inline std::string Repeated(std::string_view text, std::size_t times) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i) all += text;
  return all;
}

// The number in `width` big-endian bytes.
inline std::string Number(std::uint64_t number, std::size_t width) {
  std::string bytes(width, '\0');
  for (std::size_t i = width; i-- > 0; number >>= 8U) bytes[i] = static_cast<char>(number & 0xFFU);
  return bytes;
}

// Objects as their bytes; the first is the root. References inside them are the caller's.
class BinaryList {
 public:
  BinaryList() = default;
  BinaryList(std::initializer_list<std::string> objects) : objects_(objects) {}
  void add(std::string object) { objects_.push_back(std::move(object)); }

  std::string text(std::size_t referenceWidth = 1, std::size_t entryWidth = 4) const {
    std::string bytes = "bplist00";
    std::string table;
    for (const std::string& object : objects_) {
      table += Number(bytes.size(), entryWidth);
      bytes += object;
    }
    const std::size_t tableOffset = bytes.size();
    return bytes + table + std::string(6, '\0') + Number(entryWidth, 1) +
           Number(referenceWidth, 1) + Number(objects_.size(), 8) + Number(0, 8) +
           Number(tableOffset, 8);
  }

 private:
  std::vector<std::string> objects_;
};

}  // namespace quorvel::testing
