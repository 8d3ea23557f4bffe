// Checks a request, plans it, carries it out and reports it.
#include "platform/linux/registry/ApplicationWorkspaceLinux.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {
namespace {

using Code = RegistryErrorCode;

bool RefuseAsObsolete(const std::string& identifier, Error* error) {
  return Fail(Code::alreadyInstalled, "A newer " + identifier + " is built into the system", error);
}

// The record as it will be; an earlier one keeps its data container.
AppRecord RecordFor(const BundleDescription& bundle, const std::optional<AppRecord>& known) {
  AppRecord record = known.value_or(AppRecord{});
  record.identifier = bundle.identifier;
  record.type = bundle.type;
  record.version = bundle.version;
  record.groups = bundle.groups;
  record.placeholder = false;
  record.staging.clear();
  record.obsolete = false;
  return record;
}

}  // namespace

bool ApplicationWorkspaceLinux::applicationIsInstalled(const std::string& identifier) {
  std::optional<AppRecord> record;
  if (!core_.prepare(nullptr) || !core_.find(identifier, &record, nullptr)) return false;
  // A record alone is no installation: its bundle may have been removed by hand.
  return (record && core_.hasBundle(*record)) || core_.builtInApp(identifier) != nullptr;
}

std::optional<BundleProxy> ApplicationWorkspaceLinux::bundleProxyForIdentifier(
    const std::string& identifier) {
  std::optional<AppRecord> record;
  if (!core_.prepare(nullptr) || !core_.find(identifier, &record, nullptr)) return std::nullopt;
  const BundleDescription* app = core_.effectiveBuiltIn(identifier, record);
  if (app == nullptr) {
    if (!record) return std::nullopt;
    return core_.proxyOf(*record);
  }
  // Should it fail, the proxy has no data container, and the caller says so.
  if (!core_.isReadOnly()) core_.giveContainers(*app, &record, nullptr);
  return core_.proxyOf(*app, record);
}

bool ApplicationWorkspaceLinux::installApplication(const Path& staging,
                                                   const PlistDictionary& options, Error* error,
                                                   const InstallProgressCallback& progress) {
  Request request;
  // Always kept: the callback is told of it even when the caller wants no Error.
  Error failure;
  if (parse(staging, options, &request, &failure) && core_.prepareToWrite(&failure) &&
      !core_.isBlocked(request.identifier, &failure) && install(request, &failure)) {
    return true;
  }
  if (progress) progress(RegistryReport(failure));
  // What was taken is not given back, and a caller that is told of a failure may drop the package
  // with the store metadata that is still in it.
  if (!request.placeholder && core_.hasTakenOver(request.identifier, request.staging)) return true;
  return SetError(error, std::move(failure));
}

bool ApplicationWorkspaceLinux::packageIsObsolete(const std::string& identifier,
                                                  const std::optional<std::string>& version) {
  if (version) {
    const BundleDescription* builtIn = core_.builtInApp(identifier);
    return builtIn != nullptr && IsNewerVersion(builtIn->version, *version);
  }
  std::optional<AppRecord> known;
  return core_.prepare(nullptr) && core_.find(identifier, &known, nullptr) && known &&
         !known->placeholder && known->obsolete;
}

bool ApplicationWorkspaceLinux::parse(const Path& staging, const PlistDictionary& options,
                                      Request* request, Error* error) {
  const std::string* identifier = options.findString(RXBundleIdentifierKey);
  const std::string* type = options.findString(RXPackageTypeKey);
  const PlistValue* installType = options.find(RXInstallTypeKey);
  const PlistValue* skip = options.find(RXSkipBlacklistKey);
  const PlistValue* metadata = options.find(RXLorvixMetadataKey);
  // Absent options are judged below, all in one place.
  const bool isPlaceholder = type != nullptr && *type == RXPackageTypePlaceholder;
  if (!staging.string().starts_with('/') || identifier == nullptr || identifier->empty()) {
    return Fail(Code::invalidOptions, "An install request names no package or identifier", error);
  }
  if (type == nullptr || (!isPlaceholder && *type != RXPackageTypeCustomer) ||
      installType == nullptr || installType->signedInteger() == nullptr ||
      *installType->signedInteger() < 0 || (metadata != nullptr && metadata->data() == nullptr)) {
    return Fail(Code::invalidOptions, "The install request's options cannot be understood", error);
  }
  const bool skips = skip != nullptr && skip->boolean() != nullptr && *skip->boolean();
  *request = {staging, *identifier, isPlaceholder, skips,
              metadata != nullptr ? metadata->data() : nullptr};
  return true;
}

