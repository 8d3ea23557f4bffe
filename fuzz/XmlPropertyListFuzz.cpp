// Arbitrary bytes as an XML property list: what is read, written and read again is equal.
#include <string_view>

#include "fuzz/PropertyListRoundTrip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Bytes without an element are put into one, so that more of them get past the tokenizer.
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<std::uint8_t> bytes(data, data + size);
  if (text.starts_with("<") && text.find("<plist") == text.npos && text.find('!') == text.npos) {
    const std::string_view start = "<plist>", end = "</plist>";
    bytes.insert(bytes.begin(), start.begin(), start.end());
    bytes.insert(bytes.end(), end.begin(), end.end());
  }
  quorvel::fuzzing::RequireReadable(bytes);
  return 0;
}
