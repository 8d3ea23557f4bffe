// The real application registry and installation service on a device's root, told to misbehave as
// they hardly ever do, and remembering what they were asked.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::tests {

class ScriptedWorkspace : public ApplicationWorkspace {
 public:
  // What the installs of an identifier tell, and do instead of installing.
  struct Script {
    std::vector<PlistDictionary> reports;  // to the callback, if the request has one
    std::optional<Error> failure;          // returned then, nothing touched; none: installs
  };
  struct Request {
    Path staging;
    PlistDictionary options;
    bool hadCallback = false;
  };

  // Scripts by identifier, for either type of package.
  std::map<std::string, Script> customerScripts;
  std::map<std::string, Script> placeholderScripts;
  // Identifiers whose lookups lack the data container, or the dictionary of group containers.
  std::set<std::string> withoutDataContainer;
  std::set<std::string> withoutGroupContainers;
  // What was asked, in order.
  std::vector<Request> requests;
  std::vector<std::string> proxyQueries;

  explicit ScriptedWorkspace(ApplicationWorkspace& real) : real_(real) {}

  bool applicationIsInstalled(const std::string& identifier) override {
    return real_.applicationIsInstalled(identifier);
  }

  std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier) override {
    proxyQueries.push_back(identifier);
    auto proxy = real_.bundleProxyForIdentifier(identifier);
    if (proxy && withoutDataContainer.contains(identifier)) proxy->dataContainerPath.reset();
    if (proxy && withoutGroupContainers.contains(identifier)) proxy->groupContainerPaths.reset();
    return proxy;
  }

  bool installApplication(const Path& staging, const PlistDictionary& options, Error* error,
                          const InstallProgressCallback& progress) override {
    requests.push_back({staging, options, static_cast<bool>(progress)});
    const bool isPlaceholder = *options.findString(RXPackageTypeKey) == RXPackageTypePlaceholder;
    const auto& scripts = isPlaceholder ? placeholderScripts : customerScripts;
    const auto script = scripts.find(*options.findString(RXBundleIdentifierKey));
    if (script != scripts.end()) {
      for (const PlistDictionary& report : script->second.reports) {
        if (progress) progress(report);
      }
      if (script->second.failure) return SetError(error, *script->second.failure);
    }
    return real_.installApplication(staging, options, error, progress);
  }

  bool packageIsObsolete(const std::string& identifier,
                         const std::optional<std::string>& version) override {
    return real_.packageIsObsolete(identifier, version);
  }

 private:
  ApplicationWorkspace& real_;
};

class ScriptedInstallationService : public InstallationService {
 public:
  // Done instead of the update of the containers' protection, if there is one.
  std::function<int()> insteadOfDataProtection;
  // What was asked, in order, refused requests included.
  std::vector<PlistDictionary> dataProtectionRequests;
  bool everyReservedArgumentWasNull = true;

  explicit ScriptedInstallationService(InstallationService& real) : real_(real) {}

  int QuorvelRegisterSafeHarborForContainerType(const std::string& path,
                                                const std::string& identifier, int containerType,
                                                const PlistDictionary* options) override {
    everyReservedArgumentWasNull = everyReservedArgumentWasNull && options == nullptr;
    return real_.QuorvelRegisterSafeHarborForContainerType(path, identifier, containerType,
                                                           options);
  }

  int QuorvelUpdateContainerDataProtectionForMigratorOnly(const PlistDictionary& options) override {
    dataProtectionRequests.push_back(options);
    if (insteadOfDataProtection) return insteadOfDataProtection();
    return real_.QuorvelUpdateContainerDataProtectionForMigratorOnly(options);
  }

 private:
  InstallationService& real_;
};

}  // namespace quorvel::tests
