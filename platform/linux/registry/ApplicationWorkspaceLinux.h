// The application registry's requests and lookups.
#pragma once

#include <optional>
#include <string>

#include "platform/ApplicationRegistry.h"
#include "platform/linux/registry/RegistryCore.h"

namespace quorvel::onlinux {

class ApplicationWorkspaceLinux final : public ApplicationWorkspace {
 public:
  explicit ApplicationWorkspaceLinux(RegistryCore& core) : core_(core) {}

  bool applicationIsInstalled(const std::string& identifier) override;
  std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier) override;
  bool installApplication(const Path& staging, const PlistDictionary& options, Error* error,
                          const InstallProgressCallback& progress) override;

 private:
  // What the options ask for.
  struct Request {
    Path staging;
    std::string identifier;
    bool placeholder = false;
    bool skipBlacklist = false;
    const PlistData* metadata = nullptr;
  };

  static bool parse(const Path& staging, const PlistDictionary& options, Request* request,
                    Error* error);
  bool install(const Request& request, Error* error);
  bool installPlaceholder(const Request& request, Error* error);
  bool runPlaceholder(const Request& request, const BundleDescription& bundle,
                      const std::optional<AppRecord>& known, Error* error);
  bool installCustomer(const Request& request, Error* error);
  bool installBundles(const Request& request, const PackageContents& package, Error* error);
  bool discardObsolete(const Request& request, const PackageContents& package, Error* error);
  bool repeat(const Request& request, const PackageContents& package, const AppRecord& known,
              Error* error);
  bool checkIdentifiers(const Request& request, const PackageContents& package, Error* error);
  bool checkBundle(const Request& request, const BundleDescription& bundle, Error* error);

  RegistryCore& core_;
};

}  // namespace quorvel::onlinux
