// Completion of a program's commands, options and values in bash, zsh and fish, from the parser
// that takes them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace quorvel::host {

// Values that only the program knows, by the option's name ("--force-preflight").
using KnownValues = std::map<std::string, std::vector<std::string>>;

// The script for the shell, when the command line is "PROGRAM --completion SHELL", which no help
// mentions: the build asks. A value's kind is what the help calls it: FILE, DIR, "a|b|c", or a text
// of which nothing is known. Arguments without an option are files.
std::optional<std::string> CompletionAskedFor(const CLI::App& parser, int argc,
                                              const char* const* argv,
                                              const KnownValues& values = {});

}  // namespace quorvel::host
