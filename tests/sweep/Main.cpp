// Sweeps a migration with faults: kills, power cuts and failing calls at every point of it.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

#include "tests/support/TreeTools.h"
#include "tests/sweep/Crew.h"
#include "tests/sweep/Report.h"

namespace quorvel::sweep {

long CallOf(const std::string& point) { return std::atol(point.c_str()); }

std::string DetailOf(const std::string& point) {
  const auto slash = point.find('/');
  return slash == std::string::npos ? std::string() : point.substr(slash + 1);
}

namespace {

constexpr int kExitGood = 0;
constexpr int kExitLoss = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSkipped = 77;
// The control need not go through every point: it is over when it was caught.
constexpr std::size_t kControlPoints = 24;
constexpr std::size_t kFewControlPoints = 8;  // beside a sweep that tries only some points

const std::vector<Variant>& AllVariants() {
  static const std::vector<Variant> variants = {
      {"one", ""},
      {"data-elsewhere", "/private/var/mobile/Containers/Data"},
      {"containers-elsewhere", "/private/var/mobile/Containers"}};
  return variants;
}

// A point that is asked for by name may be of a kind that is made while points are tried, such as
// the second of two kills; then it is taken by its word.
std::vector<std::string> Chosen(const Options& options, const std::vector<std::string>& points) {
  std::vector<std::string> chosen;
  for (const std::string& only : options.only) {
    if (!DetailOf(only).empty()) chosen.push_back(only);
  }
  const auto every = static_cast<std::size_t>(options.every);
  for (std::size_t i = 0; i < points.size(); ++i) {
    const std::string call = std::to_string(CallOf(points[i]));
    const bool isNamed =
        std::find(options.only.begin(), options.only.end(), call) != options.only.end();
    if (options.only.empty() ? i % every == every / 2 : isNamed) chosen.push_back(points[i]);
  }
  return chosen;
}

std::vector<std::string> Spread(const std::vector<std::string>& points, std::size_t count) {
  std::vector<std::string> spread;
  for (std::size_t i = 0; i < count && !points.empty(); ++i) {
    spread.push_back(points[i * points.size() / count]);
  }
  return spread;
}

std::string Repeat(const Options& options, const Sweep& sweep, const Variant& variant) {
  const std::string fileSystem = sweep.fileSystem();
  return "scripts/sweep " + sweep.name() + " --variant " + variant.name +
         (fileSystem.empty() ? "" : " --file-system " + fileSystem) +
         (options.isSmall ? " --small" : "");
}

Row Run(Sweep& sweep, const Options& options, const Variant& variant) {
  Row row;
  row.sweep = sweep.name();
  row.variant = variant.name + (sweep.fileSystem().empty() ? "" : ", " + sweep.fileSystem());
  row.isControl = sweep.isControl();
  row.skipped = sweep.whyNot();
  if (!row.skipped.empty()) return row;
  if (!sweep.measure(&row.broken)) return row;
  row.broken.clear();
  const std::vector<std::string> points =
      sweep.isControl()
          ? Spread(sweep.points(), options.every > 1 ? kFewControlPoints : kControlPoints)
          : Chosen(options, sweep.points());
  std::string keep;
  if (!options.only.empty()) {
    keep = options.directory + "/kept";
    for (const char* place : {"/behind-the-fault", "/behind-the-recovery"}) {
      std::filesystem::create_directories(keep + place);
    }
  }
  Account account(row, Repeat(options, sweep, variant), points.size());
  const bool whole = TryPoints(
      sweep, points, keep.empty() ? options.jobs : 1, keep,
      [&](const Finding& finding) { account.add(finding); },
      [&](std::size_t done) { account.show(done); });
  row = account.close();
  if (!whole) row.broken = "a worker of the sweep died";
  return row;
}

std::vector<std::unique_ptr<Sweep>> SweepsOf(const Options& options, const Variant& variant) {
  std::vector<std::unique_ptr<Sweep>> sweeps;
  const bool all = options.sweep == "all";
  if (all || options.sweep == "kill") sweeps.push_back(MakeKillSweep(options, variant));
  if (all || options.sweep == "fail") sweeps.push_back(MakeFailSweep(options, variant));
  if (!all && options.sweep != "power") return sweeps;
  const bool isFirst = variant.name == options.variants.front().name;
  for (const std::string& fileSystem : options.fileSystems) {
    sweeps.push_back(MakePowerSweep(options, variant, fileSystem, true));
    if (options.only.empty() && (options.every == 1 || isFirst)) {
      sweeps.push_back(MakePowerSweep(options, variant, fileSystem, false));
    }
  }
  return sweeps;
}

int Verdict(const std::vector<Row>& rows) {
  const auto isGood = [](const Row& row) { return row.isGood(); };
  const auto isSkipped = [](const Row& row) { return !row.skipped.empty(); };
  if (!std::all_of(rows.begin(), rows.end(), isGood)) return kExitLoss;
  return std::all_of(rows.begin(), rows.end(), isSkipped) ? kExitSkipped : kExitGood;
}

int RunAll(const Options& options) {
  std::vector<Row> rows;
  for (const Variant& variant : options.variants) {
    for (const auto& sweep : SweepsOf(options, variant)) {
      rows.push_back(Run(*sweep, options, variant));
    }
  }
  PrintTable(rows);
  return Verdict(rows);
}

// In memory where there is such a place: the sweeps write a lot.
std::string MakeDirectory() {
  for (const char* base : {"/dev/shm", "/tmp"}) {
    std::string name = std::string(base) + "/quorvel-sweep.XXXXXX";
    if (::mkdtemp(name.data()) != nullptr) return name;
  }
  std::abort();
}

bool Parse(int argc, char** argv, Options* options, int* code) {
  CLI::App app("Sweeps a migration with faults at every point of it", "sweep");
  std::vector<std::string> names;
  app.add_option("sweep", options->sweep, "kill, power, fail or all")
      ->required()
      ->check(CLI::IsMember({"kill", "power", "fail", "all"}));
  app.add_option("--every", options->every, "Try every so many points")->check(CLI::PositiveNumber);
  app.add_option("--variant", names, "one, data-elsewhere, containers-elsewhere; all by default")
      ->check(CLI::IsMember({"one", "data-elsewhere", "containers-elsewhere"}));
  app.add_option("--file-system", options->fileSystems, "ext4, xfs (power); both by default")
      ->check(CLI::IsMember({"ext4", "xfs"}));
  app.add_option("--only", options->only, "Try a point, or all of a call, and keep the trees");
  app.add_option("--jobs", options->jobs, "Processes that share the points")
      ->check(CLI::PositiveNumber);
  app.add_flag("--small", options->isSmall, "A device with few containers");
  app.add_option("--host", options->host, "Another migration-host")->check(CLI::ExistingFile);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    *code = app.exit(error) == 0 ? kExitGood : kExitUsage;
    return false;
  }
  if (options->fileSystems.empty()) options->fileSystems = {"ext4", "xfs"};
  for (const Variant& variant : AllVariants()) {
    const bool isNamed = std::find(names.begin(), names.end(), variant.name) != names.end();
    if (names.empty() || isNamed) options->variants.push_back(variant);
  }
  return true;
}

}  // namespace
}  // namespace quorvel::sweep

int main(int argc, char** argv) {
  using namespace quorvel::sweep;
  Options options;
  options.host = HOST_BINARY;
  options.preload = NO_FLUSH;
  options.jobs = std::max<long>(std::thread::hardware_concurrency(), 1);
  int code = kExitUsage;
  if (!Parse(argc, argv, &options, &code)) return code;
  options.directory = MakeDirectory();
  code = RunAll(options);
  const std::string kept = options.directory + "/kept";
  if (options.only.empty()) {
    quorvel::testing::RemoveWithSystem(options.directory);
  } else {
    std::printf("The trees are kept in %s\n", kept.c_str());
  }
  return code;
}
