// Wraps the kinds that JSON does not have, and lays objects out for people.
#include "tools/quorvelctl/CtlJson.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/linux/plist/PropertyListText.h"

namespace quorvel::ctl {

namespace {

constexpr std::array<std::string_view, 5> kWrappers = {"$data", "$date", "$real", "$dictionary",
                                                       "$set"};

// An object with a single key that begins with a dollar sign, which no plain dictionary is left
// looking like.
Json Wrapped(const char* kind, Json content) {
  Json object = Json::object();
  object[kind] = std::move(content);
  return object;
}

Json DataAsJson(const PlistData& data) {
  constexpr std::size_t line = 57;  // a multiple of three: lines join without padding between them
  std::vector<std::uint8_t> text;
  for (std::size_t at = 0; at < data.size(); at += line) {
    onlinux::AppendBase64(text, data.data() + at, std::min(line, data.size() - at));
  }
  return Wrapped("$data", std::string(text.begin(), text.end()));
}

// JSON has no infinities and no NaN; written as numbers they would make the whole text unreadable.
Json RealAsJson(double real) {
  if (std::isfinite(real)) return real;
  return Wrapped("$real", onlinux::TextFromReal(real));
}

Json DateAsJson(PlistDate date) {
  const std::string text = onlinux::TextFromDate(date);
  // Only when the text says all of it, back to the last bit.
  const bool isWhole = onlinux::DateFromText(text) == std::optional(date);
  return Wrapped("$date", isWhole ? Json(text) : RealAsJson(date.seconds));
}

Json ArrayAsJson(const PlistArray& array) {
  Json list = Json::array();
  for (const PlistValue& element : array) list.push_back(PlistAsJson(element));
  return list;
}

Json DictionaryAsJson(const PlistDictionary& dictionary) {
  Json object = Json::object();
  for (const PlistEntry& entry : dictionary) {
    AddMember(object, entry.key, PlistAsJson(entry.value));
  }
  // A dictionary that looks like a wrapper is wrapped itself.
  const bool ambiguous =
      dictionary.size() == 1 &&
      std::find(kWrappers.begin(), kWrappers.end(), dictionary.begin()->key) != kWrappers.end();
  return ambiguous ? Wrapped("$dictionary", std::move(object)) : object;
}

// Beyond the signed range the value is an unsigned one; both are written with all their digits.
Json IntegerAsJson(const PlistValue& value) {
  if (const std::uint64_t* large = value.largeInteger()) return *large;
  return *value.signedInteger();
}

}  // namespace

Json PlistAsJson(const PlistValue& value) {
  switch (value.kind()) {
    case PlistKind::boolean:
      return *value.boolean();
    case PlistKind::integer:
      return IntegerAsJson(value);
    case PlistKind::real:
      return RealAsJson(*value.real());
    case PlistKind::string:
      return *value.string();
    case PlistKind::data:
      return DataAsJson(*value.data());
    case PlistKind::date:
      return DateAsJson(*value.date());
    case PlistKind::array:
      return ArrayAsJson(*value.array());
    case PlistKind::dictionary:
      return DictionaryAsJson(*value.dictionary());
    case PlistKind::set:
      return Wrapped("$set", ArrayAsJson(value.set()->members));
  }
  return nullptr;
}

// Appended without a look for the key: an ordered object searches all of its members for each,
// which a dictionary of many thousand keys would make quadratic. Keys of a dictionary differ
// already.
void AddMember(Json& object, const std::string& key, Json value) {
  object.get_ref<Json::object_t&>().push_back({key, std::move(value)});
}

Json ErrorAsJson(const Error& error) {
  Json object;
  object["domain"] = error.domain();
  object["code"] = error.code();
  // Records from a system call alone have no text of their own.
  const bool silent = error.description().empty() && error.domain() == PosixErrorDomain;
  object["message"] =
      silent ? ErrnoDescription(static_cast<int>(error.code())) : error.description();
  if (const Error cause = error.underlying()) object["underlying"] = ErrorAsJson(cause);
  return object;
}

// Without any errno the record's own domain and code: a word that programs can compare in any case.
std::string ReasonOf(const Error& error) {
  for (Error cause = error; cause; cause = cause.underlying()) {
    // The first errno on the way down to the cause.
    if (cause.domain() != PosixErrorDomain) continue;
    const char* name = ::strerrorname_np(static_cast<int>(cause.code()));
    if (name != nullptr) return name;
  }
  return error.domain() + "." + std::to_string(error.code());
}

std::string JsonAsText(const Json& json, const std::function<std::string(const std::string&)>& show,
                       unsigned indentation) {
  const std::string margin(indentation, ' ');
  if (json.is_string()) return margin + show(json.get_ref<const std::string&>()) + "\n";
  if (json.is_null()) return margin + "none\n";
  if (json.is_primitive()) return margin + json.dump() + "\n";
  std::string text;
  for (const auto& [key, value] : json.items()) {
    // Nothing would be left of it.
    const bool isEmpty = value.is_structured() && value.empty();
    if (json.is_array()) {
      text += JsonAsText(value, show, indentation);
    } else if (isEmpty) {
      text += margin + show(key) + ": none\n";
    } else if (value.is_structured()) {
      text += margin + show(key) + ":\n" + JsonAsText(value, show, indentation + 2);
    } else {
      text += margin + show(key) + ": " + JsonAsText(value, show);
    }
  }
  return text;
}

}  // namespace quorvel::ctl
