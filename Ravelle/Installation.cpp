// What the registry is handed: the staged bundle, and the placeholder that comes before it.
#include "Ravelle/Ravelle.h"
#include "Ravelle/RavelleAccount.h"
#include "Ravelle/RavelleLog.h"
#include "Ravelle/ReplaceItem.h"
#include "shared/support/Errors.h"
#include "shared/support/Platform.h"
#include "shared/support/Values.h"

namespace quorvel {

namespace {

constexpr const char* kStage =
    "-[QVRavelle "
    "_stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:inContainerURL:]";
constexpr const char* kProgress =
    "__89-[QVRavelle "
    "_stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:inContainerURL:]_block_invoke";
constexpr const char* kPlaceholder =
    "-[QVRavelle _stageAndInstallPlaceholderForBundleAtURL:withIdentifier:inContainerURL:]";
constexpr const char* kIcon = "-[QVRavelle _writeIconForBundle:toURL:]";

// The registry's number for an install on behalf of a migration.
constexpr std::uint64_t kMigrationInstallType = 6;

// What a placeholder takes over from the app's info dictionary.
constexpr const char* kIdentityKeys[] = {"PKBundleIdentifier", "PKBundleDisplayName",
                                         "PKBundleExecutable", "PKBundleVersion",
                                         "PKBundleShortVersionString"};

// The blacklist is skipped: what is on it was installed before, and its data is the user's.
PlistDictionary InstallOptions(const char* packageType, const std::string& identifier) {
  return {{RXInstallTypeKey, kMigrationInstallType},
          {RXPackageTypeKey, packageType},
          {RXBundleIdentifierKey, identifier},
          {RXSkipBlacklistKey, true}};
}

// Hears the registry's progress: logs every failure, recognises the one that is none.
class InstallProgress {
 public:
  explicit InstallProgress(const Path& bundle) : bundle_(bundle) {}
  bool alreadyInstalled() const { return alreadyInstalled_; }

  void hear(const PlistDictionary& report) {
    const std::optional<std::string> name = QVStringifyObject(report.find("Error"));
    if (!name) return;
    if (*name == RXErrorApplicationAlreadyInstalled) {
      RAVELLE_LOG(LogLevelNotice, kProgress,
                  "QVRavelle: Installation of %@ failed because it's older than what's built into "
                  "the system. Data migration already happened so we're done here.",
                  bundle_.string());
      TellNote(MigrationStep::install, MigrationReason::newerBuiltIn, bundle_);
      alreadyInstalled_ = true;
      return;
    }
    RAVELLE_LOG(LogLevelError, kProgress,
                "QVRavelle: Installation of %@ failed with Quorvel error %@ (%@ : %@)",
                bundle_.string(), QVStringifyObject(report.find("ErrorDescription")), *name,
                QVStringifyObject(report.find("ErrorDetail")));
  }

