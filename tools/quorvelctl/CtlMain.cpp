// quorvelctl: the shared code's public operations, from a shell.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <clocale>
#include <string_view>
#include <vector>

#include "QuorvelCommit.h"
#include "host/console/Completion.h"
#include "host/console/Help.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"
#include "host/console/UsageComplaint.h"
#include "tools/quorvelctl/CtlCommand.h"
#include "tools/quorvelctl/CtlOptions.h"
#include "tools/quorvelctl/CtlSession.h"

namespace quorvel::ctl {

namespace {

using host::ExitSucceeded;
using host::ExitUsage;
using host::Printable;

constexpr const char* GeneralHelp =
    "Relative paths are below the current directory, or with --root below DIR, which\n"
    "the process is then confined to. \"directories\" and \"flags set\" write to places\n"
    "of the device's own and refuse to run without --root; --root / is this machine.\n"
    "Exit codes: 0 done, or yes; 1 failed, or no; 2 usage; 4 the tree cannot be\n"
    "entered.";

struct Declared {
  CLI::App* parser = nullptr;
  std::unique_ptr<Command> command;
};

std::vector<CommandEntry> AllCommands() {
  std::vector<CommandEntry> all;
  for (const auto family :
       {ConfigurationCommands(), TreeCommands(), ItemCommands(), FileCommands()}) {
    all.insert(all.end(), family.begin(), family.end());
  }
  return all;
}

// The options that all commands share are declared to each, so that they may stand behind the
// command's name.
Declared Declare(CLI::App& parser, const CommandEntry& entry, CommonOptions& common) {
  Declared declared;
  declared.parser = parser.add_subcommand(entry.name, entry.summary);
  declared.command = entry.declare(*declared.parser);
  AddFlag(*declared.parser, "--json", common.json, "One JSON object on standard output");
  AddText(*declared.parser, "--log", common.logFile, "Append every log call as a JSON line")
      ->type_name("FILE");
  AddText(*declared.parser, "--root", common.root, "Work in this device tree, confined to it")
      ->type_name("DIR");
  declared.parser->footer(std::string("Example:\n  ") + entry.example);
  return declared;
}

// What the command line asks for, or what to print instead.
class CommandLine {
 public:
  // `first` is the first word, or "". Where it names a command the others are not declared: a shell
  // loop starts this program a thousand times.
  explicit CommandLine(std::string_view first)
      : parser_("Calls the installation service's shared operations.", "quorvelctl") {
    parser_.set_version_flag("--version", std::string("quorvelctl ") + kBuiltVersion);
    parser_.formatter(host::HelpFormatter());
    parser_.require_subcommand(1);
    parser_.footer(GeneralHelp);
    const std::vector<CommandEntry> all = AllCommands();
    const auto named = std::find_if(
        all.begin(), all.end(), [first](const CommandEntry& entry) { return entry.name == first; });
    if (named != all.end()) {
      commands_.push_back(Declare(parser_, *named, common_));
      return;
    }
    for (const CommandEntry& entry : all) commands_.push_back(Declare(parser_, entry, common_));
  }

  int run(int argc, const char* const* argv) {
    if (const auto script = host::CompletionAskedFor(parser_, argc, argv)) return print(*script);
    // The parser takes words from the back.
    std::vector<std::string> words;
    for (int i = argc - 1; i > 0; --i) words.push_back(Guarded(argv[i]));
    asksForJson_ = std::any_of(words.begin(), words.end(),
                               [](const std::string& word) { return word == "--json"; });
    // Judged before parsing, which takes the words apart; used only if the parser refuses them.
    const std::string wrong = host::UsageComplaint(parser_, argc, argv);
    try {
      parser_.parse(std::move(words));
    } catch (const CLI::CallForHelp&) {
      return print(helpText());
    } catch (const CLI::CallForVersion& version) {
      return print(std::string(version.what()) + "\n");
    } catch (const CLI::ParseError& error) {
      return complain(wrong.empty() ? Printable(error.what()) : wrong);
    }
    return runCommand();
  }

 private:
  std::string helpText() const {
    const auto chosen = parser_.get_subcommands();
    std::string text = chosen.empty() ? parser_.help() : chosen.front()->help(parser_.get_name());
    if (!text.ends_with('\n')) text += '\n';
    return text;
  }

  // Everything that the command line alone can show to be wrong is told before the session opens
  // anything.
  int runCommand() {
    const auto chosen = std::find_if(commands_.begin(), commands_.end(),
                                     [](const Declared& one) { return one.parser->parsed(); });
    common_.command = chosen->parser->get_name();
    const Access access = chosen->command->access();
    std::string complaint = chosen->command->complaint();
    if (complaint.empty() && access == Access::changeDevice && common_.root.empty()) {
      complaint = "--root is missing: name the device tree, or \"/\" for this machine";
    }
    if (!complaint.empty()) return complain(common_.command + ": " + complaint);
    Session session(common_);
    host::FatalError error;
    if (chosen->command->computesDigests()) session.prepareDigests();
    if (!session.open(access, error)) return session.failFatally(error);
    return chosen->command->run(session);
  }

  int print(const std::string& text) { return Session(common_).finishBytes(text); }

  int complain(const std::string& problem) {
    // The parser may have stopped before it came to the flag.
    common_.json = asksForJson_;
    return Session(common_).failFatally({ExitUsage, problem, "See quorvelctl --help"});
  }

  CLI::App parser_;
  CommonOptions common_;
  bool asksForJson_ = false;
  std::vector<Declared> commands_;
};

}  // namespace

}  // namespace quorvel::ctl

int main(int argc, char** argv) {
  quorvel::host::PrepareStandardStreams();
  // Part of the C library itself, so that it is there in every environment.
  (void)std::setlocale(LC_CTYPE, "C.UTF-8");  // NOLINT(concurrency-mt-unsafe): one thread
  return quorvel::ctl::CommandLine(argc > 1 ? argv[1] : "").run(argc, argv);
}
