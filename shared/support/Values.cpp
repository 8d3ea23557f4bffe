// One function per shape.
#include "shared/support/Values.h"

#include <algorithm>

#include "shared/support/Format.h"

namespace quorvel {

// A boolean is a number as well, but a number is no boolean unless it was stored as one.
bool QVPlistValueIsOfType(const PlistValue& value, PlistType type) noexcept {
  switch (type) {
    case PlistType::string:
      return value.string() != nullptr;
    case PlistType::number:
      return value.isNumber();
    case PlistType::boolean:
      return value.boolean() != nullptr;
    case PlistType::data:
      return value.data() != nullptr;
    case PlistType::date:
      return value.date() != nullptr;
    case PlistType::array:
      return value.array() != nullptr;
    case PlistType::dictionary:
      return value.dictionary() != nullptr;
    case PlistType::set:
      return value.set() != nullptr;
  }
  return false;
}

std::optional<std::string> QVStringifyObject(const PlistValue* value) noexcept {
  if (value == nullptr) return std::nullopt;
  return QVDescribeValue(*value);
}

// An empty array holds nothing of another type.
bool QVArrayContainsOnlyClass(const PlistArray& array, PlistType type) noexcept {
  return std::all_of(array.begin(), array.end(), [type](const PlistValue& element) {
    return QVPlistValueIsOfType(element, type);
  });
}

bool QVBooleanValue(const PlistValue* value, bool defaultValue) noexcept {
  if (value == nullptr || !value->isNumber()) return defaultValue;
  if (const bool* flag = value->boolean()) return *flag;
  if (const auto* integer = value->signedInteger()) return *integer != 0;
  if (const double* real = value->real()) return *real != 0;
  return true;  // an integer too large to be signed
}

// The order of the questions decides what an array among arrays is: it is never wrapped.
std::optional<PlistArray> QVArrayifyThing(const PlistValue* value, PlistType type) noexcept {
  if (value == nullptr) return std::nullopt;
  const auto onlyIfAll = [type](const PlistArray& members) -> std::optional<PlistArray> {
    if (!QVArrayContainsOnlyClass(members, type)) return std::nullopt;
    return members;
  };
  if (const PlistArray* array = value->array()) return onlyIfAll(*array);
  if (QVPlistValueIsOfType(*value, type)) return PlistArray{*value};
  if (const PlistSet* set = value->set()) return onlyIfAll(set->members);
  return std::nullopt;
}

}  // namespace quorvel
