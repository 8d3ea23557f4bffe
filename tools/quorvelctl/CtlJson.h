// Values of the system as JSON, and JSON as text for people.
#pragma once

#include <functional>
#include <string>

#include "host/console/Json.h"
#include "platform/Error.h"
#include "platform/PlistValue.h"

namespace quorvel::ctl {

using host::Json;

// A property-list value without loss. Texts, booleans, arrays and dictionaries are their JSON
// counterparts; integers are JSON numbers with all their digits (-2^63 to 2^64-1: more than a
// double holds); reals always have a fraction or an exponent. What JSON does not have is an
// object with one key:
//   {"$data": "<base64>"}
//   {"$date": "2001-01-01T00:00:00Z"}   whole seconds of the years 1 to 9999
//   {"$date": 0.5}                      any other, in seconds since 2001-01-01 00:00:00 UTC
//   {"$real": "nan"}                    "inf", "-inf" and other not-a-numbers likewise
//   {"$dictionary": {...}}              a dictionary whose only key is one of these five
//   {"$set": [...]}                     in memory only
// Recursion is bounded by the depth that property lists are read with.
Json PlistAsJson(const PlistValue& value);

// Adds a member that the object does not have yet, without looking for it: objects keep the order
// of their members, and a search for each key would make filling them quadratic.
void AddMember(Json& object, const std::string& key, Json value);

// domain, code, message, and under "underlying" the cause likewise.
Json ErrorAsJson(const Error& error);
// Its cause in a word: the errno's name where there is one, else the domain with the code.
std::string ReasonOf(const Error& error);

// Nested "key: value" lines. `show` turns a text into what goes to the stream.
std::string JsonAsText(const Json& json, const std::function<std::string(const std::string&)>& show,
                       unsigned indentation = 0);

}  // namespace quorvel::ctl
