// Digests against known values.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/linux/system/Sha256Linux.h"

namespace quorvel::onlinux {
namespace {

// Digest of the text handed over in pieces of `step` bytes.
std::string Digest(Sha256Provider& provider, std::string_view text, std::size_t step) {
  const auto computation = provider.start();
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, step);
    computation->update({reinterpret_cast<const std::uint8_t*>(piece.data()), piece.size()});
    text.remove_prefix(piece.size());
  }
  Sha256Digest digest = {};
  EXPECT_TRUE(computation->finish(digest));
  EXPECT_FALSE(computation->finish(digest)) << "called twice";
  std::string hex;
  for (const std::uint8_t byte : digest) {
    hex += "0123456789abcdef"[byte >> 4U];
    hex += "0123456789abcdef"[byte & 0xFU];
  }
  return hex;
}

TEST(Sha256, GivesThePublishedDigestsHoweverTheBytesArrive) {
  Sha256ProviderLinux provider;
  const std::pair<std::string, const char*> vectors[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}};
  for (const auto& [text, digest] : vectors) {
    for (const std::size_t step :
         {std::size_t{1}, std::size_t{63}, std::size_t{64}, std::size_t{65536}}) {
      EXPECT_EQ(Digest(provider, text, step), digest) << text.size() << " by " << step;
    }
  }
}

TEST(Sha256, ThreadsComputeAtOnce) {
  Sha256ProviderLinux provider;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&provider] {
      for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(Digest(provider, "abc", 1),
                  "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace quorvel::onlinux
