// What both property-list readers build their result with.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "platform/PlistValue.h"
#include "platform/linux/PropertyList.h"

namespace quorvel::onlinux {

// What a file of a given size may become in memory. Every value of an honest file costs it at
// least a byte, but objects may be shared by many parents: small files get some freedom.
class PropertyListBudget {
 public:
  explicit PropertyListBudget(std::size_t encodedSize)
      : nodes_(std::min(PropertyListNodeLimit, 65'536 + 4 * encodedSize)),
        content_(std::min(ContentLimit, 1'048'576 + 64 * encodedSize)) {}

  // Accounts for values and the bytes of text or data that they hold. False when it is too much.
  bool take(std::size_t nodes, std::size_t contentBytes) {
    if (nodes > nodes_ || contentBytes > content_) return false;
    nodes_ -= nodes;
    content_ -= contentBytes;
    return true;
  }

 private:
  static constexpr std::size_t ContentLimit = 2 * PropertyListSizeLimit;
  std::size_t nodes_;
  std::size_t content_;
};

// Assembles nested values without recursion. Finished children wait on flat stacks until their
// container closes, which then gets them in vectors of exactly their number.
class PropertyListBuilder {
 public:
  // Containers that are open.
  std::size_t depth() const { return frames_.size(); }
  bool inDictionary() const { return !frames_.empty() && frames_.back().dictionary; }
  // In a dictionary: whether the last key still lacks its value.
  bool awaitsValue() const {
    const Frame& frame = frames_.back();
    return keys_.size() - frame.firstKey > values_.size() - frame.firstValue;
  }
  bool hasRoot() const { return !values_.empty() || !frames_.empty(); }

  void open(bool dictionary) { frames_.push_back({dictionary, keys_.size(), values_.size()}); }
  void addKey(std::string key) { keys_.push_back(std::move(key)); }
  template <class T>
  void add(T&& value) {
    values_.emplace_back(std::forward<T>(value));
  }
  // Closes the innermost container and adds it to the one around it.
  void close(std::size_t foreignKeys = 0) {
    const Frame frame = frames_.back();
    frames_.pop_back();
    if (frame.dictionary) {
      PlistDictionary dictionary = takeDictionary(frame);
      dictionary.setForeignKeyCount(foreignKeys);
      add(std::move(dictionary));
    } else {
      const auto first = values_.begin() + static_cast<std::ptrdiff_t>(frame.firstValue);
      PlistArray array(std::make_move_iterator(first), std::make_move_iterator(values_.end()));
      values_.erase(first, values_.end());
      add(std::move(array));
    }
  }
  // The one value left when all is closed.
  PlistValue takeRoot() { return std::move(values_.front()); }

 private:
  struct Frame {
    bool dictionary;
    std::size_t firstKey;
    std::size_t firstValue;
  };

  PlistDictionary takeDictionary(const Frame& frame) {
    std::vector<PlistEntry> entries;
    entries.reserve(values_.size() - frame.firstValue);
    for (std::size_t i = 0; frame.firstValue + i < values_.size(); ++i) {
      entries.push_back(
          {std::move(keys_[frame.firstKey + i]), std::move(values_[frame.firstValue + i])});
    }
    keys_.resize(frame.firstKey);
    values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(frame.firstValue), values_.end());
    return PlistDictionary::fromEntries(std::move(entries));
  }

  std::vector<Frame> frames_;
  std::vector<std::string> keys_;
  std::vector<PlistValue> values_;
};

}  // namespace quorvel::onlinux
