// Options and operands, declared so that any bytes arrive as they were given.
//
// The parser gives a meaning to some words that may well be file names ("[a,b]" is a list of two
// values, "++" ends a subcommand). Such words are guarded before parsing, and the functions here
// undo that: commands take texts from the parser through them alone.
#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

namespace quorvel::ctl {

// The word with a guard in front when it needs one, and without it again.
// A word that begins with the guard itself is guarded too: what is guarded comes back as it was,
// whatever its bytes.
std::string Guarded(std::string word);
std::string Unguarded(std::string word);

// Each returns the option, for ->required() and the like. Empty texts are refused.
// One text, one or more texts, a switch.
// The variable must live as long as the parser, and is written while that parses.
CLI::Option* AddText(CLI::App& parser, const char* name, std::string& value, const char* help);
CLI::Option* AddTexts(CLI::App& parser, const char* name, std::vector<std::string>& values,
                      const char* help);
// A switch has no value: one that is given to it is a usage error.
CLI::Option* AddFlag(CLI::App& parser, const char* name, bool& value, const char* help);

// The decimal number that the text is, whole, within the type's bounds.
// No sign but the minus of a signed type, no blanks and no other base; absent otherwise.
template <class T>
std::optional<T> Number(const std::string& text) {
  T number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, number);
  if (failure != std::errc() || stop != end) return std::nullopt;
  return number;
}

template <class T>
// Declares an option with such a number; the default stays when it is not given.
CLI::Option* AddNumber(CLI::App& parser, const char* name, T& value, const char* help) {
  const auto check = [](const std::string& text) {
    return Number<T>(text) ? std::string() : "not a whole number within its bounds: " + text;
  };
  return parser
      .add_option_function<std::string>(
          name, [&value](const std::string& text) { value = Number<T>(text).value_or(value); },
          help)
      ->check(check)
      ->type_name("N");
}

}  // namespace quorvel::ctl
