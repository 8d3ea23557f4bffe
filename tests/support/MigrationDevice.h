// A small device with one container of each kind that migrates, and what a migration made of it.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/HostProcess.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {

namespace fs = std::filesystem;
using nlohmann::json;

inline constexpr const char* InstallMap =
    "/private/var/mobile/Library/Caches/com.velto.quorvel.plist";

inline constexpr const char* Mobile = "/private/var/mobile";
inline constexpr const char* MarkerName = "com.velto.quorvel.container_migrator.plist";

using Facts = std::map<std::string, std::string>;

inline void Put(const std::string& path, const std::string& bytes) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string Dictionary(const std::string& content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + content +
         "</dict></plist>\n";
}

inline std::string Entry(const std::string& key, const std::string& text) {
  return "<key>" + key + "</key><string>" + text + "</string>";
}

inline void PutBundle(const std::string& path, const std::string& identifier,
                      const std::string& group = {}, const std::string& version = "1.2") {
  std::string content = Entry("PKBundleIdentifier", identifier) + Entry("PKBundleVersion", version);
  if (!group.empty()) {
    content += "<key>PKApplicationGroups</key><array><string>" + group + "</string></array>";
  }
  Put(path + "/Info.plist", Dictionary(content));
  Put(path + "/Executable", "code of " + identifier);
  fs::permissions(path + "/Executable", fs::perms(0755));
  fs::create_symlink("Executable", path + "/Current");
}

inline void PutData(const std::string& container, const std::string& what) {
  Put(container + "/Documents/plain", what);
  Put(container + "/Documents/with space and 100%@\nnewline", what + "2");
  Put(container + "/Documents/caf\xc3\xa9 \xff\xfe raw", what + "3");
  Put(container + "/Library/Preferences/deep/er/file", std::string(70000, 'x') + what);
  Put(container + "/tmp/scratch", "");
  fs::create_directories(container + "/Tillkit/empty");
  fs::create_symlink("/private/var/mobile", container + "/Library/absolute");
  fs::create_symlink("nowhere", container + "/Documents/dangling");
  fs::create_hard_link(container + "/Documents/plain", container + "/Documents/second name");
  fs::permissions(container + "/Documents/plain", fs::perms(0640));
  fs::permissions(container + "/Tillkit", fs::perms(0700));
  SetAttribute(container + "/Documents/plain", "user.note", std::string("\0binary\xff", 8));
  SetAttribute(container + "/Documents", "user.kept", "yes");
}

// Times that no run of the system would come up with, different for each item.
inline void AgeTree(const std::string& root) {
  long index = 0;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    ++index;
    const timespec time = {1500000000 + index, 1001 * index};
    const timespec times[2] = {time, time};
    ::utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
}

// A device with one container of each kind that migrates.
class Device {
 public:
  explicit Device(std::string root) : root_(std::move(root)) {}

  const std::string& root() const { return root_; }
  std::string inside(const std::string& path) const { return root_ + path; }
  std::string container(const std::string& name) const {
    return root_ + Mobile + "/Applications/" + name;
  }

  void make() const {
    PutBundle(container("A 1/Tool One.app"), "com.example.one", "group.shared");
    PutBundle(container("A 1/Tunnel.vpnplugin"), "com.example.one.tunnel");
    PutData(container("A 1"), "one");
    for (const char* name : {"Manifest.plist", "LorvixArtwork", "LorvixMetadata.plist"}) {
      Put(container("A 1/") + name, std::string("store ") + name);
    }
    PutBundle(container("B\xff"
                        "2/Two.app"),
              "com.example.two", "group.shared");
    PutData(container("B\xff"
                      "2"),
            "two");
    PutBundle(container("C3/Alone.vpnplugin"), "com.example.alone");
    PutBundle(container("D4/Hollow.app"), "com.example.hollow");
    SetAttribute(container("D4/Hollow.app"), "user.com.velto.quorveld.placeholder",
                 std::string("\1\0\0\0", 4));
    PutData(container("D4"), "hollow");
    PutBundle(container("E5/Begun.app"), "com.example.begun");
    PutData(container("E5"), "begun");
    const std::string begun = std::string(Mobile) + "/Applications/E5";
    Put(container("E5/") + MarkerName,
        Dictionary(Entry("ContainerPath", begun) + Entry("BundlePath", begun + "/Begun.app") +
                   Entry("ContainerType", "App") + Entry("BundleIdentifier", "com.example.begun")));
    Put(container("WhereDidMyApplicationsGo.txt"), "elsewhere");
    Put(container("stray"), "file");
    Put(container("F6/Documents/unclaimed"), "no bundle");
    Put(root_ + Mobile + "/Groups/shared/Library/of all", "group data");
    Put(root_ + Mobile + "/Library/Caches/com.velto.quorvel.plist",
        Dictionary("<key>GroupContainers</key><dict><key>group.shared</key><dict>" +
                   Entry("Container", std::string(Mobile) + "/Groups/shared") + "</dict></dict>"));
    Put(root_ + Mobile + "/Harbors/gone/Documents/kept", "harbor data");
    Put(root_ + Mobile + "/Library/Quorvel/SafeHarbor.plist",
        Dictionary("<key>com.example.gone</key><dict>" +
                   Entry("HarborPathKey", std::string(Mobile) + "/Harbors/gone") + "</dict>"));
    AgeTree(root_);
  }

