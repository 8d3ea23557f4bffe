// A device tree in memory, of any shape, that counts what is held of it.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/HardwareRegistry.h"
#include "platform/MountTable.h"

namespace quorvel::testing {

// Build the tree with addClass, addService and addChild, then use it as the real one; entries
// are the numbers that the building calls return. One thread at a time.
class FakeHardwareRegistry final : public HardwareRegistry {
 public:
  void addClass(const std::string& name, const std::string& superclass) {
    superclasses_[name] = superclass;
  }
  // A registered service: what firstMatchingService finds, in the order added.
  HardwareEntry addService(const std::string& className) {
    const HardwareEntry entry = addNode(className);
    services_.push_back(entry);
    return entry;
  }
  HardwareEntry addChild(HardwareEntry parent, const std::string& className,
                         const std::string& bsdName = "") {
    const HardwareEntry entry = addNode(className);
    node(parent)->children.push_back(entry);
    if (!bsdName.empty()) node(entry)->properties[HRBSDNameKey] = bsdName;
    return entry;
  }
  void removeChildren(HardwareEntry entry) { node(entry)->children.clear(); }
  // From now on no iterator over the entry can be made: both kinds answer the code.
  void failIterators(HardwareEntry entry, std::int32_t code) { node(entry)->failure = code; }

  // Entries and iterators obtained and not released yet.
  std::size_t outstandingReferences() const {
    std::size_t count = iterators_.size();
    for (const auto& [handle, references] : references_) count += references;
    return count;
  }
  // Releases of what was not held, and uses of it: always a fault of the caller.
  std::size_t misuses() const { return misuses_; }

  HardwareEntry firstMatchingService(const char* className) override {
    for (const HardwareEntry entry : services_) {
      if (isKindOf(node(entry)->className, className)) return retain(entry);
    }
    return 0;
  }
  std::int32_t createChildIterator(HardwareEntry entry, const char* plane,
                                   HardwareIterator* iterator) override {
    return createIterator(entry, plane, false, iterator);
  }
  std::int32_t createDescendantIterator(HardwareEntry entry, const char* plane,
                                        HardwareIterator* iterator) override {
    return createIterator(entry, plane, true, iterator);
  }
  HardwareEntry next(HardwareIterator iterator) override {
    const auto at = iterators_.find(iterator);
    if (at == iterators_.end()) ++misuses_;
    if (at == iterators_.end() || at->second.empty()) return 0;
    const HardwareEntry entry = at->second.front();
    at->second.pop_front();
    return retain(entry);
  }
  bool conformsTo(HardwareEntry entry, const char* className) override {
    return isHeld(entry) && isKindOf(node(entry)->className, className);
  }
  std::optional<std::string> stringProperty(HardwareEntry entry, const char* key) override {
    if (!isHeld(entry)) return std::nullopt;
    const auto at = node(entry)->properties.find(key);
    if (at == node(entry)->properties.end()) return std::nullopt;
    return at->second;
  }
  void release(std::uint32_t handle) override {
    if (iterators_.erase(handle) != 0) return;
    const auto at = references_.find(handle);
    if (at == references_.end()) {
      ++misuses_;
    } else if (--at->second == 0) {
      references_.erase(at);
    }
  }

 private:
  struct Node {
    std::string className;
    std::vector<HardwareEntry> children;
    std::map<std::string, std::string> properties;
    std::int32_t failure = 0;
  };

  // Entries are even, iterators odd: none is taken for the other.
  HardwareEntry addNode(const std::string& className) {
    nodes_.push_back(Node{className, {}, {}, 0});
    return static_cast<HardwareEntry>(nodes_.size() * 2);
  }
  Node* node(HardwareEntry entry) { return &nodes_[entry / 2 - 1]; }
  bool isHeld(HardwareEntry entry) {
    const bool held = references_.contains(entry);
    misuses_ += held ? 0 : 1;
    return held;
  }
  HardwareEntry retain(HardwareEntry entry) {
    ++references_[entry];
    return entry;
  }
  bool isKindOf(std::string className, const std::string& wanted) const {
    while (className != wanted) {
      const auto at = superclasses_.find(className);
      if (at == superclasses_.end()) return false;
      className = at->second;
    }
    return true;
  }
  void collect(HardwareEntry entry, bool recursive, std::deque<HardwareEntry>& into) {
    for (const HardwareEntry child : node(entry)->children) {
      into.push_back(child);
      if (recursive) collect(child, true, into);
    }
  }
  std::int32_t createIterator(HardwareEntry entry, const char* plane, bool recursive,
                              HardwareIterator* iterator) {
    if (plane != std::string(HRServicePlane) || !isHeld(entry)) return 22;
    if (node(entry)->failure != 0) return node(entry)->failure;
    lastIterator_ += 2;
    collect(entry, recursive, iterators_[lastIterator_]);
    *iterator = lastIterator_;
    return 0;
  }

  std::vector<Node> nodes_;
  std::vector<HardwareEntry> services_;
  std::map<std::string, std::string> superclasses_;
  std::map<HardwareEntry, std::size_t> references_;
  std::map<HardwareIterator, std::deque<HardwareEntry>> iterators_;
  HardwareIterator lastIterator_ = 1;
  std::size_t misuses_ = 0;
};

// A mount table that is given.
class FakeMountTable final : public MountTable {
 public:
  std::vector<MountedFileSystem> read() override {
    if (table.empty()) errno = failure;
    return table;
  }
  std::vector<MountedFileSystem> table;
  int failure = 0;  // the errno of an empty table
};

}  // namespace quorvel::testing
