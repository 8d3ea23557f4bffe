// The files that results come in.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/report/Result.h"

namespace quorvel::host {

// A file, or a part of one, in which there is no result.
// Told beside the results, since nothing is known of the device whose result it should have been.
struct UnusableFile {
  std::string name{};  // with the number of the object, where the file has several
  std::string why{};   // printable
};

// Both are called on the reading thread, and what they are given lives only as long as the call.
// Neither may be empty.
struct ResultSinks {
  // One result at a time. `name` is its file's; a result without a device's name has got one.
  std::function<void(const std::string& name, const RunResult& result)> result;
  std::function<void(UnusableFile file)> unusable;
};

// The files themselves, and of a directory the *.json in it, by name.
// In the order of the arguments, directories not entered further. A directory without such a file
// is told as unusable; an argument that is no directory is taken as a file, whether or not it can
// be opened.
std::vector<std::string> ExpandDirectories(const std::vector<std::string>& arguments,
                                           const ResultSinks& sinks);

// Reads every result of the file. It may hold several: each begins on a line that begins with a
// brace, so that both lines of JSON and indented objects will do. Never has more than one of them
// in memory.
// A file that cannot be opened or read, or that is empty, is told as unusable and fails nothing
// else. An object larger than any result ends the reading of its file.
void ReadResults(const std::string& file, const ResultSinks& sinks);

}  // namespace quorvel::host
