// Installs that are killed before each of their calls, or of which each call fails once.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/RegistryProcess.h"
#include "tests/support/RegistryTesting.h"
#include "tests/support/SystemCallFaults.h"

namespace quorvel::tests {
namespace {

// A second file system in memory, for this process only; "/tmp" where that takes a privilege.
const char* SecondFileSystem() {
  struct MountPoint {
    RegistryDevice device{Memory};
    ~MountPoint() { ::umount2(device.root().c_str(), MNT_DETACH); }
  };
  static const std::string path = [] {
    static MountPoint holder;
    const std::string directory = holder.device.root();
    const bool mounted = ::unshare(CLONE_NEWNS) == 0 &&
                         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         ::mount("none", directory.c_str(), "tmpfs", 0, nullptr) == 0;
    return mounted ? directory : std::string("/tmp");
  }();
  return path.c_str();
}

// One install as the migration makes it, and what must hold whenever it was interrupted.
class Interrupted {
 public:
  virtual ~Interrupted() = default;
  virtual bool request(Registry& registry) = 0;
  // Either as before or whole. Returns whether it is whole.
  virtual bool check(Registry& registry) = 0;
  virtual Path staging() const = 0;

  RegistryDevice device{Memory};
};

// A placeholder on a device that has no registry yet.
class FirstPlaceholder : public Interrupted {
 public:
  FirstPlaceholder() { device.stagePlaceholder({"com.a"}); }
  bool request(Registry& registry) override {
    PlistDictionary options = PlaceholderOptions("com.a");
    options.set(RXLorvixMetadataKey, PlistValue(PlistData{'m'}));
    return registry.install(device.at("tmp/foo.app"), options);
  }
  Path staging() const override { return device.at("tmp/foo.app"); }
  bool check(Registry& registry) override {
    const auto proxy = registry.proxy("com.a");
    EXPECT_EQ(registry.isInstalled("com.a"), proxy.has_value());
    EXPECT_EQ(Exists(device.at("tmp/foo.app")), !proxy.has_value());
    if (!proxy) return false;
    EXPECT_TRUE(proxy->isPlaceholder);
    EXPECT_TRUE(proxy->foundBackingBundle);
    EXPECT_EQ(ContentOf(proxy->bundleContainerPath->child("LorvixMetadata.plist")), "m");
    char mark[4] = {};
    EXPECT_EQ(registry.files.getxattr(Native(*proxy->bundlePath).c_str(),
                                      "com.velto.quorveld.placeholder", mark, sizeof mark, 0,
                                      XATTR_NOFOLLOW),
              4);
    EXPECT_EQ(std::string(mark, 4), std::string("\1\0\0\0", 4));
    return true;
  }
};

// A full install over a placeholder with data, with a plug-in, store metadata and a new group.
class FullOverPlaceholder : public Interrupted {
 public:
  explicit FullOverPlaceholder(const char* stagingParent = nullptr) : elsewhere_(stagingParent) {
    Registry registry(device);
    EXPECT_TRUE(registry.install(device.stagePlaceholder({"com.a"}), PlaceholderOptions("com.a")));
    data_ = *registry.proxy("com.a")->dataContainerPath;
    std::ofstream(Native(data_.child("document"))) << "mine";
    const RegistryDevice& owner = stagingParent != nullptr ? elsewhere_ : device;
    staging_ = owner.stageApp({"com.a", "2.0", {"group.x"}}, true);
    WriteBundle(RegistryDevice::payload(staging_).childDirectory("N.vpnplugin"), {"com.vpn"});
  }
  bool request(Registry& registry) override {
    // A resumed migration makes the directories again before it asks again.
    std::filesystem::create_directories(Native(RegistryDevice::payload(staging_)));
    return registry.install(staging_, CustomerOptions("com.a"));
  }
  Path staging() const override { return staging_; }
  bool check(Registry& registry) override {
    const auto app = registry.proxy("com.a");
    const auto plugin = registry.proxy("com.vpn");
    if (!app) return ADD_FAILURE() << "the app is lost", false;
    EXPECT_TRUE(registry.isInstalled("com.a"));
    EXPECT_EQ(app->dataContainerPath, data_);
    EXPECT_EQ(ContentOf(data_.child("document")), "mine");
    EXPECT_EQ(plugin.has_value(), !app->isPlaceholder);
    if (app->isPlaceholder) {
      EXPECT_TRUE(Exists(RegistryDevice::payload(staging_).child("Foo.app/code")));
      EXPECT_TRUE(Exists(RegistryDevice::payload(staging_).child("N.vpnplugin/code")));
      EXPECT_TRUE(Exists(staging_.child("LorvixArtwork")));
      return false;
    }
    EXPECT_EQ(ContentOf(app->bundlePath->child("code")), "code of com.a 2.0");
    if (!plugin) return false;
    EXPECT_EQ(ContentOf(plugin->bundlePath->child("code")), "code of com.vpn 1.0");
    EXPECT_EQ(ContentOf(app->bundleContainerPath->child("GeoJSON/inside")), "a directory");
    EXPECT_EQ(ContentOf(app->bundleContainerPath->child("Manifest.plist")),
              "staged Manifest.plist");
    EXPECT_EQ(app->groupContainerPaths->size(), 1U);
    EXPECT_LE(TreeOf(staging_).size(), 1U);  // "Payload", made again
    return true;
  }

