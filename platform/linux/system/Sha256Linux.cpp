// Loads libcrypto when a digest is asked for: it costs a program more to start than all the rest.
#include "platform/linux/system/Sha256Linux.h"

#include <dlfcn.h>
#include <openssl/evp.h>

namespace quorvel::onlinux {

// What is used of the library. All are null where it cannot be loaded.
struct Sha256ProviderLinux::Library {
  decltype(&::EVP_MD_fetch) fetch = nullptr;
  decltype(&::EVP_MD_free) release = nullptr;
  decltype(&::EVP_MD_CTX_new) newContext = nullptr;
  decltype(&::EVP_MD_CTX_free) freeContext = nullptr;
  decltype(&::EVP_DigestInit_ex) init = nullptr;
  decltype(&::EVP_DigestUpdate) update = nullptr;
  decltype(&::EVP_DigestFinal_ex) finish = nullptr;
  // Fetched once: looking an algorithm up by name costs more than digesting a small file.
  EVP_MD* algorithm = nullptr;

  Library() {
    // Stays loaded: it has functions that run when the process ends. By the name of the interface's
    // version: the functions below are those of 3, and an earlier library has not all of them.
    // Nothing of it becomes visible to the rest of the program.
    void* handle = ::dlopen("libcrypto.so.3", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) return;
    if (find(handle, "EVP_MD_fetch", fetch) && find(handle, "EVP_MD_free", release) &&
        find(handle, "EVP_MD_CTX_new", newContext) &&
        find(handle, "EVP_MD_CTX_free", freeContext) && find(handle, "EVP_DigestInit_ex", init) &&
        find(handle, "EVP_DigestUpdate", update) && find(handle, "EVP_DigestFinal_ex", finish)) {
      algorithm = fetch(nullptr, "SHA2-256", nullptr);
    }
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() {
    if (algorithm != nullptr) release(algorithm);
  }

 private:
  template <class Function>
  static bool find(void* handle, const char* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(handle, name));
    return function != nullptr;
  }
};

class Sha256ProviderLinux::Computation final : public Sha256 {
 public:
  explicit Computation(const Library& library) : library_(library) {
    // Then `sound_` stays false, and finish() tells.
    if (library.algorithm == nullptr) return;
    context_ = library.newContext();
    sound_ = context_ != nullptr && library.init(context_, library.algorithm, nullptr) == 1;
  }
  Computation(const Computation&) = delete;
  Computation& operator=(const Computation&) = delete;
  ~Computation() override {
    if (context_ != nullptr) library_.freeContext(context_);
  }

  void update(std::span<const std::uint8_t> bytes) override {
    sound_ = sound_ && library_.update(context_, bytes.data(), bytes.size()) == 1;
  }

  bool finish(Sha256Digest& digest) override {
    unsigned length = 0;
    const bool done =
        sound_ && library_.finish(context_, digest.data(), &length) == 1 && length == digest.size();
    sound_ = false;
    return done;
  }

 private:
  const Library& library_;
  EVP_MD_CTX* context_ = nullptr;
  bool sound_ = false;  // every call so far worked; told at the end, when it is asked for
};

Sha256ProviderLinux::Sha256ProviderLinux() : library_(std::make_unique<Library>()) {}
Sha256ProviderLinux::~Sha256ProviderLinux() = default;

std::unique_ptr<Sha256> Sha256ProviderLinux::start() {
  return std::make_unique<Computation>(*library_);
}

}  // namespace quorvel::onlinux
