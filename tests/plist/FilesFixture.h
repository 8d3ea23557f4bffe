// What tests of property-list files and bundles share: a temporary tree, and a reader and writer
// of each kind.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/linux/files/FileDataLinux.h"
#include "platform/linux/plist/PropertyListFiles.h"
#include "tests/support/TreeTools.h"

namespace quorvel::onlinux {

namespace fs = std::filesystem;
using quorvel::testing::TemporaryTree;

constexpr uid_t kNobody = 65534;

inline std::vector<std::uint8_t> BytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

inline std::vector<std::string> NamesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

inline mode_t ModeOf(const std::string& file) { return testing::StatOf(file).st_mode & 07777U; }

// Runs the function in a child process without privileges; whether it returned true there.
template <class Function>
bool AsNobody(Function function) {
  const pid_t child = ::fork();
  if (child == 0) {
    const bool dropped = ::geteuid() != 0 || (::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
    ::_exit(dropped && function() ? 0 : 1);
  }
  int status = -1;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status == 0;
}

class FilesFixture : public ::testing::Test {
 protected:
  FilesFixture() : file_(Path::file(tree_.at("list.plist"))) {}

  // Everything that is no regular file, or a link to one, under its name; and what reading says.
  std::vector<std::pair<std::string, int>> makeForeignKinds() {
    tree_.write("real", "<plist><dict/></plist>");
    fs::create_directory(tree_.at("directory"));
    fs::create_symlink("real", tree_.at("link"));
    EXPECT_EQ(::mkfifo(tree_.at("fifo").c_str(), 0600), 0);
    return {{"directory", EISDIR}, {"link", ELOOP}, {"fifo", EINVAL}, {"real/child", ENOTDIR}};
  }

  TemporaryTree tree_;
  const Path file_;
  PropertyListFiles lists_;
  FileDataLinux data_;
};

}  // namespace quorvel::onlinux
