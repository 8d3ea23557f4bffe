// What is in a package, and which apps are built in. Nothing here changes anything.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/BundleReader.h"
#include "platform/Error.h"
#include "platform/Path.h"

namespace quorvel::onlinux {

// As records and lookups have them; the second one for the extension "vpnplugin".
inline constexpr const char* BundleTypeApp = "App";
inline constexpr const char* BundleTypeVPNPlugin = "VPNPlugin";

// A bundle as its info dictionary describes it, read once. The identifier is never empty. Groups
// are sorted; entries of that list which are no strings are passed over.
struct BundleDescription {
  Path path;
  std::string type;  // one of the above
  std::string identifier;
  std::string version;              // empty when unknown
  std::vector<std::string> groups;  // each once
};

// A customer package. An absent one has nothing in it.
// What was found, and only that: nothing is judged here.
struct PackageContents {
  bool isPresent = false;                  // the staging directory is there
  std::vector<BundleDescription> bundles;  // sorted by name
  std::vector<std::string> metadata;       // names of the store-metadata items beside "Payload"
};

// Whether the path itself, not what a link names, is a directory.
bool IsRealDirectory(const Path& path);

// False with an Error when the info dictionary cannot be read or names no identifier. The code is
// unreadableInfo whatever the cause was: a request cannot go on in any of the cases, and its
// package stays.
bool ReadBundle(BundleReader& reader, const Path& directory, const char* type,
                BundleDescription* bundle, Error* error);

// Bundles are the directories in "Payload" with the extension "app" or "vpnplugin". False with an
// Error when a directory cannot be listed or one of the bundles cannot be read. A staging directory
// or "Payload" that is missing, a link or no directory is no failure: the package has no bundles
// then. One bad bundle fails the whole package, so that no part of an app is installed.
bool InspectPackage(BundleReader& reader, const Path& staging, PackageContents* package,
                    Error* error);

// Whether one "PKBundleVersion" is newer than another: parts between dots are compared as
// numbers as far as they are, then as text; a missing part is 0. Nothing is newer than an unknown
// (empty) version, nor is an unknown version newer than anything.
bool IsNewerVersion(std::string_view version, std::string_view than);

// The apps of the device's applications directory, by identifier; read once, when first asked.
class BuiltInApps {
 public:
  using Map = std::map<std::string, BundleDescription>;

  BuiltInApps(BundleReader& reader, Path applications)
      : reader_(reader), applications_(std::move(applications)) {}

  // Null with an Error when the directory cannot be listed (none at all is no failure). Of two
  // bundles with one identifier the newer one counts; unreadable ones are passed over.
  // Later calls cost nothing.
  const Map* all(Error* error);
  // Null when the identifier is not built in, or when that cannot be told.
  const BundleDescription* find(const std::string& identifier);

 private:
  BundleReader& reader_;
  Path applications_;
  bool isKnown_ = false;
  Map apps_;
};

}  // namespace quorvel::onlinux
