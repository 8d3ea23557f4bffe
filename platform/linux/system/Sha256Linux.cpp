// Feeds libcrypto.
#include "platform/linux/system/Sha256Linux.h"

#include <openssl/evp.h>

namespace quorvel::onlinux {
namespace {

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

class Sha256Linux final : public Sha256 {
 public:
  explicit Sha256Linux(const EVP_MD* algorithm) : context_(EVP_MD_CTX_new()) {
    sound_ = context_ != nullptr && algorithm != nullptr &&
             EVP_DigestInit_ex(context_.get(), algorithm, nullptr) == 1;
  }

  void update(std::span<const std::uint8_t> bytes) override {
    sound_ = sound_ && EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1;
  }

  bool finish(Sha256Digest& digest) override {
    unsigned length = 0;
    const bool done = sound_ && EVP_DigestFinal_ex(context_.get(), digest.data(), &length) == 1 &&
                      length == digest.size();
    sound_ = false;
    return done;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, ContextDeleter> context_;
  bool sound_ = false;  // every call so far worked; told at the end, when it is asked for
};

}  // namespace

// Fetched once: looking an algorithm up by name costs more than digesting a small file.
struct Sha256ProviderLinux::Algorithm {
  Algorithm() : method(EVP_MD_fetch(nullptr, "SHA2-256", nullptr)) {}
  Algorithm(const Algorithm&) = delete;
  Algorithm& operator=(const Algorithm&) = delete;
  ~Algorithm() { EVP_MD_free(method); }
  EVP_MD* method;
};

Sha256ProviderLinux::Sha256ProviderLinux() : algorithm_(std::make_unique<Algorithm>()) {}
Sha256ProviderLinux::~Sha256ProviderLinux() = default;

std::unique_ptr<Sha256> Sha256ProviderLinux::start() {
  return std::make_unique<Sha256Linux>(algorithm_->method);
}

}  // namespace quorvel::onlinux
