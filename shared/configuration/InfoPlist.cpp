// One lock around all reading of bundles in the process.
#include "shared/configuration/InfoPlist.h"

#include <mutex>
#include <new>

#include "platform/DeviceNames.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Logging.h"
#include "shared/support/Services.h"

namespace quorvel {

namespace {

constexpr const char* kLoad = "QVLoadInfoPlist";

// Guards the creation of bundle objects and the reading of their dictionaries.
std::mutex gBundleLock;

// For the message about an object of another type, in which every number is one.
const char* TypeName(const PlistValue& value) {
  switch (value.kind()) {
    case PlistKind::boolean:
      return "boolean";
    case PlistKind::integer:
    case PlistKind::real:
      return "number";
    case PlistKind::string:
      return "string";
    case PlistKind::data:
      return "data";
    case PlistKind::date:
      return "date";
    case PlistKind::array:
      return "array";
    case PlistKind::dictionary:
      return "dictionary";
    case PlistKind::set:
      return "set";
  }
  return "unknown";
}

// As a list, which the log shows like any other value.
PlistValue KeysAsValue(const std::set<std::string>& keys) {
  PlistArray names;
  for (const std::string& key : keys) names.emplace_back(key);
  return names;
}

// The platform hands back any object; only a dictionary is what was asked for.
std::unique_ptr<PlistDictionary> ReadFiltered(PKBundle& bundle, const std::set<std::string>& keys) {
  const std::unique_ptr<PlistValue> value = bundle.filteredInfo(keys);
  if (!value) {
    QV_LOG(LogLevelError, kLoad, "Failed to get filtered Info.plist with keys %@ from bundle %@",
           KeysAsValue(keys), "PKBundle <" + bundle.path().string() + ">");
    return nullptr;
  }
  if (value->dictionary() == nullptr) {
    QV_LOG(LogLevelError, kLoad,
           "Object returned from _PKBundleCreateFilteredInfoPlist was not a dictionary, was type "
           "%@",
           TypeName(*value));
    return nullptr;
  }
  return std::make_unique<PlistDictionary>(std::move(*value->dictionary()));
}

// A copy that the caller may change, without the entry that is not in the file.
std::unique_ptr<PlistDictionary> ReadWhole(PKBundle& bundle, const Path& path) {
  const PlistDictionary* info = bundle.infoDictionary();
  if (info == nullptr) {
    QV_LOG(LogLevelError, kLoad, "PKBundleGetInfoDictionary failed for bundle %@", path);
    return nullptr;
  }
  auto copy = std::make_unique<PlistDictionary>(*info);
  copy->erase(PKBundleInfoPlistURLKey);
  return copy;
}

}  // namespace

std::unique_ptr<PlistDictionary> QVLoadInfoPlist(
    const Path& path, const std::optional<std::set<std::string>>& keys) try {
  const Path file = path.child(InfoPlistName);
  // Asked without the lock: most directories that are asked about are no bundles, and nobody should
  // wait to learn that.
  if (QVFileManager::defaultManager().itemDoesNotExistAtURL(file)) {
    QV_LOG(LogLevelDebug, kLoad, "Missing Info.plist at %@", file);
    return nullptr;
  }
  const std::lock_guard<std::mutex> lock(gBundleLock);
  const std::unique_ptr<PKBundle> bundle = RequiredService(kBundles).open(path);
  if (!bundle) {
    QV_LOG(LogLevelError, kLoad, "Failed to create PKBundle from URL %@", path);
    return nullptr;
  }
  if (keys) return ReadFiltered(*bundle, *keys);
  return ReadWhole(*bundle, path);
} catch (const std::bad_alloc&) {
  return nullptr;  // without a line: it would take memory too
}

}  // namespace quorvel
