// A temporary root with fake preferences, hardware and mounts, for tests of the configuration.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "shared/configuration/ConfigurationForRoot.h"
#include "shared/configuration/InfoPlist.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "tests/support/FakeHardwareRegistry.h"
#include "tests/support/FakePreferencesStore.h"
#include "tests/support/TestPlatform.h"

namespace quorvel::tests {

using quorvel::testing::FakeHardwareRegistry;
using quorvel::testing::FakeMountTable;
using quorvel::testing::FakePreferencesStore;

class ConfigurationFixture : public ::testing::Test {
 protected:
  ConfigurationFixture() {
    platform_.set.preferences = &preferences_;
    platform_.set.hardware = &hardware_;
    platform_.set.mounts = &mounts_;
  }
  std::string at(const std::string& name) const { return platform_.tree.at(name); }
  Path root() const { return Path::directory(platform_.tree.path()); }
  void bundle(const std::string& name, const PlistDictionary& info) {
    std::filesystem::create_directories(at(name));
    EXPECT_TRUE(platform_.propertyLists.writeDictionary(info, Path(at(name + "/Info.plist")),
                                                        PropertyListFormat::xml, nullptr));
  }
  void app(const std::string& name, const std::string& identifier) {
    bundle(name, {{"PKBundleIdentifier", identifier}, {"Other", 1}});
  }
  static std::vector<std::string> keys(const QVBundleMap* map) {
    std::vector<std::string> found;
    if (map == nullptr) return {"(none)"};
    for (const auto& [key, info] : *map) found.push_back(key);
    return found;
  }

  TestPlatform platform_;
  FakePreferencesStore preferences_;
  FakeHardwareRegistry hardware_;
  FakeMountTable mounts_;
};

}  // namespace quorvel::tests