 private:
  RegistryDevice elsewhere_;
  Path staging_;
  Path data_;
};

// Ends with a report, and with the staged bundle discarded.
class Obsolete : public Interrupted {
 public:
  Obsolete() {
    device.addBuiltIn("Foo.app", {"com.a", "3.0"});
    staging_ = device.stageApp({"com.a", "2.0"}, true);
  }
  bool request(Registry& registry) override {
    std::filesystem::create_directories(Native(RegistryDevice::payload(staging_)));
    const bool installed = registry.install(staging_, CustomerOptions("com.a"));
    return !installed && registry.reports == 1 && registry.error.domain() == "RXErrorDomain";
  }
  Path staging() const override { return staging_; }
  bool check(Registry& registry) override {
    EXPECT_TRUE(registry.isInstalled("com.a"));
    return !Exists(staging_);
  }

 private:
  Path staging_;
};

using MakeInterrupted = std::function<std::unique_ptr<Interrupted>()>;

struct NamedScenario {
  const char* name;
  MakeInterrupted make;
};

class InterruptedInstall : public ::testing::TestWithParam<NamedScenario> {
 protected:
  // The request in a child; its exit status is 0 when it was satisfied.
  static FaultedRun run(Interrupted& scenario, SystemCallFault fault) {
    return RunWithFault(
        [&] {
          Registry registry(scenario.device);
          const bool satisfied = scenario.request(registry);
          registry.isInstalled("com.a");  // goes on in the same process after a failure
          return satisfied ? 0 : 1;
        },
        fault);
  }

