// Tells the encodings apart and hands the bytes on.
#include "platform/linux/plist/PropertyList.h"

#include <cerrno>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/plist/PropertyListEncodings.h"

namespace quorvel::onlinux {

namespace {

Error Read(std::span<const std::uint8_t> bytes, PlistReading& out) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (bytes.size() > PropertyListSizeLimit) return Refusal(EFBIG, "it is too large");
  if (text.starts_with("bplist0")) return ReadBinaryPropertyList(bytes, out);
  // Nothing is known of what a later form says, so that it must not pass for damaged XML. Eight
  // bytes or fewer are a beginning that was cut off, which is damage.
  if (text.starts_with("bplist") && text.size() > 8) return Refusal(ENOTSUP, "a later binary form");
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  // The braces of the form that was before XML, and of JSON.
  if (start != text.npos && text[start] == '{') return Refusal(ENOTSUP, "a form of old");
  return ReadXmlPropertyList(bytes, out);
}

}  // namespace

std::unique_ptr<PlistValue> ParsePropertyList(std::span<const std::uint8_t> bytes, Error* error,
                                              bool* isExact) {
  try {
    PlistReading reading;
    Error failure = Read(bytes, reading);
    if (isExact != nullptr) *isExact = reading.isExact;
    if (!failure) return std::make_unique<PlistValue>(std::move(reading.value));
    SetError(error, std::move(failure));
  } catch (const std::bad_alloc&) {
    SetError(error, OutOfMemory());
  }
  return nullptr;
}

bool SerializePropertyList(const PlistValue& value, PropertyListFormat format,
                           std::vector<std::uint8_t>& out, Error* error) {
  out.clear();
  std::string reason = format == PropertyListFormat::binary ? WriteBinaryPropertyList(value, out)
                                                            : WriteXmlPropertyList(value, out);
  // The writers bound the content; markup, references and the table come on top of it.
  if (reason.empty() && out.size() > PropertyListSizeLimit) reason = "it is too large";
  if (reason.empty()) return true;
  out.clear();
  return SetError(error, PlatformFailure(PlatformPropertyListWriteInvalidError,
                                         "This value cannot be written: " + reason));
}

}  // namespace quorvel::onlinux
