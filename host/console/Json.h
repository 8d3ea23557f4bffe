// JSON on standard output: keys in the documented order, one object on one line.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "platform/Path.h"

namespace quorvel::host {

// Ordered: keys stand in the order in which they are set, which is the documented one.
// Looking for a key goes through all of them, which is of no consequence for the few that the
// host's own objects have; large dictionaries are filled without looking.
using Json = nlohmann::ordered_json;

// Text that is no UTF-8 is replaced rather than refused: texts of the system are UTF-8, bytes of
// file names included (FileSystemRepresentation.h).
inline std::string JsonLine(const Json& object) {
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

// An absent value is null rather than left out, so that objects always have the same keys.
// A path is written in its plain form.
inline Json JsonOrNull(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json(nullptr);
}

inline Json JsonOrNull(const std::optional<Path>& path) {
  return path ? Json(path->string()) : Json(nullptr);
}

// Empty for what is no object, for a key that it lacks and for a value that is no text. Not by the
// object's own operator[], which has no defined result for a key that a constant object lacks.
inline std::string TextAt(const Json& object, const char* key) {
  const auto at = object.is_object() ? object.find(key) : object.end();
  return at != object.end() && at->is_string() ? at->get<std::string>() : std::string();
}

}  // namespace quorvel::host
