// Reproducible randomness: the same seed gives the same numbers on every machine, which the
// standard library's distributions do not promise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorvel::tools {

// Not for secrets. One sequence an object; one thread.
// Every draw moves the sequence on, so that the order in which a tree is written is part of what a
// seed means: a draw added in the middle changes all that follows it.
class LegacyImageRandom {
 public:
  explicit LegacyImageRandom(std::uint64_t seed) : state_(seed) {}

  // SplitMix64.
  // Any seed will do, zero and neighbouring numbers included: the increment is the golden ratio's
  // fraction in 64 bits, and the two multiplications spread each bit of the state over the whole
  // result.
  std::uint64_t next() {
    std::uint64_t mixed = state_ += 0x9E3779B97F4A7C15U;
    mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31U);
  }

  // Eight to a number, the least significant one first.
  // Held in memory as a whole: for large files the caller asks for a piece at a time. A count that
  // is no multiple of eight wastes the rest of its last number, which the next call does not use.
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
  // Thirty-two digits in groups of 8, 4, 4, 4 and 12. Only the digit of the version is fixed;
  // nothing in the system looks at the variant.
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
