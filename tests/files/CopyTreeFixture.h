// What tests of CopyTree share: a temporary tree, and a copy whose result is an errno.
#pragma once

#include <string>
#include <vector>

#include "platform/linux/files/FileSystemLinux.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {

constexpr std::uint32_t kFlags = CLONETREE_DATA_STAT_XATTR_ACL | CLONETREE_RECURSIVE |
                                 CLONETREE_NOFOLLOW_SRC | CLONETREE_NOFOLLOW_DST;
static_assert(kFlags == 0xC800F);

class CopyTreeFixture : public ::testing::Test {
 protected:
  // 0, or the errno of the result.
  int copy(const std::string& from, const std::string& to, std::uint32_t flags = kFlags) {
    const auto leftOut = [this](const char* path) { leftOut_.emplace_back(path); };
    return files_.CopyTree(from.c_str(), to.c_str(), flags, leftOut) == 0 ? 0 : errno;
  }

  ScratchTree tree_;
  onlinux::FileSystemLinux files_;
  std::vector<std::string> leftOut_;
};

// Bytes of which no two neighbouring blocks are alike.
inline std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(1 + (i * 7 + i / 251) % 255);
  return bytes;
}

}  // namespace quorvel::testing
