// The command line: what the user asked for, or why that cannot be told.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quorvel::host {

// The words on the command line are the parser's; `register` is a word of the language, hence the
// longer name here.
enum class Command {
  migrate,
  inspect,
  status,
  registry,
  registerIdentifier,
  snapshot,
  verify,
  rehearse,
  report,
};
// Automatic: when standard error is a terminal.
// Progress never goes to standard output, which belongs to the result.
enum class ProgressMode { automatic, always, never };

// A command with its arguments. Paths are the bytes that the user gave.
// Members that a command does not have keep their defaults.
struct Options {
  Command command = Command::inspect;
  std::string root;
  bool json = false;
  // migrate, inspect, status and rehearse only:
  bool all = false;    // show what went well, too
  std::string plugin;  // empty: the one beside the executable
  // migrate, which appends to the log, and report, which reads it:
  std::string logFile;  // empty: none
  // migrate only:
  std::string device;  // its name in the result; empty: the root's last component
  bool quiet = false;
  ProgressMode progress = ProgressMode::automatic;
  std::string events;                       // empty: none; "-": standard output
  std::vector<std::string> forcedFindings;  // names of findings that refuse a run
  std::vector<std::string> only;            // identifiers; empty: everything
  // register only:
  std::string identifier;
  // snapshot and report only:
  std::string output;  // empty: standard output, or report.html
  // snapshot only:
  bool fast = false;  // without digests of contents
  bool gzip = false;
  // verify only:
  std::string manifest;
  std::string result;   // of the run, as `migrate --json` printed it; empty: none
  bool strict = false;  // a loss that the sequence orders is a failure, too
  // rehearse only:
  std::string upper;  // where changes go; empty: in memory, else beside the tree
  bool keep = false;
  // report only:
  std::vector<std::string> files;
};

// Options to run with; without them, `exitCode` and the text that goes with it: help or the version
// for standard output when the code is 0, the complaint otherwise.
// Exactly one of the two is of use: options, or an exit code with its text.
struct ParsedCommandLine {
  std::optional<Options> options;
  int exitCode = 0;
  std::string text;
  bool json = false;  // whether a complaint belongs on standard output as an object too
  bool isVersion = false;
};

// Touches nothing but its arguments.
// Paths are neither opened nor checked: that they can be used is the command's to find out.
ParsedCommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace quorvel::host
