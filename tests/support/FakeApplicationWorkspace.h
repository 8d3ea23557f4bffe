// The application registry in memory: records live as long as the object, containers are real
// directories below a root, laid out as on a device. It obeys the contract of the real registry
// (ApplicationRegistryContractTest runs over both), and can be told to misbehave as the real one
// hardly ever does.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/ApplicationRegistry.h"
#include "platform/BundleReader.h"

namespace quorvel::tests {

class FakeApplicationWorkspace : public ApplicationWorkspace {
 public:
  // What the next installs of an identifier do instead of installing.
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
  // Identifiers whose lookups come back without a record, without a data container, without the
  // dictionary of group containers.
  std::set<std::string> withoutProxy;
  std::set<std::string> withoutDataContainer;
  std::set<std::string> withoutGroupContainers;

  // What was asked, in order.
  std::vector<Request> requests;
  std::vector<std::string> installedQueries;
  std::vector<std::string> proxyQueries;

  // `root` plays the device's root directory. Both must outlive the object.
  FakeApplicationWorkspace(std::string root, BundleReader& bundles,
                           std::set<std::string> blacklist = {})
      : root_(std::move(root)), bundles_(bundles), blacklist_(std::move(blacklist)) {}

  // A record with no bundle behind it.
  bool registerIdentifier(const std::string& identifier) {
    if (records_.contains(identifier)) return true;
    BundleProxy& record = records_[identifier].proxy;
    record.bundleIdentifier = identifier;
    record.bundleType = "VPNPlugin";
    record.groupContainerPaths.emplace();
    record.dataContainerPath = newContainer("Data");
    return true;
  }

  // All records, built-in apps included, sorted by identifier.
  std::vector<BundleProxy> snapshot() {
    std::map<std::string, BundleProxy> all;
    for (const auto& [identifier, record] : records_) all[identifier] = record.proxy;
    for (const auto& [identifier, app] : builtInApps()) {
      if (!recordCountsOver(identifier, app)) all[identifier] = builtInProxy(identifier, app);
    }
    std::vector<BundleProxy> result;
    for (auto& [identifier, proxy] : all) result.push_back(std::move(proxy));
    return result;
  }

  bool applicationIsInstalled(const std::string& identifier) override {
    installedQueries.push_back(identifier);
    if (builtInApps().contains(identifier)) return true;
    const auto record = records_.find(identifier);
    return record != records_.end() && record->second.proxy.foundBackingBundle;
  }

  std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier) override {
    proxyQueries.push_back(identifier);
    if (withoutProxy.contains(identifier)) return std::nullopt;
    BundleProxy proxy;
    const auto apps = builtInApps();
    const auto app = apps.find(identifier);
    if (app != apps.end() && !recordCountsOver(identifier, app->second)) {
      if (!records_.contains(identifier)) registerIdentifier(identifier);
      for (const std::string& group : app->second.groups) groupContainer(group);
      proxy = builtInProxy(identifier, app->second);
    } else if (const auto record = records_.find(identifier); record != records_.end()) {
      proxy = record->second.proxy;
    } else {
      return std::nullopt;
    }
    if (withoutDataContainer.contains(identifier)) proxy.dataContainerPath.reset();
    if (withoutGroupContainers.contains(identifier)) proxy.groupContainerPaths.reset();
    return proxy;
  }

  bool installApplication(const Path& staging, const PlistDictionary& options, Error* error,
                          const InstallProgressCallback& progress) override {
    requests.push_back({staging, options, static_cast<bool>(progress)});
    const std::string* identifier = options.findString(RXBundleIdentifierKey);
    const std::string* type = options.findString(RXPackageTypeKey);
    const bool placeholder = type != nullptr && *type == RXPackageTypePlaceholder;
    const PlistValue* installType = options.find(RXInstallTypeKey);
    if (identifier == nullptr || type == nullptr || installType == nullptr ||
        installType->signedInteger() == nullptr ||
        (!placeholder && *type != RXPackageTypeCustomer)) {
      return refuse("InvalidOptions", "the request is not complete", error, progress);
    }
    const auto& scripts = placeholder ? placeholderScripts : customerScripts;
    if (const auto script = scripts.find(*identifier); script != scripts.end()) {
      for (const PlistDictionary& report : script->second.reports) {
        if (progress) progress(report);
      }
      if (script->second.failure) return SetError(error, *script->second.failure);
    }
    return placeholder ? installPlaceholder(staging, *identifier, options, error, progress)
                       : installCustomer(staging, *identifier, options, error, progress);
  }

