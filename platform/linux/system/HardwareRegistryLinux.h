// Attached disk images from the kernel's block-device tree: on Linux they are loop devices.
//
//   controller (HRVDKXController)      present while any loop device has a backing file
//     drive (HRVDKXHDDrive)            one per such loop device, by number
//       medium "loop0" (HRMedia)       the whole device
//         medium "loop0p1" (HRMedia)   its partitions, by number
//
// A medium has the property "BSD Name"; the only plane is "HRService".
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/HardwareRegistry.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {

// Nothing is cached: firstMatchingService and the making of an iterator look at the tree, and an
// iterator gives what was there when it was made. Entries are numbers that are not used again;
// the same entry obtained twice is the same number, to be released twice. Any thread may call.
class HardwareRegistryLinux final : public HardwareRegistry {
 public:
  // The directory of the block devices. Opened here, and reached through that descriptor later,
  // so that the process may confine itself in between. One that cannot be opened has no devices.
  explicit HardwareRegistryLinux(const std::string& blockDirectory = "/sys/block");

  // The first entry of that class on the way down; 0 when nothing is attached. "First" is by
  // number: the lowest device's drive, its whole medium.
  HardwareEntry firstMatchingService(const char* className) override;
  // Fail with EINVAL for another plane or what is no entry. A device that is no longer attached has
  // nothing below it.
  std::int32_t createChildIterator(HardwareEntry entry, const char* plane,
                                   HardwareIterator* iterator) override;
  std::int32_t createDescendantIterator(HardwareEntry entry, const char* plane,
                                        HardwareIterator* iterator) override;
  // What was detached since the iterator was made is still given, and has nothing below it.
  HardwareEntry next(HardwareIterator iterator) override;
  bool conformsTo(HardwareEntry entry, const char* className) override;
  std::optional<std::string> stringProperty(HardwareEntry entry, const char* key) override;
  // An entry or an iterator; one that is not held is passed over. An iterator goes at once, an
  // entry with its last reference.
  void release(std::uint32_t handle) override;

 private:
  enum class Kind { controller, drive, wholeMedium, partition };
  // What an entry is, whenever it is asked: never a position in something that changes.
  struct Node {
    Kind kind = Kind::controller;
    unsigned device = 0;     // number of the loop device
    unsigned partition = 0;  // number of the partition
    friend auto operator<=>(const Node&, const Node&) = default;
  };
  // One iterator: what there was when it was made, and how far it has got.
  struct Walk {
    std::vector<Node> nodes;
    std::size_t next = 0;
  };
  // An entry in somebody's hands; forgotten when its last reference goes.
  struct Held {
    Node node;
    std::size_t references = 0;
  };

  static const char* classOf(Kind kind);
  static std::string nameOf(const Node& node);
  // Numbers of the loop devices that have a backing file, in ascending order.
  std::vector<unsigned> attachedDevices() const;
  std::vector<unsigned> partitionsOf(unsigned device) const;
  // By the presence of "loop/backing_file", which the kernel shows while there is one.
  bool isAttached(unsigned device) const;
  // One level down, in the order of their numbers.
  std::vector<Node> childrenOf(const Node& node) const;
  std::int32_t createIterator(HardwareEntry entry, const char* plane, bool recursive,
                              HardwareIterator* iterator);
  HardwareEntry retain(const Node& node);       // with mutex_ held
  const Held* find(HardwareEntry entry) const;  // with mutex_ held

  UniqueDescriptor blockDirectory_;
  std::mutex mutex_;
  std::uint32_t lastHandle_ = 0;
  // Both directions: what a number is, and which number a node has while it is held.
  std::map<HardwareEntry, Held> entries_;
  std::map<Node, HardwareEntry> numbers_;
  std::map<HardwareIterator, Walk> walks_;
};

}  // namespace quorvel::onlinux
