// What a legacy container is, and the marker in which a begun migration keeps the answer.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "Ravelle/Ravelle.h"
#include "Ravelle/RavelleLog.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kIntrospect = "-[QVRavelle _introspectContainer:orderResultEarly:]";
constexpr const char* kLoadMarker = "-[QVRavelle _loadAndValidateMigrationMarkerAtURL:]";

enum class Scan { goOn, leaveAlone, finished };

// The scan of one container's entries.
class ContainerScan {
 public:
  ContainerScan(QVRavelle& plugin, const Path& container, bool* orderResultEarly)
      : plugin_(plugin), early_(orderResultEarly) {
    record_.set(RecordContainerPathKey, container.string());
  }

  // Looks at one entry. `finished` means that the record is complete as it is.
  Scan look(const Path& entry);

  bool foundBundle() const { return app_.has_value() || vpn_.has_value(); }
  // Whether something that may well be a bundle or marker could not be read.
  bool wasBarred() const { return barred_; }
  ContainerRecord takeRecord() {
    if (app_ && vpn_) record_.set(RecordSecondBundlePathKey, vpn_->string());
    return std::move(record_);
  }

 private:
  Scan lookAtApp(const Path& entry, bool isLink);
  Scan lookAtVPNPlugin(const Path& entry, bool isLink);
  Scan lookAtMarker(const Path& entry, bool isLink);
  std::optional<std::string> identifierOf(const Path& bundle);
  void describe(const Path& bundle, const char* type, const std::string& identifier, bool early);

  bool barred_ = false;
  QVRavelle& plugin_;
  bool* early_;
  ContainerRecord record_;
  std::optional<Path> app_;
  std::optional<Path> vpn_;
};

// Whether the file may be as it should and just cannot be read, now or by this user.
bool IsBarred(const Path& file) {
  static constexpr int kBars[] = {EIO, EACCES, EPERM, ENOMEM, EMFILE, ENFILE, ESTALE};
  Error error;
  if (Platform().fileData->readWholeFile(file, &error)) return false;
  return error.domain() == PosixErrorDomain &&
         std::find(std::begin(kBars), std::end(kBars), error.code()) != std::end(kBars);
}

// A container without a usable bundle is removed with all its data, so that one failure to read is
// not enough to call a bundle unusable.
std::optional<std::string> ContainerScan::identifierOf(const Path& bundle) {
  std::optional<std::string> identifier = plugin_._bundleIdentifierForBundle(bundle);
  if (!identifier) identifier = plugin_._bundleIdentifierForBundle(bundle);
  if (!identifier) barred_ = barred_ || IsBarred(bundle.child(InfoPlistName));
  return identifier;
}

Scan ContainerScan::look(const Path& entry) {
  struct stat info {};
  const FileSystemRepresentation path = entry.fileSystemRepresentation();
  if (::lstat(path.c_str(), &info) != 0) {
    const int number = errno;
    RAVELLE_LOG(LogLevelError, kIntrospect, "QVRavelle: Failed to stat path %s : %s", path,
                ErrnoDescription(number));
    return Scan::leaveAlone;
  }
  const bool isLink = S_ISLNK(info.st_mode);
  const std::string_view extension = entry.pathExtension();
  if (extension == AppExtension) return lookAtApp(entry, isLink);
  if (extension == VPNPluginExtension) return lookAtVPNPlugin(entry, isLink);
  if (entry.lastPathComponent() == MigrationMarkerName) return lookAtMarker(entry, isLink);
  return Scan::goOn;
}

Scan ContainerScan::lookAtApp(const Path& entry, bool isLink) {
  if (isLink) {
    RAVELLE_LOG(LogLevelError, kIntrospect, "QVRavelle: Skipping container with app symlink at %@",
                entry.string());
    return Scan::leaveAlone;
  }
  RAVELLE_LOG(LogLevelNotice, kIntrospect, "QVRavelle: Found app %@", entry.string());
  const std::optional<std::string> identifier = identifierOf(entry);
  if (!identifier) {
    RAVELLE_LOG(LogLevelError, kIntrospect, "QVRavelle: Could not get identifier for bundle at %@",
                entry.string());
    return Scan::goOn;
  }
  app_ = entry;
  describe(entry, ContainerTypeApp, *identifier, true);
  return Scan::goOn;
}

Scan ContainerScan::lookAtVPNPlugin(const Path& entry, bool isLink) {
  RAVELLE_LOG(LogLevelNotice, kIntrospect, "QVRavelle: Found vpn plugin %@", entry.string());
  if (isLink) {
    RAVELLE_LOG(LogLevelError, kIntrospect,
                "QVRavelle: VPN plugin was symlink; skipping container %@", entry.string());
    return Scan::leaveAlone;
  }
  const std::optional<std::string> identifier = identifierOf(entry);
  if (!identifier) return Scan::goOn;
  vpn_ = entry;
  if (!app_) describe(entry, ContainerTypeVPNBundle, *identifier, false);
  return Scan::goOn;
}

