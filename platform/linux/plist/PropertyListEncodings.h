// The readers and writers of the two encodings; PropertyList.h is their public face.
//
// Each returns the reason of a failure, empty on success.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/PlistValue.h"
#include "platform/PropertyListStore.h"

namespace quorvel::onlinux {

std::string ReadXmlPropertyList(std::span<const std::uint8_t> bytes, PlistValue& out);
std::string ReadBinaryPropertyList(std::span<const std::uint8_t> bytes, ForeignKeys policy,
                                   PlistValue& out);

// Appended to `out`, which on failure holds some of it.
std::string WriteXmlPropertyList(const PlistValue& value, std::vector<std::uint8_t>& out);
std::string WriteBinaryPropertyList(const PlistValue& value, std::vector<std::uint8_t>& out);

}  // namespace quorvel::onlinux
