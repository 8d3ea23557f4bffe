// What the XML reader, which learns a container's size last, builds its result with.
//
// The binary encoding says how many entries a container has before the first of them, so that its
// reader reserves and fills each container in place and needs none of this.
#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/PlistValue.h"

namespace quorvel::onlinux {

// Assembles nested values without recursion. Finished children wait on flat stacks until their
// container closes, which then gets them in vectors of exactly their number. The caller keeps the
// order: a value where one may stand, a key before each value of a dictionary, one root. It asks
// the questions below first; nothing here checks them. Depth and size are the caller's to bound as
// well. Belongs to one thread, and to one document.
class PropertyListBuilder {
 public:
  // Containers that are open.
  std::size_t depth() const { return frames_.size(); }
  bool inDictionary() const { return !frames_.empty() && frames_.back().dictionary; }
  // In a dictionary: whether the last key still lacks its value. Asked only where inDictionary().
  bool awaitsValue() const {
    const Frame& frame = frames_.back();
    return keys_.size() - frame.firstKey > values_.size() - frame.firstValue;
  }
  // Whether there is a root, complete or still open. From then on nothing more may be added at
  // depth 0.
  bool hasRoot() const { return !values_.empty() || !frames_.empty(); }

  // The container's children are what is added until close().
  void open(bool dictionary) { frames_.push_back({dictionary, keys_.size(), values_.size()}); }
  // In a dictionary, before each value.
  void addKey(std::string_view key) { keys_.emplace_back(key); }
  // A finished value: a child of the innermost container, or the root.
  template <class T>
  void add(T&& value) {
    values_.emplace_back(std::forward<T>(value));
  }
  // Closes the innermost container and adds it to the one around it. Depth is above 0, and a
  // dictionary awaits no value. `foreignKeys` is what the dictionary tells as its
  // foreignKeyCount().
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
  // Once; hasRoot() must be true. Afterwards the builder is of no more use.
  PlistValue takeRoot() { return std::move(values_.front()); }

 private:
  // An open container: where its keys and children begin on the stacks.
  struct Frame {
    bool dictionary;
    std::size_t firstKey;
    std::size_t firstValue;
  };

  // Pairs keys and values, and takes both off the stacks. Of equal keys the last one wins.
  PlistDictionary takeDictionary(const Frame& frame) {
    std::vector<PlistEntry> entries(values_.size() - frame.firstValue);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      entries[i].key = std::move(keys_[frame.firstKey + i]);
      entries[i].value = std::move(values_[frame.firstValue + i]);
    }
    keys_.resize(frame.firstKey);
    values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(frame.firstValue), values_.end());
    return PlistDictionary::fromEntries(std::move(entries));
  }

  // Innermost last. Three stacks in step: the children of an outer container lie below those of an
  // inner one.
  std::vector<Frame> frames_;
  std::vector<std::string> keys_;
  std::vector<PlistValue> values_;
};

}  // namespace quorvel::onlinux
