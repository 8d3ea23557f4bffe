// Arbitrary bytes as a binary property list: what is read, written and read again is equal.
#include <algorithm>
#include <string_view>

#include "fuzz/PropertyListRoundTrip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uint8_t> bytes(data, data + size);
  constexpr std::string_view magic = "bplist00";
  std::copy_n(magic.begin(), std::min(magic.size(), size), bytes.begin());
  quorvel::fuzzing::RequireReadable(bytes);
  return 0;
}
