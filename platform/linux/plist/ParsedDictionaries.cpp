// A migration goes through all containers twice, first ahead and then in earnest. Were the oldest
// entry always the one to go, a device with more apps than fit would find none of them the second
// time, and free memory that lies all over the heap. So those that came first stay, and the later
// ones make room for one another.
#include "platform/linux/plist/ParsedDictionaries.h"

#include <iterator>
#include <new>
#include <utility>

namespace quorvel::onlinux {

namespace {

// An app's info dictionary has one to a few thousand bytes, and about six times that in memory:
// these limits keep what a device with some hundred apps needs, in two or three megabytes.
constexpr std::size_t kMostBytes = std::size_t{512} << 10U;
constexpr std::size_t kLargestFile = std::size_t{32} << 10U;

// These stay whatever comes: what is at work on one app asks for its dictionary several times, and
// for those of its placeholder and its plug-ins in between.
constexpr std::size_t kMostRecent = 8;

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
  while (size_ > kMostBytes) forgetOne();
} catch (const std::bad_alloc&) {
  // Nothing was added: the entry joins the list after the last allocation.
}

void ParsedDictionaries::forgetOne() {
  const auto victim = entries_.size() > kMostRecent ? std::next(entries_.begin(), kMostRecent)
                                                    : std::prev(entries_.end());
  size_ -= victim->bytes.size();
  index_.erase(KeyOf(victim->bytes));
  entries_.erase(victim);
}

}  // namespace quorvel::onlinux