Scan ContainerScan::lookAtMarker(const Path& entry, bool isLink) {
  RAVELLE_LOG(LogLevelNotice, kIntrospect, "QVRavelle: Found migration marker %@", entry.string());
  if (isLink) {
    RAVELLE_LOG(LogLevelError, kIntrospect,
                "QVRavelle: Migration marker was symlink; skipping container %@", entry.string());
    return Scan::leaveAlone;
  }
  std::optional<ContainerRecord> marked = plugin_._loadAndValidateMigrationMarkerAtURL(entry);
  if (!marked) {
    RAVELLE_LOG(LogLevelError, kIntrospect,
                "QVRavelle: Failed to load migration marker file from %@", entry);
    barred_ = barred_ || IsBarred(entry);
    return Scan::goOn;  // a usable bundle still makes a fresh record
  }
  record_ = std::move(*marked);
  *early_ = *record_.findString(RecordContainerTypeKey) == ContainerTypeApp;
  app_.reset();
  vpn_.reset();
  return Scan::finished;
}

void ContainerScan::describe(const Path& bundle, const char* type, const std::string& identifier,
                             bool early) {
  record_.set(RecordBundlePathKey, bundle.string());
  record_.set(RecordContainerTypeKey, type);
  record_.set(RecordBundleIdentifierKey, identifier);
  *early_ = early;
}

// Whether there is a string under the key; logs the message about the marker otherwise.
bool HasString(const ContainerRecord& record, const char* key, const Path& marker,
               FormatString<std::string> message) {
  if (record.findString(key) != nullptr) return true;
  RAVELLE_LOG(LogLevelError, kLoadMarker, message, marker.string());
  return false;
}

void LogFailedListing(const Path& container, const Error& error) {
  if (error.is(PosixErrorDomain, ENOENT)) {
    RAVELLE_LOG(LogLevelNotice, kIntrospect,
                "QVRavelle: Got ENOENT when introspecting %@ ; ignoring (likely raced with "
                "quorveld)",
                container.string());
  } else {
    RAVELLE_LOG(LogLevelError, kIntrospect, "QVRavelle: Failed to get URLs in container %@ : %@",
                container.string(), error);
  }
}

}  // namespace

std::optional<ContainerRecord> QVRavelle::_introspectContainer(const Path& container,
                                                               bool* orderResultEarly) {
  Error error;
  const auto entries = files_.urlsForItemsInDirectoryAtURL(container, false, &error);
  if (!entries && error.is(PosixErrorDomain, ENOTDIR)) {
    RAVELLE_LOG(LogLevelError, kIntrospect, "QVRavelle: Found regular file at %@ ; removing",
                container.string());
    files_.removeItemAtURL(container);
    return std::nullopt;
  }
  if (!entries) {
    LogFailedListing(container, error);
    return std::nullopt;
  }
  ContainerScan scan(*this, container, orderResultEarly);
  for (const Path& entry : *entries) {
    const Scan outcome = scan.look(entry);
    if (outcome == Scan::leaveAlone) return std::nullopt;
    if (outcome == Scan::finished) return scan.takeRecord();
  }
  // The data of an app that cannot be told now may be migrated by a later run.
  if (!scan.foundBundle() && scan.wasBarred()) return std::nullopt;
  if (!scan.foundBundle()) {
    RAVELLE_LOG(LogLevelError, kIntrospect,
                "QVRavelle: No app or vpn bundle found in container %@ ; removing it",
                container.string());
    files_.removeItemAtURL(container);
    return std::nullopt;
  }
  return scan.takeRecord();
}

std::optional<std::string> QVRavelle::_bundleIdentifierForBundle(const Path& bundle) {
  const std::unique_ptr<PKBundle> opened = Platform().bundles->open(bundle);
  const std::string* identifier = opened ? opened->identifier() : nullptr;
  if (identifier == nullptr) return std::nullopt;
  return *identifier;
}

std::optional<ContainerRecord> QVRavelle::_loadAndValidateMigrationMarkerAtURL(const Path& marker) {
  std::unique_ptr<PlistDictionary> record =
      Platform().propertyLists->readDictionary(marker, nullptr);
  if (!record) {
    RAVELLE_LOG(LogLevelError, kLoadMarker,
                "QVRavelle: Failed to load migration marker file from %@", marker);
    return std::nullopt;
  }
  // One message for a marker, that of its first fault.
  const bool complete =
      HasString(*record, RecordBundlePathKey, marker,
                "QVRavelle: Failed to get bundle path from migration marker file %@") &&
      HasString(*record, RecordContainerTypeKey, marker,
                "QVRavelle: Failed to get container type from migration marker file %@") &&
      HasString(*record, RecordContainerPathKey, marker,
                "QVRavelle: Failed to get container path from migration marker file %@") &&
      HasString(*record, RecordBundleIdentifierKey, marker,
                "QVRavelle: Failed to get container bundle ID from migration marker file %@");
  if (!complete) return std::nullopt;
  const PlistValue* second = record->find(RecordSecondBundlePathKey);
  if (second != nullptr && second->string() == nullptr) {
    RAVELLE_LOG(LogLevelError, kLoadMarker, "QVRavelle: Second bundle path was not a string: %@",
                *second);
    return std::nullopt;
  }
  return std::move(*record);
}

}  // namespace quorvel
