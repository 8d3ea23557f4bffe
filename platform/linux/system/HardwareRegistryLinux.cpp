// Reads the kernel's block-device directories into the tree that callers expect.
#include "platform/linux/system/HardwareRegistryLinux.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

namespace quorvel::onlinux {
namespace {

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// The numbers behind `prefix` of the directory's entries named so, in ascending order. sysfs
// directories are links to elsewhere in sysfs, and the kernel's own: links are followed.
std::vector<unsigned> NumbersBehind(std::string_view prefix, int parent, const char* name) {
  std::vector<unsigned> numbers;
  const int descriptor = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return numbers;
  // The stream takes the descriptor over, unless it cannot be made.
  const std::unique_ptr<DIR, DirectoryCloser> directory(::fdopendir(descriptor));
  if (directory == nullptr) {
    ::close(descriptor);
    return numbers;
  }
  // Each stream is used by one thread only, for which readdir is safe.
  while (const dirent* entry = ::readdir(directory.get())) {  // NOLINT(concurrency-mt-unsafe)
    const std::string_view text = entry->d_name;
    if (!text.starts_with(prefix)) continue;
    unsigned number = 0;
    // "loop0p1" is no number behind "loop": the whole rest must be one.
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + prefix.size(), end, number);
    if (parsed.ec == std::errc() && parsed.ptr == end) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace

HardwareRegistryLinux::HardwareRegistryLinux(const std::string& blockDirectory)
    : blockDirectory_(::open(blockDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

const char* HardwareRegistryLinux::classOf(Kind kind) {
  switch (kind) {
    case Kind::controller:
      return HRVDKXControllerClass;
    case Kind::drive:
      return HRVDKXHDDriveClass;
    default:
      return HRMediaClass;
  }
}

std::string HardwareRegistryLinux::nameOf(const Node& node) {
  const std::string device = "loop" + std::to_string(node.device);
  return node.kind == Kind::partition ? device + "p" + std::to_string(node.partition) : device;
}

// The attribute exists only while a file is bound to the device.
bool HardwareRegistryLinux::isAttached(unsigned device) const {
  const std::string attribute = "loop" + std::to_string(device) + "/loop/backing_file";
  struct stat status = {};
  return ::fstatat(blockDirectory_.get(), attribute.c_str(), &status, 0) == 0;
}

std::vector<unsigned> HardwareRegistryLinux::attachedDevices() const {
  std::vector<unsigned> devices = NumbersBehind("loop", blockDirectory_.get(), ".");
  std::erase_if(devices, [this](unsigned device) { return !isAttached(device); });
  return devices;
}

std::vector<unsigned> HardwareRegistryLinux::partitionsOf(unsigned device) const {
  const std::string name = "loop" + std::to_string(device);
  return NumbersBehind(name + "p", blockDirectory_.get(), name.c_str());
}

std::vector<HardwareRegistryLinux::Node> HardwareRegistryLinux::childrenOf(const Node& node) const {
  std::vector<Node> children;
  switch (node.kind) {
    case Kind::controller:
      for (const unsigned device : attachedDevices()) children.push_back({Kind::drive, device, 0});
      break;
    case Kind::drive:
      children.push_back({Kind::wholeMedium, node.device, 0});
      break;
    case Kind::wholeMedium:
      for (const unsigned partition : partitionsOf(node.device)) {
        children.push_back({Kind::partition, node.device, partition});
      }
      break;
    case Kind::partition:
      break;
  }
  return children;
}

HardwareEntry HardwareRegistryLinux::firstMatchingService(const char* className) {
  // Every class is met on the way down along first children.
  Node node;
  // Without devices there is no controller either.
  if (attachedDevices().empty()) return 0;
  while (std::strcmp(classOf(node.kind), className) != 0) {
    const std::vector<Node> children = childrenOf(node);
    if (children.empty()) return 0;
    node = children.front();
  }
  const std::lock_guard lock(mutex_);
  return retain(node);
}

std::int32_t HardwareRegistryLinux::createChildIterator(HardwareEntry entry, const char* plane,
                                                        HardwareIterator* iterator) {
  return createIterator(entry, plane, false, iterator);
}

std::int32_t HardwareRegistryLinux::createDescendantIterator(HardwareEntry entry, const char* plane,
                                                             HardwareIterator* iterator) {
  return createIterator(entry, plane, true, iterator);
}

std::int32_t HardwareRegistryLinux::createIterator(HardwareEntry entry, const char* plane,
                                                   bool recursive, HardwareIterator* iterator) {
  if (std::strcmp(plane, HRServicePlane) != 0) return EINVAL;
  // Held while the tree is read: the entry must not be released by another thread in between.
  const std::lock_guard lock(mutex_);
  const Held* held = find(entry);
  if (held == nullptr) return EINVAL;
  // Parents before children: a stack whose top is the next node of the order. A device that was
  // detached since it was found has nothing below it any more.
  Walk walk;
  // Looked up now and kept: an iterator shows one moment.
  std::vector<Node> pending;
  if (held->node.kind == Kind::controller || isAttached(held->node.device)) {
    pending = childrenOf(held->node);
  }
  std::reverse(pending.begin(), pending.end());
  while (!pending.empty()) {
    walk.nodes.push_back(pending.back());
    pending.pop_back();
    if (!recursive) continue;
    const std::vector<Node> children = childrenOf(walk.nodes.back());
    pending.insert(pending.end(), children.rbegin(), children.rend());
  }
  // Entries and iterators are numbered from one counter, so that release() knows which of the two
  // it is given.
  *iterator = ++lastHandle_;
  walks_.emplace(*iterator, std::move(walk));
  return 0;
}

HardwareEntry HardwareRegistryLinux::next(HardwareIterator iterator) {
  const std::lock_guard lock(mutex_);
  const auto at = walks_.find(iterator);
  if (at == walks_.end() || at->second.next == at->second.nodes.size()) return 0;
  return retain(at->second.nodes[at->second.next++]);
}

bool HardwareRegistryLinux::conformsTo(HardwareEntry entry, const char* className) {
  const std::lock_guard lock(mutex_);
  const Held* held = find(entry);
  return held != nullptr && std::strcmp(classOf(held->node.kind), className) == 0;
}

std::optional<std::string> HardwareRegistryLinux::stringProperty(HardwareEntry entry,
                                                                 const char* key) {
  const std::lock_guard lock(mutex_);
  const Held* held = find(entry);
  const bool isMedium = held != nullptr && classOf(held->node.kind) == HRMediaClass;
  if (!isMedium || std::strcmp(key, HRBSDNameKey) != 0) return std::nullopt;
  return nameOf(held->node);
}

void HardwareRegistryLinux::release(std::uint32_t handle) {
  const std::lock_guard lock(mutex_);
  if (walks_.erase(handle) != 0) return;
  const auto at = entries_.find(handle);
  if (at == entries_.end() || --at->second.references != 0) return;
  numbers_.erase(at->second.node);
  entries_.erase(at);
}

HardwareEntry HardwareRegistryLinux::retain(const Node& node) {
  const auto [at, isNew] = numbers_.try_emplace(node, lastHandle_ + 1);
  if (isNew) entries_[++lastHandle_].node = node;
  ++entries_[at->second].references;
  return at->second;
}

const HardwareRegistryLinux::Held* HardwareRegistryLinux::find(HardwareEntry entry) const {
  const auto at = entries_.find(entry);
  return at != entries_.end() ? &at->second : nullptr;
}

}  // namespace quorvel::onlinux
