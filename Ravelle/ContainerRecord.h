// What one legacy container is: the record that its marker keeps, and its fields by name.
#pragma once

#include <optional>
#include <string>

#include "platform/Path.h"
#include "platform/PlistValue.h"

namespace quorvel {

// The fields below, and any others that a marker held: those are kept and never read.
using ContainerRecord = PlistDictionary;

// The keys are those of the marker's file on disk: renaming one orphans every container that was
// begun.
inline constexpr const char* RecordContainerPathKey = "ContainerPath";
inline constexpr const char* RecordBundlePathKey = "BundlePath";
inline constexpr const char* RecordContainerTypeKey = "ContainerType";
inline constexpr const char* RecordBundleIdentifierKey = "BundleIdentifier";
inline constexpr const char* RecordSecondBundlePathKey = "SecondBundlePath";  // optional

// The values of ContainerType; the registry's bundle types have the same words.
// They are compared as written, letter case included.
inline constexpr const char* ContainerTypeApp = "App";
inline constexpr const char* ContainerTypeVPNBundle = "VPNBundle";

// A record's fields, unpacked. A string that a record lacks is empty here; records that were built
// or validated lack none.
struct RecordFields {
  Path container{};
  Path bundle{};
  std::optional<Path> secondBundle{};
  std::string identifier{};
  std::string type{};  // usually one of the two above; a marker may say anything

  // Any other text is not an app, also one that nobody knows.
  bool isApp() const { return type == ContainerTypeApp; }
};

// Takes any dictionary; what is missing or of another kind comes out empty.
// Paths come as directories whether or not the text ends with a slash, so that two spellings of one
// directory are the same path.
inline RecordFields FieldsOf(const ContainerRecord& record) {
  const auto text = [&record](const char* key) {
    const std::string* value = record.findString(key);
    return value != nullptr ? *value : std::string();
  };
  RecordFields fields;
  fields.container = Path::directory(text(RecordContainerPathKey));
  fields.bundle = Path::directory(text(RecordBundlePathKey));
  if (const std::string* second = record.findString(RecordSecondBundlePathKey)) {
    fields.secondBundle = Path::directory(*second);
  }
  fields.identifier = text(RecordBundleIdentifierKey);
  fields.type = text(RecordContainerTypeKey);
  return fields;
}

// The reverse, for a container that was looked at for the first time. Holds nothing else.
// Paths are written in the plain form, in which a marker can be read by a person; an absent second
// bundle is left out rather than written empty.
inline ContainerRecord RecordOf(const RecordFields& fields) {
  ContainerRecord record;
  record.set(RecordContainerPathKey, fields.container.string());
  record.set(RecordBundlePathKey, fields.bundle.string());
  record.set(RecordContainerTypeKey, fields.type);
  record.set(RecordBundleIdentifierKey, fields.identifier);
  if (fields.secondBundle) record.set(RecordSecondBundlePathKey, fields.secondBundle->string());
  return record;
}

}  // namespace quorvel
