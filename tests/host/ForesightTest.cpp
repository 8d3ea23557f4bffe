// What inspect foresees is what migrate does: of many made trees, as root and as an ordinary user.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <iterator>

#include "tests/host/TreeGenerator.h"
#include "tests/support/HostProcess.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {
namespace {

// By item, what inspect and migrate say of it.
std::map<std::string, std::string> Said(const json& result) {
  std::map<std::string, std::string> said;
  for (const json& container : result["containers"]) {
    json kept;
    for (const char* key :
         {"kind", "identifier", "outcome", "step", "reason", "kept", "lost", "items"}) {
      kept[key] = container[key];
    }
    std::sort(kept["items"].begin(), kept["items"].end());
    said[container["path"]] = kept.dump();
  }
  for (const char* list : {"groups", "harbors"}) {
    for (const json& one : result[list]) {
      said[list + one["identifier"].get<std::string>()] =
          one["outcome"].dump() + one["reason"].dump() + one["path"].dump();
    }
  }
  for (const json& one : result["leftBehind"])
    said["left " + one["path"].dump()] = one["why"].dump();
  said["counts"] = result["counts"].dump();
  return said;
}

// Where a second file system lies in the device, below the mobile user's directory.
constexpr const char* kOtherDisks[] = {"/Containers", "/Containers/Data", "/Containers/Bundle",
                                       "/Containers/Group", "/Applications"};

enum class Disks { one, two };

class Trial {
 public:
  Trial(unsigned seed, bool asUser, Disks disks, const HostSetup& setup)
      : seed_(seed),
        asUser_(asUser),
        setup_(setup),
        device_(tree_ / "device"),
        generator_(device_, seed, asUser, disks == Disks::two) {}
  ~Trial() {
    Loosen(device_.root());
    for (const char* place : kOtherDisks) {
      (void)::umount2((device_.root() + Mobile + place).c_str(), MNT_DETACH);
    }
  }
  Trial(const Trial&) = delete;
  Trial& operator=(const Trial&) = delete;

  // In mounts of the process's own.
  void addDisk() const {
    const std::string place = device_.root() + Mobile + kOtherDisks[seed_ % std::size(kOtherDisks)];
    fs::create_directories(place);
    ASSERT_EQ(::mount("tmpfs", place.c_str(), "tmpfs", 0, "mode=0755"), 0);
  }

  void run() {
    generator_.maps();
    generator_.builtInApps();
    generator_.containers("C");
    give("");
    (void)device_.run({"register", "--identifier", "com.example.g1"}, setup_);
    (void)device_.run({"register", "--identifier", "com.example.g2"}, setup_);
    generator_.ills();
    generator_.groupIlls();
    compare("first");
    // What the run left, with new containers among it.
    generator_.containers("D");
    give(LegacyDirectory + "D*");
    generator_.ills();
    compare("second");
  }

  int items() const { return items_; }
  const std::vector<std::string>& printed() const { return printed_; }

 private:
  // What is made sound belongs to the user who migrates.
  void give(const std::string& which) {
    if (!asUser_) return;
    const std::string user = std::to_string(NobodyUser);
    const std::string command =
        "find " + device_.inside(which) + " -exec chown -h " + user + ":" + user + " {} +";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }

  void compare(const char* round) {
    const HostRun looked = device_.run({"inspect", "--json"}, setup_);
    ASSERT_FALSE(looked.out.empty()) << looked.err;
    const json foreseen = json::parse(looked.out);
    printed_.push_back(looked.out);
    std::vector<std::string> words = {"migrate", "--json"};
    for (const json& finding : foreseen["preflight"]) {
      if (finding["severity"] != "refuse") continue;
      words.insert(words.end(), {"--force-preflight", finding["name"]});
    }
    if (words.size() > 2) {
      EXPECT_EQ(looked.exitCode, 5) << looked.out;
      const HostRun refused = device_.run({"migrate", "--json"}, setup_);
      EXPECT_EQ(refused.exitCode, 5) << looked.out;
      printed_.push_back(refused.out);
    }
    const HostRun ran = device_.run(words, setup_);
    ASSERT_FALSE(ran.out.empty()) << ran.err;
    printed_.push_back(ran.out);
    const auto expected = Said(foreseen);
    const auto said = Said(json::parse(ran.out));
    items_ += static_cast<int>(said.size());
    for (const auto& [item, text] : said) {
      const auto at = expected.find(item);
      EXPECT_EQ(at == expected.end() ? "nothing" : at->second, text)
          << "seed " << seed_ << (asUser_ ? " as user, " : " as root, ") << round
          << " round: " << item << "\n"
          << generator_.told;
    }
    for (const auto& [item, text] : expected) {
      EXPECT_TRUE(said.contains(item))
          << "seed " << seed_ << (asUser_ ? " as user, " : " as root, ") << round
          << " foreseen only: " << item << text;
    }
  }

  const unsigned seed_;
  const bool asUser_;
  const HostSetup setup_;
  const ScratchTree tree_;
  const Device device_;
  TreeGenerator generator_;
  int items_ = 0;
  std::vector<std::string> printed_;
};

// As many as a test may take time for; QUORVEL_SEEDS=1-500 tries more, or one again.
std::pair<unsigned, unsigned> Seeds() {
  std::pair<unsigned, unsigned> seeds(1, 20);
  if (const char* wanted = std::getenv("QUORVEL_SEEDS")) {
    std::sscanf(wanted, "%u-%u", &seeds.first, &seeds.second);
  }
  return seeds;
}

void TryAll(bool asUser, Disks disks, const HostSetup& setup) {
  const auto [first, last] = Seeds();
  int items = 0;
  std::vector<std::string> printed;
  for (unsigned seed = first; seed <= last; ++seed) {
    Trial trial(seed, asUser, disks, setup);
    if (disks == Disks::two) trial.addDisk();
    trial.run();
    items += trial.items();
    printed.insert(printed.end(), trial.printed().begin(), trial.printed().end());
    // A command line holds only so many.
    if (seed != last && printed.size() < 500) continue;
    ExpectDocumented(printed);
    printed.clear();
  }
  ::testing::Test::RecordProperty("items", items);
  EXPECT_GT(items, 0);
}

class ForesightTest : public ::testing::TestWithParam<Disks> {
 protected:
  // With mounts of its own, which end with it, where a second disk is to be had.
  static void tryAll(bool asUser, const HostSetup& setup) {
    if (GetParam() == Disks::one) return TryAll(asUser, Disks::one, setup);
    if (!NoMounts().empty()) GTEST_SKIP() << NoMounts();
    EXPECT_TRUE(WithMounts([&] { TryAll(asUser, Disks::two, setup); }));
  }
};

TEST_P(ForesightTest, InspectForeseesWhatMigrateDoesAsRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "the other test is the one for an ordinary user";
  tryAll(false, {});
}

TEST_P(ForesightTest, InspectForeseesWhatMigrateDoesAsAnOrdinaryUser) {
  if (!NoUnprivilegedCase().empty()) GTEST_SKIP() << NoUnprivilegedCase();
  const ScratchTree programs("/tmp");
  HostSetup setup;
  setup.asNobody = true;
  setup.program = CopyHostTo(programs / "bin");
  setup.environment["LD_LIBRARY_PATH"] = programs / "bin";
  tryAll(true, setup);
}

INSTANTIATE_TEST_SUITE_P(Disks, ForesightTest, ::testing::Values(Disks::one, Disks::two),
                         [](const auto& test) {
                           return test.param == Disks::one ? "OneDisk" : "TwoDisks";
                         });

}  // namespace
}  // namespace quorvel::testing
