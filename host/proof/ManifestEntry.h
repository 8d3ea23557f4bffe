// One item of a device tree, as a manifest has it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/console/Json.h"

namespace quorvel::host {

// The types that a directory can list; their words in a manifest are in docs/manifest.md.
enum class EntryType { file, directory, link, pipe, socket, blockDevice, characterDevice };

// Which item on which file system: the same for all names of one item.
// Inodes are given again once an item is gone, so that equal identities prove sameness only among
// items that exist at the same time or whose names agree as well.
struct ItemIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  friend auto operator<=>(const ItemIdentity&, const ItemIdentity&) = default;
};

// Items come in the order of a walk that visits a directory before its contents and sorts these by
// the bytes of their names. The depth says where an item belongs: below the last directory that is
// one less deep. A whole path in each line would make a deep tree's manifest quadratic.
struct ManifestEntry {
  std::size_t depth = 0;
  std::string name;  // bytes
  EntryType type = EntryType::file;
  unsigned mode = 0;  // without the type
  std::uint32_t user = 0;
  std::uint32_t group = 0;
  std::uint64_t size = 0;     // of files
  std::uint64_t special = 0;  // device number of a device
  std::int64_t modified = 0;  // nanoseconds
  std::int64_t accessed = 0;
  ItemIdentity identity;
  std::uint64_t links = 1;
  std::string target;                             // a link's text, bytes
  std::map<std::string, std::string> attributes;  // name in bytes to AttributeText
  std::string sha256;                             // of a file's contents; empty when left out
  std::string unreadable;                         // why part of this is not known; else empty
};

// A manifest's text for an attribute's value: "hex:" and its bytes, "sha256:" and the digest of a
// longer one.
// The digits alone, lower case, two to a byte; the prefix is the caller's.
std::string HexText(std::string_view bytes);

// One line with its line feed.
// Keys without a value are left out: most entries have few.
std::string EntryLine(const ManifestEntry& entry);
// None when the object is no entry, or has a name that names no single item of a directory.
// Unknown keys are passed over: a later host may write more.
std::optional<ManifestEntry> EntryFromJson(const Json& object);

// What of an item a comparison is about.
struct Comparison {
  bool contents = true;  // the digests, otherwise what is known without reading
  // Attributes of which a bundle's own directory may gain, lose or change some.
  bool bundleDirectory = false;
};

// In words what differs; empty when nothing does. Access and change times do not count.
// An entry that could not be read differs in nothing that is not known.
// Entries of different types differ in that alone: nothing else of theirs can be compared. Links of
// an item are not among the differences, because a single entry does not show who has the other
// names.
std::vector<std::string> Differences(const ManifestEntry& before, const ManifestEntry& now,
                                     Comparison comparison);

}  // namespace quorvel::host
