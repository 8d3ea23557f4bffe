// What the fuzzers share: their requirement, an input taken apart, a directory in memory.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <string_view>

#include "fuzz/Confinement.h"

namespace quorvel::fuzzing {

// What must hold of every input: libFuzzer keeps one for which it does not.
inline void Require(bool holds) {
  if (holds) return;
  Confinement::leave();
  std::abort();
}

// The bytes of one input, handed out from the front. What is beyond the end is zero or empty, so
// that every input means something.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool isEmpty() const { return rest_.empty(); }
  // Below `limit`.
  std::size_t number(std::size_t limit) {  // of one byte
    return limit == 0 ? 0 : static_cast<unsigned char>(take(1).append(1, '\0')[0]) % limit;
  }
  std::string take(std::size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return std::string(taken);
  }
  // Up to 255 bytes, with their number in front.
  std::string text() { return take(number(256)); }
  // Up to the separator, or all.
  std::string upTo(char separator) {
    const std::size_t end = std::min(rest_.find(separator), rest_.size());
    std::string taken = take(end);
    take(1);
    return taken;
  }
  std::string all() { return take(rest_.size()); }
  template <class List>
  std::string oneOf(const List& list) {
    return std::string(std::data(list)[number(std::size(list))]);
  }

 private:
  std::string_view rest_;
};

inline std::span<const std::uint8_t> BytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

inline void Put(const std::string& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string Get(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// This process's own directory in memory, empty for each input; gone at the end, unless of a crash.
class Scratch {
 public:
  static const std::string& fresh() {
    static const Scratch scratch;
    std::filesystem::remove_all(scratch.path_);
    std::filesystem::create_directories(scratch.path_);
    return scratch.path_;
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

 private:
  Scratch() {
    const bool inMemory = ::access("/dev/shm", W_OK) == 0;
    path_ =
        std::string(inMemory ? "/dev/shm" : "/tmp") + "/quorvel-fuzz." + std::to_string(::getpid());
  }
  std::string path_;
};

}  // namespace quorvel::fuzzing
