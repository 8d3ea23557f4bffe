// What is wrong with a command line, in our own words.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>

namespace CLI {
class App;
}

namespace quorvel::host {

// Empty when every word has a meaning and nothing is missing; values are not looked at. The
// option parser stops at what is missing first and so never gets to a mistyped name.
std::string UsageComplaint(const CLI::App& parser, int argc, const char* const* argv);

// A check of a value that must be one of these.
std::function<std::string(const std::string&)> OneOf(std::initializer_list<const char*> names);

}  // namespace quorvel::host
