// SHA-256.
//
// Why a service: a platform has an implementation that is faster and better looked after than
// one of ours.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace quorvel {

// The 32 bytes in the order in which they are printed.
using Sha256Digest = std::array<std::uint8_t, 32>;

// One computation; belongs to one thread. What may fail on the way, a library that is missing
// included, is told once, at the end.
class Sha256 {
 public:
  virtual ~Sha256() = default;
  // Any number of times; the pieces count as one text. The bytes are not kept.
  virtual void update(std::span<const std::uint8_t> bytes) = 0;
  // Called once, last. Whether the digest could be computed. The digest means nothing when it could
  // not.
  virtual bool finish(Sha256Digest& digest) = 0;
};

class Sha256Provider {
 public:
  virtual ~Sha256Provider() = default;
  virtual std::unique_ptr<Sha256> start() = 0;  // never null
};

}  // namespace quorvel
