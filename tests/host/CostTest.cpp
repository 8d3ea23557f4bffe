// What a migration costs for each container, in what a machine's load does not change: system
// calls, flushes, instructions, memory. A figure that rises is looked at, and raised here or got
// rid of.
#include <sys/resource.h>
#include <sys/syscall.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/MigrationDevice.h"
#include "tests/sweep/TracedHost.h"

namespace quorvel {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools
using Calls = std::map<long, double>;

enum class Kind { plain, icon, plugin, group };

const char* NameOf(Kind kind) {
  static constexpr const char* names[] = {"plain", "icon", "plugin", "group"};
  return names[static_cast<std::size_t>(kind)];
}

void AddPluginOrGroup(const Device& device, Kind kind, int number) {
  const std::string text = std::to_string(1000 + number);
  const std::string container = device.container("C" + text);
  const std::string identifier = "com.example.app" + text;
  PutBundle(container + "/App" + text + ".app", identifier,
            kind == Kind::group ? "group.g" + text : "");
  if (kind == Kind::plugin) PutBundle(container + "/T.vpnplugin", identifier + ".tunnel");
  for (const char* name : {"/Documents/a", "/Library/b", "/tmp/c"}) Put(container + name, "data");
}

void MakeDevice(const std::string& root, Kind kind, int apps) {
  if (kind == Kind::plain || kind == Kind::icon) {
    const std::string icons = kind == Kind::plain ? " --no-icons" : "";
    const std::string made = std::string(LEGACY_IMAGE) + " '" + root + "' --plain --apps " +
                             std::to_string(apps) + icons + " >/dev/null";
    ASSERT_EQ(std::system(made.c_str()), 0);  // NOLINT(concurrency-mt-unsafe): one thread
    return;
  }
  const Device device(root);
  std::string groups;
  for (int number = 0; number < apps; ++number) {
    AddPluginOrGroup(device, kind, number);
    const std::string text = std::to_string(1000 + number);
    Put(root + Mobile + "/Groups/" + text + "/file", "of all");
    groups += "<key>group.g" + text + "</key><dict>" +
              Entry("Container", std::string(Mobile) + "/Groups/" + text) + "</dict>";
  }
  if (kind == Kind::group) {
    Put(root + InstallMap, Dictionary("<key>GroupContainers</key><dict>" + groups + "</dict>"));
  }
}

class CostTest : public ::testing::Test {
 protected:
  // Of a whole run over so many containers, or of one that is refused after all was looked at.
  Calls callsOf(Kind kind, int apps, bool refused) {
    const std::string root =
        scratch_ / (std::string(NameOf(kind)) + std::to_string(apps) + (refused ? "refused" : ""));
    MakeDevice(root, kind, apps);
    if (refused) Put(root + InstallMap, "damaged");
    Calls calls;
    const sweep::TracedRun run =
        sweep::MigrateTraced({HOST_BINARY, ""}, root, [&](const sweep::TracedCall& call) {
          ++calls[call.number];
          return sweep::Treatment{};
        });
    EXPECT_EQ(run.exitStatus, refused ? 5 : 0);
    return calls;
  }

  // What each container more costs, without what every run costs once.
  Calls callsPerContainer(Kind kind, int few, int many, bool refused = false) {
    Calls more = callsOf(kind, many, refused);
    for (const auto& [number, count] : callsOf(kind, few, refused)) more[number] -= count;
    for (auto& [number, count] : more) count /= many - few;
    return more;
  }

