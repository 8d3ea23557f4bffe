// The application registry: which apps exist, and where their containers are.
//
// Why a service: the registry outlives every process and is shared with the rest of the
// platform; the migration only asks it and hands it bundles.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/PlistValue.h"

namespace quorvel {

// Keys and values of an install request's options, published by the registry.
inline constexpr const char* RXInstallTypeKey = "InstallType";              // unsigned integer
inline constexpr const char* RXPackageTypeKey = "PackageType";              // one of the next two
inline constexpr const char* RXPackageTypeCustomer = "Customer";            // a staged "Payload"
inline constexpr const char* RXPackageTypePlaceholder = "Placeholder";      // a bare bundle
inline constexpr const char* RXLorvixMetadataKey = "LorvixMetadata";        // data
inline constexpr const char* RXBundleIdentifierKey = "PKBundleIdentifier";  // string, required
inline constexpr const char* RXSkipBlacklistKey = "SkipBlacklist";          // boolean

// Info-dictionary key of a bundle: array of group identifiers (strings).
inline constexpr const char* PKApplicationGroupsKey = "PKApplicationGroups";

// Error names that progress reports carry under "Error".
inline constexpr const char* RXErrorApplicationAlreadyInstalled = "ApplicationAlreadyInstalled";

// The registry's record of one identifier, a snapshot of the moment of the lookup.
struct BundleProxy {
  std::string bundleIdentifier;
  std::string bundleType;     // "App" or "VPNPlugin"
  std::string bundleVersion;  // "PKBundleVersion"; empty when unknown
  std::optional<Path> bundlePath;
  std::optional<Path> bundleContainerPath;
  std::optional<Path> dataContainerPath;
  // Group identifier to container; empty when the app has no groups; absent when the registry
  // cannot tell.
  std::optional<std::map<std::string, Path>> groupContainerPaths;
  bool foundBackingBundle = false;
  bool isPlaceholder = false;
};

// Called with one report of an install: a dictionary with "Error", "ErrorDescription" and
// "ErrorDetail" when something failed. All calls are made before installApplication() returns.
using InstallProgressCallback = std::function<void(const PlistDictionary& report)>;

// Callable from one thread at a time; several processes may each have one for the same device.
class ApplicationWorkspace {
 public:
  virtual ~ApplicationWorkspace() = default;

  // Whether the identifier has a bundle: an installed one, a placeholder, or a built-in one.
  // A record without a bundle behind it is not installed.
  virtual bool applicationIsInstalled(const std::string& identifier) = 0;

  // The record of the identifier, or none. A built-in app gets its data container here if it
  // has none yet.
  virtual std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier) = 0;

  // Takes over the staging directory and installs what is in it. A customer package holds its
  // bundles in "Payload" and store-metadata items beside it; a placeholder package is the
  // bundle itself. True when the request is satisfied, also when an earlier one satisfied it: a
  // customer package without a bundle asks for nothing more where the identifier's full bundle is
  // installed, nor does a placeholder's directory that an interrupted request took over. A customer
  // package whose bundle was taken over before something failed (a disk that became full) is
  // satisfied, too, after a report of the failure: the staging directory, with what could not be
  // moved, stays until the registry is next asked about anything and can complete it. False with
  // an Error, and with a report to the callback (which may be empty), otherwise. Either way the app
  // is found afterwards as it was before or completely installed, also when the process is killed
  // in between. "ApplicationAlreadyInstalled" is reported when a newer copy is built in: the staged
  // bundle is obsolete then and is discarded with the staging directory. Any other refusal leaves
  // the staging directory as it is.
  //
  // Stable storage: nothing leaves a customer package, and no request is satisfied or found
  // obsolete, before everything that was written until then to the file systems of the staging
  // directory, of the app's containers and of the registry itself is on stable storage, whoever
  // wrote it. The caller's own preparations need no flush where they lie on one of these.
  virtual bool installApplication(const Path& staging, const PlistDictionary& options, Error* error,
                                  const InstallProgressCallback& progress) = 0;

  // Whether a customer package would be obsolete, as installApplication() decides it: one whose
  // bundle for the identifier has the version or, where none is given, one without a bundle, as
  // what an earlier one is repeated with. False, too, where it cannot be told. Nothing changes.
  virtual bool packageIsObsolete(const std::string& identifier,
                                 const std::optional<std::string>& version) = 0;
};

}  // namespace quorvel
