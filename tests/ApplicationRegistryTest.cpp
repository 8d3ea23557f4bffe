// The registry on disk under kills, failing calls, other processes and damaged files.
#include <gtest/gtest.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/ApplicationRegistryLinux.h"
#include "platform/linux/BundleReaderLinux.h"
#include "platform/linux/FileSystemLinux.h"
#include "platform/linux/PackageInspection.h"
#include "tests/RegistryTesting.h"
#include "tests/SystemCallFaults.h"

namespace quorvel::tests {
namespace {

using onlinux::RegistrySnapshot;

constexpr const char* Memory = "/dev/shm";  // a file system of its own, where flushes cost nothing

// One process's registry.
struct Registry {
  explicit Registry(onlinux::RegistryOptions options) : registry(files, bundles, options) {}
  explicit Registry(const RegistryDevice& device)
      : Registry(onlinux::RegistryOptions{.deviceRoot = device.root()}) {}

  bool install(const Path& staging, const PlistDictionary& options) {
    reports = 0;
    error = {};
    return registry.workspace().installApplication(staging, options, &error,
                                                   [&](const PlistDictionary&) { ++reports; });
  }
  std::optional<BundleProxy> proxy(const std::string& identifier) {
    return registry.workspace().bundleProxyForIdentifier(identifier);
  }
  bool isInstalled(const std::string& identifier) {
    return registry.workspace().applicationIsInstalled(identifier);
  }
  std::vector<BundleProxy> all() {
    RegistrySnapshot result;
    Error failure;
    EXPECT_TRUE(registry.snapshot(&result, &failure)) << failure.description();
    return result.bundles;
  }

