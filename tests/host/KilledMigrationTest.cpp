// Whole migrations that are killed before each of their changing system calls, or of which each
// call that changes or looks fails once. By default every few calls are tried, others in each
// variant; with QUORVEL_EVERY_CALL set, every one. With QUORVEL_KEEP_GOING set, a failure does not
// end a sweep.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <set>

#include "tests/support/HostProcess.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/SystemCallFaults.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {
namespace {

using tests::FaultedRun;
using tests::SystemCallFault;

// The other file system of a variant is mounted there; absent for a device that has but one.
struct Variant {
  const char* name;
  const char* mountPoint;
  long killStride;
  long faultStride;
  long lookStride;
};

void PrintTo(const Variant& variant, std::ostream* out) { *out << variant.name; }

// The devices of one variant: a pristine one, and the copies that are migrated.
class Devices {
 public:
  explicit Devices(const Variant& variant)
      : variant_(variant), pristine_(tree_ / "pristine"), copy_(tree_ / "device") {
    pristine_.make();
    PutBundle(pristine_.inside("/Applications/Own.app"), "com.example.own", {}, "2.0");
    PutBundle(pristine_.container("G7/Own.app"), "com.example.own", {}, "1.0");
    PutData(pristine_.container("G7"), "own");
    AgeTree(pristine_.root());
    EXPECT_EQ(pristine_.registerTunnel(), 0);
    rememberUserFiles();
  }
  ~Devices() { remove(); }
  Devices(const Devices&) = delete;
  Devices& operator=(const Devices&) = delete;

  const Device& fresh() {
    remove();
    fs::create_directories(copy_.root());
    if (variant_.mountPoint != nullptr) {
      const std::string point = copy_.inside(variant_.mountPoint);
      fs::create_directories(point);
      EXPECT_EQ(::mount("tmpfs", point.c_str(), "tmpfs", 0, nullptr), 0);
    }
    const std::string command = "cp -a '" + pristine_.root() + "/.' '" + copy_.root() + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return copy_;
  }

  // That the bytes of each of the user's files are somewhere, whole.
  void expectUserFiles() const {
    std::set<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(copy_.root())) {
      if (entry.is_regular_file() && !entry.is_symlink()) found.insert(ReadFile(entry.path()));
    }
    for (const auto& [path, bytes] : userFiles_) {
      EXPECT_TRUE(found.contains(bytes)) << "lost: " << path;
    }
  }

 private:
  void remove() const {
    if (variant_.mountPoint != nullptr) {
      ::umount2(copy_.inside(variant_.mountPoint).c_str(), MNT_DETACH);
    }
    RemoveWithSystem(copy_.root());
  }

  void rememberUserFiles() {
    for (const char* place : {"/Applications", "/Groups", "/Harbors"}) {
      for (const auto& entry :
           fs::recursive_directory_iterator(pristine_.root() + Mobile + place)) {
        const std::string path = entry.path();
        // Not of any app that migrates: the container is removed.
        const bool isUser = path.find("/Documents/") != std::string::npos ||
                            path.find("/Library/") != std::string::npos;
        if (!isUser || path.find("/F6/") != std::string::npos) continue;
        if (entry.is_regular_file() && !entry.is_symlink()) userFiles_[path] = ReadFile(path);
      }
    }
    EXPECT_GT(userFiles_.size(), 15U);
  }

  const ScratchTree tree_;
  const Variant variant_;
  const Device pristine_;
  const Device copy_;
  std::map<std::string, std::string> userFiles_;
};

FaultedRun Migrate(const Device& device, SystemCallFault fault) {
  return tests::RunWithFault(
      [&device] {
        const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        ::dup2(nowhere, STDOUT_FILENO);
        ::dup2(nowhere, STDERR_FILENO);
        // Looking for leaks at exit needs /proc, which a confined process does not have, and must
        // not be traced.
        ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
        ::execl(HOST_BINARY, "migration-host", "migrate", "--quiet", "--root",
                device.root().c_str(), nullptr);
        return 126;
      },
      fault);
}

