// A directory outside of every tree, to which links lead: nothing may change it or copy from it.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "tests/support/TreeTools.h"

namespace quorvel::races {

class Canary {
 public:
  explicit Canary(std::string path) : path_(std::move(path)) { make(); }

  const std::string& path() const { return path_; }
  static constexpr const char* FileName = "/kept0";
  static constexpr const char* OwnDirectory = "sub";  // no tree has one of this name

  // What was done to it since it was made, in words; empty when nothing was.
  std::string harm() const {
    const auto now = facts();
    for (const auto& [name, text] : before_) {
      const auto at = now.find(name);
      if (at == now.end()) return "removed from the canary: " + name;
      if (at->second != text) return "changed in the canary: " + name + ": " + at->second;
    }
    return now.size() == before_.size() ? "" : "something was put into the canary";
  }
  // Whether a file below the root holds what only the canary's files hold.
  std::string leak(const std::string& root) const {
    std::error_code ignored;
    for (const auto& item : std::filesystem::recursive_directory_iterator(root, ignored)) {
      if (item.symlink_status().type() != std::filesystem::file_type::regular) continue;
      if (testing::ReadFile(item.path()).find(kSecret) == std::string::npos) continue;
      return "the canary's bytes are in " + item.path().filename().string();
    }
    return {};
  }
  bool holds(std::uint64_t inode) const { return inodes_.contains(inode); }

 private:
  static constexpr const char* kSecret = "only the canary holds this";

  // With the time of the last change, which tells also of one that was taken back.
  std::map<std::string, std::string> facts() const {
    auto facts = testing::Snapshot(path_);
    for (auto& [name, text] : facts) {
      const struct stat info = testing::StatOf(path_ + "/" + name);
      text += " links " + std::to_string(info.st_nlink) + " changed " +
              std::to_string(info.st_ctim.tv_sec) + '.' + std::to_string(info.st_ctim.tv_nsec);
    }
    return facts;
  }

  void make() {
    testing::MakeDirectory(path_);
    testing::MakeDirectory(path_ + "/sub");
    for (const char* directory : {"/", "/sub/"}) {
      for (int i = 0; i < 6; ++i) {
        testing::WriteFile(path_ + directory + "kept" + std::to_string(i), kSecret);
      }
    }
    before_ = facts();
    inodes_.clear();
    for (const auto& item : std::filesystem::recursive_directory_iterator(path_)) {
      inodes_.insert(testing::StatOf(item.path()).st_ino);
    }
    inodes_.insert(testing::StatOf(path_).st_ino);
  }

  const std::string path_;
  std::map<std::string, std::string> before_;
  std::set<std::uint64_t> inodes_;
};

}  // namespace quorvel::races
