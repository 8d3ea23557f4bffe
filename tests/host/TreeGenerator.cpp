// Each tree has a few ills of a list; which and where is drawn.
#include "tests/host/TreeGenerator.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>

#include "tests/support/TreeTools.h"

namespace quorvel::testing {
namespace {

constexpr const char* kHarborMap = "/private/var/mobile/Library/Quorvel/SafeHarbor.plist";

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
       // Its maker's, as the container: a package that cannot be taken apart stays open with the
       // registry, which alone knows of it.
       const struct stat owner = StatOf(m.at(""));
       for (const char* made : {"Staging", "Staging/Payload"}) {
         (void)::lchown(m.at(made).c_str(), owner.st_uid, owner.st_gid);
       }
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
       m.marker(LegacyDirectory + m.other, LegacyDirectory + m.other + "/A.app", m.identifier);
     }},
    {"marker of another bundle",
     [](const Made& m) {
       m.marker(m.inside(""), LegacyDirectory + m.other + "/A.app", m.identifier);
     }},
    {"marker of the tree's root", [](const Made& m) { m.marker("/", "/A.app", m.identifier); }},
    {"marker of nothing",
     [](const Made& m) { m.marker("/nowhere", "/nowhere/A.app", "com.none"); }},
    {"marker of another app",
     [](const Made& m) { m.marker(m.inside(""), m.inside(m.bundle), "com.example.other"); }},
};

}  // namespace

void Made::marker(const std::string& container, const std::string& bundlePath,
                  const std::string& app) const {
  Put(at(MarkerName),
      Dictionary(Entry("ContainerPath", container) + Entry("BundlePath", bundlePath) +
                 Entry("ContainerType", "App") + Entry("BundleIdentifier", app)));
}

void Loosen(const std::string& root) {
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_symlink() && (entry.is_regular_file() || entry.is_directory())) {
      Fix(entry.path(), false);
    }
  }
}

void TreeGenerator::containers(const std::string& prefix) {
  const int count = 3 + below(6);
  for (int i = 0; i < count; ++i) {
    const std::string name = prefix + std::to_string(i);
    made_.push_back(sound(name, "com.example.g" + std::to_string(oneIn(8) ? 0 : i)));
  }
}

void TreeGenerator::ills() {
  for (Made& made : made_) {
    made.other = made_[static_cast<std::size_t>(below(static_cast<int>(made_.size())))].name;
    for (int i = below(3); i > 0 && Exists(made.at("")); --i) {
      const auto& [name, ill] = kIlls[static_cast<std::size_t>(below(std::size(kIlls)))];
      const bool isOfBundle = std::string_view(name).find("bundle") != std::string_view::npos ||
                              std::string_view(name).find("dictionary") == 0 ||
                              std::string_view(name).find("executable") == 0;
      // Whether it is empty only an attempt to remove it shows.
      if (asUser_ && std::string_view(name).starts_with("unreadable empty")) continue;
      // An install whose metadata cannot be copied stays open, and only the registry knows of it.
      if (asUser_ && isOnTwoDisks_ && std::string_view(name) == "metadata 0000") continue;
      if (isOfBundle && !Exists(made.at(made.bundle + "/Info.plist"))) continue;
      told += made.name + " (other " + made.other + "): " + name + "\n";
      try {
        ill(made);
      } catch (const fs::filesystem_error&) {
        // Some exclude each other.
      }
    }
  }
  made_.clear();
}

void TreeGenerator::maps() {
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

void TreeGenerator::builtInApps() {
  for (int i = 0; i < 9; ++i) {
    if (!oneIn(4)) continue;
    const char* const versions[] = {"0.9", "1.2", "1.10"};
    const std::string name = "/Applications/BuiltIn" + std::to_string(i) + ".app";
    PutBundle(device_.inside(name), "com.example.g" + std::to_string(i),
              oneIn(2) ? "group." + std::to_string(below(5)) : "", versions[below(3)]);
  }
}

void TreeGenerator::groupIlls() {
  for (int i = 0; i < 5; ++i) {
    const std::string path = device_.root() + Mobile + "/Groups/" + std::to_string(i);
    if (!Exists(path) || !oneIn(5)) continue;
    const int which = below(4);
    told += path + ": " + std::to_string(which) + "\n";
    if (which == 0) Mode(path, 0555);
    if (which == 1) OwnByRoot(path);
    // The next attempt cannot replace a copy of that, in a container that the registry alone knows.
    if (which == 2 && !(asUser_ && isOnTwoDisks_)) Mode(path + "/Library", 0555);
    if (which == 3) Mode(path, 0);
  }
}

Made TreeGenerator::sound(const std::string& name, const std::string& identifier) {
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

}  // namespace quorvel::testing
