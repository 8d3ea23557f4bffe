// One table of the parser, written in three languages.
#include "host/console/Completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string_view>

namespace quorvel::host {

namespace {

// What may stand behind an option, and so what a shell offers there.
enum class Kind { flag, file, directory, choice, text };

// What the three languages need of the parser's option, taken out of it once.
struct OptionRow {
  std::vector<std::string> names;  // with their dashes
  std::string about;
  std::string type;
  Kind kind;
  bool repeats;
  std::vector<std::string> choices;
};

struct CommandRow {
  std::string name;  // empty: the program itself
  std::string about;
  std::vector<OptionRow> options;
  bool takesFiles = false;
};

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

std::string Joined(const std::vector<std::string>& words, const char* separator = " ") {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

// By the name that help shows: it says FILE and DIR wherever a path is meant.
Kind KindOf(const CLI::Option& option, const std::string& type, const OptionRow& row) {
  if (option.get_expected_max() == 0) return Kind::flag;
  if (!row.choices.empty()) return Kind::choice;
  if (type == "FILE") return Kind::file;
  return type == "DIR" ? Kind::directory : Kind::text;
}

OptionRow RowOf(const CLI::Option& option, const KnownValues& values) {
  OptionRow row{};
  for (const std::string& name : option.get_snames()) row.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) row.names.push_back("--" + name);
  row.about = option.get_description();
  row.type = option.get_type_name();
  const auto known = values.find(row.names.back());
  if (known != values.end()) row.choices = known->second;
  if (row.type.find('|') != std::string::npos) row.choices = Split(row.type, '|');
  row.kind = KindOf(option, row.type, row);
  row.repeats = option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll ||
                option.get_expected_max() > 1;
  return row;
}

CommandRow RowOf(const CLI::App& app, const std::string& name, const KnownValues& values) {
  CommandRow row{.name = name, .about = app.get_description(), .options = {}};
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_positional()) {
      row.takesFiles = true;
    } else {
      row.options.push_back(RowOf(*option, values));
    }
  }
  return row;
}

// The program, and its commands behind it.
std::vector<CommandRow> RowsOf(const CLI::App& parser, const KnownValues& values) {
  std::vector<CommandRow> rows = {RowOf(parser, "", values)};
  for (const CLI::App* command : parser.get_subcommands([](const CLI::App*) { return true; })) {
    rows.push_back(RowOf(*command, command->get_name(), values));
  }
  return rows;
}

std::string Replaced(std::string text, std::string_view what, std::string_view by) {
  for (std::size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + by.size())) {
    text.replace(at, what.size(), by);
  }
  return text;
}

std::string Quoted(const std::string& text) { return "'" + Replaced(text, "'", "'\\''") + "'"; }

// A name for a function of a shell.
std::string FunctionName(const std::string& program) { return "_" + Replaced(program, "-", "_"); }

// --- bash ---------------------------------------------------------------------------------------

std::string BashPattern(const CommandRow& command, const OptionRow& option) {
  std::vector<std::string> words;
  for (const std::string& name : option.names) words.push_back(command.name + ":" + name);
  return Joined(words, " | ");
}

std::string BashValue(const OptionRow& option) {
  if (option.kind == Kind::choice) return "known='" + Joined(option.choices) + "'";
  if (option.kind == Kind::file) return "how=-f";
  return option.kind == Kind::directory ? "how=-d" : "return";
}

// One branch for each option that takes a value: what may follow it.
std::string BashValues(const std::vector<CommandRow>& rows) {
  std::string values;
  for (const CommandRow& row : rows) {
    for (const OptionRow& option : row.options) {
      if (option.kind == Kind::flag) continue;
      values += "    " + BashPattern(row, option) + ") " + BashValue(option) + " ;;\n";
    }
  }
  return values;
}

// One branch for each command: its options; for the program itself also the commands.
std::string BashNames(const std::vector<CommandRow>& rows) {
  std::string names;
  for (const CommandRow& row : rows) {
    std::vector<std::string> known;
    for (const OptionRow& option : row.options) {
      known.insert(known.end(), option.names.begin(), option.names.end());
    }
    const bool isProgram = row.name.empty();
    for (const CommandRow& other : rows) {
      if (isProgram && !other.name.empty()) known.push_back(other.name);
    }
    names += "    '" + row.name + "') known='" + Joined(known) + "'" +
             (row.takesFiles ? " how=-f" : "") + " ;;\n";
  }
  return names;
}

