// The application registry's requests and lookups.
//
// A request passes three stations: parse() understands the options, the checks refuse what may not
// be installed before anything is touched, and a plan (InstallPlan.h) carries out the rest. What
// the callers may rely on is said in platform/ApplicationRegistry.h.
#pragma once

#include <optional>
#include <string>

#include "platform/ApplicationRegistry.h"
#include "platform/linux/registry/RegistryCore.h"

namespace quorvel::onlinux {

// One thread at a time, as the core; nothing is kept between two calls.
class ApplicationWorkspaceLinux final : public ApplicationWorkspace {
 public:
  explicit ApplicationWorkspaceLinux(RegistryCore& core) : core_(core) {}

  bool applicationIsInstalled(const std::string& identifier) override;
  std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier) override;
  bool installApplication(const Path& staging, const PlistDictionary& options, Error* error,
                          const InstallProgressCallback& progress) override;
  bool packageIsObsolete(const std::string& identifier,
                         const std::optional<std::string>& version) override;

 private:
  // What the options ask for.
  struct Request {
    Path staging;
    std::string identifier;
    bool placeholder = false;
    bool skipBlacklist = false;
    // The options' own; they outlive the request.
    const PlistData* metadata = nullptr;
  };

  // False with an Error when the options cannot be understood. Touches nothing.
  static bool parse(const Path& staging, const PlistDictionary& options, Request* request,
                    Error* error);
  // The request without its report: one placeholder, or the bundles of a customer package.
  bool install(const Request& request, Error* error);
  // Refused where the app is installed in full; repeated requests succeed.
  bool installPlaceholder(const Request& request, Error* error);
  // Carries out a placeholder that was found to be in order.
  bool runPlaceholder(const Request& request, const BundleDescription& bundle,
                      const std::optional<AppRecord>& known, Error* error);
  // Looks at the package first; what is refused leaves it as it is.
  bool installCustomer(const Request& request, Error* error);
  // All bundles of the package in one plan: either all are installed, or a later run goes on.
  bool installBundles(const Request& request, const PackageContents& package, Error* error);
  // The package's app is older than what is built in: ends as a failure, with the package gone.
  bool discardObsolete(const Request& request, const PackageContents& package, Error* error);
  // A package without bundles whose request was satisfied before.
  bool repeat(const Request& request, const PackageContents& package, const AppRecord& known,
              Error* error);
  // Whether every bundle may be in a package for the requested identifier, and be installed.
  bool checkIdentifiers(const Request& request, const PackageContents& package, Error* error);
  // The rules for one bundle, whatever it is in: its kind, the blacklist, open intents.
  bool checkBundle(const Request& request, const BundleDescription& bundle, Error* error);

  RegistryCore& core_;
};

}  // namespace quorvel::onlinux