// What the sequence gives up when the registry refuses an app's bundle: the bundle is removed with
// its container, and the placeholder stays. Takes everything of such apps' bundles out of both.
void ForgiveRefusedBundles(Facts* expected, Facts* actual, std::set<std::string>* refused) {
  for (const auto& [name, text] : *expected) {
    if (!name.starts_with("<bundle ") || name.find('/') != std::string::npos) continue;
    if (!actual->contains(name)) refused->insert(name.substr(8, name.size() - 9));
  }
  for (const std::string& identifier : *refused) {
    for (Facts* facts : {expected, actual}) {
      std::erase_if(*facts, [&identifier](const auto& fact) {
        return fact.first.starts_with("<bundle " + identifier + ">") ||
               fact.first.starts_with("<placeholder " + identifier + ">");
      });
    }
    // A plug-in that came to nothing with its app has no data container either; no data, too.
    if (!actual->contains("<data " + identifier + ">")) {
      expected->erase("<data " + identifier + ">");
    }
  }
  if (!refused->empty()) {
    expected->erase("registry");
    actual->erase("registry");
  }
}

// A failure may make the service log what it has no need to log otherwise.
void ForgetLogs(Facts* facts) {
  std::erase_if(*facts, [](const auto& fact) {
    return fact.first.find("/Library/Logs") != std::string::npos;
  });
}

class KilledMigration : public ::testing::TestWithParam<Variant> {
 protected:
  void SetUp() override {
    if (GetParam().mountPoint == nullptr) return;
    static const bool canMount = ::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
                                 ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!canMount) GTEST_SKIP() << "mounting needs privileges";
  }

  static long stride(long byDefault) {
    const char* every = std::getenv("QUORVEL_EVERY_CALL");
    return every != nullptr && *every != '\0' ? 1 : byDefault;
  }

  // Sets the number of calls, and what an uninterrupted migration makes.
  void measure(Devices& devices, tests::CountedCalls counted = tests::CountedCalls::changing) {
    const Device& device = devices.fresh();
    const FaultedRun run = Migrate(device, {0, 0, counted});
    if (!run.wasTraced) GTEST_SKIP() << "processes may not be traced here";
    ASSERT_EQ(run.exitStatus, 0);
    calls_ = run.countedCalls;
    ASSERT_GT(calls_, 100);
    expected_ = Outcome(device);
    devices.expectUserFiles();
  }

  void report(long tried) {
    RecordProperty("calls", static_cast<int>(calls_));
    RecordProperty("tried", static_cast<int>(tried));
    std::cout << "  " << GetParam().name << ": " << tried << " of " << calls_ << " calls\n";
  }

  long calls_ = 0;
  Facts expected_;
};

// Killed between its last two steps a migration leaves the map of a directory that is gone: no
// later run reads it or misses it.
TEST_P(KilledMigration, KilledBeforeEveryCall) {
  Devices devices(GetParam());
  measure(devices);
  long tried = 0;
  long maps = 0;
  for (long call = 1; call <= calls_ && !IsSkipped(); call += stride(GetParam().killStride)) {
    if (std::getenv("QUORVEL_KEEP_GOING") == nullptr && HasFailure()) break;
    SCOPED_TRACE("killed before call " + std::to_string(call));
    const Device& device = devices.fresh();
    const FaultedRun killed = Migrate(device, {call, 0});
    ASSERT_TRUE(killed.fired && killed.wasKilled);
    ++tried;
    devices.expectUserFiles();
    // Now and then the run that takes it up is killed, too, sooner or later.
    if (tried % 4 == 0) {
      Migrate(device, {1 + (tried * 37) % calls_, 0});
      devices.expectUserFiles();
    }
    const HostRun last = device.run({"migrate"});
    EXPECT_EQ(last.exitCode, 0) << last.out << last.err;
    Facts outcome = Outcome(device);
    maps += static_cast<long>(outcome.erase(InstallMap));
    ExpectSame(expected_, outcome, "call " + std::to_string(call));
  }
  report(tried);
  std::cout << "  install maps left: " << maps << "\n";
  EXPECT_LE(maps, 4);
}

