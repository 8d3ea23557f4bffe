// What is wrong with a command line, in the host's own words.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace quorvel::host {

// Empty when every word has a meaning and nothing is missing; values are not looked at. The
// option parser stops at what is missing first and so never gets to a mistyped name.
std::string UsageComplaint(const CLI::App& parser, int argc, const char* const* argv);

}  // namespace quorvel::host