  onlinux::FileSystemLinux files;
  onlinux::BundleReaderLinux bundles;
  onlinux::ApplicationRegistryLinux registry;
  Error error;
  int reports = 0;
};

Path DatabaseFile(const RegistryDevice& device) {
  return device.at("private/var/quorveld/Library/Registry/registry.db");
}

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

// ---- Interrupted installs ------------------------------------------------------------------

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

TEST_P(InterruptedInstall, KilledBeforeEveryCall) {
  const auto plain = GetParam().make();
  const FaultedRun whole = run(*plain, {});
  if (!whole.wasTraced) GTEST_SKIP() << "processes may not be traced here";
  ASSERT_EQ(whole.exitStatus, 0);
  ASSERT_GT(whole.changingCalls, 10);
  for (long call = 1; call <= whole.changingCalls; ++call) {
    SCOPED_TRACE("killed before call " + std::to_string(call));
    const auto scenario = GetParam().make();
    ASSERT_TRUE(run(*scenario, {call, 0}).wasKilled);
    if (call % 7 == 0) run(*scenario, {1 + call % 5, 0});  // and once more while it recovers
    expectRecovers(*scenario);
    if (HasFailure()) return;
  }
  RecordProperty("points", static_cast<int>(whole.changingCalls));
}

TEST_P(InterruptedInstall, EveryCallFailsOnce) {
  if (!CanFailSystemCalls) GTEST_SKIP() << "calls can only be failed on x86-64";
  const auto plain = GetParam().make();
  const FaultedRun whole = run(*plain, {});
  if (!whole.wasTraced) GTEST_SKIP() << "processes may not be traced here";
  for (long call = 1; call <= whole.changingCalls; ++call) {
    for (const int number : {EIO, ENOSPC}) {
      if (number == ENOSPC && call % 3 != 0) continue;  // few calls tell them apart
      SCOPED_TRACE("call " + std::to_string(call) + " failed with " + std::to_string(number));
      const auto scenario = GetParam().make();
      const FaultedRun run = this->run(*scenario, {call, number});
      ASSERT_TRUE(run.fired);
      ASSERT_TRUE(run.exitStatus == 0 || run.exitStatus == 1);
      if (run.exitStatus == 0) {
        Registry registry(scenario->device);
        EXPECT_TRUE(scenario->check(registry));
      }
      expectRecovers(*scenario);
      if (HasFailure()) return;
    }
  }
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

// ---- The database file ---------------------------------------------------------------------

class DamagedStore : public ::testing::Test {
 protected:
  void SetUp() override {
    Registry registry(device);
    for (int i = 0; i < 40; ++i) {
      ASSERT_TRUE(registry.registry.registerIdentifier(
          "com.plugin." + std::to_string(i) + std::string(200, 'x'), nullptr));
    }
    staging = device.stageApp({"com.a"});
  }
  std::string bytes() const { return ContentOf(DatabaseFile(device)); }
  void replace(const std::string& content) const {
    std::ofstream(Native(DatabaseFile(device)), std::ios::binary) << content;
  }
  // Nothing is answered, nothing is changed.
  void expectUnusable() const {
    const auto files = TreeOf(device.at("private"));
    const auto package = TreeOf(staging);
    {
      Registry registry(device);
      EXPECT_FALSE(registry.isInstalled("com.a"));
      EXPECT_FALSE(registry.proxy("com.plugin.7" + std::string(200, 'x')));
      EXPECT_TRUE(registry.registry.storeFailure());
      EXPECT_FALSE(registry.install(staging, CustomerOptions("com.a")));
      EXPECT_TRUE(registry.error);
      EXPECT_EQ(registry.reports, 1);
      EXPECT_FALSE(registry.registry.registerIdentifier("com.b", nullptr));
      EXPECT_EQ(0,
                registry.registry.installationService().QuorvelRegisterSafeHarborForContainerType(
                    device.root(), "com.a", 2, nullptr));
      RegistrySnapshot snapshot;
      EXPECT_FALSE(registry.registry.snapshot(&snapshot, nullptr));
    }
    EXPECT_EQ(TreeOf(device.at("private")), files);
    EXPECT_EQ(TreeOf(staging), package);
  }

  RegistryDevice device{Memory};
  Path staging;
};

TEST_F(DamagedStore, TruncatedAtAnyLength) {
  const std::string whole = bytes();
  ASSERT_GT(whole.size(), 16'000U);
  for (std::size_t length = 0; length < whole.size();
       length += length < 120 || length % 4096 > 4090 || length % 4096 < 6 ? 1 : 509) {
    SCOPED_TRACE(length);
    replace(whole.substr(0, length));
    expectUnusable();
    if (HasFailure()) return;
  }
  replace(whole);
  Registry registry(device);
  EXPECT_TRUE(registry.install(staging, CustomerOptions("com.a"))) << registry.error.description();
}

TEST_F(DamagedStore, ForeignAndNewerFiles) {
  const std::string whole = bytes();
  for (const std::string& foreign :
       {std::string("not a database at all\n"), std::string(8192, '\0'), whole + "tail"}) {
    replace(foreign);
    expectUnusable();
  }
  for (const char* sql :
       {"PRAGMA user_version=2", "PRAGMA application_id=7", "PRAGMA user_version=0"}) {
    SCOPED_TRACE(sql);
    replace(whole);
    sqlite3* connection = nullptr;
    ASSERT_EQ(sqlite3_open(Native(DatabaseFile(device)).c_str(), &connection), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(connection, sql, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(connection);
    expectUnusable();
  }
  std::filesystem::remove(Native(DatabaseFile(device)));
  device.at("x");
  std::ofstream(device.root() + "/elsewhere", std::ios::binary) << whole;
  std::filesystem::create_symlink(device.root() + "/elsewhere", Native(DatabaseFile(device)));
  expectUnusable();
}

// A kill leaves a log; whatever becomes of its end or of the file, answers are right or absent.
TEST_F(DamagedStore, LogLeftByAKillAndCutOff) {
  const FaultedRun run = RunWithFault(
      [&] {
        Registry registry(device);
        if (!registry.install(staging, CustomerOptions("com.a"))) return 1;
        ::_exit(0);
      },
      {});
  if (!run.wasTraced) GTEST_SKIP() << "processes may not be traced here";
  ASSERT_EQ(run.exitStatus, 0);
  const Path log = Path::file(DatabaseFile(device).string() + "-wal");
  const std::string whole = bytes();
  const std::string logged = ContentOf(log);
  ASSERT_GT(logged.size(), 4096U);
  const auto lookUp = [&] {
    Registry registry(onlinux::RegistryOptions{.deviceRoot = device.root(), .readOnly = true});
    const auto proxy = registry.proxy("com.plugin.7" + std::string(200, 'x'));
    EXPECT_TRUE(proxy.has_value() || registry.registry.storeFailure());
    return registry.isInstalled("com.a");
  };
  EXPECT_TRUE(lookUp());
  for (std::size_t length = 0; length < logged.size(); length += 1021) {
    SCOPED_TRACE(length);
    std::ofstream(Native(log), std::ios::binary) << logged.substr(0, length);
    lookUp();
  }
  std::ofstream(Native(log), std::ios::binary) << logged;
  for (std::size_t length = 1; length < whole.size(); length += 1021) {
    SCOPED_TRACE(length);
    replace(whole.substr(0, length));
    lookUp();
  }
}

TEST(ReadOnlyRegistry, ChangesNothingOnDisk) {
  RegistryDevice device(Memory);
  device.addBuiltIn("Mail.app", {"com.mail"});
  const onlinux::RegistryOptions options{.deviceRoot = device.root(), .readOnly = true};
  const auto expectUnchanged = [&](std::size_t bundles) {
    const auto before = TreeOf(device.at(""));
    {
      Registry registry(options);
      EXPECT_EQ(registry.all().size(), bundles);
      EXPECT_TRUE(registry.isInstalled("com.mail"));
      EXPECT_FALSE(registry.proxy("com.mail")->dataContainerPath);
      EXPECT_FALSE(registry.install(device.at("Staging"), CustomerOptions("com.a")));
      EXPECT_FALSE(registry.registry.registerIdentifier("com.b", nullptr));
    }
    EXPECT_EQ(TreeOf(device.at("")), before);
  };
  expectUnchanged(1);
  { EXPECT_TRUE(Registry(device).registry.registerIdentifier("com.vpn", nullptr)); }
  expectUnchanged(2);
  // An unclean end, in the middle of an install: as it was before.
  device.stageApp({"com.a"});
  const FaultedRun run = RunWithFault(
      [&] {
        Registry registry(device);
        registry.install(device.at("Staging"), CustomerOptions("com.a"));
        return 0;
      },
      {8, 0});
  EXPECT_EQ(run.wasTraced, run.wasKilled);
  expectUnchanged(2);
}

// ---- Other processes, cost, versions -------------------------------------------------------

TEST(RegistryProcesses, SecondOneWaitsForTheFirst) {
  RegistryDevice device(Memory);
  device.stageApp({"com.a"});
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Registry registry(device);
    const bool installed = registry.install(device.at("Staging"), CustomerOptions("com.a"));
    const bool told = ::write(ready[1], "x", 1) == 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    ::_exit(installed && told ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  {
    Registry impatient(
        onlinux::RegistryOptions{.deviceRoot = device.root(), .busyTimeoutMilliseconds = 1});
    EXPECT_FALSE(impatient.isInstalled("com.a"));
    EXPECT_TRUE(impatient.registry.storeFailure().is(PosixErrorDomain, EBUSY));
    EXPECT_FALSE(
        impatient.install(device.stageApp({"com.b"}, false, "b"), CustomerOptions("com.b")));
  }
  Registry patient(device);
  EXPECT_TRUE(patient.isInstalled("com.a"));
  EXPECT_TRUE(patient.install(device.at("b"), CustomerOptions("com.b")));
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(RegistryProcesses, ModesDoNotDependOnTheUmask) {
  RegistryDevice device(Memory);
  const mode_t before = ::umask(077);
  Registry registry(device);
  EXPECT_TRUE(registry.install(device.stagePlaceholder({"com.a"}), PlaceholderOptions("com.a")));
  ::umask(before);
  const BundleProxy proxy = registry.proxy("com.a").value_or(BundleProxy{});
  ASSERT_TRUE(proxy.bundleContainerPath && proxy.dataContainerPath);
  for (const Path& path : {*proxy.bundleContainerPath, *proxy.dataContainerPath,
                           device.at("private/var/mobile/Containers")}) {
    EXPECT_EQ(std::filesystem::status(Native(path)).permissions(),
              static_cast<std::filesystem::perms>(0755));
  }
}

TEST(RegistryProcesses, UnprivilegedOneFailsCleanly) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs a user to give up";
  RegistryDevice device(Memory);
  ASSERT_EQ(::chmod(device.root().c_str(), 0755), 0);
  const Path staging = device.stageApp({"com.a"});
  const auto before = TreeOf(device.at(""));
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    Registry registry(device);
    const bool installed = registry.install(staging, CustomerOptions("com.a"));
    const bool told = registry.error.is(PosixErrorDomain, EACCES) && registry.reports == 1;
    ::_exit(!installed && told && !registry.isInstalled("com.a") ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(TreeOf(device.at("")), before);
}

// A lookup and an install cost the same whatever the number of apps: steps of the database and
// system calls are counted, not seconds.
TEST(RegistryCost, DoesNotGrowWithTheNumberOfApps) {
  std::vector<std::uint64_t> steps;
  std::vector<long> calls;
  for (const int apps : {10, 10'000}) {
    RegistryDevice device(Memory);
    { EXPECT_TRUE(Registry(device).registry.registerIdentifier("com.vpn", nullptr)); }
    sqlite3* connection = nullptr;
    ASSERT_EQ(sqlite3_open(Native(DatabaseFile(device)).c_str(), &connection), SQLITE_OK);
    const std::string fill =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i < " +
        std::to_string(apps) +
        ") INSERT INTO apps SELECT 'com.app.' || i, 'App', '1', 'B' || i, 'Foo.app', 'D' || i, "
        "'', 0, '/x', 0 FROM n";
    ASSERT_EQ(sqlite3_exec(connection, fill.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(connection);
    const auto work = [&] {
      Registry registry(device);
      EXPECT_TRUE(registry.proxy("com.app.7"));
      EXPECT_TRUE(registry.install(device.stageApp({"com.a", "1", {"group.x"}}, true),
                                   CustomerOptions("com.a")));
      EXPECT_TRUE(registry.isInstalled("com.a"));
      return registry.registry.databaseSteps();
    };
    const FaultedRun run = RunWithFault([&] { return work() > 0 ? 0 : 1; }, {});
    calls.push_back(run.allCalls);
    steps.push_back(work());
  }
  EXPECT_EQ(steps[1], steps[0]);
  EXPECT_LE(calls[1], calls[0] + 25);  // a deeper tree has a few more pages to read
}

TEST(VersionOrder, NumbersBetweenDotsThenText) {
  using onlinux::IsNewerVersion;
  EXPECT_TRUE(IsNewerVersion("10.2", "9.12"));
  EXPECT_TRUE(IsNewerVersion("1.0.1", "1"));
  EXPECT_TRUE(IsNewerVersion("2b2", "2b1"));
  EXPECT_TRUE(IsNewerVersion("18446744073709551617", "18446744073709551616"));
  EXPECT_FALSE(IsNewerVersion("1.0.0", "1"));
  EXPECT_FALSE(IsNewerVersion("1", "1.0.0"));
  EXPECT_FALSE(IsNewerVersion("007", "7"));
  EXPECT_FALSE(IsNewerVersion("", "1"));
  EXPECT_FALSE(IsNewerVersion("1", ""));
  EXPECT_FALSE(IsNewerVersion("9", "10"));
}

}  // namespace
}  // namespace quorvel::tests
