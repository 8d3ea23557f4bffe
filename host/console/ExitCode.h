// What the process tells whoever started it, and the errors that end it.
#pragma once

#include <string>
#include <utility>

namespace quorvel::host {

// Documented in the manuals: scripts rely on the numbers.
enum ExitCode : int {
  ExitSucceeded = 0,       // done, also when there was nothing to do
  ExitFailed = 1,          // ran and reported failure
  ExitUsage = 2,           // the command line cannot be used; nothing was opened or changed
  ExitPluginUnusable = 3,  // the plug-in cannot be loaded, or yields no instance
  ExitRootUnusable = 4,    // no device tree, or it cannot be entered, or another host works in it
  ExitRefused = 5,         // something would be lost or stranded; nothing was changed
};

// An error that ends the command: what is wrong, naming the path, and what to do about it. Each is
// one line of printable text (TerminalText.h) without a final period or line feed.
// Commands end with the first one; nothing is said on standard output then but the object that
// --json promises.
// The path is made printable where the error is made, so that whoever shows it needs to know
// nothing of it.
struct FatalError {
  int exitCode = ExitFailed;
  std::string problem;
  std::string remedy;
  std::string reason{};  // for programs; empty: what the exit code says
};

// The reason that goes with nothing but an exit code.
// A word for programs that do not read sentences. It is given where the error has no closer reason
// of its own; a code without an entry here is an ordinary failure.
inline const char* ReasonOf(int exitCode) {
  switch (exitCode) {
    case ExitUsage:
      return "usage";
    case ExitPluginUnusable:
      return "plugin-unusable";
    case ExitRootUnusable:
      return "root-unusable";
    case ExitRefused:
      return "preflight";
    default:
      return "failed";
  }
}

// Fills the error; false, so that a failing operation can end with it.
// What the error held before is replaced.
inline bool Fail(FatalError& error, int exitCode, std::string problem, std::string remedy,
                 std::string reason = {}) {
  error = {exitCode, std::move(problem), std::move(remedy), std::move(reason)};
  return false;
}

}  // namespace quorvel::host
