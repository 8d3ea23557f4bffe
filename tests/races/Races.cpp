// Operations of the file manager, and whole migrations, while links take the place of what they
// are at work on; and the same done carelessly, which must be caught.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "platform/Path.h"
#include "shared/filemanager/QVFileManager.h"
#include "tests/races/Canary.h"
#include "tests/races/Exchanger.h"
#include "tests/races/Rows.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/TestPlatform.h"

namespace quorvel::races {

namespace {

namespace fs = std::filesystem;
using testing::ScratchTree;

constexpr int kPlaces = 4;
constexpr long kMostRounds = 20'000;

// Where one round takes place.
struct Round {
  std::string root;
  std::string to;  // on another file system where one is needed
  Canary& canary;
  std::string wrong;
};

struct Race {
  const char* name;
  void (*operate)(Round&);
  bool needsRoot = false;
  bool isControl = false;
};

// Directories and files, and beside each the link that it changes places with. `canary` is the
// canary's path as the links have it.
void MakePlaces(const std::string& directory, const std::string& canary) {
  testing::MakeDirectory(directory);
  for (int i = 0; i < kPlaces; ++i) {
    const std::string number = std::to_string(i);
    testing::MakeDirectory(directory + "/d" + number);
    for (int file = 0; file < 4; ++file) {
      testing::WriteFile(directory + "/d" + number + "/kept" + std::to_string(file), "own");
    }
    testing::MakeLink(canary, directory + "/l" + number);
    testing::WriteFile(directory + "/f" + number, "own");
    testing::MakeLink(canary + Canary::FileName, directory + "/g" + number);
  }
}

std::vector<Pair> PairsIn(const std::string& directory, std::mt19937& random) {
  std::vector<Pair> pairs;
  for (int i = 0; i < kPlaces; ++i) {
    const std::string number = std::to_string(i);
    pairs.emplace_back(directory, "d" + number, "l" + number);
    pairs.emplace_back(directory, "f" + number, "g" + number);
  }
  std::shuffle(pairs.begin(), pairs.end(), random);
  // Few pairs are exchanged often, many seldom.
  pairs.erase(pairs.begin() + 1 + static_cast<long>(random() % (pairs.size() - 1)), pairs.end());
  return pairs;
}

QVFileManager& Operations() { return QVFileManager::defaultManager(); }

void Remove(Round& round) {
  // What another keeps bringing back may outlive one attempt.
  for (int i = 0; i < 3 && testing::Exists(round.root); ++i) {
    (void)Operations().removeItemAtURL(Path::directory(round.root));
  }
}

void Copy(Round& round) {
  (void)Operations().copyItemAtURL(Path::directory(round.root), Path::directory(round.to));
}

void Move(Round& round) {
  (void)Operations().moveItemAtURL(Path::directory(round.root), Path::directory(round.to));
}

// Within one file system.
void Rename(Round& round) { Move(round); }

void List(Round& round) {
  for (const char* place : {"", "/d0", "/l0"}) {
    const auto items =
        Operations().urlsForItemsInDirectoryAtURL(Path::directory(round.root + place), false);
    for (const Path& item : items.value_or(std::vector<Path>())) {
      if (item.lastPathComponent() == Canary::OwnDirectory) round.wrong = "the canary was listed";
    }
  }
}

void Walk(Round& round) {
  Error error;
  (void)Operations()._traverseDirectory(
      Path::directory(round.root), &error, [&round](const TreeWalkEntry& entry, Error*) {
        const bool isKnown =
            entry.kind != TreeWalkKind::noStat && entry.kind != TreeWalkKind::error;
        if (isKnown && round.canary.holds(entry.info.inode)) {
          round.wrong = std::string("the walk came to ") + entry.path;
        }
        return true;
      });
}

void Standardize(Round& round) {
  (void)Operations().standardizeOwnershipAtURL(Path::directory(round.root), {.uid = 7, .gid = 7});
  for (const char* name : {"/f0", "/g0", "/d0", "/l0"}) {
    (void)Operations().setDataProtectionClassOfItemAtURL(Path::file(round.root + name), 3, {});
  }
}

// Between a look and a deed, so that also on one processor there is somebody to come between.
void Dawdle() { std::this_thread::sleep_for(std::chrono::microseconds(50)); }

// Looks by name and then acts by name: what an operation must not do.
void RemoveCarelessly(Round& round) {
  for (int i = 0; i < kPlaces; ++i) {
    const std::string directory = round.root + "/d" + std::to_string(i);
    if (!S_ISDIR(testing::StatOf(directory).st_mode)) continue;
    Dawdle();
    for (int file = 0; file < 4; ++file) {
      ::unlink((directory + "/kept" + std::to_string(file)).c_str());
    }
  }
}

void CopyCarelessly(Round& round) {
  testing::MakeDirectory(round.to);
  for (int i = 0; i < kPlaces; ++i) {
    const std::string file = round.root + "/f" + std::to_string(i);
    if (!S_ISREG(testing::StatOf(file).st_mode)) continue;
    Dawdle();
    testing::WriteFile(round.to + "/f" + std::to_string(i), testing::ReadFile(file));
  }
}

void StandardizeCarelessly(Round& round) {
  for (int i = 0; i < kPlaces; ++i) {
    const std::string file = round.root + "/f" + std::to_string(i);
    if (!S_ISREG(testing::StatOf(file).st_mode)) continue;
    Dawdle();
    ::chmod(file.c_str(), 0604);
  }
}

const Race kRaces[] = {
    {"remove", Remove},
    {"copy", Copy},
    {"rename", Rename},
    {"move", Move},
    {"list", List},
    {"walk", Walk},
    {"standardize", Standardize, true},
    {"careless removal", RemoveCarelessly, false, true},
    {"careless copy", CopyCarelessly, false, true},
    {"careless modes", StandardizeCarelessly, false, true},
};

// What is wrong after one round; empty when nothing is.
std::string RunRound(const Race& race, Round& round, std::mt19937& random, long* exchanges) {
  MakePlaces(round.root, round.canary.path());
  Exchanger exchanger(PairsIn(round.root, random));
  race.operate(round);
  *exchanges += exchanger.stop();
  if (round.wrong.empty()) round.wrong = round.canary.harm();
  if (round.wrong.empty()) round.wrong = round.canary.leak(round.to);
  return round.wrong;
}

Row Run(const Race& race, const Options& options) {
  Row row;
  row.name = race.name;
  row.isControl = race.isControl;
  if (race.needsRoot && ::geteuid() != 0) {
    row.skipped = "owners can only be given by root";
    return row;
  }
  tests::TestPlatform platform;
  const ScratchTree tree;
  const ScratchTree other(testing::OtherFileSystem());
  Canary canary(tree / "canary");
  std::mt19937 random(options.seed);
  // On a busy machine it may take a while until a control is caught, or anything is exchanged.
  const auto isThrough = [&] {
    const bool isWaiting = race.isControl || row.exchanges == 0;
    return row.rounds >= (isWaiting ? std::max(options.rounds, kMostRounds) : options.rounds);
  };
  while (!isThrough() && row.wrong.empty()) {
    ++row.rounds;
    Round round{tree / "root", race.operate == Move ? other / "to" : tree / "to", canary, {}};
    const std::string wrong = RunRound(race, round, random, &row.exchanges);
    if (!wrong.empty()) row.wrong.push_back(wrong);
    fs::remove_all(round.root);
    fs::remove_all(round.to);
    platform.log.clear();
  }
  return row;
}

// The canary lies on the device, where the links lead to behind the host's change of root.
void PrepareDevice(const testing::Device& device) {
  testing::PutBundle(device.container("A/Foo.app"), "com.example.foo");
  testing::MakeDirectory(device.container("A/Documents"));
  for (const char* place : {"A/Documents/at", "A/Foo.app/at", "B"}) {
    MakePlaces(device.container(place), "/canary");
  }
}

std::vector<Pair> PairsOf(const testing::Device& device, std::mt19937& random) {
  std::vector<Pair> pairs;
  for (const char* place : {"A/Documents/at", "A/Foo.app/at", "B"}) {
    for (Pair& pair : PairsIn(device.container(place), random)) pairs.push_back(std::move(pair));
  }
  return pairs;
}

// An app whose data and bundle change meanwhile, and a container without an app, which is removed.
Row RunMigrations(const Options& options) {
  constexpr long kCost = 20;  // in rounds of the others
  Row row;
  row.name = "migration";
  std::mt19937 random(options.seed);
  const ScratchTree tree;
  while (row.rounds * kCost < options.rounds && row.wrong.empty()) {
    ++row.rounds;
    const testing::Device device(tree / "device");
    fs::create_directories(device.inside(testing::Mobile));
    Canary canary(device.inside("/canary"));
    PrepareDevice(device);
    Exchanger exchanger(PairsOf(device, random));
    const testing::HostRun run = device.run({"migrate", "--quiet"});
    row.exchanges += exchanger.stop();
    if (run.exitCode != 0 && run.exitCode != 1) {
      row.wrong.push_back("the host ended with " + std::to_string(run.exitCode));
    }
    if (const std::string harm = canary.harm(); !harm.empty()) row.wrong.push_back(harm);
    const std::string leak = canary.leak(device.inside("/private"));
    if (!leak.empty()) row.wrong.push_back(leak);
    fs::remove_all(tree / "device");
  }
  return row;
}

}  // namespace

std::vector<Row> RunRaces(const Options& options) {
  std::vector<Row> rows;
  for (const Race& race : kRaces) {
    if (options.only.empty() || options.only == race.name) rows.push_back(Run(race, options));
  }
  if (options.only.empty() || options.only == "migration") rows.push_back(RunMigrations(options));
  return rows;
}

}  // namespace quorvel::races
