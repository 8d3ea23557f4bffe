// The service's configuration of a device.
#include <array>
#include <initializer_list>
#include <set>

#include "host/console/UsageComplaint.h"
#include "platform/linux/plist/PreferencesPlist.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "tools/quorvelctl/CtlCommand.h"
#include "tools/quorvelctl/CtlOptions.h"
#include "tools/quorvelctl/CtlSession.h"

namespace quorvel::ctl {

namespace {

QVGlobalConfiguration& Configuration() { return QVGlobalConfiguration::sharedInstance(); }

// A list of what a range of paths or texts holds.
template <class Range>
Json ListOf(const Range& range) {
  Json list = Json::array();
  for (const auto& element : range) {
    if constexpr (std::is_same_v<std::decay_t<decltype(element)>, Path>) {
      list.push_back(element.string());
    } else {
      list.push_back(element);
    }
  }
  return list;
}

// Asks for nothing that creates a directory: those paths have a command of their own, which needs
// the right to change the device.
class ShowConfiguration final : public Command {
 public:
  explicit ShowConfiguration(CLI::App& /*parser*/) {}

  int run(Session& session) override {
    QVGlobalConfiguration& own = Configuration();
    Json object;
    object["preferences"] = {{"lowerInstallPriority", own.lowerInstallPriority()},
                             {"skipDeviceFamilyCheck", own.skipDeviceFamilyCheck()},
                             {"skipThinningCheck", own.skipThinningCheck()},
                             {"nSimultaneousInstallations", own.nSimultaneousInstallations()}};
    object["uid"] = own.uid();
    object["gid"] = own.gid();
    object["paths"] = paths(own);
    object["allFrameworksDirectories"] = ListOf(own.allFrameworksDirectories());
    object["appBundleMetadataItemNames"] = ListOf(own.appBundleMetadataItemNames());
    object["appUserDataItemNames"] = ListOf(own.appUserDataItemNames());
    object["installationBlacklist"] = ListOf(own.installationBlacklist());
    return session.finish(object);
  }

 private:
  static Json paths(QVGlobalConfiguration& own) {
    const std::pair<const char*, Path> named[] = {
        {"oldContainerPath", own.oldContainerPath()},
        {"oldInstallMapPath", own.oldInstallMapPath()},
        {"oldDataDirectoryPath", own.oldDataDirectoryPath()},
        {"oldLoggingPath", own.oldLoggingPath()},
        {"oldArchiveDirectory", own.oldArchiveDirectory()},
        {"dataDirectoryPath", own.dataDirectoryPath()},
        {"roleUserMigrationMarkerFilePath", own.roleUserMigrationMarkerFilePath()},
        {"coreServicesDirectory", own.coreServicesDirectory()},
        {"systemAppsDirectory", own.systemAppsDirectory()},
        {"internalAppsDirectory", own.internalAppsDirectory()},
        {"developerAppsDirectory", own.developerAppsDirectory()},
        {"factoryMountDirectory", own.factoryMountDirectory()},
        {"systemFrameworksRootDirectory", own.systemFrameworksRootDirectory()},
        {"internalFrameworksRootDirectory", own.internalFrameworksRootDirectory()},
        {"developerFrameworksRootDirectory", own.developerFrameworksRootDirectory()},
    };
    Json object;
    for (const auto& [name, path] : named) object[name] = path.string();
    return object;
  }
};

// Asking for these directories makes them, as it does in the service.
class Directories final : public Command {
 public:
  explicit Directories(CLI::App& /*parser*/) {}

  Access access() const override { return Access::changeDevice; }

  int run(Session& session) override {
    using Operation = Path (QVGlobalConfiguration::*)();
    static constexpr std::pair<const char*, Operation> named[] = {
        {"carrierBundlesDirectory", &QVGlobalConfiguration::carrierBundlesDirectory},
        {"stagingRoot", &QVGlobalConfiguration::stagingRoot},
        {"logDirectory", &QVGlobalConfiguration::logDirectory},
        {"dataDirectory", &QVGlobalConfiguration::dataDirectory},
        {"cachesDirectory", &QVGlobalConfiguration::cachesDirectory},
    };
    Json object;
    for (const auto& [name, make] : named) object[name] = (Configuration().*make)().string();
    // The operations tell of their failures in the log alone.
    return session.finish(object,
                          session.errorLines() == 0 ? host::ExitSucceeded : host::ExitFailed);
  }
};

class Catalog final : public Command {
 public:
  explicit Catalog(CLI::App& parser) {
    AddFlag(parser, "--rescan", rescan_, "Discard what was scanned and scan again");
    AddFlag(parser, "--verbose", verbose_, "Debug lines reach the log of --log, too");
  }

