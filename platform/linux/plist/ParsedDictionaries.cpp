// Least recently used goes first.
#include "platform/linux/plist/ParsedDictionaries.h"

#include <new>
#include <utility>

namespace quorvel::onlinux {

namespace {

// An app's info dictionary has one to a few thousand bytes, and about six times that in memory:
// these limits keep what a device with some hundred apps needs, in two or three megabytes.
constexpr std::size_t kMostBytes = std::size_t{512} << 10U;
constexpr std::size_t kLargestFile = std::size_t{32} << 10U;

std::string_view KeyOf(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

std::shared_ptr<ParsedDictionaries> ParsedDictionaries::ofProcess() {
  static const auto shared = std::make_shared<ParsedDictionaries>();
  return shared;
}

std::shared_ptr<const PlistDictionary> ParsedDictionaries::find(
    std::span<const std::uint8_t> bytes) {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = index_.find(KeyOf(bytes));
  if (found == index_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, found->second);
  return found->second->dictionary;
}

void ParsedDictionaries::keep(std::vector<std::uint8_t> bytes,
                              std::shared_ptr<const PlistDictionary> dictionary) try {
  if (bytes.size() > kLargestFile) return;
  const std::lock_guard<std::mutex> guard(lock_);
  if (index_.contains(KeyOf(bytes))) return;  // another thread was faster
  Entries added;
  added.push_back({std::move(bytes), std::move(dictionary)});
  const std::string_view key = KeyOf(added.front().bytes);
  index_.emplace(key, added.begin());
  entries_.splice(entries_.begin(), added);
  size_ += key.size();
  while (size_ > kMostBytes) forgetLast();
} catch (const std::bad_alloc&) {
  // Nothing was added: the entry joins the list after the last allocation.
}

void ParsedDictionaries::forgetLast() {
  size_ -= entries_.back().bytes.size();
  index_.erase(KeyOf(entries_.back().bytes));
  entries_.pop_back();
}

}  // namespace quorvel::onlinux
