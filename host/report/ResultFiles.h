// The files that results come in.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/report/Result.h"

namespace quorvel::host {

// A file, or a part of one, in which there is no result.
struct UnusableFile {
  std::string name{};  // with the number of the object, where the file has several
  std::string why{};   // printable
};

struct ResultSinks {
  // One result at a time. `name` is its file's; a result without a device's name has got one.
  std::function<void(const std::string& name, const RunResult& result)> result;
  std::function<void(UnusableFile file)> unusable;
};

// The files themselves, and of a directory the *.json in it, by name.
std::vector<std::string> ExpandDirectories(const std::vector<std::string>& arguments,
                                           const ResultSinks& sinks);

// Reads every result of the file. It may hold several: each begins on a line that begins with a
// brace, so that both lines of JSON and indented objects will do. Never has more than one of them
// in memory.
void ReadResults(const std::string& file, const ResultSinks& sinks);

}  // namespace quorvel::host
