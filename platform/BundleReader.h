// PKBundle: opens bundle directories and reads their info dictionaries.
//
// Why a service: how a bundle is laid out and its dictionary encoded is the platform's business.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "platform/Path.h"
#include "platform/PlistValue.h"

namespace quorvel {

inline constexpr const char* PKBundleIdentifierKey = "PKBundleIdentifier";
inline constexpr const char* PKBundleVersionKey = "PKBundleVersion";
// Entry that the platform adds to the full info dictionary: where the dictionary was read from.
inline constexpr const char* PKBundleInfoPlistURLKey = "PKBundleInfoPlistURL";

// One opened bundle. Not shared, not cached; belongs to one thread at a time.
class PKBundle {
 public:
  virtual ~PKBundle() = default;
  virtual const Path& path() const = 0;
  // The value of PKBundleIdentifierKey when it is a string; null otherwise. Owned by the bundle.
  virtual const std::string* identifier() = 0;
  // The whole dictionary, with PKBundleInfoPlistURLKey added; null when there is none or it
  // cannot be read. Owned by the bundle.
  virtual const PlistDictionary* infoDictionary() = 0;
  // A new value holding those of the keys that the dictionary has; null when it cannot be read.
  // A dictionary, unless the platform misbehaves.
  virtual std::unique_ptr<PlistValue> filteredInfo(const std::set<std::string>& keys) = 0;
};

class BundleReader {
 public:
  virtual ~BundleReader() = default;
  // A new bundle object for the directory, or null when the path is no directory that can be
  // opened. A link is not followed. The info dictionary is read when first asked for.
  virtual std::unique_ptr<PKBundle> open(const Path& directory) = 0;
};

}  // namespace quorvel
