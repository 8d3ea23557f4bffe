// What inspect foresees is what migrate does: of many made trees, as root and as an ordinary user.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <iterator>
#include <random>

#include "tests/support/HostProcess.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {
namespace {

constexpr const char* kHarborMap = "/private/var/mobile/Library/Quorvel/SafeHarbor.plist";
const std::string kLegacy = std::string(Mobile) + "/Applications/";

// One container of a made tree, as its ills see it.
struct Made {
  const Device& device;
  std::string name{};
  std::string identifier{};
  std::string bundle{};  // its name; empty when there is none
  std::string other{};   // the name of another container

  std::string at(const std::string& item) const { return device.container(name + "/" + item); }
  std::string inside(const std::string& item) const { return kLegacy + name + "/" + item; }
  void marker(const std::string& container, const std::string& bundlePath,
              const std::string& app) const {
    Put(at(MarkerName),
        Dictionary(Entry("ContainerPath", container) + Entry("BundlePath", bundlePath) +
                   Entry("ContainerType", "App") + Entry("BundleIdentifier", app)));
  }
};

void Mode(const std::string& path, mode_t mode) { (void)::chmod(path.c_str(), mode); }
void OwnByRoot(const std::string& path) { (void)::lchown(path.c_str(), 0, 0); }
void Replace(const std::string& path, const std::string& bytes) {
  fs::remove_all(path);
  Put(path, bytes);
}

// As far as the file system has the flag and the test the right to it.
void Fix(const std::string& path, bool fixed) {
  const int item = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  int flags = fixed ? FS_IMMUTABLE_FL : 0;
  if (item >= 0) (void)::ioctl(item, FS_IOC_SETFLAGS, &flags);
  ::close(item);
}

// Everything may be removed again.
void Loosen(const std::string& root) {
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_symlink() && (entry.is_regular_file() || entry.is_directory())) {
      Fix(entry.path(), false);
    }
  }
}

using Ill = void (*)(const Made&);

