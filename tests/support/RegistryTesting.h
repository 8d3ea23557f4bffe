// A device tree with packages for tests of the application registry.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ApplicationRegistry.h"
#include "platform/linux/plist/PropertyListFiles.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::tests {

inline std::filesystem::path Native(const Path& path) {
  return std::filesystem::path(path.fileSystemRepresentation().c_str());
}

// Sets what a bundle's info dictionary says.
struct BundleContent {
  std::string identifier;
  std::string version = "1.0";
  std::vector<std::string> groups = {};
};

// Writes a bundle directory with an info dictionary and one more file.
inline Path WriteBundle(const Path& directory, const BundleContent& content) {
  std::filesystem::create_directories(Native(directory));
  PlistArray groups;
  for (const std::string& group : content.groups) groups.emplace_back(group);
  const PlistDictionary info{{"PKBundleIdentifier", PlistValue(content.identifier)},
                             {"PKBundleVersion", PlistValue(content.version)},
                             {"PKApplicationGroups", PlistValue(std::move(groups))}};
  onlinux::PropertyListFiles files;
  EXPECT_TRUE(files.writeDictionary(info, directory.child("Info.plist"), PropertyListFormat::binary,
                                    nullptr));
  std::ofstream(Native(directory.child("code")))
      << "code of " << content.identifier << ' ' << content.version;
  return directory;
}

// The root of a device, and staging directories inside it unless said otherwise.
class RegistryDevice {
 public:
  explicit RegistryDevice(const char* where = nullptr) : tree_(where) {}

  const std::string& root() const { return tree_.path(); }
  Path at(const std::string& name) const { return Path::directory(root() + "/" + name); }
  static Path payload(const Path& staging) { return staging.childDirectory("Payload"); }

  void addBuiltIn(const std::string& name, const BundleContent& content) const {
    WriteBundle(at("Applications/" + name), content);
  }

  // A customer package with an app, and store metadata when wanted.
  Path stageApp(const BundleContent& content, bool metadata = false,
                const std::string& name = "Staging") const {
    const Path staging = at(name);
    WriteBundle(payload(staging).childDirectory("Foo.app"), content);
    if (metadata) {
      for (const char* item : {"Manifest.plist", "LorvixArtwork", "LorvixMetadata.plist"}) {
        tree_.write(name + "/" + item, std::string("staged ") + item);
      }
      tree_.write(name + "/GeoJSON/inside", "a directory");
    }
    return staging;
  }

  Path stagePlaceholder(const BundleContent& content, const std::string& name = "foo.app") const {
    return WriteBundle(at("tmp/" + name), content);
  }

  // Names of the container directories of one kind.
  std::set<std::string> containers(const char* kind) const {
    std::set<std::string> names;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(
             root() + "/private/var/mobile/Containers/" + kind, none)) {
      names.insert(entry.path().filename().native());
    }
    return names;
  }

  // Every container on disk belongs to a record, and every container of a record is there.
  void expectNoOrphans(const std::vector<BundleProxy>& bundles) const {
    std::set<std::string> bundle;
    std::set<std::string> data;
    std::set<std::string> group;
    const auto note = [](std::set<std::string>* names, const Path& path) {
      EXPECT_TRUE(std::filesystem::is_directory(Native(path))) << path.string();
      names->insert(std::string(path.lastPathComponent()));
    };
    for (const BundleProxy& proxy : bundles) {
      if (proxy.bundleContainerPath) note(&bundle, *proxy.bundleContainerPath);
      if (proxy.dataContainerPath) note(&data, *proxy.dataContainerPath);
      for (const auto& [name, path] : *proxy.groupContainerPaths) note(&group, path);
    }
    EXPECT_EQ(containers("Bundle"), bundle);
    EXPECT_EQ(containers("Data"), data);
    EXPECT_TRUE(std::ranges::includes(containers("Group"), group));
  }

 private:
  quorvel::testing::TemporaryTree tree_;
};

inline PlistDictionary CustomerOptions(const std::string& identifier) {
  return {{RXInstallTypeKey, PlistValue(6U)},
          {RXPackageTypeKey, PlistValue(RXPackageTypeCustomer)},
          {RXBundleIdentifierKey, PlistValue(identifier)},
          {"VerifyForMigrator", PlistValue(true)},
          {RXSkipBlacklistKey, PlistValue(true)}};
}

inline PlistDictionary PlaceholderOptions(const std::string& identifier) {
  PlistDictionary options = CustomerOptions(identifier);
  options.set(RXPackageTypeKey, PlistValue(RXPackageTypePlaceholder));
  options.erase("VerifyForMigrator");
  return options;
}

inline std::string ContentOf(const Path& file) {
  std::ifstream stream(Native(file), std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline bool Exists(const Path& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(Native(path)));
}

// All paths below a directory with what they hold, to see that nothing changed.
inline std::set<std::string> TreeOf(const Path& directory) {
  std::set<std::string> tree;
  if (!Exists(directory)) return tree;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(Native(directory))) {
    std::string line = entry.path().native();
    if (entry.is_regular_file() && !entry.is_symlink()) {
      std::ifstream stream(entry.path(), std::ios::binary);
      line += " = " + std::string(std::istreambuf_iterator<char>(stream), {});
    }
    tree.insert(line);
  }
  return tree;
}

}  // namespace quorvel::tests