bool ApplicationWorkspaceLinux::install(const Request& request, Error* error) {
  // Without the built-in apps nobody can say whether a package is obsolete.
  if (core_.builtInApps(error) == nullptr) return false;
  return request.placeholder ? installPlaceholder(request, error) : installCustomer(request, error);
}

// The checks that every bundle must pass, whatever the package.
bool ApplicationWorkspaceLinux::checkBundle(const Request& request, const BundleDescription& bundle,
                                            Error* error) {
  std::optional<AppRecord> known;
  if (!core_.find(bundle.identifier, &known, error)) return false;
  const bool isApp = bundle.type == BundleTypeApp;
  // Neither kind may take over an identifier of the other: the data container goes with it.
  if ((known && known->type != bundle.type && core_.hasBundle(*known)) ||
      (!isApp && core_.builtInApp(bundle.identifier) != nullptr)) {
    return Fail(Code::identifierMismatch, bundle.identifier + " belongs to another kind of bundle",
                error);
  }
  if (!request.skipBlacklist && core_.isBlacklisted(bundle.identifier)) {
    return Fail(Code::blacklistedIdentifier, bundle.identifier + " is never installed", error);
  }
  return !core_.isBlocked(bundle.identifier, error);
}

bool ApplicationWorkspaceLinux::installPlaceholder(const Request& request, Error* error) {
  std::optional<AppRecord> known;
  if (!core_.find(request.identifier, &known, error)) return false;
  // The record of a placeholder whose bundle is gone is no obstacle.
  const bool isThere = known && core_.hasBundle(*known);
  if (!IsRealDirectory(request.staging)) {
    // An interrupted request took it over already.
    if (isThere && known->placeholder && known->staging == request.staging.string()) {
      return core_.flush(*known, request.staging, error);
    }
    return Fail(Code::noBundle, request.staging.string() + ": is no placeholder bundle", error);
  }
  if (request.staging.pathExtension() != "app") {
    return Fail(Code::noBundle, request.staging.string() + ": is no placeholder bundle", error);
  }
  BundleDescription bundle;
  if (!core_.readBundle(request.staging, BundleTypeApp, &bundle, error)) return false;
  if (bundle.identifier != request.identifier) {
    return Fail(Code::identifierMismatch,
                "The placeholder for " + request.identifier + " is " + bundle.identifier, error);
  }
  if (!checkBundle(request, bundle, error)) return false;
  if ((isThere && !known->placeholder) || core_.builtInApp(request.identifier) != nullptr) {
    return Fail(Code::fullBundleInstalled, request.identifier + " is installed in full", error);
  }
  return runPlaceholder(request, bundle, known, error);
}

bool ApplicationWorkspaceLinux::runPlaceholder(const Request& request,
                                               const BundleDescription& bundle,
                                               const std::optional<AppRecord>& known,
                                               Error* error) {
  InstallPlan plan = core_.newPlan();
  AppRecord record = RecordFor(bundle, known);
  record.placeholder = true;
  // A placeholder claims no groups: the app itself will.
  record.groups.clear();
  record.staging = request.staging.string();
  if (!plan.giveDataContainer(&record, error) || !plan.moveBundle(&record, bundle.path, error)) {
    return false;
  }
  plan.markPlaceholder(record);
  if (request.metadata != nullptr) {
    plan.writeMetadata(record, std::string(request.metadata->begin(), request.metadata->end()));
  }
  plan.setRecord(record);
  return core_.run(plan, error);
}

bool ApplicationWorkspaceLinux::installCustomer(const Request& request, Error* error) {
  PackageContents package;
  if (!core_.inspectPackage(request.staging, &package, error)) return false;
  if (package.bundles.empty()) {
    std::optional<AppRecord> known;
    if (!core_.find(request.identifier, &known, error)) return false;
    // A request that is repeated, whichever package satisfied it: of two containers of one app the
    // second was installed from, and the first is taken up again for what was left in it.
    if (known && !known->placeholder && (known->obsolete || core_.hasBundle(*known))) {
      return repeat(request, package, *known, error);
    }
    return Fail(Code::noBundle, request.staging.string() + ": holds no bundle in \"Payload\"",
                error);
  }
  if (!checkIdentifiers(request, package, error)) return false;
  const auto requested = std::find_if(
      package.bundles.begin(), package.bundles.end(),
      [&](const BundleDescription& bundle) { return bundle.identifier == request.identifier; });
  if (packageIsObsolete(request.identifier, requested->version)) {
    return discardObsolete(request, package, error);
  }
  return installBundles(request, package, error);
}