 private:
  struct Record {
    BundleProxy proxy;
    Path satisfiedFrom;        // the staging directory of the last satisfied request
    bool wasObsolete = false;  // it was satisfied by "ApplicationAlreadyInstalled"
  };
  struct Bundle {
    Path path;
    std::string type;
    std::string identifier;
    std::string version;
    std::vector<std::string> groups;
  };
  using Apps = std::map<std::string, Bundle>;

  static std::filesystem::path native(const Path& path) {
    return std::filesystem::path(path.fileSystemRepresentation().c_str());
  }

  static bool isDirectory(const Path& path) {
    std::error_code ignored;
    return std::filesystem::is_directory(std::filesystem::symlink_status(native(path), ignored));
  }

  // Moves, also to another file system.
  static void move(const Path& from, const Path& to) {
    std::error_code failure;
    std::filesystem::rename(native(from), native(to), failure);
    if (!failure) return;
    std::filesystem::copy(
        native(from), native(to),
        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
    std::filesystem::remove_all(native(from));
  }

  static void removeIfEmpty(const Path& directory) {
    std::error_code ignored;
    if (isDirectory(directory)) std::filesystem::remove(native(directory), ignored);
  }

  bool refuse(const char* name, const std::string& text, Error* error,
              const InstallProgressCallback& progress) {
    if (progress) {
      progress({{"Error", PlistValue(name)},
                {"ErrorDescription", PlistValue(text)},
                {"ErrorDetail", PlistValue(name)}});
    }
    return SetError(error,
                    Error(PlatformErrorDomain, 1, {{LocalizedDescriptionKey, PlistValue(text)}}));
  }

  Path newContainer(const char* kind) {
    std::string number = std::to_string(++containers_);
    number.insert(0, 12 - number.size(), '0');
    const Path path = Path::directory(root_ + "/private/var/mobile/Containers/" + kind +
                                      "/00000000-0000-4000-8000-" + number);
    std::filesystem::create_directories(native(path));
    return path;
  }

  const Path& groupContainer(const std::string& group) {
    if (!groups_.contains(group)) groups_[group] = newContainer("Group");
    return groups_[group];
  }

  // None when the info dictionary cannot be read or names no identifier.
  std::optional<Bundle> readBundle(const Path& path) {
    const auto bundle = bundles_.open(path);
    if (bundle == nullptr || bundle->identifier() == nullptr) return std::nullopt;
    Bundle result;
    result.path = path;
    result.type = path.pathExtension() == "vpnplugin" ? "VPNPlugin" : "App";
    result.identifier = *bundle->identifier();
    const PlistDictionary* info = bundle->infoDictionary();
    if (info == nullptr) return std::nullopt;
    if (const auto* version = info->findString(PKBundleVersionKey)) result.version = *version;
    const PlistValue* groups = info->find(PKApplicationGroupsKey);
    if (groups != nullptr && groups->array() != nullptr) {
      for (const PlistValue& group : *groups->array()) {
        if (group.string() != nullptr) result.groups.push_back(*group.string());
      }
    }
    return result;
  }

  static std::vector<Path> bundlesIn(const Path& directory) {
    std::vector<Path> found;
    std::error_code ignored;
    if (!isDirectory(directory)) return found;
    for (const auto& entry : std::filesystem::directory_iterator(native(directory), ignored)) {
      const Path path = directory.childDirectory(
          StringFromFileSystemRepresentation(entry.path().filename().native()));
      const std::string_view extension = path.pathExtension();
      if (isDirectory(path) && (extension == "app" || extension == "vpnplugin")) {
        found.push_back(path);
      }
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  const Apps& builtInApps() {
    if (builtIn_) return *builtIn_;
    builtIn_.emplace();
    for (const Path& path : bundlesIn(Path::directory(root_ + "/Applications"))) {
      if (path.pathExtension() != "app") continue;
      if (auto app = readBundle(path)) builtIn_->emplace(app->identifier, std::move(*app));
    }
    return *builtIn_;
  }

  // Numbers between dots; unknown versions are not newer than anything.
  static bool isNewer(std::string_view left, std::string_view right) {
    if (left.empty() || right.empty()) return false;
    while (!left.empty() || !right.empty()) {
      const auto next = [](std::string_view& text) {
        const auto dot = std::min(text.find('.'), text.size());
        const std::string part(text.substr(0, dot));
        text.remove_prefix(std::min(dot + 1, text.size()));
        return std::strtoull(part.c_str(), nullptr, 10);
      };
      const auto a = next(left);
      const auto b = next(right);
      if (a != b) return a > b;
    }
    return false;
  }

  bool recordCountsOver(const std::string& identifier, const Bundle& builtIn) const {
    const auto record = records_.find(identifier);
    return record != records_.end() && record->second.proxy.foundBackingBundle &&
           !isNewer(builtIn.version, record->second.proxy.bundleVersion);
  }

  BundleProxy builtInProxy(const std::string& identifier, const Bundle& app) {
    BundleProxy proxy;
    proxy.bundleIdentifier = identifier;
    proxy.bundleType = "App";
    proxy.bundleVersion = app.version;
    proxy.bundlePath = app.path;
    proxy.foundBackingBundle = true;
    proxy.groupContainerPaths.emplace();
    for (const std::string& group : app.groups) {
      if (groups_.contains(group)) (*proxy.groupContainerPaths)[group] = groups_[group];
    }
    const auto record = records_.find(identifier);
    if (record != records_.end()) proxy.dataContainerPath = record->second.proxy.dataContainerPath;
    return proxy;
  }

  void record(const Bundle& bundle, const Path& container, bool placeholder) {
    BundleProxy& proxy = records_[bundle.identifier].proxy;
    const auto oldContainer = proxy.bundleContainerPath;
    proxy.bundleIdentifier = bundle.identifier;
    proxy.bundleType = bundle.type;
    proxy.bundleVersion = bundle.version;
    proxy.bundleContainerPath = container;
    proxy.bundlePath = container.childDirectory(bundle.path.lastPathComponent());
    proxy.foundBackingBundle = true;
    proxy.isPlaceholder = placeholder;
    if (!proxy.dataContainerPath) proxy.dataContainerPath = newContainer("Data");
    proxy.groupContainerPaths.emplace();
    for (const std::string& group : bundle.groups) {
      if (placeholder) break;
      (*proxy.groupContainerPaths)[group] = groupContainer(group);
    }
    if (oldContainer) std::filesystem::remove_all(native(*oldContainer));
  }

  bool installPlaceholder(const Path& staging, const std::string& identifier,
                          const PlistDictionary& options, Error* error,
                          const InstallProgressCallback& progress) {
    auto bundle = isDirectory(staging) ? readBundle(staging) : std::nullopt;
    const auto known = records_.find(identifier);
    if (!bundle || bundle->identifier != identifier) {
      if (!isDirectory(staging) && known != records_.end() &&
          known->second.satisfiedFrom == staging) {
        return true;
      }
      return refuse("NoBundleInPackage", "no placeholder of the identifier", error, progress);
    }
    if (isBlacklisted(identifier, options)) {
      return refuse("BlacklistedIdentifier", "the identifier is blacklisted", error, progress);
    }
    if (builtInApps().contains(identifier) ||
        (known != records_.end() && known->second.proxy.foundBackingBundle &&
         !known->second.proxy.isPlaceholder)) {
      return refuse("BundleIsInstalled", "a full bundle is installed", error, progress);
    }
    const Path container = newContainer("Bundle");
    move(staging, container.childDirectory(staging.lastPathComponent()));
    record(*bundle, container, true);
    const PlistValue* metadata = options.find(RXLorvixMetadataKey);
    if (metadata != nullptr && metadata->data() != nullptr) {
      std::ofstream file(native(container.child("LorvixMetadata.plist")), std::ios::binary);
      for (const std::uint8_t byte : *metadata->data()) file.put(static_cast<char>(byte));
    }
    records_[identifier].satisfiedFrom = staging;
    return true;
  }

  bool isBlacklisted(const std::string& identifier, const PlistDictionary& options) const {
    const PlistValue* skip = options.find(RXSkipBlacklistKey);
    if (skip != nullptr && skip->boolean() != nullptr && *skip->boolean()) return false;
    return blacklist_.contains(identifier);
  }

  // The bundles of "Payload" as they may be installed; the name of the refusal otherwise.
  const char* inspect(const Path& payload, const std::string& identifier,
                      const PlistDictionary& options, std::vector<Bundle>* bundles) {
    bool hasApp = false;
    for (const Path& path : bundlesIn(payload)) {
      auto bundle = readBundle(path);
      if (!bundle) return "UnreadableInfoDictionary";
      hasApp = hasApp || bundle->type == "App";
      bundles->push_back(std::move(*bundle));
    }
    std::set<std::string> seen;
    for (const Bundle& bundle : *bundles) {
      const bool requested = bundle.identifier == identifier;
      const bool mustBeRequested = bundle.type == "App" || !hasApp;
      if (requested != mustBeRequested || !seen.insert(bundle.identifier).second) {
        return "BundleIdentifierMismatch";
      }
      const auto known = records_.find(bundle.identifier);
      if ((known != records_.end() && known->second.proxy.foundBackingBundle &&
           known->second.proxy.bundleType != bundle.type) ||
          (bundle.type != "App" && builtInApps().contains(bundle.identifier))) {
        return "BundleIdentifierMismatch";
      }
      if (isBlacklisted(bundle.identifier, options)) return "BlacklistedIdentifier";
    }
    return nullptr;
  }

  static std::vector<Path> metadataIn(const Path& staging) {
    std::vector<Path> found;
    for (const char* name :
         {"Manifest.plist", "LorvixArtwork", "LorvixMetadata.plist", "GeoJSON"}) {
      const Path item = staging.child(name);
      if (std::filesystem::exists(std::filesystem::symlink_status(native(item)))) {
        found.push_back(item);
      }
    }
    return found;
  }

  bool installCustomer(const Path& staging, const std::string& identifier,
                       const PlistDictionary& options, Error* error,
                       const InstallProgressCallback& progress) {
    const Path payload = staging.childDirectory("Payload");
    std::vector<Bundle> bundles;
    if (const char* name = inspect(payload, identifier, options, &bundles)) {
      return refuse(name, "the package cannot be installed", error, progress);
    }
    const auto known = records_.find(identifier);
    const bool again =
        known != records_.end() &&
        (known->second.satisfiedFrom == staging ||
         (known->second.proxy.foundBackingBundle && !known->second.proxy.isPlaceholder));
    if (bundles.empty() && !again) {
      return refuse("NoBundleInPackage", "no bundle in the package", error, progress);
    }
    const auto apps = builtInApps();
    const auto builtIn = apps.find(identifier);
    const auto requested = std::find_if(bundles.begin(), bundles.end(), [&](const Bundle& bundle) {
      return bundle.identifier == identifier;
    });
    const bool obsolete =
        bundles.empty()
            ? known->second.wasObsolete
            : builtIn != apps.end() && isNewer(builtIn->second.version, requested->version);
    if (obsolete) {
      for (const Bundle& bundle : bundles) std::filesystem::remove_all(native(bundle.path));
      for (const Path& item : metadataIn(staging)) std::filesystem::remove_all(native(item));
      registerIdentifier(identifier);
    } else {
      take(staging, identifier, bundles);
    }
    records_[identifier].satisfiedFrom = staging;
    records_[identifier].wasObsolete = obsolete;
    removeIfEmpty(payload);
    removeIfEmpty(staging);
    if (!obsolete) return true;
    return refuse(RXErrorApplicationAlreadyInstalled, "a newer copy is built in", error, progress);
  }

  void take(const Path& staging, const std::string& identifier,
            const std::vector<Bundle>& bundles) {
    for (const Bundle& bundle : bundles) {
      const Path container = newContainer("Bundle");
      move(bundle.path, container.childDirectory(bundle.path.lastPathComponent()));
      record(bundle, container, false);
    }
    const auto& container = records_[identifier].proxy.bundleContainerPath;
    for (const Path& item : metadataIn(staging)) {
      if (container) move(item, container->child(item.lastPathComponent()));
    }
  }

  std::string root_;
  BundleReader& bundles_;
  std::set<std::string> blacklist_;
  std::optional<Apps> builtIn_;
  std::map<std::string, Record> records_;
  std::map<std::string, Path> groups_;
  int containers_ = 0;
};

}  // namespace quorvel::tests