// Each names what real devices had, or what an attacker would write.
constexpr std::pair<const char*, Ill> kIlls[] = {
    {"container 0555", [](const Made& m) { Mode(m.at(""), 0555); }},
    {"container 0300", [](const Made& m) { Mode(m.at(""), 0300); }},
    {"container 0000", [](const Made& m) { Mode(m.at(""), 0); }},
    {"container 0444", [](const Made& m) { Mode(m.at(""), 0444); }},
    {"root's container", [](const Made& m) { OwnByRoot(m.at("")); }},
    {"root's Documents", [](const Made& m) { OwnByRoot(m.at("Documents")); }},
    {"root's file in it", [](const Made& m) { OwnByRoot(m.at("Documents/plain")); }},
    {"root's bundle", [](const Made& m) { OwnByRoot(m.at(m.bundle)); }},
    {"Documents 0000", [](const Made& m) { Mode(m.at("Documents"), 0); }},
    {"Documents 0555", [](const Made& m) { Mode(m.at("Documents"), 0555); }},
    {"immutable file deep inside",
     [](const Made& m) { Fix(m.at("Library/Preferences/deep/er/file"), true); }},
    {"immutable directory deep inside",
     [](const Made& m) { Fix(m.at("Library/Preferences/deep"), true); }},
    {"immutable file in the bundle",
     [](const Made& m) { Fix(m.at(m.bundle + "/Info.plist"), true); }},
    {"unreadable empty directory", [](const Made& m) { Mode(m.at("Tillkit/empty"), 0); }},
    {"unreadable empty directory of root's",
     [](const Made& m) {
       OwnByRoot(m.at("Tillkit/empty"));
       Mode(m.at("Tillkit/empty"), 0);
     }},
    {"tmp 0500", [](const Made& m) { Mode(m.at("tmp"), 0500); }},
    {"bundle 0555", [](const Made& m) { Mode(m.at(m.bundle), 0555); }},
    {"bundle 0000", [](const Made& m) { Mode(m.at(m.bundle), 0); }},
    {"dictionary 0000", [](const Made& m) { Mode(m.at(m.bundle + "/Info.plist"), 0); }},
    {"dictionary is garbage", [](const Made& m) { Put(m.at(m.bundle + "/Info.plist"), "no"); }},
    {"dictionary is empty",
     [](const Made& m) { Put(m.at(m.bundle + "/Info.plist"), Dictionary("")); }},
    {"dictionary is a directory",
     [](const Made& m) {
       fs::remove(m.at(m.bundle + "/Info.plist"));
       fs::create_directory(m.at(m.bundle + "/Info.plist"));
     }},
    {"no dictionary", [](const Made& m) { fs::remove(m.at(m.bundle + "/Info.plist")); }},
    {"executable is a link out",
     [](const Made& m) {
       fs::remove(m.at(m.bundle + "/Executable"));
       fs::create_symlink("/etc/passwd", m.at(m.bundle + "/Executable"));
     }},
    {"metadata 0000",
     [](const Made& m) {
       Put(m.at("LorvixMetadata.plist"), "m");
       Mode(m.at("LorvixMetadata.plist"), 0);
     }},
    {"metadata is a directory",
     [](const Made& m) {
       fs::remove(m.at("LorvixMetadata.plist"));
       Put(m.at("LorvixMetadata.plist/x"), "");
     }},
    {"an item that no step moves", [](const Made& m) { Put(m.at("Photos/one"), "photo"); }},
    {"a second app", [](const Made& m) { PutBundle(m.at("Zweite.app"), m.identifier + ".b"); }},
    {"a plug-in of the same identifier",
     [](const Made& m) { PutBundle(m.at("Same.vpnplugin"), m.identifier); }},
    {"another kind of an identifier",
     [](const Made& m) { PutBundle(m.at("Kind.vpnplugin"), "com.example.g0"); }},
    {"linked bundle", [](const Made& m) { fs::create_symlink("/x", m.at("Link.app")); }},
    {"bundle is a file", [](const Made& m) { Replace(m.at("File.app"), "no bundle"); }},
    {"data is a link",
     [](const Made& m) {
       fs::remove_all(m.at("Library"));
       fs::create_symlink("/private/var/mobile", m.at("Library"));
     }},
    {"data is a file", [](const Made& m) { Replace(m.at("Library"), "file"); }},
    {"begun", [](const Made& m) { m.marker(m.inside(""), m.inside(m.bundle), m.identifier); }},
    {"begun and staged",
     [](const Made& m) {
       m.marker(m.inside(""), m.inside(m.bundle), m.identifier);
       if (m.bundle.empty()) return;
       fs::create_directories(m.at("Staging/Payload"));
       fs::rename(m.at(m.bundle), m.at("Staging/Payload/" + m.bundle));
     }},
    {"staged and a stranger beside it",
     [](const Made& m) {
       m.marker(m.inside(""), m.inside(m.bundle), m.identifier);
       Put(m.at("Staging/Payload/stranger"), "x");
     }},
    {"marker without its keys", [](const Made& m) { Put(m.at(MarkerName), Dictionary("")); }},
    {"marker is garbage", [](const Made& m) { Put(m.at(MarkerName), "garbage"); }},
    {"marker 0000",
     [](const Made& m) {
       m.marker(m.inside(""), m.inside(m.bundle), m.identifier);
       Mode(m.at(MarkerName), 0);
     }},
    {"marker is a link", [](const Made& m) { fs::create_symlink("x", m.at(MarkerName)); }},
    {"marker of another container",
     [](const Made& m) {
       m.marker(kLegacy + m.other, kLegacy + m.other + "/A.app", m.identifier);
     }},
    {"marker of another bundle",
     [](const Made& m) { m.marker(m.inside(""), kLegacy + m.other + "/A.app", m.identifier); }},
    {"marker of the tree's root", [](const Made& m) { m.marker("/", "/A.app", m.identifier); }},
    {"marker of nothing",
     [](const Made& m) { m.marker("/nowhere", "/nowhere/A.app", "com.none"); }},
    {"marker of another app",
     [](const Made& m) { m.marker(m.inside(""), m.inside(m.bundle), "com.example.other"); }},
};

