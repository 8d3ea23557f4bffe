// "registry" shows the registry's records, "register" adds one.
#include "host/Commands.h"
#include "host/HostServices.h"
#include "host/RegistryRecords.h"
#include "host/console/DeviceRoot.h"
#include "host/console/ExitCode.h"
#include "host/console/Json.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

using onlinux::RegistrySnapshot;

Json GroupsAsJson(const BundleProxy& bundle) {
  // "null" is not "{}": the registry could not tell.
  if (!bundle.groupContainerPaths) return nullptr;
  Json groups = Json::object();
  for (const auto& [identifier, path] : *bundle.groupContainerPaths) {
    groups[identifier] = path.string();
  }
  return groups;
}

std::string AsJson(const RegistrySnapshot& registry) {
  Json bundles = Json::array();
  for (const BundleProxy& bundle : registry.bundles) bundles.push_back(BundleAsJson(bundle));
  Json harbors = Json::array();
  for (const onlinux::SafeHarborRecord& harbor : registry.safeHarbors) {
    harbors.push_back(SafeHarborAsJson(harbor));
  }
  Json object;
  object["bundles"] = std::move(bundles);
  object["safeHarbors"] = std::move(harbors);
  object["dataProtectionUpdated"] = registry.dataProtectionUpdated;
  return JsonLine(object);
}

// A placeholder is told first: it has a bundle on disk as well, made up by the registry.
const char* StateOf(const BundleProxy& bundle) {
  if (bundle.isPlaceholder) return "placeholder";
  return bundle.foundBackingBundle ? "installed" : "no bundle";
}

// Everything from the registry is made printable: identifiers come from bundles that anybody may
// have made.
std::string AsText(const RegistrySnapshot& registry) {
  std::string text = registry.bundles.empty() ? "No bundles.\n" : "";
  const auto path = [&text](const char* label, const std::string& value) {
    text += std::string(2, ' ') + Padded(label, 8) + Printable(value) + "\n";
  };
  for (const BundleProxy& bundle : registry.bundles) {
    text += Printable(bundle.bundleIdentifier) + "  " + Printable(bundle.bundleType) + "  " +
            (bundle.bundleVersion.empty() ? "-" : Printable(bundle.bundleVersion)) + "  " +
            StateOf(bundle) + "\n";
    if (bundle.bundlePath) path("bundle", bundle.bundlePath->string());
    if (bundle.dataContainerPath) path("data", bundle.dataContainerPath->string());
    if (!bundle.groupContainerPaths) continue;
    for (const auto& [identifier, container] : *bundle.groupContainerPaths) {
      path("group", identifier + "  " + container.string());
    }
  }
  for (const onlinux::SafeHarborRecord& harbor : registry.safeHarbors) {
    text += "Safe harbor " + Printable(harbor.identifier) + "  type " +
            std::to_string(harbor.containerType) + "  " + Printable(harbor.path) + "\n";
  }
  return text + "Data protection: " + (registry.dataProtectionUpdated ? "" : "not ") + "updated\n";
}

// The reason for programs is one word for all failures of the registry: what differs is in the
// text.
int ReportFailure(const DeviceRoot& root, const Error& failure, const Options& options) {
  return ReportFatal({ExitFailed, root.printable() + ": " + Printable(failure.description()),
                      "Check the registry's files in the device tree", "registry-unusable"},
                     options.json);
}

}  // namespace

// Keys are in the order that the manual has them in.
Json BundleAsJson(const BundleProxy& bundle) {
  Json object;
  object["identifier"] = bundle.bundleIdentifier;
  object["bundleType"] = bundle.bundleType;
  object["version"] = bundle.bundleVersion.empty() ? Json(nullptr) : Json(bundle.bundleVersion);
  object["placeholder"] = bundle.isPlaceholder;
  object["foundBackingBundle"] = bundle.foundBackingBundle;
  object["bundlePath"] = JsonOrNull(bundle.bundlePath);
  object["bundleContainerPath"] = JsonOrNull(bundle.bundleContainerPath);
  object["dataContainerPath"] = JsonOrNull(bundle.dataContainerPath);
  object["groupContainers"] = GroupsAsJson(bundle);
  return object;
}

Json SafeHarborAsJson(const onlinux::SafeHarborRecord& harbor) {
  Json object;
  object["identifier"] = harbor.identifier;
  object["path"] = harbor.path;
  object["containerType"] = harbor.containerType;
  return object;
}

// Looks only, and takes no lock.
int RunRegistry(const Options& options) {
  FatalError error;
  DeviceRoot root;
  HostServices services(DeviceAccess::look);
  if (!root.openDevice(options.root, error) || !root.enter(ViewForLooking(root), error)) {
    return ReportFatal(error, options.json);
  }
  services.install();
  RegistrySnapshot registry;
  Error failure;
  if (!services.registry().snapshot(&registry, &failure)) {
    return ReportFailure(root, failure, options);
  }
  return WriteResult(options.json ? AsJson(registry) : AsText(registry), ExitSucceeded);
}

int RunRegister(const Options& options) {
  FatalError error;
  DeviceRoot root;
  HostServices services(DeviceAccess::change);
  // A record is a change: nobody else may be at work.
  if (!root.openDevice(options.root, error) || !root.lock(error) ||
      !root.enter(DeviceRoot::View::writable, error)) {
    return ReportFatal(error, options.json);
  }
  services.install();
  Error failure;
  if (!services.registry().registerIdentifier(options.identifier, &failure)) {
    return ReportFailure(root, failure, options);
  }
  if (!options.json) return WriteResult("Registered " + options.identifier + ".\n", ExitSucceeded);
  Json object;
  object["succeeded"] = true;
  object["identifier"] = options.identifier;
  return WriteResult(JsonLine(object), ExitSucceeded);
}

}  // namespace quorvel::host