  HostRun run(std::vector<std::string> command, const HostSetup& setup = {}) const {
    command.insert(command.begin() + 1, {"--root", root_});
    return RunHost(command, setup);
  }
  int registerTunnel(const HostSetup& setup = {}) const {
    return run({"register", "--identifier", "com.example.alone"}, setup).exitCode;
  }
  json registry(const HostSetup& setup = {}) const {
    return json::parse(run({"registry", "--json"}, setup).out);
  }

 private:
  const std::string root_;
};

// Hard links are told by path, which changes with the container: only that there is one matters.
inline std::string WithoutLinkNames(const std::string& text) {
  const auto at = text.find(" same as ");
  if (at == std::string::npos) return text;
  const auto end = text.find(" [", at);
  return text.substr(0, at + 8) + (end == std::string::npos ? "" : text.substr(end));
}

// The registry's content and the whole tree after a migration, with containers named for what they
// are instead of at random. Times count where the user or the app's maker made the item.
inline std::map<std::string, std::string> NamesOfContainers(const json& registry) {
  std::map<std::string, std::string> names;
  for (const json& bundle : registry["bundles"]) {
    const auto identifier = bundle["identifier"].get<std::string>();
    const auto name = [&names](const json& path, const std::string& text) {
      if (path.is_string()) names[path.get<std::string>()] = text;
    };
    const char* kind = bundle["placeholder"] == true ? "<placeholder " : "<bundle ";
    name(bundle["bundleContainerPath"], kind + identifier + ">");
    name(bundle["dataContainerPath"], "<data " + identifier + ">");
    for (const auto& [group, path] : bundle["groupContainers"].items()) {
      name(path, "<group " + group + ">");
    }
  }
  return names;
}

inline Facts Outcome(const Device& device, const HostSetup& setup = {}) {
  const json registry = device.registry(setup);
  const auto names = NamesOfContainers(registry);
  std::string records = registry.dump();
  for (const auto& [path, name] : names) {
    for (auto at = records.find(path); at != std::string::npos; at = records.find(path)) {
      records.replace(at, path.size(), name);
    }
  }
  Facts outcome = {{"registry", records}};
  for (const auto& [path, text] : Snapshot(device.root())) {
    std::string name = "/" + path;
    bool timed = false;
    // A container is four components below the device's root: three slashes behind the first.
    for (auto slash = name.find('/', 1);; slash = name.find('/', slash + 1)) {
      const auto known = names.find(name.substr(0, slash));
      if (known != names.end()) {
        timed = slash != std::string::npos && !known->second.starts_with("<placeholder");
        name = known->second + (slash == std::string::npos ? "" : name.substr(slash));
        break;
      }
      if (slash == std::string::npos) break;
    }
    const bool grows =
        name.find("/Logs/") != std::string::npos || name.find("/Registry/") != std::string::npos;
    // Kind, mode and owner come first.
    outcome[name] = timed   ? WithoutLinkNames(text)
                    : grows ? ""
                            : text.substr(0, text.find(" mtime"));
  }
  return outcome;
}

inline void ExpectHeld(const Facts& expected, const Facts& actual, const std::string& when) {
  for (const auto& [name, text] : expected) {
    const auto at = actual.find(name);
    if (at == actual.end()) {
      ADD_FAILURE() << when << ": missing " << name;
    } else {
      EXPECT_EQ(text, at->second) << when << ": " << name;
    }
  }
}

inline void ExpectSame(const Facts& expected, const Facts& actual, const std::string& when) {
  ExpectHeld(expected, actual, when);
  for (const auto& [name, text] : actual) {
    EXPECT_TRUE(expected.contains(name)) << when << ": unexpected " << name << ": " << text;
  }
}

}  // namespace quorvel::testing