class Generator {
 public:
  Generator(const Device& device, unsigned seed, bool asUser)
      : device_(device), asUser_(asUser), random_(seed) {}

  std::string told;  // what was made, for a failure

  void containers(const std::string& prefix) {
    const int count = 3 + below(6);
    for (int i = 0; i < count; ++i) {
      const std::string name = prefix + std::to_string(i);
      made_.push_back(sound(name, "com.example.g" + std::to_string(oneIn(8) ? 0 : i)));
    }
  }

  void ills() {
    for (Made& made : made_) {
      made.other = made_[static_cast<std::size_t>(below(static_cast<int>(made_.size())))].name;
      for (int i = below(3); i > 0 && Exists(made.at("")); --i) {
        const auto& [name, ill] = kIlls[static_cast<std::size_t>(below(std::size(kIlls)))];
        const bool isOfBundle = std::string_view(name).find("bundle") != std::string_view::npos ||
                                std::string_view(name).find("dictionary") == 0 ||
                                std::string_view(name).find("executable") == 0;
        // Whether it is empty only an attempt to remove it shows.
        if (asUser_ && std::string_view(name).starts_with("unreadable empty")) continue;
        if (isOfBundle && !Exists(made.at(made.bundle + "/Info.plist"))) continue;
        told += made.name + ": " + name + "\n";
        try {
          ill(made);
        } catch (const fs::filesystem_error&) {
          // Some exclude each other.
        }
      }
    }
    made_.clear();
  }

  // Groups of migrated apps and of none, there and gone, and harbors of both kinds.
  void maps() {
    std::string groups;
    std::string harbors;
    for (int i = 0; i < 5; ++i) {
      const std::string path = std::string(Mobile) + "/Groups/" + std::to_string(i);
      groups += "<key>group." + std::to_string(i) + "</key>";
      groups += oneIn(6) ? "<string>damaged</string>"
                         : "<dict>" + Entry("Container", oneIn(9) ? "/private" : path) + "</dict>";
      if (oneIn(4)) continue;
      Put(device_.root() + path + "/Library/file", "of a group");
      harbors +=
          "<key>com.gone." + std::to_string(i) + "</key><dict>" +
          Entry(oneIn(5) ? "Other" : "HarborPathKey",
                oneIn(4) ? "/nowhere" : std::string(Mobile) + "/Harbors/" + std::to_string(i)) +
          "</dict>";
      fs::create_directories(device_.root() + Mobile + "/Harbors/" + std::to_string(i));
    }
    Put(device_.root() + InstallMap,
        Dictionary("<key>GroupContainers</key><dict>" + groups + "</dict>"));
    if (oneIn(2)) Put(device_.root() + kHarborMap, Dictionary(harbors));
  }

  // Apps that the system carries, older than the users' or of the same version. A newer one is kept
  // in the place of the user's, which the preview does not know.
  void builtInApps() {
    for (int i = 0; i < 9; ++i) {
      if (!oneIn(4)) continue;
      const char* const versions[] = {"0.9", "1.2"};
      const std::string name = "/Applications/BuiltIn" + std::to_string(i) + ".app";
      PutBundle(device_.inside(name), "com.example.g" + std::to_string(i), "", versions[below(2)]);
    }
  }

  void groupIlls() {
    for (int i = 0; i < 5; ++i) {
      const std::string path = device_.root() + Mobile + "/Groups/" + std::to_string(i);
      if (!Exists(path) || !oneIn(5)) continue;
      const int which = below(4);
      told += path + ": " + std::to_string(which) + "\n";
      if (which == 0) Mode(path, 0555);
      if (which == 1) OwnByRoot(path);
      if (which == 2) Mode(path + "/Library", 0555);
      if (which == 3) Mode(path, 0);
    }
  }

