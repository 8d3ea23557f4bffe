// PKBundle: opens bundle directories and reads their info dictionaries.
//
// Why a service: how a bundle is laid out and its dictionary encoded is the platform's business.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "platform/Error.h"
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
  // The three below give null with an Error whose meaning is that of
  // PropertyListStore::readDictionary(). The file is read once, at the first question; a failure
  // is remembered and told again. It may be a link to another file of the same bundle; one that
  // leads out of it or nowhere is PosixErrorDomain EXDEV or ELOOP.

  // The string under PKBundleIdentifierKey, which may be empty. A dictionary that was read and has
  // no string there is PlatformPropertyListReadCorruptError. Owned by the bundle.
  virtual const std::string* identifier(Error* error = nullptr) = 0;
  // The whole dictionary, with PKBundleInfoPlistURLKey added. Owned by the bundle.
  virtual const PlistDictionary* infoDictionary(Error* error = nullptr) = 0;
  // A new value holding those of the keys that the dictionary has. A dictionary, unless the
  // platform misbehaves.
  virtual std::unique_ptr<PlistValue> filteredInfo(const std::set<std::string>& keys,
                                                   Error* error = nullptr) = 0;
};

class BundleReader {
 public:
  virtual ~BundleReader() = default;
  // A new bundle object for the directory. A link is not followed. The info dictionary is read
  // when first asked for. Null with PosixErrorDomain: ENOENT or ENOTDIR when there is no such
  // directory, anything else (ELOOP for a link) when it is not known what there is.
  virtual std::unique_ptr<PKBundle> open(const Path& directory, Error* error = nullptr) = 0;
};

}  // namespace quorvel
