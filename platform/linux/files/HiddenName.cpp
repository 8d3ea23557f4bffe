// A hash of our own stands for a name that is too long.
#include "platform/linux/files/HiddenName.h"

#include <climits>
#include <cstdint>
#include <cstdio>

namespace quorvel::onlinux {

std::string HiddenNameFor(std::string_view name, std::string_view suffix) {
  std::string hidden = "." + std::string(name);
  if (hidden.size() + suffix.size() > NAME_MAX) {
    // FNV-1a, 64 bits: stable between versions, unlike std::hash.
    std::uint64_t hash = 0xCBF29CE484222325U;
    for (const char byte : name) {
      hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3U;
    }
    char text[32];
    std::snprintf(text, sizeof text, ".%016llx", static_cast<unsigned long long>(hash));
    hidden = text;
  }
  return hidden.append(suffix);
}

}  // namespace quorvel::onlinux
