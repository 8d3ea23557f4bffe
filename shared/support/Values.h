// Coercion of loosely typed property-list values into the shapes that callers expect.
// Pure functions; an absent value is std::nullopt or a null pointer. Any thread may call. When
// memory runs out the process ends (noexcept): absent would be taken for the value's own absence.
#pragma once

#include <optional>
#include <string>

#include "platform/PlistValue.h"
#include "shared/support/Export.h"

namespace quorvel {

// The types that a value can be tested against. A boolean is also a number.
enum class PlistType { string, number, boolean, data, date, array, dictionary, set };

QV_EXPORT bool QVPlistValueIsOfType(const PlistValue& value, PlistType type) noexcept;

// A string unchanged, anything else as its printable description; absent for absent.
QV_EXPORT std::optional<std::string> QVStringifyObject(const PlistValue* value) noexcept;

// Whether every element is of the type; true for an empty array.
QV_EXPORT bool QVArrayContainsOnlyClass(const PlistArray& array, PlistType type) noexcept;

// A number's truth (non-zero); the default for everything else, strings and absent
// included.
QV_EXPORT bool QVBooleanValue(const PlistValue* value, bool defaultValue) noexcept;

// An array of elements of the type: the array itself or the members of a set when all are of the
// type, one value of the type wrapped; absent otherwise. An array is never wrapped, also when the
// type is the array type.
QV_EXPORT std::optional<PlistArray> QVArrayifyThing(const PlistValue* value,
                                                    PlistType type) noexcept;

}  // namespace quorvel
