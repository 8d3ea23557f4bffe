// One legacy container, described and written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/DeviceNames.h"
#include "platform/PlistValue.h"
#include "platform/PropertyListStore.h"
#include "tools/legacy-image/LegacyImageRandom.h"
#include "tools/legacy-image/LegacyImageWriter.h"

namespace quorvel::tools {

inline constexpr const char* LegacyApplications = "private/var/mobile/Applications";

// A bundle directory. Names are bytes, identifiers and other texts UTF-8.
// What its info dictionary says, and what lies beside that.
// A damaged info dictionary is cut off in its middle, an icon file as the given bytes, whatever the
// name's extension promises.
struct BundlePlan {
  std::string name;  // with its extension; empty: there is no such bundle
  std::string identifier;
  std::string version = "1.0";
  PropertyListFormat infoFormat = PropertyListFormat::xml;
  bool infoIsDamaged = false;
  std::vector<std::string> groups;
  std::string iconName;  // value of PKBundleIconFile; empty: no such key
  std::string iconFile;  // name of the icon's file; empty: no icon
  std::string iconBytes;
  bool isPlaceholder = false;
};

// A container without an app and without a plug-in is written empty but for its data.
// With either bundle staged the container is one whose migration was begun: its user data has left
// it already and is not written.
struct ContainerPlan {
  std::string name;  // bytes; the directory in LegacyApplications
  BundlePlan app;
  BundlePlan plugin;
  bool appIsStaged = false;           // the app lies in Staging/Payload already
  bool pluginIsStaged = false;        // so does the plug-in
  std::vector<std::string> metadata;  // names of the store-metadata items
  std::uint64_t dataBytes = 0;        // of Documents/data.bin
  bool hasTillkit = false;
  bool hasOddData = false;  // links, holes, attributes, odd names
};

// Writes what the plan says. What the file system cannot keep is noted in `notes`.
// The marker is not part of it: a begun container gets one with WriteMarker, of whatever bytes are
// wanted. Failures are the writer's to keep; the next calls then do nothing.
void WriteContainer(LegacyImageWriter& writer, LegacyImageRandom& random, const ContainerPlan& plan,
                    std::vector<std::string>& notes);

// Writes a bundle directory at a path of the tree.
void WriteBundle(LegacyImageWriter& writer, LegacyImageRandom& random, const std::string& directory,
                 const BundlePlan& plan, std::vector<std::string>& notes);

// The record that a migration that was begun has written into the container.
// Names the app as the container's bundle and the plug-in as its second one, or the plug-in alone
// as a container of the other type.
PlistDictionary MarkerOf(const ContainerPlan& plan);
// The bytes as they are, so that a damaged marker can be written as well.
void WriteMarker(LegacyImageWriter& writer, const ContainerPlan& plan, std::string_view bytes);

// The bytes of a property list; empty when it cannot be written, which no caller's value is.
std::string PlistBytes(const PlistDictionary& dictionary, PropertyListFormat format);

// Items whose names and kinds are hard on whoever moves or shows them.
// Line ends, bytes that are no text, the longest name, links to nowhere, a hard link, a hole, a
// pipe and a directory deeper than a walk keeps open. Where attributes cannot be written a note
// says so.
void WriteOddData(LegacyImageWriter& writer, LegacyImageRandom& random,
                  const std::string& directory, std::vector<std::string>& notes);

}  // namespace quorvel::tools
