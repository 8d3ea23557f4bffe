// A classification carried out, and the reading of what it rests on: bundles and markers.
#include <memory>

#include "Ravelle/Classification.h"
#include "Ravelle/Ravelle.h"
#include "Ravelle/RavelleAccount.h"
#include "Ravelle/RavelleLog.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kLoadMarker = "-[QVRavelle _loadAndValidateMigrationMarkerAtURL:]";

// What is wrong with a record that was read: certain, and one message for a marker, that of its
// first fault.
bool FailMarker(std::vector<PendingLine>& lines, int line, std::string message, Error* error) {
  lines.push_back({__FILE__, kLoadMarker, line, LogLevelError, std::move(message)});
  return SetError(error, Error(PlatformErrorDomain, PlatformPropertyListReadCorruptError,
                               {{LocalizedDescriptionKey, PlistValue(lines.back().message)}}));
}

// In the order in which a reader of the log expects the complaints; the first one is enough. Keys
// that are not asked for here are kept as they are.
bool IsComplete(const ContainerRecord& record, const Path& marker, std::vector<PendingLine>& lines,
                Error* error) {
  static constexpr struct {
    const char* key;
    FormatString<std::string> message;
  } kRequired[] = {
      {RecordBundlePathKey, "QVRavelle: Failed to get bundle path from migration marker file %@"},
      {RecordContainerTypeKey,
       "QVRavelle: Failed to get container type from migration marker file %@"},
      {RecordContainerPathKey,
       "QVRavelle: Failed to get container path from migration marker file %@"},
      {RecordBundleIdentifierKey,
       "QVRavelle: Failed to get container bundle ID from migration marker file %@"},
  };
  for (const auto& [key, message] : kRequired) {
    if (record.findString(key) != nullptr) continue;
    return FailMarker(lines, __LINE__, FormatMessage(message, marker.string()), error);
  }
  const PlistValue* second = record.find(RecordSecondBundlePathKey);
  if (second == nullptr || second->string() != nullptr) return true;
  return FailMarker(lines, __LINE__,
                    FormatMessage("QVRavelle: Second bundle path was not a string: %@", *second),
                    error);
}

}  // namespace

// The lines come first, so that the log tells why before it tells what.
std::optional<ContainerRecord> QVRavelle::_introspectContainer(const Path& container,
                                                               bool* orderResultEarly) {
  Classification found = ClassifyLegacyContainer(_files, container);
  for (const PendingLine& line : found.lines) {
    HostLog(line.file, line.function, line.line, kLogCategory, line.level, "%@", line.message);
  }
  TellClassification(found, Account());
  switch (found.verdict) {
    case Classification::Verdict::migrate:
      *orderResultEarly = found.early;
      return std::move(found.record);
    case Classification::Verdict::remove:
      RemoveWithAccount(_files, container);
      break;
    case Classification::Verdict::leave:
      Account().containerEnded(MigrationOutcome::left, true);
      break;
    case Classification::Verdict::none:
      Account().containerEnded(MigrationOutcome::removed, false);
      break;
  }
  return std::nullopt;
}

// An empty identifier is one that could be read; what it is worth is for the registry to say.
std::optional<std::string> QVRavelle::_bundleIdentifierForBundle(const Path& bundle, Error* error) {
  const std::unique_ptr<PKBundle> opened = QVPlatform().bundles->open(bundle, error);
  const std::string* identifier = opened ? opened->identifier(error) : nullptr;
  if (identifier == nullptr) return std::nullopt;
  return *identifier;
}

std::optional<ContainerRecord> QVRavelle::_loadAndValidateMigrationMarkerAtURL(
    const Path& marker, std::vector<PendingLine>* lines, Error* error) {
  std::unique_ptr<PlistDictionary> record =
      QVPlatform().propertyLists->readDictionary(marker, error);
  if (!record) {
    RAVELLE_ADD_LINE(*lines, LogLevelError, kLoadMarker,
                     "QVRavelle: Failed to load migration marker file from %@", marker);
    return std::nullopt;
  }
  if (!IsComplete(*record, marker, *lines, error)) return std::nullopt;
  return std::move(*record);
}

}  // namespace quorvel
