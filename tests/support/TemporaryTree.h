// A directory of a test's own, gone when the test is.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace quorvel::testing {

// The system's own removal, which also copes with deep trees.
inline void RemoveWithSystem(const std::string& path) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::execlp("rm", "rm", "-rf", "--", path.c_str(), nullptr);
    ::_exit(127);
  }
  ::waitpid(child, nullptr, 0);
}

// Made under `where`, else TMPDIR, else /tmp. Belongs to one test.
class TemporaryTree {
 public:
  explicit TemporaryTree(const char* where = nullptr) {
    const char* parent = where != nullptr ? where : ::getenv("TMPDIR");
    std::string text = std::string(parent != nullptr ? parent : "/tmp") + "/quorvel-test.XXXXXX";
    if (::mkdtemp(text.data()) == nullptr) std::abort();
    path_ = text;
    // Unprivileged children of the test work in it.
    ::chmod(path_.c_str(), 0755);
  }
  TemporaryTree(const TemporaryTree&) = delete;
  TemporaryTree& operator=(const TemporaryTree&) = delete;
  ~TemporaryTree() { RemoveWithSystem(path_); }

  const std::string& path() const { return path_; }
  std::string at(std::string_view name) const { return path_ + "/" + std::string(name); }
  std::string operator/(std::string_view name) const { return at(name); }

  // Writes a file with its missing parent directories.
  std::string write(std::string_view name, std::string_view bytes) const {
    const std::string file = at(name);
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
    return file;
  }

  std::string read(std::string_view name) const {
    std::ifstream file(at(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string path_;
};

}  // namespace quorvel::testing
