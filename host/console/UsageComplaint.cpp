// Goes through the words as the option parser does.
#include "host/console/UsageComplaint.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <string_view>

#include "host/console/NearestName.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

// The filter that lets everything pass asks for all commands; without it only those that were
// parsed come.
const CLI::App* CommandNamed(const CLI::App& parser, const std::string& name) {
  for (const CLI::App* command : parser.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->get_name() == name) return command;
  }
  return nullptr;
}

std::vector<std::string> CommandNames(const CLI::App& parser) {
  std::vector<std::string> names;
  for (const CLI::App* command : parser.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(command->get_name());
  }
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

// The parser's own messages name neither what was meant nor the command. This goes over the same
// words once more and says the first thing that is wrong with them; it decides nothing.
class Words {
 public:
  Words(const CLI::App& command, int argc, const char* const* argv)
      : command_(command), words_(argv, argv + argc) {}

  std::string complaint() {
    bool onlyArguments = false;
    for (at_ = 0; at_ < words_.size(); ++at_) {
      // From here on words are arguments, whatever they begin with.
      if (words_[at_] == "--" && !onlyArguments) {
        onlyArguments = true;
        continue;
      }
      std::string wrong = onlyArguments ? argumentIsWrong(words_[at_]) : wordIsWrong(words_[at_]);
      if (!wrong.empty()) return wrong;
    }
    for (const CLI::Option* option : command_.get_options()) {
      if (option->get_required() && !given_[option]) {
        return option->get_name() + " is needed by " + command_.get_name();
      }
    }
    return {};
  }

 private:
  std::string wordIsWrong(const std::string& word) {
    const std::size_t equals = word.find('=');
    const bool isLong = word.starts_with("--");
    // "--name=value" or a word of its own; short options have no such form here.
    const std::string name = isLong ? word.substr(0, equals) : word;
    if (!word.starts_with('-') || word == "-") return argumentIsWrong(word);
    const CLI::Option* option = command_.get_option_no_throw(name);
    if (option == nullptr) {
      return Printable(name) + ": unknown option of " + command_.get_name() +
             Suggestion(name, OptionNames(command_));
    }
    return useIsWrong(*option, name, isLong && equals != std::string::npos);
  }

  // Takes the next place that is free for a word of its own.
  // Options without dashes take words in the order of their declaration.
  std::string argumentIsWrong(const std::string& word) {
    for (const CLI::Option* option : command_.get_options()) {
      const bool takesMore = !given_[option] || option->get_expected_max() > 1;
      if (!option->get_positional() || !takesMore) continue;
      given_[option] = true;
      return {};
    }
    return Printable(word) + ": " + command_.get_name() + " takes no such argument";
  }

  std::string useIsWrong(const CLI::Option& option, const std::string& name, bool hasValue) {
    const bool wantsValue = option.get_expected_max() > 0;
    if (hasValue && !wantsValue) return name + " takes no value";
    // The value is the next word, whatever it looks like.
    if (wantsValue && !hasValue && ++at_ == words_.size()) return name + " needs a value";
    // A list goes on to the next option.
    const bool isList =
        wantsValue && option.get_expected_max() > 1 && option.get_allow_extra_args();
    while (isList && at_ + 1 < words_.size() && !words_[at_ + 1].starts_with('-')) ++at_;
    const bool again = given_[&option];
    given_[&option] = true;
    const bool once = wantsValue && option.get_expected_max() == 1;
    return again && once ? name + " is given twice" : std::string();
  }

  const CLI::App& command_;
  const std::vector<std::string> words_;
  std::size_t at_ = 0;
  std::map<const CLI::Option*, bool> given_;
};

// Whether a word asks for something that needs nothing else.
bool AsksForHelp(int argc, const char* const* argv) {
  return std::any_of(argv, argv + argc, [](std::string_view word) {
    return word == "--help" || word == "-h" || word == "--version";
  });
}

}  // namespace

// A program without commands takes its options at once.
std::string UsageComplaint(const CLI::App& parser, int argc, const char* const* argv) {
  if (AsksForHelp(argc, argv)) return {};
  if (parser.get_subcommands([](const CLI::App*) { return true; }).empty()) {
    return Words(parser, argc - 1, argv + 1).complaint();
  }
  const std::string word = argc > 1 ? argv[1] : "";
  if (word.empty()) return "a command is needed";
  if (word.starts_with('-')) {
    const std::string meant = Suggestion(word, OptionNames(parser));
    return meant.empty() ? "a command is needed before " + Printable(word)
                         : Printable(word) + ": unknown option" + meant;
  }
  const CLI::App* command = CommandNamed(parser, word);
  if (command == nullptr) {
    return Printable(word) + ": unknown command" + Suggestion(word, CommandNames(parser));
  }
  return Words(*command, argc - 2, argv + 2).complaint();
}

std::function<std::string(const std::string&)> OneOf(std::initializer_list<const char*> names) {
  return [known = std::vector<std::string>(names.begin(), names.end())](const std::string& value) {
    if (std::find(known.begin(), known.end(), value) != known.end()) return std::string();
    std::string list;
    for (const std::string& name : known) list += (list.empty() ? "" : ", ") + name;
    return Printable(value) + " is none of " + list + Suggestion(value, known);
  };
}

}  // namespace quorvel::host
