// SHA-256 by libcrypto, which picks the processor's own instructions where it has them.
#pragma once

#include <memory>

#include "platform/Sha256.h"

namespace quorvel::onlinux {

// Made before the process confines itself: libcrypto is loaded here, and may read its configuration
// and load modules by path when it is first used. Where it cannot be loaded every computation
// fails at its end. Any thread may call start(); the computations must not
// outlive the provider.
class Sha256ProviderLinux final : public Sha256Provider {
 public:
  Sha256ProviderLinux();
  ~Sha256ProviderLinux() override;
  Sha256ProviderLinux(const Sha256ProviderLinux&) = delete;
  Sha256ProviderLinux& operator=(const Sha256ProviderLinux&) = delete;

  // Also without libcrypto an object comes back, whose finish() is false.
  std::unique_ptr<Sha256> start() override;

 private:
  // The functions of libcrypto, looked up once: nothing links it, so that a program without digests
  // does not load it.
  struct Library;
  class Computation;
  std::unique_ptr<Library> library_;
};

}  // namespace quorvel::onlinux