std::string InBash(const std::string& program, const std::vector<CommandRow>& rows) {
  const bool hasCommands = rows.size() > 1;
  const std::string function = FunctionName(program);
  return function +
         "() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
         "  local command='' known='' how=''\n"
         "  COMPREPLY=()\n" +
         (hasCommands ? "  ((COMP_CWORD == 1)) || command=${COMP_WORDS[1]}\n" : "") +
         "  # The equals sign of --option=value is a word of its own.\n"
         "  if [[ $word == = ]]; then\n"
         "    word=''\n"
         "  elif [[ $before == = ]]; then\n"
         "    before=${COMP_WORDS[COMP_CWORD - 2]}\n"
         "  fi\n"
         "  case $command:$before in\n" +
         BashValues(rows) +
         "    *)\n"
         "    case $command in\n" +
         BashNames(rows) +
         "    esac\n"
         "    [[ $word != -* ]] || how=''\n"
         "    [[ -z $how ]] || known=''\n"
         "    ;;\n"
         "  esac\n"
         "  if [[ -n $how ]]; then\n"
         "    compopt -o filenames 2>/dev/null\n"
         "    mapfile -t COMPREPLY < <(compgen $how -- \"$word\")\n"
         "  else\n"
         "    mapfile -t COMPREPLY < <(compgen -W \"$known\" -- \"$word\")\n"
         "  fi\n"
         "}\n"
         "complete -F " +
         function + " " + program + "\n";
}

// --- zsh ----------------------------------------------------------------------------------------

std::string InBrackets(const std::string& text) {
  std::string out;
  for (const char c : text)
    out +=
        (c == '[' || c == ']' || c == ':' || c == '\\') ? std::string("\\") + c : std::string(1, c);
  return out;
}

std::string ZshValue(const OptionRow& option) {
  switch (option.kind) {
    case Kind::flag:
      return {};
    case Kind::file:
      return ":file:_files";
    case Kind::directory:
      return ":directory:_files -/";
    case Kind::choice:
      return ":value:(" + Joined(option.choices) + ")";
    case Kind::text:
      return ":" + option.type + ": ";
  }
  return {};
}

std::string ZshArguments(const CommandRow& row, const char* indent) {
  std::string out;
  for (const OptionRow& option : row.options) {
    for (const std::string& name : option.names) {
      const bool takesEquals = option.kind != Kind::flag && name.starts_with("--");
      out += std::string(" \\\n") + indent +
             Quoted((option.repeats ? "*" : "") + name + (takesEquals ? "=" : "") + "[" +
                    InBrackets(option.about) + "]" + ZshValue(option));
    }
  }
  if (row.takesFiles) out += std::string(" \\\n") + indent + "'*:file:_files'";
  return out;
}

std::string InZsh(const std::string& program, const std::vector<CommandRow>& rows) {
  std::string out = "#compdef " + program + "\n";
  if (rows.size() == 1) return out + "_arguments" + ZshArguments(rows.front(), "  ") + "\n";
  out += "local line state\n_arguments -C" + ZshArguments(rows.front(), "  ") +
         " \\\n  '1:command:->command' '*::argument:->argument' && return\n"
         "local -a commands=(\n";
  for (const CommandRow& row : rows) {
    if (!row.name.empty())
      out += "  " + Quoted(row.name + ":" + Replaced(row.about, ":", "\\:")) + "\n";
  }
  out += ")\ncase $state:$line[1] in\n  command:*) _describe command commands ;;\n";
  for (const CommandRow& row : rows) {
    if (row.name.empty()) continue;
    out +=
        "  argument:" + row.name + ")\n    _arguments" + ZshArguments(row, "      ") + "\n    ;;\n";
  }
  return out + "esac\n";
}

// --- fish ---------------------------------------------------------------------------------------

std::string FishText(const std::string& text) {
  return "'" + Replaced(Replaced(text, "\\", "\\\\"), "'", "\\'") + "'";
}

std::string FishValue(const OptionRow& option) {
  switch (option.kind) {
    case Kind::flag:
      return {};
    case Kind::file:
      return " -r -F";
    case Kind::directory:
      return " -x -a '(__fish_complete_directories)'";
    case Kind::choice:
      return " -x -a " + FishText(Joined(option.choices));
    case Kind::text:
      return " -x";
  }
  return {};
}

std::string InFish(const std::string& program, const std::vector<CommandRow>& rows) {
  const bool hasCommands = rows.size() > 1;
  std::string out;
  for (const CommandRow& row : rows) {
    std::string line = "complete -c " + program;
    if (hasCommands && row.name.empty()) line += " -n __fish_use_subcommand";
    if (!row.name.empty()) line += " -n '__fish_seen_subcommand_from " + row.name + "'";
    if (!row.takesFiles) out += line + " -f\n";
    for (const OptionRow& option : row.options) {
      out += line;
      for (const std::string& name : option.names) {
        out += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
      }
      out += FishValue(option) + " -d " + FishText(option.about) + "\n";
    }
    if (row.name.empty()) continue;
    out += "complete -c " + program + " -n __fish_use_subcommand -a " + row.name + " -d " +
           FishText(row.about) + "\n";
  }
  return out;
}

}  // namespace

std::optional<std::string> CompletionAskedFor(const CLI::App& parser, int argc,
                                              const char* const* argv, const KnownValues& values) {
  if (argc != 3 || std::string_view(argv[1]) != "--completion") return std::nullopt;
  const std::string_view shell = argv[2];
  const std::vector<CommandRow> rows = RowsOf(parser, values);
  const std::string& program = parser.get_name();
  if (shell == "bash") return InBash(program, rows);
  if (shell == "zsh") return InZsh(program, rows);
  if (shell == "fish") return InFish(program, rows);
  return std::nullopt;
}

}  // namespace quorvel::host
