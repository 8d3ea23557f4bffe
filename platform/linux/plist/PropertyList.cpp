// Tells the encodings apart and hands the bytes on.
#include "platform/linux/plist/PropertyList.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/plist/PropertyListEncodings.h"

namespace quorvel::onlinux {

std::unique_ptr<PlistValue> ParsePropertyList(std::span<const std::uint8_t> bytes, Error* error) {
  constexpr std::string_view magic = "bplist00";
  auto value = std::make_unique<PlistValue>();
  Error failure;
  if (bytes.size() > PropertyListSizeLimit) {
    failure = Refusal(EFBIG, "it is too large");
  } else if (bytes.size() >= magic.size() &&
             std::equal(magic.begin(), magic.end(), bytes.begin())) {
    failure = ReadBinaryPropertyList(bytes, *value);
  } else {
    failure = ReadXmlPropertyList(bytes, *value);
  }
  if (!failure) return value;
  SetError(error, std::move(failure));
  return nullptr;
}

bool SerializePropertyList(const PlistValue& value, PropertyListFormat format,
                           std::vector<std::uint8_t>& out, Error* error) {
  out.clear();
  std::string reason = format == PropertyListFormat::binary ? WriteBinaryPropertyList(value, out)
                                                            : WriteXmlPropertyList(value, out);
  if (reason.empty() && out.size() > PropertyListSizeLimit) reason = "it is too large";
  if (reason.empty()) return true;
  out.clear();
  return SetError(error, PlatformFailure(PlatformPropertyListWriteInvalidError,
                                         "This value cannot be written: " + reason));
}

}  // namespace quorvel::onlinux
