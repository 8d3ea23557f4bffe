// Items as lines, and what differs between two of them.
#include "host/proof/ManifestEntry.h"

#include <array>

#include "platform/FileSystemRepresentation.h"

namespace quorvel::host {

namespace {

constexpr std::array<const char*, 7> kTypeNames = {
    "file", "directory", "link", "pipe", "socket", "blockDevice", "characterDevice"};
// NAME_MAX of every Linux file system.
constexpr std::size_t kLongestName = 255;
// The service's own marks on a bundle, which its owner has no say in.
constexpr std::string_view kServiceAttributes = "user.com.velto.quorveld.";

// True also when there is nothing to take; false for a value of another type. Numbers are not
// checked against their range: what does not fit differs from what is there, and is told.
template <typename Number>
bool Take(const Json& object, const char* key, Number& out) {
  const auto at = object.find(key);
  // A key that is left out means the default.
  if (at == object.end()) return true;
  if (!at->is_number_integer()) return false;
  out = at->get<Number>();
  return true;
}

bool Take(const Json& object, const char* key, std::string& out) {
  const auto at = object.find(key);
  if (at == object.end()) return true;
  if (!at->is_string()) return false;
  out = at->get<std::string>();
  return true;
}

// Names and link texts are bytes, of which JSON has none: they stand in the text form of file
// names.
bool TakeBytes(const Json& object, const char* key, std::string& out) {
  if (!Take(object, key, out)) return false;
  out = BytesOfFileSystemRepresentation(out);
  return true;
}

bool TakeAttributes(const Json& object, std::map<std::string, std::string>& out) {
  const auto at = object.find("attributes");
  if (at == object.end()) return true;
  if (!at->is_object()) return false;
  for (const auto& [name, value] : at->items()) {
    if (!value.is_string()) return false;
    out[BytesOfFileSystemRepresentation(name)] = value.get<std::string>();
  }
  return true;
}

// A type that is left out has an empty name and is none: unlike numbers it has no default.
bool TakeType(const Json& object, EntryType& out) {
  std::string text;
  if (!Take(object, "type", text)) return false;
  for (std::size_t i = 0; i < kTypeNames.size(); ++i) {
    if (text != kTypeNames[i]) continue;
    out = static_cast<EntryType>(i);
    return true;
  }
  return false;
}

// A manifest must not make anybody look anywhere but at an item of the directory it is in.
bool IsItemName(const std::string& name) {
  return !name.empty() && name.size() <= kLongestName && name != "." && name != ".." &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

std::map<std::string, std::string> WithoutServiceMarks(std::map<std::string, std::string> marks) {
  std::erase_if(marks, [](const auto& mark) { return mark.first.starts_with(kServiceAttributes); });
  return marks;
}

// The service marks a bundle it has taken over, which is no change to its owner.
bool SameAttributes(const ManifestEntry& before, const ManifestEntry& now, bool bundleDirectory) {
  if (before.attributes == now.attributes) return true;
  return bundleDirectory &&
         WithoutServiceMarks(before.attributes) == WithoutServiceMarks(now.attributes);
}

}  // namespace

std::string HexText(std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += digits[value >> 4U];
    text += digits[value & 0xFU];
  }
  return text;
}

// Keys at their defaults are left out, since there is a line for every item of a device.
std::string EntryLine(const ManifestEntry& entry) {
  Json object;
  object["depth"] = entry.depth;
  object["name"] = StringFromFileSystemRepresentation(entry.name);
  object["type"] = kTypeNames[static_cast<std::size_t>(entry.type)];
  object["mode"] = entry.mode;
  object["user"] = entry.user;
  object["group"] = entry.group;
  if (entry.type == EntryType::file) object["size"] = entry.size;
  if (entry.special != 0) object["special"] = entry.special;
  object["modified"] = entry.modified;
  object["accessed"] = entry.accessed;
  object["device"] = entry.identity.device;
  object["inode"] = entry.identity.inode;
  if (entry.links > 1) object["links"] = entry.links;
  if (entry.type == EntryType::link) {
    object["target"] = StringFromFileSystemRepresentation(entry.target);
  }
  if (!entry.attributes.empty()) {
    Json& attributes = object["attributes"];
    for (const auto& [name, value] : entry.attributes) {
      attributes[StringFromFileSystemRepresentation(name)] = value;
    }
  }
  if (!entry.sha256.empty()) object["sha256"] = entry.sha256;
  if (!entry.unreadable.empty()) object["unreadable"] = entry.unreadable;
  return JsonLine(object);
}

// The depth must be there, as it alone tells an entry from other lines.
std::optional<ManifestEntry> EntryFromJson(const Json& object) {
  ManifestEntry entry;
  const bool taken =
      object.is_object() && object.contains("depth") && Take(object, "depth", entry.depth) &&
      TakeBytes(object, "name", entry.name) && TakeType(object, entry.type) &&
      Take(object, "mode", entry.mode) && Take(object, "user", entry.user) &&
      Take(object, "group", entry.group) && Take(object, "size", entry.size) &&
      Take(object, "special", entry.special) && Take(object, "modified", entry.modified) &&
      Take(object, "accessed", entry.accessed) && Take(object, "device", entry.identity.device) &&
      Take(object, "inode", entry.identity.inode) && Take(object, "links", entry.links) &&
      TakeBytes(object, "target", entry.target) && TakeAttributes(object, entry.attributes) &&
      Take(object, "sha256", entry.sha256) && Take(object, "unreadable", entry.unreadable);
  if (!taken || !IsItemName(entry.name)) return std::nullopt;
  return entry;
}

std::vector<std::string> Differences(const ManifestEntry& before, const ManifestEntry& now,
                                     Comparison comparison) {
  std::vector<std::string> what;
  // Then nothing else can be compared.
  if (before.type != now.type) return {"type"};
  if (before.size != now.size) what.emplace_back("size");
  // Two sizes are two contents; a digest of either side is not needed to know that.
  if (comparison.contents && before.size == now.size && before.sha256 != now.sha256 &&
      !before.sha256.empty() && now.unreadable.empty()) {
    what.emplace_back("contents");
  }
  // Without digests another inode on the same file system is the sign of a copy.
  if (!comparison.contents && before.identity.device == now.identity.device &&
      before.identity.inode != now.identity.inode && before.type == EntryType::file) {
    what.emplace_back("inode");
  }
  if (before.target != now.target || before.special != now.special) what.emplace_back("target");
  if (before.mode != now.mode) what.emplace_back("mode");
  if (before.user != now.user || before.group != now.group) what.emplace_back("owner");
  if (before.modified != now.modified) what.emplace_back("modified");
  if (!SameAttributes(before, now, comparison.bundleDirectory)) what.emplace_back("attributes");
  return what;
}

}  // namespace quorvel::host
