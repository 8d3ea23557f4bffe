// The device that is swept: one container of each kind that migrates, and what must survive of it.
#include "tests/sweep/ReferenceDevice.h"

#include <set>
#include <utility>

namespace quorvel::sweep {

namespace {

namespace fs = std::filesystem;
using testing::Device;
using testing::Mobile;

constexpr std::size_t kLargeFile = 700'000;  // three rounds of a copy through a buffer

// Bytes of which no two blocks are the same.
std::string Pattern(std::size_t size) {
  std::string bytes;
  bytes.reserve(size + 16);
  for (unsigned line = 0; bytes.size() < size; ++line) bytes += std::to_string(line * 2654435761U);
  bytes.resize(size);
  return bytes;
}

void PutLargeFiles(const std::string& container) {
  testing::Put(container + "/Documents/large", Pattern(kLargeFile));
  testing::Put(container + "/Library/sparse", "begin");
  fs::resize_file(container + "/Library/sparse", 3 * kLargeFile);
  testing::SetAttribute(container + "/Documents/large", "user.long", std::string(900, 'a'));
}

bool IsUserData(const std::string& path) {
  // Not of any app that migrates: the container is removed.
  if (path.find("/F6/") != std::string::npos) return false;
  for (const char* item : {"/Documents/", "/Library/", "/tmp/", "/Tillkit/"}) {
    if (path.find(item) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

bool MakeReferenceDevice(const std::string& root, const std::string& host, bool isSmall) {
  const Device device(root);
  device.make();
  testing::Put(root + UnrelatedFile, "0");
  // Newer than the app that the user has of it.
  testing::PutBundle(root + "/Applications/Own.app", "com.example.own", {}, "2.0");
  if (isSmall) {
    for (const char* name : {"B\xff"
                             "2",
                             "D4", "F6"})
      fs::remove_all(device.container(name));
  } else {
    testing::PutBundle(device.container("G7/Own.app"), "com.example.own", {}, "1.0");
    testing::PutData(device.container("G7"), "own");
    PutLargeFiles(device.container("A 1"));
  }
  testing::AgeTree(root);
  testing::HostSetup setup;
  setup.program = host;
  return device.registerTunnel(setup) == 0;
}

std::vector<UserItem> UserItemsOf(const std::string& root) {
  std::vector<UserItem> items;
  for (const char* place : {"/Applications", "/Groups", "/Harbors"}) {
    for (const auto& entry : fs::recursive_directory_iterator(root + Mobile + place)) {
      const std::string path = entry.path();
      if (fs::is_directory(entry.symlink_status()) || !IsUserData(path)) continue;
      items.push_back({path.substr(root.size()), entry.path().filename(), testing::Describe(path)});
    }
  }
  return items;
}

std::vector<std::string> MissingAnywhere(const std::vector<UserItem>& items,
                                         const std::string& root) {
  std::set<std::string> names;
  for (const UserItem& item : items) names.insert(item.name);
  std::set<std::pair<std::string, std::string>> found;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string name = entry.path().filename();
    if (names.contains(name) && !fs::is_directory(entry.symlink_status())) {
      found.emplace(name, testing::Describe(entry.path()));
    }
  }
  std::vector<std::string> missing;
  for (const UserItem& item : items) {
    if (!found.contains({item.name, item.description})) missing.push_back(item.path);
  }
  return missing;
}

}  // namespace quorvel::sweep
