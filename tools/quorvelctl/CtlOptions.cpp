// Declares options and operands to the parser.
#include "tools/quorvelctl/CtlOptions.h"

namespace quorvel::ctl {

namespace {

// A byte that nobody types and that the parser gives no meaning to.
constexpr char kGuard = '\x01';

// An empty path would name the current directory, and a script's unset variable is how one comes
// about.
std::string NotEmpty(const std::string& value) {
  return value.empty() ? "the value is empty" : std::string();
}

}  // namespace

std::string Guarded(std::string word) {
  const bool needed = word == "++" || word.starts_with('[') || word.starts_with(kGuard);
  return needed ? kGuard + std::move(word) : std::move(word);
}

std::string Unguarded(std::string word) {
  if (word.starts_with(kGuard)) word.erase(0, 1);
  return word;
}

CLI::Option* AddText(CLI::App& parser, const char* name, std::string& value, const char* help) {
  return parser
      .add_option_function<std::string>(
          name, [&value](const std::string& text) { value = Unguarded(text); }, help)
      ->check(NotEmpty)
      ->type_name("");
}

CLI::Option* AddTexts(CLI::App& parser, const char* name, std::vector<std::string>& values,
                      const char* help) {
  return parser
      .add_option_function<std::vector<std::string>>(
          name,
          [&values](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) values.push_back(Unguarded(text));
          },
          help)
      ->check(NotEmpty)
      ->type_name("");
}

// A switch has no value: "--flag=false" is refused rather than read as its opposite.
CLI::Option* AddFlag(CLI::App& parser, const char* name, bool& value, const char* help) {
  return parser.add_flag(name, value, help)->disable_flag_override();
}

}  // namespace quorvel::ctl