 private:
  const Path& bundle_;
  bool alreadyInstalled_ = false;
};

// A marker is believed about which bundle is the container's, but not as far as to take one from
// elsewhere: what is staged is gone from its place, and with the container if it is refused.
bool MoveIntoPayload(QVFileManager& files, const Path& bundle, const Path& legacyContainers,
                     const Path& destination, Error* error) {
  if (files.itemExistsAtURL(bundle) && !LiesBelow(bundle, legacyContainers)) {
    return SetError(error, _CreateError(kStage, __LINE__, PosixErrorDomain, EINVAL,
                                        "%@ does not lie in %@", bundle, legacyContainers));
  }
  return files.moveItemIfExistsAtURL(bundle, destination, error);
}

// Builds the staging directory in the container.
bool Stage(QVFileManager& files, const Path& bundle, const std::optional<Path>& vpnPlugin,
           const Path& container, const Path& legacyContainers) {
  const Path staging = container.childDirectory(StagingName);
  const Path payload = staging.childDirectory(PayloadName);
  Error error;
  if (!files.createDirectoryAtURL(payload, {.withIntermediateDirectories = true}, &error)) {
    RAVELLE_LOG(LogLevelError, kStage, "QVRavelle: Failed to create %@ : %@", payload, error);
    TellProblem(MigrationStep::stage, MigrationReason::stagingFailed, payload, error);
    return false;
  }
  Path destination = payload.childDirectory(bundle.lastPathComponent());
  if (!MoveIntoPayload(files, bundle, legacyContainers, destination, &error)) {
    RAVELLE_LOG(LogLevelError, kStage, "QVRavelle: Failed to move bundle from %@ to %@: %@", bundle,
                destination, error);
    TellProblem(MigrationStep::stage, MigrationReason::stagingFailed, bundle, error);
    return false;
  }
  if (vpnPlugin) destination = payload.childDirectory(vpnPlugin->lastPathComponent());
  if (vpnPlugin && !MoveIntoPayload(files, *vpnPlugin, legacyContainers, destination, &error)) {
    RAVELLE_LOG(LogLevelError, kStage, "QVRavelle: Failed to move vpn bundle from %@ to %@: %@",
                *vpnPlugin, destination, error);
    TellProblem(MigrationStep::stage, MigrationReason::stagingFailed, *vpnPlugin, error);
    return false;
  }
  if (!files.captureStoreDataFromDirectory(container, staging, {}, &error)) {
    RAVELLE_LOG(LogLevelError, kStage, "QVRavelle: Failed to move app metadata from %@ to %@: %@",
                container, staging, error);
    TellProblem(MigrationStep::stage, MigrationReason::stagingFailed, staging, error);
    return false;
  }
  return true;
}

// An identifier comes from the app itself and may hold anything; as a directory's name it must stay
// one name. One that is too long for a name cannot be staged.
std::string PlaceholderName(const std::string& identifier) {
  std::string name;
  for (const char c : identifier) {
    if (c == '/') {
      name += "%2F";
    } else {
      name += c;
    }
  }
  return name;
}

// Where a placeholder is put together.
Path PlaceholderDirectory(const std::string& identifier) {
  return QVPlatform()
      .fileData->temporaryDirectory()
      .childDirectory(PlaceholderParentName)
      .childDirectory(PlaceholderName(identifier) + ".app");
}

// The raw store metadata, which goes into the request; absent when there is none.
std::unique_ptr<PlistData> ReadStoreMetadata(const Path& container) {
  const Path file = container.child(StoreMetadataName);
  Error error;
  std::unique_ptr<PlistData> bytes = QVPlatform().fileData->readWholeFile(file, &error);
  if (!bytes && !error.is(PlatformErrorDomain, PlatformFileReadNoSuchFileError)) {
    RAVELLE_LOG(LogLevelError, kPlaceholder, "QVRavelle: Failed to read %@ : %@", file.string(),
                error);
    TellNote(MigrationStep::placeholder, MigrationReason::metadataUnreadable, file, error);
  }
  return bytes;
}

// The bundle's identity keys, those that it has; absent with the Error when it cannot be read.
std::optional<PlistDictionary> ReadIdentity(PKBundle* bundle, const Path& path, Error* error) {
  if (bundle == nullptr) {
    RAVELLE_LOG(LogLevelError, kPlaceholder, "QVRavelle: Failed to create PKBundle for %@",
                path.string());
    return std::nullopt;
  }
  const PlistDictionary* info = bundle->infoDictionary(error);
  if (info == nullptr) {
    RAVELLE_LOG(LogLevelError, kPlaceholder,
                "QVRavelle: Failed to get bundle info dictionary for bundle %@", path.string());
    return std::nullopt;
  }
  PlistDictionary identity;
  for (const char* key : kIdentityKeys) {
    if (const PlistValue* value = info->find(key)) identity.set(key, *value);
  }
  return identity;
}

// Fills the placeholder's directory from the legacy bundle.
bool BuildPlaceholder(QVRavelle& plugin, const Path& bundlePath, const std::string& identifier,
                      const Path& directory) {
  Error error;
  const std::unique_ptr<PKBundle> bundle = QVPlatform().bundles->open(bundlePath, &error);
  std::optional<PlistDictionary> info = ReadIdentity(bundle.get(), bundlePath, &error);
  if (!info) {
    TellProblem(MigrationStep::placeholder, MigrationReason::bundleUnreadable, bundlePath, error);
    return false;
  }
  const Path icon = directory.child(UsualIconName);
  if (plugin._writeIconForBundle(*bundle, icon)) {
    info->set("PKBundleIconFile", UsualIconName);
  } else {
    RAVELLE_LOG(LogLevelError, kPlaceholder,
                "QVRavelle: Writing placeholder icon for app %@ to %@ failed", identifier,
                icon.string());
    TellNote(MigrationStep::placeholder, MigrationReason::iconFailed, icon);
  }
  // Binary: unlike XML it holds every string that an app may have put into its dictionary. It is
  // flushed with the rest of the placeholder, by the registry.
  const Path file = directory.child(InfoPlistName);
  if (!QVPlatform().propertyLists->writeDictionaryBeforeFlush(*info, file,
                                                              PropertyListFormat::binary, &error)) {
    TellProblem(MigrationStep::placeholder, MigrationReason::placeholderFailed, file, error);
    RAVELLE_LOG(LogLevelError, kPlaceholder,
                "QVRavelle: Failed to write placeholder Info.plist to %@", file.string());
    return false;
  }
  return true;
}

// No progress callback: of a placeholder the Error says all there is to say.
bool InstallPlaceholder(const Path& directory, const std::string& identifier,
                        std::unique_ptr<PlistData> metadata) {
  RAVELLE_LOG(LogLevelNotice, kPlaceholder, "QVRavelle: Installing placeholder for %@", identifier);
  PlistDictionary options = InstallOptions(RXPackageTypePlaceholder, identifier);
  if (metadata) options.set(RXLorvixMetadataKey, std::move(*metadata));
  Error error;
  if (QVPlatform().workspace->installApplication(directory, options, &error, {})) return true;
  RAVELLE_LOG(LogLevelError, kPlaceholder, "QVRavelle: Failed to install placeholder for %@: %@",
              identifier, QVDescribeUserInfo(error));
  TellProblem(MigrationStep::placeholder, MigrationReason::placeholderRefused, directory, error);
  return false;
}

std::string DescribeBundle(const PKBundle& bundle) {
  return "PKBundle <" + bundle.path().string() + ">";
}

}  // namespace

// The registry's refusal because of a newer built-in copy is success: the data has its container,
// and the user has the app.
bool QVRavelle::_stageAndInstallBundleAtURL(const Path& bundle, const std::string& identifier,
                                            const std::optional<Path>& vpnPlugin,
                                            const Path& container) {
  const Path legacy = _configuration.oldContainerPath();
  if (!InStep(MigrationStep::stage,
              [&] { return Stage(_files, bundle, vpnPlugin, container, legacy); })) {
    return false;
  }
  PlistDictionary options = InstallOptions(RXPackageTypeCustomer, identifier);
  options.set("VerifyForMigrator", true);
  const Path staging = container.childDirectory(StagingName);
  return InStep(MigrationStep::install, [&] {
    InstallProgress progress(bundle);
    Error error;
    if (QVPlatform().workspace->installApplication(
            staging, options, &error,
            [&progress](const PlistDictionary& report) { progress.hear(report); }) ||
        progress.alreadyInstalled()) {
      return true;
    }
    RAVELLE_LOG(LogLevelError, kStage, "QVRavelle: Failed to install %@ : %@", staging, error);
    TellProblem(MigrationStep::install, MigrationReason::installRefused, staging, error);
    return false;
  });
}

bool QVRavelle::_stageAndInstallPlaceholderForBundleAtURL(const Path& bundle,
                                                          const std::string& identifier,
                                                          const Path& container) {
  const Path directory = PlaceholderDirectory(identifier);
  Error error;
  bool installed = false;
  // What an interrupted run left there is another placeholder's.
  if ((IsCertainlyNotThere(directory) || _files.removeItemAtURL(directory, &error)) &&
      _files.createDirectoryAtURL(directory, {.withIntermediateDirectories = true}, &error)) {
    std::unique_ptr<PlistData> metadata = ReadStoreMetadata(container);
    installed = BuildPlaceholder(*this, bundle, identifier, directory) &&
                InstallPlaceholder(directory, identifier, std::move(metadata));
  } else {
    RAVELLE_LOG(LogLevelError, kPlaceholder,
                "QVRavelle: Failed to create staged placeholder directory at %@ : %@", directory,
                error);
    TellProblem(MigrationStep::placeholder, MigrationReason::placeholderFailed, directory, error);
  }
  // The registry has taken it, as a rule.
  if (!IsCertainlyNotThere(directory)) _files.removeItemAtURL(directory);
  return installed;
}

// An icon is worth a line in the log, and never a migration: each failure here is passed over by
// the caller.
bool QVRavelle::_writeIconForBundle(PKBundle& bundle, const Path& destination) {
  IconRenderer& icons = *QVPlatform().icons;
  const std::unique_ptr<Image> image = icons.createHomeScreenIconImage(bundle);
  if (!image) {
    RAVELLE_LOG(LogLevelError, kIcon, "QVRavelle: Failed to create icon from bundle %@",
                DescribeBundle(bundle));
    return false;
  }
  std::vector<std::uint8_t> buffer;
  const std::unique_ptr<PngEncoder> encoder = icons.createPngEncoder(buffer, 1);
  if (!encoder) {
    RAVELLE_LOG(LogLevelError, kIcon,
                "QVRavelle: GXImageDestinationCreateWithData returned NULL gxImage from bundle %@",
                DescribeBundle(bundle));
    return false;
  }
  encoder->addImage(*image);
  if (!encoder->finalize()) {
    RAVELLE_LOG(LogLevelError, kIcon,
                "QVRavelle: GXImageDestinationFinalize failed for icon from bundle %@",
                DescribeBundle(bundle));
    return false;
  }
  Error error;
  if (!QVPlatform().fileData->writeAtomically(buffer, destination, &error)) {
    RAVELLE_LOG(LogLevelError, kIcon, "QVRavelle: Failed to write image data to %@ : %@",
                destination, error);
    return false;
  }
  return true;
}

}  // namespace quorvel