  // What the next process finds, and that the repeated request succeeds.
  static void expectRecovers(Interrupted& scenario) {
    {
      Registry registry(scenario.device);
      scenario.check(registry);
      scenario.device.expectNoOrphans(registry.all());
    }
    Registry registry(scenario.device);
    EXPECT_TRUE(scenario.request(registry)) << registry.error.description();
    EXPECT_TRUE(scenario.check(registry));
    EXPECT_FALSE(Exists(scenario.staging()));
    scenario.device.expectNoOrphans(registry.all());
  }
};

// The points are taken one after another until one is no longer reached: each did fire.
TEST_P(InterruptedInstall, KilledBeforeEveryCall) {
  long call = 0;
  for (bool fired = true; fired && !HasFailure();) {
    SCOPED_TRACE("killed before call " + std::to_string(++call));
    const auto scenario = GetParam().make();
    const FaultedRun run = this->run(*scenario, {call, 0});
    if (!run.wasTraced) GTEST_SKIP() << "processes may not be traced here";
    fired = run.fired;
    ASSERT_TRUE(fired ? run.wasKilled : run.exitStatus == 0);
    if (call % 7 == 0) this->run(*scenario, {1 + call % 5, 0});  // once more while it recovers
    expectRecovers(*scenario);
  }
  EXPECT_GT(call, 30);
  RecordProperty("points", static_cast<int>(call - 1));
}

TEST_P(InterruptedInstall, EveryCallFailsOnce) {
  if (!CanFailSystemCalls) GTEST_SKIP() << "calls can only be failed on x86-64";
  long call = 0;
  for (bool fired = true; fired && !HasFailure();) {
    const int number = ++call % 3 == 0 ? ENOSPC : EIO;
    SCOPED_TRACE("call " + std::to_string(call) + " failed with " + std::to_string(number));
    const auto scenario = GetParam().make();
    const FaultedRun run = this->run(*scenario, {call, number});
    if (!run.wasTraced) GTEST_SKIP() << "processes may not be traced here";
    fired = run.fired;
    ASSERT_TRUE(run.exitStatus == 0 || run.exitStatus == 1);
    if (run.exitStatus == 0) {
      Registry registry(scenario->device);
      EXPECT_TRUE(scenario->check(registry));
    }
    expectRecovers(*scenario);
  }
  EXPECT_GT(call, 30);
  RecordProperty("points", static_cast<int>(call - 1));
}

INSTANTIATE_TEST_SUITE_P(
    All, InterruptedInstall,
    ::testing::Values(
        NamedScenario{"FirstPlaceholder", [] { return std::make_unique<FirstPlaceholder>(); }},
        NamedScenario{"FullOverPlaceholder",
                      [] { return std::make_unique<FullOverPlaceholder>(); }},
        NamedScenario{"AcrossFileSystems",
                      [] { return std::make_unique<FullOverPlaceholder>(SecondFileSystem()); }},
        NamedScenario{"Obsolete", [] { return std::make_unique<Obsolete>(); }}),
    [](const auto& scenario) { return scenario.param.name; });

// The migration removes the legacy container, and the package in it, when an install fails.
TEST(InstallAfterFailure, PackageThatVanishedIsGivenUp) {
  if (!CanFailSystemCalls) GTEST_SKIP() << "calls can only be failed on x86-64";
  for (long call = 1;; ++call) {
    SCOPED_TRACE(call);
    RegistryDevice device(Memory);
    {
      Registry registry(device);
      ASSERT_TRUE(
          registry.install(device.stagePlaceholder({"com.a"}), PlaceholderOptions("com.a")));
    }
    const Path staging = device.stageApp({"com.a", "2", {"group.x"}}, true);
    const FaultedRun run = RunWithFault(
        [&] {
          Registry registry(device);
          return registry.install(staging, CustomerOptions("com.a")) ? 0 : 1;
        },
        {call, 0});
    if (!run.wasTraced) GTEST_SKIP() << "processes may not be traced here";
    if (!run.fired) break;
    std::filesystem::remove_all(Native(staging));
    Registry registry(device);
    EXPECT_TRUE(registry.isInstalled("com.a"));
    device.expectNoOrphans(registry.all());
    // Whatever was given up does not stand in the way of the next install.
    ASSERT_TRUE(registry.install(device.stageApp({"com.a", "3", {"group.x"}}, true, "again"),
                                 CustomerOptions("com.a")));
    EXPECT_EQ(registry.proxy("com.a")->bundleVersion, "3");
    EXPECT_TRUE(Exists(registry.proxy("com.a")->groupContainerPaths->at("group.x")));
    device.expectNoOrphans(registry.all());
  }
}

}  // namespace
}  // namespace quorvel::tests
