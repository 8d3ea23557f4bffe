// Sections as lines.
#include "host/proof/ManifestSection.h"

#include <array>

#include "platform/FileSystemRepresentation.h"

namespace quorvel::host {

namespace {

constexpr std::array<const char*, 7> kKindNames = {"container", "stray", "group",    "harbor",
                                                   "bundle",    "data",  "groupData"};

// The string under a key; empty when there is none.
// Other types count as none: sections say where to look and never what is proven, so that a missing
// text makes an item harder to find and not easier to excuse.
std::string Text(const Json& object, const char* key) {
  const auto at = object.find(key);
  return at != object.end() && at->is_string() ? at->get<std::string>() : std::string();
}

template <typename Number>
Number Count(const Json& object, const char* key) {
  const auto at = object.find(key);
  return at != object.end() && at->is_number_integer() ? at->get<Number>() : Number();
}

const Json& List(const Json& object, const char* key) {
  static const Json empty = Json::array();
  const auto at = object.find(key);
  return at != object.end() && at->is_array() ? *at : empty;
}

}  // namespace

const char* NameOf(SectionKind kind) { return kKindNames[static_cast<std::size_t>(kind)]; }

// Lists are left out when they are empty, which they are for most sections but containers.
std::string SectionLine(std::size_t index, const ManifestSection& section) {
  Json object;
  object["section"] = index;
  object["kind"] = NameOf(section.kind);
  object["path"] = section.path;
  if (!section.identifier.empty()) object["identifier"] = section.identifier;
  if (!section.action.empty()) object["action"] = section.action;
  if (!section.unreadable.empty()) object["unreadable"] = section.unreadable;
  for (const SectionBundle& bundle : section.bundles) {
    object["bundles"].push_back({{"item", StringFromFileSystemRepresentation(bundle.item)},
                                 {"identifier", bundle.identifier},
                                 {"placeholder", bundle.placeholder}});
  }
  for (const SectionItem& item : section.items) {
    object["items"].push_back({{"name", StringFromFileSystemRepresentation(item.name)},
                               {"device", item.identity.device},
                               {"inode", item.identity.inode},
                               {"modified", item.modified}});
  }
  return JsonLine(object);
}

// Paths must be absolute, as they are joined with names and opened from the device's root.
std::optional<ManifestSection> SectionFromJson(const Json& object) {
  ManifestSection section;
  const std::string kind = Text(object, "kind");
  std::size_t index = 0;
  while (index < kKindNames.size() && kind != kKindNames[index]) ++index;
  section.kind = static_cast<SectionKind>(index);
  section.path = Text(object, "path");
  if (index == kKindNames.size() || !section.path.starts_with('/')) return std::nullopt;
  section.identifier = Text(object, "identifier");
  section.action = Text(object, "action");
  section.unreadable = Text(object, "unreadable");
  for (const Json& bundle : List(object, "bundles")) {
    const auto placeholder = bundle.is_object() ? bundle.find("placeholder") : bundle.end();
    section.bundles.push_back({BytesOfFileSystemRepresentation(Text(bundle, "item")),
                               Text(bundle, "identifier"),
                               placeholder != bundle.end() && *placeholder == true});
  }
  for (const Json& item : List(object, "items")) {
    section.items.push_back(
        {BytesOfFileSystemRepresentation(Text(item, "name")),
         {Count<std::uint64_t>(item, "device"), Count<std::uint64_t>(item, "inode")},
         Count<std::int64_t>(item, "modified")});
  }
  return section;
}

}  // namespace quorvel::host