 private:
  int below(std::size_t bound) { return static_cast<int>(random_() % bound); }
  int below(int bound) { return below(static_cast<std::size_t>(bound)); }
  bool oneIn(int count) { return below(count) == 0; }

  Made sound(const std::string& name, const std::string& identifier) {
    Made made{device_, name, identifier};
    const int kind = below(10);
    if (kind == 9) {
      Put(device_.container(name), "a file");
      return made;
    }
    fs::create_directories(device_.container(name));
    if (kind <= 6) {
      made.bundle = kind == 6 ? "A.vpnplugin" : "A.app";
      PutBundle(made.at(made.bundle), identifier,
                oneIn(2) ? "group." + std::to_string(below(5)) : "");
    }
    if (kind == 5) {
      SetAttribute(made.at("A.app"), "user.com.velto.quorveld.placeholder",
                   std::string("\1\0\0\0", 4));
    }
    if (kind == 4) PutBundle(made.at("B.vpnplugin"), identifier + ".tunnel");
    if (!oneIn(3)) PutData(device_.container(name), name);
    if (oneIn(3)) Put(made.at("Manifest.plist"), "store");
    if (oneIn(12)) fs::create_symlink("/", device_.container(name + "-link"));
    return made;
  }

  const Device& device_;
  const bool asUser_;
  std::mt19937 random_;
  std::vector<Made> made_;
};

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

class Trial {
 public:
  Trial(unsigned seed, bool asUser, const HostSetup& setup)
      : seed_(seed),
        asUser_(asUser),
        setup_(setup),

        device_(tree_ / "device"),
        generator_(device_, seed, asUser) {}
  ~Trial() { Loosen(device_.root()); }
  Trial(const Trial&) = delete;
  Trial& operator=(const Trial&) = delete;

  void run() {
    generator_.maps();
    generator_.builtInApps();
    generator_.containers("C");
    give();
    (void)device_.run({"register", "--identifier", "com.example.g1"}, setup_);
    (void)device_.run({"register", "--identifier", "com.example.g2"}, setup_);
    generator_.ills();
    generator_.groupIlls();
    compare("first");
    // What the run left, with new containers among it.
    generator_.containers("D");
    give();
    generator_.ills();
    compare("second");
  }

  int items() const { return items_; }
  const std::vector<std::string>& printed() const { return printed_; }

 private:
  // What is new belongs to the user who migrates; what an earlier round gave to root stays that.
  void give() {
    if (!asUser_) return;
    const std::string command =
        "find '" + device_.root() + "' -user 0 -newermt '@1500000000' -exec chown -h " +
        std::to_string(NobodyUser) + ":" + std::to_string(NobodyUser) + " {} +";
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
  Generator generator_;
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

void TryAll(bool asUser, const HostSetup& setup) {
  const auto [first, last] = Seeds();
  int items = 0;
  std::vector<std::string> printed;
  for (unsigned seed = first; seed <= last; ++seed) {
    Trial trial(seed, asUser, setup);
    trial.run();
    items += trial.items();
    printed.insert(printed.end(), trial.printed().begin(), trial.printed().end());
  }
  ExpectDocumented(printed);
  ::testing::Test::RecordProperty("items", items);
  EXPECT_GT(items, 0);
}

TEST(ForesightTest, InspectForeseesWhatMigrateDoesAsRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "the other test is the one for an ordinary user";
  TryAll(false, {});
}

TEST(ForesightTest, InspectForeseesWhatMigrateDoesAsAnOrdinaryUser) {
  if (!NoUnprivilegedCase().empty()) GTEST_SKIP() << NoUnprivilegedCase();
  const ScratchTree programs("/tmp");
  HostSetup setup;
  setup.asNobody = true;
  setup.program = CopyHostTo(programs / "bin");
  setup.environment["LD_LIBRARY_PATH"] = programs / "bin";
  TryAll(true, setup);
}

}  // namespace
}  // namespace quorvel::testing
