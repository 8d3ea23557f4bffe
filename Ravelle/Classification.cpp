// The scan of one legacy container: what its entries are, and what follows from them.
#include "Ravelle/Classification.h"

#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "Ravelle/Ravelle.h"
#include "platform/DeviceNames.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kIntrospect = "-[QVRavelle _introspectContainer:orderResultEarly:]";

using Verdict = Classification::Verdict;
using Reason = MigrationReason;

// One container's entries in the order in which they are listed. An entry that settles the verdict
// ends the scan; otherwise conclude() decides by what was found.
class ContainerScan {
 public:
  explicit ContainerScan(const Path& container) : container_(container) {}

  Classification run(const std::vector<Path>& entries);

 private:
  enum class Next { entry, end };
  struct Bundle {
    Path path;
    std::string identifier;
  };

  Next look(const Path& entry);
  Next lookAtApp(const Path& entry, bool isLink);
  Next lookAtVPNPlugin(const Path& entry, bool isLink);
  Next lookAtMarker(const Path& entry, bool isLink);
  Next leave(Reason reason, const Path& entry, Error error = {});
  std::optional<Bundle> openBundle(const Path& entry);
  void note(bool isCertain, Reason certain, Reason unknown, const Path& entry, const Error& error);
  void conclude();
  void leaveUnread();

  const Path& container_;
  Classification result_;
  std::optional<Bundle> app_;
  std::optional<Bundle> vpn_;
  // What may well be a bundle or a marker and could not be read.
  std::optional<MigrationProblem> unread_;
};

// The names are taken first, since the scan may end before it has come to all of them.
Classification ContainerScan::run(const std::vector<Path>& entries) {
  for (const Path& entry : entries) result_.names.emplace_back(entry.lastPathComponent());
  for (const Path& entry : entries) {
    if (look(entry) == Next::end) return std::move(result_);
  }
  conclude();
  return std::move(result_);
}

// An entry is known by its name alone; what it is shows when it is opened. Links are never
// followed, since they may lead into another container.
ContainerScan::Next ContainerScan::look(const Path& entry) {
  struct stat info {};
  const FileSystemRepresentation path = entry.fileSystemRepresentation();
  if (::lstat(path.c_str(), &info) != 0) {
    const int number = errno;
    RAVELLE_ADD_LINE(result_.lines, LogLevelError, kIntrospect,
                     "QVRavelle: Failed to stat path %s : %s", path, ErrnoDescription(number));
    return leave(Reason::cannotBeExamined, entry, QVPosixCause(number));
  }
  const bool isLink = S_ISLNK(info.st_mode);
  const std::string_view extension = entry.pathExtension();
  if (extension == AppExtension) return lookAtApp(entry, isLink);
  if (extension == VPNPluginExtension) return lookAtVPNPlugin(entry, isLink);
  if (entry.lastPathComponent() == MigrationMarkerName) return lookAtMarker(entry, isLink);
  return Next::entry;
}

ContainerScan::Next ContainerScan::leave(Reason reason, const Path& entry, Error error) {
  result_.verdict = Verdict::leave;
  result_.problems.push_back({.reason = reason, .path = entry.string(), .error = std::move(error)});
  return Next::end;
}

// Remembers a failure to read: whether anything follows from it depends on what is known.
void ContainerScan::note(bool isCertain, Reason certain, Reason unknown, const Path& entry,
                         const Error& error) {
  const MigrationProblem problem = {.reason = isCertain ? certain : unknown,
                                    .path = entry.string(),
                                    .error = error,
                                    .stops = false};
  // The first doubt is enough to leave the whole container.
  if (isCertain) result_.problems.push_back(problem);
  if (!isCertain && !unread_) unread_ = problem;
}

// Absent, too, when nothing is known of the bundle yet; which of the two was noted decides later.
std::optional<ContainerScan::Bundle> ContainerScan::openBundle(const Path& entry) {
  Error error;
  if (auto identifier = QVRavelle::_bundleIdentifierForBundle(entry, &error)) {
    return Bundle{entry, std::move(*identifier)};
  }
  note(IsCertainlyUnusable(error), Reason::bundleUnusable, Reason::bundleUnreadable, entry, error);
  return std::nullopt;
}

ContainerScan::Next ContainerScan::lookAtApp(const Path& entry, bool isLink) {
  if (isLink) {
    RAVELLE_ADD_LINE(result_.lines, LogLevelError, kIntrospect,
                     "QVRavelle: Skipping container with app symlink at %@", entry.string());
    return leave(Reason::link, entry);
  }
  RAVELLE_ADD_LINE(result_.lines, LogLevelNotice, kIntrospect, "QVRavelle: Found app %@",
                   entry.string());
  if (auto bundle = openBundle(entry)) {
    app_ = std::move(bundle);
  } else {
    RAVELLE_ADD_LINE(result_.lines, LogLevelError, kIntrospect,
                     "QVRavelle: Could not get identifier for bundle at %@", entry.string());
  }
  return Next::entry;
}