  int run(Session& session) override {
    QVGlobalConfiguration& own = Configuration();
    // The debug lines say which bundles were left out, and why.
    session.writeDetails(verbose_);
    if (rescan_) {
      own.reScanSystemApps();
      own.reScanCoreServicesApps();
      own.reScanInternalApps();
    }
    Json object;
    // Each directory once: the identifiers of all built-in apps are those of three of the maps.
    const auto system = own.systemAppBundleIDToInfoMap();
    const auto internal = own.internalAppBundleIDToInfoMap();
    object["systemApps"] = catalog(system.get());
    object["internalApps"] = catalog(internal.get());
    object["coreServicesApps"] = catalog(own.coreServicesAppBundleIDToInfoMap().get());
    const QVBundleMap images = own.diskImageAppBundleIDToInfoMap();
    object["diskImageApps"] = catalog(&images);
    object["diskImageMountPoints"] = ListOf(own.diskImageMountPoints());
    object["diskImageApplicationsDirectories"] = ListOf(own.diskImageApplicationsDirectories());
    object["builtInFrameworkBundleIDs"] = ListOf(own.builtInFrameworkBundleIDs());
    object["builtInApplicationBundleIDs"] =
        ListOf(identifiers({system.get(), internal.get(), &images}));
    object["leftOut"] = session.lines().leftOutBundles();
    const bool isWhole = session.lines().unlistedDirectories() == 0;
    return session.finish(object, isWhole ? host::ExitSucceeded : host::ExitFailed);
  }

 private:
  // Null when the directory does not exist or cannot be listed.
  static Json catalog(const QVBundleMap* map) {
    if (map == nullptr) return nullptr;
    Json object = Json::object();
    for (const auto& [identifier, info] : *map) AddMember(object, identifier, PlistAsJson(info));
    return object;
  }

  static std::set<std::string> identifiers(std::initializer_list<const QVBundleMap*> maps) {
    std::set<std::string> all;
    for (const QVBundleMap* map : maps) {
      if (map == nullptr) continue;
      for (const auto& [identifier, info] : *map) all.insert(identifier);
    }
    return all;
  }

  bool rescan_ = false;
  bool verbose_ = false;
};

constexpr const char* kUpdatedFlag = "haveUpdatedPluginContainersWithParentID";
constexpr const char* kModelFlag = "alternateThinningModelIdentifier";

class Flags final : public Command {
 public:
  explicit Flags(CLI::App& parser) {
    AddText(parser, "ACTION", action_, "get or set")
        ->required()
        ->check(host::OneOf({"get", "set"}));
    AddText(parser, "NAME", name_,
            "haveUpdatedPluginContainersWithParentID or alternateThinningModelIdentifier (get "
            "only); without it \"get\" shows both")
        ->check(host::OneOf({kUpdatedFlag, kModelFlag}));
    AddText(parser, "VALUE", value_, "For \"set\": true or false")
        ->check(host::OneOf({"true", "false"}));
  }

  std::string complaint() const override {
    // What is left over is told: it may have been meant for "set".
    if (!sets()) return value_.empty() ? "" : "there is no VALUE to give to \"get\"";
    if (name_.empty()) return "NAME is missing";
    if (name_ != kUpdatedFlag) return name_ + " cannot be set";
    return value_.empty() ? "VALUE is missing" : "";
  }
  Access access() const override { return sets() ? Access::changeDevice : Access::look; }

  int run(Session& session) override { return sets() ? set(session) : get(session); }

 private:
  bool sets() const { return action_ == "set"; }

  // With a name the exit code answers, too: 1 for false and for what is not there.
  int get(Session& session) const {
    Json object;
    object[kUpdatedFlag] = Configuration().haveUpdatedPluginContainersWithParentID();
    object[kModelFlag] = host::JsonOrNull(Configuration().alternateThinningModelIdentifier());
    if (name_.empty()) return session.finish(object);
    // One flag answers by the exit code as well.
    const Json value = object[name_];
    const bool yes = !value.is_null() && value != Json(false);
    return session.finish(
        {{name_, value}},
        session.json()
            ? ""
            : JsonAsText(value, [&](const std::string& text) { return session.shown(text); }),
        yes ? host::ExitSucceeded : host::ExitFailed);
  }

  int set(Session& session) const {
    const bool wanted = value_ == "true";
    Configuration().setHaveUpdatedPluginContainersWithParentID(wanted);
    // The operation does not say whether the value was stored: a store that has no pending
    // changes of its own does.
    onlinux::PreferencesPlist stored(onlinux::PreferencesDirectory());
    const auto found = stored.copyValue(UpdatedPluginContainersKey, QVPreferencesDomain,
                                        PreferencesScope::currentUserCurrentHost);
    const std::vector<std::string> setAside = session.preferencesSetAside();
    for (const std::string& file : setAside) {
      session.note("the preferences file could not be read whole; as it was it is kept as " + file);
    }
    if (found && *found == PlistValue(wanted)) {
      if (setAside.empty()) return session.succeed();
      return session.finish({{"succeeded", true}, {"setAside", setAside}}, "");
    }
    return session.failAsLogged("the flag could not be stored in the preferences");
  }

  std::string action_;
  std::string name_;
  std::string value_;
};

constexpr CommandEntry kConfigurationCommands[] = {
    {"config", "Show the preferences in force, the paths, the lists and the blacklist",
     "quorvelctl config --json", Make<ShowConfiguration>},
    {"directories", "Create the service's directories and show them (needs --root)",
     "mkdir -p device && quorvelctl directories --root device", Make<Directories>},
    {"catalog", "Show the apps and frameworks that come with the system or on disk images",
     "mkdir -p device/Applications && quorvelctl catalog --root device", Make<Catalog>},
    {"flags", "Show or set the persisted flags (\"set\" needs --root)",
     "mkdir -p device && quorvelctl flags --root device \\\n"
     "    set haveUpdatedPluginContainersWithParentID true",
     Make<Flags>},
};

}  // namespace

std::span<const CommandEntry> ConfigurationCommands() { return kConfigurationCommands; }

}  // namespace quorvel::ctl