TEST_P(KilledMigration, EveryCallFailsOnce) {
  if (!tests::CanFailSystemCalls) GTEST_SKIP() << "calls can only be failed on x86-64";
  Devices devices(GetParam());
  measure(devices);
  long tried = 0;
  long gaveUp = 0;
  long litter = 0;
  for (long call = 1; call <= calls_ && !IsSkipped(); call += stride(GetParam().faultStride)) {
    if (std::getenv("QUORVEL_KEEP_GOING") == nullptr && HasFailure()) break;
    const int number = (call / 2) % 2 == 0 ? EIO : ENOSPC;
    SCOPED_TRACE("call " + std::to_string(call) + " failed with " + std::to_string(number));
    const Device& device = devices.fresh();
    const FaultedRun run = Migrate(device, {call, number});
    ASSERT_TRUE(run.fired);
    ++tried;
    EXPECT_TRUE(run.exitStatus >= 0 && run.exitStatus <= 4) << "status " << run.exitStatus;
    devices.expectUserFiles();
    const HostRun last = device.run({"migrate"});
    EXPECT_EQ(last.exitCode, 0) << last.out << last.err;
    Facts outcome = Outcome(device);
    outcome.erase(InstallMap);
    // A directory that could not be removed after its group was moved is left alone from then on.
    const std::string emptied = std::string(Mobile) + "/Groups/shared";
    if (fs::is_directory(device.inside(emptied)) && fs::is_empty(device.inside(emptied))) {
      outcome.erase(emptied);
      ++litter;
    }
    Facts expected = expected_;
    std::set<std::string> refused;
    ForgetLogs(&expected);
    ForgetLogs(&outcome);
    ForgiveRefusedBundles(&expected, &outcome, &refused);
    if (!refused.empty()) {
      ++gaveUp;
      EXPECT_EQ(run.exitStatus, 1) << "a bundle was given up silently: " << *refused.begin();
    }
    ExpectSame(expected, outcome, "call " + std::to_string(call));
    devices.expectUserFiles();
  }
  report(tried);
  std::cout << "  bundles given up: " << gaveUp << ", empty group directories left: " << litter
            << "\n";
  EXPECT_LE(litter, 1);
}

// What could not be looked at may stay, or be given up with a bundle; the user's files may not.
TEST_P(KilledMigration, EveryLookFailsOnce) {
  if (!tests::CanFailSystemCalls) GTEST_SKIP() << "calls can only be failed on x86-64";
  Devices devices(GetParam());
  measure(devices, tests::CountedCalls::looking);
  long tried = 0;
  long fired = 0;
  for (long call = 1; call <= calls_ && !IsSkipped(); call += stride(GetParam().lookStride)) {
    if (std::getenv("QUORVEL_KEEP_GOING") == nullptr && HasFailure()) break;
    SCOPED_TRACE("look " + std::to_string(call) + " failed");
    const Device& device = devices.fresh();
    const FaultedRun run = Migrate(device, {call, EIO, tests::CountedCalls::looking});
    ++tried;
    fired += run.fired ? 1 : 0;
    EXPECT_GE(run.exitStatus, 0);
    devices.expectUserFiles();
    device.run({"migrate"});
    devices.expectUserFiles();
  }
  report(tried);
  EXPECT_EQ(fired, tried);
}

INSTANTIATE_TEST_SUITE_P(
    All, KilledMigration,
    ::testing::Values(Variant{"OneFileSystem", nullptr, 31, 37, 89},
                      Variant{"DataElsewhere", "/private/var/mobile/Containers/Data", 53, 59, 211},
                      Variant{"ContainersElsewhere", "/private/var/mobile/Containers", 61, 71,
                              277}),
    [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace
}  // namespace quorvel::testing
