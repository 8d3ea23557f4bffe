// A directory of a test's own, gone when the test is.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace quorvel::testing {

// Made under `where`, else TMPDIR, else /tmp. Belongs to one test.
class TemporaryTree {
 public:
  explicit TemporaryTree(const char* where = nullptr) {
    const char* parent = where != nullptr ? where : ::getenv("TMPDIR");
    std::string text = std::string(parent != nullptr ? parent : "/tmp") + "/quorvel-test.XXXXXX";
    path_ = ::mkdtemp(text.data()) != nullptr ? text : std::string();
  }
  TemporaryTree(const TemporaryTree&) = delete;
  TemporaryTree& operator=(const TemporaryTree&) = delete;
  ~TemporaryTree() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  std::string at(std::string_view name) const { return path_ + "/" + std::string(name); }

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