  ScratchTree scratch_;
};

std::string Listed(const Calls& calls) {
  std::string text;
  for (const auto& [number, count] : calls) {
    if (count > 0) text += " " + std::to_string(number) + ":" + std::to_string(count);
  }
  return text;
}

// Without the writes of the registry's database, which come in pages: of them a container may cost
// one more or less by where its record falls.
double TotalOf(Calls calls) {
  calls.erase(SYS_pwrite64);
  calls.erase(SYS_pread64);
  calls.erase(SYS_brk);
  calls.erase(SYS_mmap);
  calls.erase(SYS_munmap);
  double total = 0;
  for (const auto& [number, count] : calls) total += count;
  return total;
}

TEST_F(CostTest, ACallOrFlushMoreForEachContainerIsSeen) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers make calls of their own";
#endif
  if (::geteuid() != 0) GTEST_SKIP() << "calls are counted from the change of root on";
  const std::tuple<Kind, double, double> budgets[] = {
      {Kind::plain, 186, 3}, {Kind::icon, 196, 3}, {Kind::plugin, 220, 3}, {Kind::group, 268, 4}};
  for (const auto& [kind, calls, flushes] : budgets) {
    const Calls cost = callsPerContainer(kind, 8, 16);
    SCOPED_TRACE(std::string(NameOf(kind)) + ", by number of the call:" + Listed(cost));
    EXPECT_NEAR(TotalOf(cost), calls, 0.4);
    const auto flush = [&](long number) { return cost.contains(number) ? cost.at(number) : 0; };
    EXPECT_EQ(flush(SYS_syncfs) + flush(SYS_fsync) + flush(SYS_fdatasync), flushes);
    EXPECT_LE(flush(SYS_pwrite64), 16);
  }
  const double later = TotalOf(callsPerContainer(Kind::plain, 100, 200));
  EXPECT_NEAR(later, std::get<1>(budgets[0]), 1) << "no more for each where there are many";
}

// Of 10,000 containers these take 0.2 s: what they cost each must not grow with their number.
TEST_F(CostTest, ACallMoreOfThePreflightForEachContainerIsSeen) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers make calls of their own";
#endif
  if (::geteuid() != 0) GTEST_SKIP() << "calls are counted from the change of root on";
  const std::tuple<Kind, int, int, double> budgets[] = {
      {Kind::plain, 8, 16, 30}, {Kind::plain, 1000, 2000, 30}, {Kind::group, 100, 200, 30}};
  for (const auto& [kind, few, many, calls] : budgets) {
    const Calls cost = callsPerContainer(kind, few, many, true);
    EXPECT_NEAR(TotalOf(cost), calls, 0.4) << NameOf(kind) << many << Listed(cost);
  }
}

// Kilobytes at most, of a run over so many plain containers.
long MemoryOf(const std::string& root, int apps) {
  MakeDevice(root, Kind::plain, apps);
  const pid_t host = StartHost({"migrate", "--quiet", "--root", root});
  int status = -1;
  struct rusage usage {};
  EXPECT_EQ(::wait4(host, &status, 0, &usage), host);
  EXPECT_EQ(status, 0);
  return usage.ru_maxrss;
}

// Ten thousand take 23,400 KB.
TEST_F(CostTest, FiveThousandContainersTakeEighteenMegabytes) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers need memory of their own";
#endif
  EXPECT_LE(MemoryOf(scratch_ / "many", 5000), 18 * 1024) << "KB";
}

#ifdef COST_INSTRUCTIONS
// Counted by the simulator behind valgrind, since a virtual machine may have no counters.
double InstructionsOf(const std::string& root, const std::string& result, int apps) {
  MakeDevice(root, Kind::plain, apps);
  // It is opened before the host changes its root, and again at the end.
  fs::create_directories(fs::path(root + result).parent_path());
  const std::string command = "valgrind --quiet --vgdb=no --tool=callgrind --callgrind-out-file='" +
                              result + "' '" + HOST_BINARY + "' migrate --quiet --root '" + root +
                              "' 2>'" + result + ".err'";
  EXPECT_EQ(std::system(command.c_str()), 0)  // NOLINT(concurrency-mt-unsafe): one thread
      << ReadFile(result + ".err");
  std::ifstream counted(root + result);
  for (std::string line; std::getline(counted, line);) {
    if (line.starts_with("totals: ")) return std::stod(line.substr(8));
  }
  ADD_FAILURE() << "no total";
  return 0;
}

TEST_F(CostTest, ATenthMoreInstructionsForEachContainerIsSeen) {
  if (std::system("command -v valgrind >/dev/null") != 0) {  // NOLINT(concurrency-mt-unsafe)
    GTEST_SKIP() << "there is no valgrind";
  }
  if (::geteuid() != 0) GTEST_SKIP() << "a user namespace is closed to the simulator";
  const double few = InstructionsOf(scratch_ / "few", scratch_ / "few.out", 40);
  const double many = InstructionsOf(scratch_ / "many", scratch_ / "many.out", 80);
  EXPECT_NEAR((many - few) / 40, COST_INSTRUCTIONS, COST_INSTRUCTIONS / 10);
}
#endif

}  // namespace
}  // namespace quorvel