// An app must be the requested one, and so must a plug-in without an app; a plug-in beside an
// app must not. Hence exactly one bundle is the requested one.
bool ApplicationWorkspaceLinux::checkIdentifiers(const Request& request,
                                                 const PackageContents& package, Error* error) {
  const bool hasApp =
      std::any_of(package.bundles.begin(), package.bundles.end(),
                  [](const BundleDescription& bundle) { return bundle.type == BundleTypeApp; });
  std::set<std::string> seen;
  for (const BundleDescription& bundle : package.bundles) {
    const bool isRequested = bundle.identifier == request.identifier;
    const bool mustBeRequested = !hasApp || bundle.type == BundleTypeApp;
    if (isRequested != mustBeRequested || !seen.insert(bundle.identifier).second) {
      return Fail(Code::identifierMismatch,
                  bundle.path.string() + ": " + bundle.identifier +
                      " may not be in a package for " + request.identifier,
                  error);
    }
    if (!checkBundle(request, bundle, error)) return false;
  }
  return true;
}

bool ApplicationWorkspaceLinux::installBundles(const Request& request,
                                               const PackageContents& package, Error* error) {
  InstallPlan plan = core_.newPlan();
  for (const BundleDescription& bundle : package.bundles) {
    std::optional<AppRecord> known;
    if (!core_.find(bundle.identifier, &known, error)) return false;
    AppRecord record = RecordFor(bundle, known);
    if (!plan.giveDataContainer(&record, error) || !plan.giveGroupContainers(record, error) ||
        !plan.moveBundle(&record, bundle.path, error)) {
      return false;
    }
    if (bundle.identifier == request.identifier) {
      record.staging = request.staging.string();
      for (const std::string& name : package.metadata) {
        plan.moveMetadata(record, request.staging.child(name));
      }
    }
    plan.setRecord(record);
  }
  // The staging directory belongs to the request, not to a record that was changed.
  AppRecord owner;
  owner.identifier = request.identifier;
  plan.removeStaging(owner, request.staging);
  return core_.run(plan, error);
}

// The record remembers the answer, for a request that is repeated after an interruption.
bool ApplicationWorkspaceLinux::discardObsolete(const Request& request,
                                                const PackageContents& package, Error* error) {
  std::optional<AppRecord> known;
  if (!core_.find(request.identifier, &known, error)) return false;
  AppRecord record = known.value_or(AppRecord{});
  record.identifier = request.identifier;
  // Only apps are built in.
  if (!known) record.type = BundleTypeApp;
  record.staging = request.staging.string();
  record.obsolete = true;
  InstallPlan plan = core_.newPlan();
  if (!plan.giveDataContainer(&record, error)) return false;
  plan.setRecord(record);
  for (const BundleDescription& bundle : package.bundles) plan.removeTree(record, bundle.path);
  for (const std::string& name : package.metadata) {
    plan.removeTree(record, request.staging.child(name));
  }
  plan.removeStaging(record, request.staging);
  if (!core_.run(plan, error)) return false;
  return RefuseAsObsolete(request.identifier, error);
}

// Store metadata that came after its bundle follows it, unless the name is taken.
bool ApplicationWorkspaceLinux::repeat(const Request& request, const PackageContents& package,
                                       const AppRecord& known, Error* error) {
  // What the first request changed may not be stored yet, and this answer says that it is.
  if (!core_.flush(known, request.staging, error)) return false;
  if (package.isPresent) {
    InstallPlan plan = core_.newPlan();
    for (const std::string& name : package.metadata) {
      const Path item = request.staging.child(name);
      if (known.obsolete) {
        plan.removeTree(known, item);
      } else if (!core_.containerHolds(known, name)) {
        plan.moveMetadata(known, item);
      }
    }
    plan.removeStaging(known, request.staging);
    if (!core_.run(plan, error)) return false;
  }
  return !known.obsolete || RefuseAsObsolete(request.identifier, error);
}

}  // namespace quorvel::onlinux
