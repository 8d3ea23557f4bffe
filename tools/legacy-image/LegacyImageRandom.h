// Reproducible randomness: the same seed gives the same numbers on every machine, which the
// standard library's distributions do not promise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorvel::tools {

// Not for secrets. One sequence an object; one thread.
class LegacyImageRandom {
 public:
  explicit LegacyImageRandom(std::uint64_t seed) : state_(seed) {}

  // SplitMix64.
  std::uint64_t next() {
    std::uint64_t mixed = state_ += 0x9E3779B97F4A7C15U;
    mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31U);
  }

  // Eight to a number, the least significant one first.
  std::string bytes(std::size_t count) {
    std::string text(count, '\0');
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < count; ++i, word >>= 8U) {
      if (i % 8 == 0) word = next();
      text[i] = static_cast<char>(word);
    }
    return text;
  }

  // In upper case, as the former service named containers.
  std::string uuid() {
    constexpr const char* digits = "0123456789ABCDEF";
    std::string text;
    std::uint64_t word = 0;
    for (int i = 0; i < 32; ++i, word >>= 4U) {
      if (i % 16 == 0) word = next();
      if (i == 8 || i == 12 || i == 16 || i == 20) text += '-';
      text += digits[word & 15U];
    }
    text[14] = '4';  // version: random
    return text;
  }

 private:
  std::uint64_t state_;
};

}  // namespace quorvel::tools
