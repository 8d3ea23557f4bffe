// How large a value may become that is read from a file of a given size.
#pragma once

#include <algorithm>
#include <cstddef>

#include "platform/linux/plist/PropertyList.h"

namespace quorvel::onlinux {

// What a file of a given size may become in memory. Every value of an honest file costs it at
// least a byte, but objects may be shared by many parents: a small file that shares much is read
// like any other, up to a size that can be borne. Two quantities, since either alone lets the other
// through: few long texts, or many empty containers. One budget serves one reading.
class PropertyListBudget {
 public:
  explicit PropertyListBudget(std::size_t encodedSize)
      : nodes_(std::min(PropertyListNodeLimit, kFreeNodes + 4 * encodedSize)),
        content_(PropertyListSizeLimit + 2 * encodedSize) {}

  // Accounts for values and the bytes of text or data that they hold. False when it is too much.
  // Then nothing was taken. The caller asks before it makes room for what it asked for.
  bool take(std::size_t nodes, std::size_t contentBytes) {
    if (nodes > nodes_ || contentBytes > content_) return false;
    nodes_ -= nodes;
    content_ -= contentBytes;
    return true;
  }

 private:
  // What any file may become, however small: a million values are some tens of megabytes.
  static constexpr std::size_t kFreeNodes = std::size_t{1} << 20U;
  // What is left of both.
  std::size_t nodes_;
  std::size_t content_;
};

}  // namespace quorvel::onlinux