// The last plug-in found counts, as does the last app: a container has one of each.
ContainerScan::Next ContainerScan::lookAtVPNPlugin(const Path& entry, bool isLink) {
  RAVELLE_ADD_LINE(result_.lines, LogLevelNotice, kIntrospect, "QVRavelle: Found vpn plugin %@",
                   entry.string());
  if (isLink) {
    RAVELLE_ADD_LINE(result_.lines, LogLevelError, kIntrospect,
                     "QVRavelle: VPN plugin was symlink; skipping container %@", entry.string());
    return leave(Reason::link, entry);
  }
  if (auto bundle = openBundle(entry)) vpn_ = std::move(bundle);
  return Next::entry;
}

// A good marker says all there is to know: it was written when the bundle was still in its place.
ContainerScan::Next ContainerScan::lookAtMarker(const Path& entry, bool isLink) {
  RAVELLE_ADD_LINE(result_.lines, LogLevelNotice, kIntrospect,
                   "QVRavelle: Found migration marker %@", entry.string());
  if (isLink) {
    RAVELLE_ADD_LINE(result_.lines, LogLevelError, kIntrospect,
                     "QVRavelle: Migration marker was symlink; skipping container %@",
                     entry.string());
    return leave(Reason::link, entry);
  }
  Error error;
  std::optional<ContainerRecord> marked =
      QVRavelle::_loadAndValidateMigrationMarkerAtURL(entry, &result_.lines, &error);
  if (!marked) {
    RAVELLE_ADD_LINE(result_.lines, LogLevelError, kIntrospect,
                     "QVRavelle: Failed to load migration marker file from %@", entry);
    note(IsCertainlyUnusable(error), Reason::markerDamaged, Reason::markerUnreadable, entry, error);
    return Next::entry;  // a usable bundle still makes a fresh record
  }
  // What was found before is of no consequence any more.
  result_.problems.clear();
  result_.verdict = Verdict::migrate;
  // Its app or plug-in is told by the record.
  result_.kind = LegacyItemKind::marker;
  result_.early = FieldsOf(*marked).isApp();
  result_.record = std::move(marked);
  return Next::end;
}

// Removal is the last resort, and only of a container in which everything could be read and nothing
// was a bundle.
void ContainerScan::conclude() {
  // An app that cannot be read now may be migrated by a later run, with all that belongs to it:
  // what else is here must not be taken for the whole container.
  if (unread_) return leaveUnread();
  if (!app_ && !vpn_) {
    RAVELLE_ADD_LINE(result_.lines, LogLevelError, kIntrospect,
                     "QVRavelle: No app or vpn bundle found in container %@ ; removing it",
                     container_.string());
    result_.verdict = Verdict::remove;
    result_.kind = LegacyItemKind::empty;
    result_.problems.push_back({.reason = Reason::noBundle, .path = container_.string()});
    return;
  }
  // The app gives the container its identity; a plug-in beside it goes along.
  const Bundle& own = app_ ? *app_ : *vpn_;
  RecordFields fields{.container = container_,
                      .bundle = own.path,
                      .identifier = own.identifier,
                      .type = app_ ? ContainerTypeApp : ContainerTypeVPNBundle};
  if (app_ && vpn_) fields.secondBundle = vpn_->path;
  result_.verdict = Verdict::migrate;
  result_.kind = app_ ? LegacyItemKind::app : LegacyItemKind::vpnBundle;
  result_.early = app_.has_value();
  result_.record = RecordOf(fields);
}

void ContainerScan::leaveUnread() {
  RAVELLE_ADD_LINE(result_.lines, LogLevelError, kIntrospect,
                   "QVRavelle: Leaving container %@ alone because %@ could not be read : %@",
                   container_.string(), unread_->path, unread_->error);
  unread_->stops = true;
  result_.verdict = Verdict::leave;
  result_.problems.push_back(std::move(*unread_));
}

// What stands where a container should be. A file there was never an app; anything that can still
// be a directory stays.
Classification WithoutListing(const Path& container, const Error& error) {
  Classification result;
  MigrationProblem problem = {.path = container.string()};
  if (error.is(PosixErrorDomain, ENOTDIR)) {
    RAVELLE_ADD_LINE(result.lines, LogLevelError, kIntrospect,
                     "QVRavelle: Found regular file at %@ ; removing", container.string());
    result.verdict = Verdict::remove;
    result.kind = LegacyItemKind::file;
    problem.reason = Reason::strayFile;
  } else if (error.is(PosixErrorDomain, ENOENT)) {
    RAVELLE_ADD_LINE(
        result.lines, LogLevelNotice, kIntrospect,
        "QVRavelle: Got ENOENT when introspecting %@ ; ignoring (likely raced with quorveld)",
        container.string());
    result.verdict = Verdict::none;
    problem.reason = Reason::vanished;
  } else {
    RAVELLE_ADD_LINE(result.lines, LogLevelError, kIntrospect,
                     "QVRavelle: Failed to get URLs in container %@ : %@", container.string(),
                     error);
    problem.reason = Reason::cannotBeListed;
    problem.error = error;
  }
  result.problems.push_back(std::move(problem));
  return result;
}

}  // namespace

Classification ClassifyLegacyContainer(QVFileManager& files, const Path& container) {
  Error error;
  const auto entries = files.urlsForItemsInDirectoryAtURL(container, false, &error);
  if (!entries) return WithoutListing(container, error);
  return ContainerScan(container).run(*entries);
}

bool IsFarewell(const Path& entry) { return entry.lastPathComponent() == FarewellName; }

}  // namespace quorvel
