// Dictionaries that were parsed before, found again by the bytes that they were parsed from.
//
// A migration reads each info dictionary four times, from three places of the disk: when the host
// looks ahead, when the container is looked at, for the placeholder, and when the registry takes
// the bundle. The file is read each time; only the parsing, which costs some thirty times as much,
// is spared. As the bytes themselves are compared, a file that changed meanwhile can never be taken
// for what it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/PlistValue.h"

namespace quorvel::onlinux {

// Any number of threads may use one.
class ParsedDictionaries {
 public:
  // The one that all readers of the process share: the host's look ahead has services of its own,
  // and the bytes alone decide, whoever read them.
  static std::shared_ptr<ParsedDictionaries> ofProcess();

  // Null when these bytes are not among those that were kept. What is found counts as used last.
  // The result is shared with others and stays good when the entry is forgotten.
  std::shared_ptr<const PlistDictionary> find(std::span<const std::uint8_t> bytes);

  // Keeps the dictionary, and forgets others when there are too many: never one of the few that
  // were asked for last, and of the rest those that came latest. What is too large for its worth,
  // or finds no memory, is not kept.
  void keep(std::vector<std::uint8_t> bytes, std::shared_ptr<const PlistDictionary> dictionary);

 private:
  struct Entry {
    std::vector<std::uint8_t> bytes;
    std::shared_ptr<const PlistDictionary> dictionary;
  };
  using Entries = std::list<Entry>;  // the one that was used last in front

  // Forgets one entry, of which there is one at least. With lock_ held.
  void forgetOne();

  std::mutex lock_;
  Entries entries_;
  // Views into the entries' bytes, which stay where they are as long as the entry does.
  std::unordered_map<std::string_view, Entries::iterator> index_;
  std::size_t size_ = 0;  // of all bytes together
};

}  // namespace quorvel::onlinux
