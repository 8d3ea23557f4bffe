// Names for new containers from the system's random numbers.
#include "platform/linux/registry/DeviceLayout.h"

#include <sys/random.h>

#include <array>
#include <cstdint>

#include "platform/Uninterrupted.h"

namespace quorvel::onlinux {

std::string NewContainerName() {
  std::array<std::uint8_t, 16> bytes{};
  // Up to 256 bytes come whole or not at all.
  if (Uninterrupted([&] { return ::getrandom(bytes.data(), bytes.size(), 0); }) < 0) return {};
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);  // version 4: random
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);  // the standard variant
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string name;
  name.reserve(2 * bytes.size() + 4);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) name += '-';
    name += digits[bytes[i] >> 4U];
    name += digits[bytes[i] & 0x0FU];
  }
  return name;
}

}  // namespace quorvel::onlinux
