// The registry on disk: damaged files, other processes, what it costs and what it flushes.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"
#include "platform/linux/registry/PackageInspection.h"
#include "tests/support/FaultWrappers.h"
#include "tests/support/RegistryProcess.h"
#include "tests/support/RegistryTesting.h"
#include "tests/support/SystemCallFaults.h"
#include "tests/support/TreeTools.h"

namespace quorvel::tests {
namespace {

Path DatabaseFile(const RegistryDevice& device) {
  return device.at("private/var/quorveld/Library/Registry/registry.db");
}

// ---- The database file ---------------------------------------------------------------------

Error WhyNoSnapshot(Registry& registry) {
  onlinux::RegistrySnapshot snapshot;
  Error failure;
  const bool known = registry.registry.snapshot(&snapshot, &failure);
  EXPECT_EQ(known, !failure);
  return failure;
}

// Runs statements on the registry's file behind its back.
void Execute(const RegistryDevice& device, const std::string& sql) {
  sqlite3* connection = nullptr;
  ASSERT_EQ(sqlite3_open(Native(DatabaseFile(device)).c_str(), &connection), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(connection);
  sqlite3_close(connection);
}

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
      EXPECT_FALSE(registry.install(staging, CustomerOptions("com.a")));
      EXPECT_TRUE(registry.error);
      EXPECT_EQ(registry.reports, 1);
      EXPECT_FALSE(registry.registry.registerIdentifier("com.b", nullptr));
      EXPECT_EQ(0,
                registry.registry.installationService().QuorvelRegisterSafeHarborForContainerType(
                    device.root(), "com.a", 2, nullptr));
      EXPECT_TRUE(WhyNoSnapshot(registry));
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
    Execute(device, sql);
    expectUnusable();
  }
  std::filesystem::remove(Native(DatabaseFile(device)));
  device.at("x");
  std::ofstream(device.root() + "/elsewhere", std::ios::binary) << whole;
  std::filesystem::create_symlink(device.root() + "/elsewhere", Native(DatabaseFile(device)));
  expectUnusable();
}

// Fewer groups are never made of a list that is none.
TEST_F(DamagedStore, ARecordThatIsNotWhole) {
  const std::string damaged = "com.plugin.7" + std::string(200, 'x');
  for (const char* groups : {"9:short", "x", "1:ab"}) {
    SCOPED_TRACE(groups);
    Execute(device, std::string("UPDATE apps SET groups='") + groups + "' WHERE identifier='" +
                        damaged + "'");
    Registry registry(device);
    EXPECT_FALSE(registry.proxy(damaged));
    EXPECT_FALSE(registry.isInstalled(damaged));
    EXPECT_TRUE(registry.proxy("com.plugin.8" + std::string(200, 'x')));
    EXPECT_TRUE(WhyNoSnapshot(registry));
  }
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
    EXPECT_TRUE(proxy.has_value() || WhyNoSnapshot(registry));
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

// What this version stores of an intent has grown; one of before is carried forward all the same.
TEST(EarlierVersion, ItsOpenIntentIsFinished) {
  const auto list = [](const std::vector<std::string>& texts) {
    std::string result;
    for (const std::string& text : texts) result += std::to_string(text.size()) + ":" + text;
    return result;
  };
  RegistryDevice device(Memory);
  { EXPECT_TRUE(Registry(device).registry.registerIdentifier("com.vpn", nullptr)); }
  const std::string from = device.stageApp({"com.a", "2"}).string();
  const std::string containers = device.root() + "/private/var/mobile/Containers";
  const std::string bundle = from + "/Payload/Foo.app";
  const std::string target = containers + "/Bundle/B/Foo.app";
  const std::string steps = list({list({"0", "0", "com.a", "", containers + "/Data/D", ""}),
                                  list({"0", "0", "com.a", "", containers + "/Bundle/B", ""}),
                                  list({"1", "0", "com.a", bundle, target, ""}),
                                  list({"7", "1", "com.a", "", from, list({bundle, target})})});
  const std::string record = list({"com.a", "App", "2", "=B", "Foo.app", "=D", "", "0", from, "0"});
  Execute(device, "INSERT INTO intents(committed, content) VALUES(0, '" +
                      list({steps, list({record})}) + "')");
  Registry registry(device);
  EXPECT_TRUE(registry.isInstalled("com.a"));
  EXPECT_EQ(ContentOf(registry.proxy("com.a")->bundlePath->child("code")), "code of com.a 2");
  EXPECT_FALSE(Exists(device.at("Staging")));
  device.expectNoOrphans(registry.all());
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
    EXPECT_TRUE(WhyNoSnapshot(impatient).is(PosixErrorDomain, EBUSY));
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
  EXPECT_TRUE(testing::InChild([&] {
    testing::BecomeNobody();
    Registry registry(device);
    EXPECT_FALSE(registry.install(staging, CustomerOptions("com.a")));
    EXPECT_TRUE(registry.error.is(PosixErrorDomain, EACCES));
    EXPECT_EQ(registry.reports, 1);
    EXPECT_FALSE(registry.isInstalled("com.a"));
  }));
  EXPECT_EQ(TreeOf(device.at("")), before);
}

// A lookup and an install cost the same whatever the number of apps: system calls are counted, and
// a search through all records would read all their pages.
TEST(RegistryCost, DoesNotGrowWithTheNumberOfApps) {
  std::vector<long> calls;
  for (const int apps : {10, 10'000}) {
    RegistryDevice device(Memory);
    { EXPECT_TRUE(Registry(device).registry.registerIdentifier("com.vpn", nullptr)); }
    Execute(device,
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i < " +
                std::to_string(apps) +
                ") INSERT INTO apps SELECT 'com.app.' || i, 'App', '1', 'B' || i, 'Foo.app', "
                "'D' || i, '', 0, '/x', 0 FROM n");
    const FaultedRun run = RunWithFault(
        [&] {
          Registry registry(device);
          const bool works = registry.proxy("com.app.7") &&
                             registry.install(device.stageApp({"com.a", "1", {"group.x"}}, true),
                                              CustomerOptions("com.a")) &&
                             registry.isInstalled("com.a");
          return works ? 0 : 1;
        },
        {});
    if (!run.wasTraced) GTEST_SKIP() << "processes may not be traced here";
    EXPECT_EQ(run.exitStatus, 0);
    calls.push_back(run.allCalls);
  }
  EXPECT_LE(calls[1], calls[0] + 25);  // a deeper tree has a few more pages to read
}

// One before a bundle leaves its package, which exists nowhere else, and one before the records
// speak of it; a repeated request that changes nothing has one for what its caller wrote.
TEST(RegistryFlushes, BeforeWhatCannotBeRepeatedAndBeforeTheRecords) {
  RegistryDevice device(Memory);
  Fault none;
  onlinux::FileSystemLinux files;
  FaultyFileSystem counted(files, none);
  Registry registry({.deviceRoot = device.root()}, &counted);
  const auto install = [&](const Path& staging, const PlistDictionary& options) {
    EXPECT_TRUE(registry.install(staging, options)) << registry.error.description();
  };
  install(device.stageApp({"com.first", "1", {"group.x"}}), CustomerOptions("com.first"));
  const int directories = none.calls("SyncDirectory");
  EXPECT_EQ(2, none.calls("SyncFileSystem"));
  install(device.stagePlaceholder({"com.a"}), PlaceholderOptions("com.a"));
  EXPECT_EQ(3, none.calls("SyncFileSystem"));
  install(device.at("tmp/foo.app"), PlaceholderOptions("com.a"));
  EXPECT_EQ(4, none.calls("SyncFileSystem"));
  install(device.stageApp({"com.a", "2", {"group.x"}}), CustomerOptions("com.a"));
  install(device.stageApp({"com.a", "3", {"group.y"}}), CustomerOptions("com.a"));
  EXPECT_EQ(8, none.calls("SyncFileSystem"));
  install(device.at("nowhere"), CustomerOptions("com.a"));
  EXPECT_EQ(9, none.calls("SyncFileSystem"));
  EXPECT_EQ(directories, none.calls("SyncDirectory")) << "only where containers live, once";
}

TEST(RegistryFlushes, NothingIsReplacedWhileTheyFail) {
  RegistryDevice device(Memory);
  { EXPECT_TRUE(Registry(device).install(device.stageApp({"com.a"}), CustomerOptions("com.a"))); }
  const Path staging = device.stageApp({"com.a", "2"}, true);
  onlinux::FileSystemLinux files;
  {
    Fault always{"SyncFileSystem", 0, EIO};
    FaultyFileSystem broken(files, always);
    EXPECT_FALSE(Registry({.deviceRoot = device.root()}, &broken)
                     .install(staging, CustomerOptions("com.a")));
  }
  // Refused before anything was taken: the package is whole, and nothing goes on by itself.
  EXPECT_EQ(Registry(device).proxy("com.a")->bundleVersion, "1.0");
  EXPECT_TRUE(std::filesystem::exists(staging.string() + "/Payload/Foo.app"));
  {
    Fault second{"SyncFileSystem", -2, EIO};
    FaultyFileSystem broken(files, second);
    Registry registry({.deviceRoot = device.root()}, &broken);
    const BundleProxy before = registry.proxy("com.a").value_or(BundleProxy{});
    // The bundle was taken: what is left is completed later, and nobody may drop the package.
    EXPECT_TRUE(registry.install(staging, CustomerOptions("com.a")));
    EXPECT_TRUE(std::filesystem::exists(staging.string()));
    EXPECT_EQ(registry.proxy("com.a")->bundlePath, before.bundlePath);
    EXPECT_EQ(registry.proxy("com.a")->bundleVersion, "1.0");
    EXPECT_TRUE(registry.isInstalled("com.a"));
    EXPECT_TRUE(registry.install(staging, CustomerOptions("com.a")));
    // Another package for the app is refused, the earlier one being in the way.
    EXPECT_FALSE(
        registry.install(device.stageApp({"com.a", "3"}, false, "c"), CustomerOptions("com.a")));
    EXPECT_TRUE(registry.error.is(PosixErrorDomain, EIO));
    // Other apps' records are another matter, but cannot be made durable either.
    EXPECT_FALSE(
        registry.install(device.stageApp({"com.b"}, false, "b"), CustomerOptions("com.b")));
  }
  Registry registry(device);
  EXPECT_EQ(registry.proxy("com.a")->bundleVersion, "2");
  EXPECT_TRUE(registry.install(staging, CustomerOptions("com.a")));
  EXPECT_TRUE(registry.install(device.at("b"), CustomerOptions("com.b")));
  device.expectNoOrphans(registry.all());
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
