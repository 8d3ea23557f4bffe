// The parts of a device tree that a manifest lists, and what the registry held.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/console/Json.h"
#include "host/proof/ManifestEntry.h"

namespace quorvel::host {

// Their words in a manifest are NameOf's.
// A new kind goes at the end together with its word: the order is that of the table of names.
enum class SectionKind {
  container,  // a directory of the legacy applications directory
  stray,      // any other entry there; the section's only item is itself
  group,      // a legacy group container
  harbor,
  bundle,  // the containers of the current layout
  data,
  groupData,
};

// A direct child of a section's directory: who it is, to tell it from what may replace it.
// What a migration moves: the children of a section's directory.
// Taken when the snapshot is made. The inode tells an item that was moved from one of the same name
// that replaced it, as long as both are on the file system that the snapshot saw.
struct SectionItem {
  std::string name{};  // bytes
  ItemIdentity identity;
  std::int64_t modified = 0;
};

// A bundle in a legacy container.
// Where a bundle may be expected later depends on its identifier.
// A placeholder stands for an app whose real bundle is not there: a migration carries only the data
// of such an app.
struct SectionBundle {
  std::string item;        // its path in the container, bytes
  std::string identifier;  // empty when it has none that can be read
  bool placeholder = false;
};

// One directory of the device, whose items are listed below it.
// Texts are those that the system prints, with bytes that are no text encoded reversibly; only the
// members that say "bytes" are names as the file system has them.
struct ManifestSection {
  SectionKind kind = SectionKind::container;
  std::string path;          // text, absolute inside the device
  std::string identifier{};  // of the app, group or harbor; empty when there is none
  std::string action{};      // what a migration was expected to do, as `inspect` words it
  std::string unreadable{};  // why its items are not (all) known; else empty
  std::vector<SectionBundle> bundles{};
  std::vector<SectionItem> items{};
};

// All of it is held in memory, entries never are.
// It is as large as the device has sections and their direct children, which is a small part of all
// items.
struct ManifestHeader {
  bool contents = true;  // digests of files were taken
  std::vector<ManifestSection> sections{};
  std::vector<Json> records{};  // of the registry, as `registry --json` has them
  std::vector<Json> harbors{};
};

// One line with its line feed, and back. Absent for an object that is no section.
std::string SectionLine(std::size_t index, const ManifestSection& section);
// The number is the reader's to check. A kind that is unknown or a path that is not absolute makes
// it no section; other keys that are missing or of another type are read as empty, and unknown ones
// are passed over.
std::optional<ManifestSection> SectionFromJson(const Json& object);
// The word in a manifest.
const char* NameOf(SectionKind kind);

}  // namespace quorvel::host
