// Declares the options of every command and turns the parser's complaints into ours.
#include "host/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <string_view>

#include "QuorvelCommit.h"
#include "host/console/Completion.h"
#include "host/console/ExitCode.h"
#include "host/console/Help.h"
#include "host/console/NearestName.h"
#include "host/console/TerminalText.h"
#include "host/console/UsageComplaint.h"
#include "host/preflight/Finding.h"
#include "platform/FileSystemRepresentation.h"

namespace quorvel::host {

namespace {

constexpr const char* kExitCodesText =
    "Exit codes: 0 done, also when there was nothing to do; 1 it ran and reported\n"
    "failure; 2 usage; 3 the plug-in cannot be loaded; 4 no device tree, or it cannot\n"
    "be entered; 5 refused before anything was changed; 130, 143, 129 interrupted.";

std::string NotEmpty(const std::string& value) {
  return value.empty() ? "the value is empty" : std::string();
}

// It becomes a registry key, log text and part of file names: what cannot be shown is not taken.
std::string GoodIdentifier(const std::string& value) {
  if (value.empty()) return "the identifier is empty";
  if (StringFromFileSystemRepresentation(value) != value || Printable(value) != value) {
    return "the identifier is no printable UTF-8 text";
  }
  return {};
}

const std::map<std::string, ProgressMode>& ProgressModes() {
  static const std::map<std::string, ProgressMode> modes = {{"auto", ProgressMode::automatic},
                                                            {"always", ProgressMode::always},
                                                            {"never", ProgressMode::never}};
  return modes;
}

// The parser's own check would also take the numbers behind the names.
std::string KnownProgressMode(const std::string& value) {
  if (ProgressModes().contains(value)) return {};
  return value + " is none of auto, always and never";
}

// Every command works in one tree, which is never guessed.
void AddRoot(CLI::App& command, Options& options) {
  command.add_option("--root", options.root, "The device tree to work in")
      ->required()
      ->type_name("DIR")
      ->check(NotEmpty);
}

void AddJson(CLI::App& command, Options& options) {
  command.add_flag("--json", options.json, "One JSON object on standard output")
      ->disable_flag_override();
}

// What a command that loads the plug-in has: it also shows what the plug-in says.
void AddPlugin(CLI::App& command, Options& options) {
  command.add_option("--plugin", options.plugin, "The plug-in to load (default: beside the host)")
      ->type_name("FILE")
      ->check(NotEmpty);
  command.add_flag("--all", options.all, "Show what goes well, too, and lists to their end")
      ->disable_flag_override();
}

// A mistyped name would leave the run refused without a hint at why.
std::string KnownRefusal(const std::string& name) {
  const std::vector<std::string> names(kRefusals.begin(), kRefusals.end());
  if (std::find(names.begin(), names.end(), name) != names.end()) return {};
  return Printable(name) + " is no finding that refuses a run" + Suggestion(name, names);
}

// One name an option: a list would swallow the words after it.
void AddForcePreflight(CLI::App& command, Options& options) {
  command
      .add_option("--force-preflight", options.forcedFindings,
                  "Go on past a finding that refuses the run (may be repeated)")
      ->type_name("NAME")
      ->expected(1)
      ->allow_extra_args(false)
      ->take_all()
      ->check(KnownRefusal);
}

// An empty name is refused here: it would otherwise be told as a file that is not there.
void AddFile(CLI::App& command, const char* name, std::string& value, const char* text) {
  command.add_option(name, value, text)->type_name("FILE")->check(NotEmpty);
}

// Options stand in the order in which help shows them: what most runs need comes first.
void AddMigrate(CLI::App& parser, Options& options) {
  CLI::App* command = parser.add_subcommand("migrate", "Migrate the device tree");
  AddRoot(*command, options);
  AddJson(*command, options);
  command->add_option("--log", options.logFile, "Append every log call as a JSON line")
      ->type_name("FILE")
      ->check(NotEmpty);
  command
      ->add_option_function<std::string>(
          "--progress",
          [&options](const std::string& mode) { options.progress = ProgressModes().at(mode); },
          "Show progress on standard error")
      ->type_name("auto|always|never")
      ->check(KnownProgressMode);
  AddPlugin(*command, options);
  AddForcePreflight(*command, options);
  command->add_option("--only", options.only, "Migrate these apps and leave all else as it is")
      ->type_name("IDENTIFIER")
      ->check(NotEmpty);
  AddFile(*command, "--events", options.events,
          "Append what happens as JSON lines while it runs (- for standard output)");
  command
      ->add_option("--device", options.device, "Its name in the result (default: its directory's)")
      ->type_name("NAME")
      ->check(NotEmpty);
  command->add_flag("--quiet", options.quiet, "Print nothing but errors (and what --json asks for)")
      ->disable_flag_override();
  command->callback([&options] { options.command = Command::migrate; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile\n"
      "  migration-host migrate --root /tmp/device --log /tmp/device.log");
}

void AddInspect(CLI::App& parser, Options& options) {
  CLI::App* command =
      parser.add_subcommand("inspect", "Show what a migration would do; changes nothing");
  AddRoot(*command, options);
  AddJson(*command, options);
  AddPlugin(*command, options);
  command->callback([&options] { options.command = Command::inspect; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile\n"
      "  migration-host inspect --root /tmp/device");
}

void AddStatus(CLI::App& parser, Options& options) {
  CLI::App* command =
      parser.add_subcommand("status", "Show a run at work, the last ones and what is to be done");
  AddRoot(*command, options);
  AddJson(*command, options);
  AddPlugin(*command, options);
  command->callback([&options] { options.command = Command::status; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile\n"
      "  migration-host status --root /tmp/device");
}

void AddRegistry(CLI::App& parser, Options& options) {
  CLI::App* command = parser.add_subcommand(
      "registry", "Show what the registry, the safe harbors and data protection hold");
  AddRoot(*command, options);
  AddJson(*command, options);
  command->callback([&options] { options.command = Command::registry; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile\n"
      "  migration-host registry --root /tmp/device --json");
}

void AddFlag(CLI::App& command, const char* name, bool& value, const char* text) {
  command.add_flag(name, value, text)->disable_flag_override();
}

void AddSnapshot(CLI::App& parser, Options& options) {
  CLI::App* command = parser.add_subcommand(
      "snapshot", "List all that belongs to a user, to prove a migration; changes nothing");
  AddRoot(*command, options);
  AddJson(*command, options);
  AddFile(*command, "--plugin", options.plugin, "The plug-in to load (default: beside the host)");
  AddFile(*command, "--output", options.output, "The manifest (default: standard output)");
  AddFlag(*command, "--fast", options.fast, "Do not read contents: size, times and inode do");
  AddFlag(*command, "--gzip", options.gzip, "Compress the manifest");
  command->callback([&options] { options.command = Command::snapshot; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile && migration-host snapshot \\\n"
      "    --root /tmp/device --output /tmp/device.jsonl");
}

void AddVerify(CLI::App& parser, Options& options) {
  CLI::App* command = parser.add_subcommand(
      "verify", "Find everything that a snapshot lists again; changes nothing");
  AddRoot(*command, options);
  AddJson(*command, options);
  command->add_option("MANIFEST", options.manifest, "What snapshot wrote")
      ->required()
      ->type_name("")
      ->check(NotEmpty);
  AddFile(*command, "--result", options.result, "What migrate --json printed, for its reasons");
  AddFlag(*command, "--strict", options.strict, "Fail also for losses that a migration orders");
  command->callback([&options] { options.command = Command::verify; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile\n"
      "  migration-host snapshot --root /tmp/device --output /tmp/device.jsonl\n"
      "  migration-host verify --root /tmp/device /tmp/device.jsonl");
}

void AddRehearse(CLI::App& parser, Options& options) {
  CLI::App* command =
      parser.add_subcommand("rehearse", "Migrate a view of the tree, verify it and throw it away");
  AddRoot(*command, options);
  AddJson(*command, options);
  AddPlugin(*command, options);
  command->add_option("--upper", options.upper, "Where the view's changes go (default: memory)")
      ->type_name("DIR")
      ->check(NotEmpty);
  AddFlag(*command, "--keep", options.keep, "Keep the view's changes and the manifest");
  command->callback([&options] { options.command = Command::rehearse; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile\n"
      "  migration-host rehearse --root /tmp/device");
}

void AddReport(CLI::App& parser, Options& options) {
  CLI::App* command =
      parser.add_subcommand("report", "Make one page of results that migrate --json printed");
  AddJson(*command, options);
  command->add_option("FILE", options.files, "Results; a directory means the *.json in it")
      ->required()
      ->type_name("")
      ->check(NotEmpty);
  AddFile(*command, "--log", options.logFile, "The run's log, if there is one result");
  AddFile(*command, "--output", options.output, "The page (default: report.html)");
  command->callback([&options] { options.command = Command::report; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile && cd /tmp/device &&\n"
      "  migration-host migrate --root . --json >run.json &&\n"
      "  migration-host report run.json");
}

void AddRegister(CLI::App& parser, Options& options) {
  CLI::App* command =
      parser.add_subcommand("register", "Add a registry record with no bundle behind it");
  AddRoot(*command, options);
  AddJson(*command, options);
  command->add_option("--identifier", options.identifier, "The bundle identifier to record")
      ->required()
      ->type_name("ID")
      ->check(GoodIdentifier);
  command->callback([&options] { options.command = Command::registerIdentifier; });
  command->footer(
      "Example:\n"
      "  mkdir -p /tmp/device/private/var/mobile\n"
      "  migration-host register --root /tmp/device --identifier com.example.tunnel");
}

void AddEverything(CLI::App& parser, Options& options) {
  parser.set_version_flag("--version", std::string("migration-host ") + kBuiltVersion);
  parser.formatter(HelpFormatter());
  // Without one there is nothing to do, and nothing is guessed.
  parser.require_subcommand(1);
  parser.footer(kExitCodesText);
  AddMigrate(parser, options);
  AddInspect(parser, options);
  AddStatus(parser, options);
  AddRegistry(parser, options);
  AddRegister(parser, options);
  AddSnapshot(parser, options);
  AddVerify(parser, options);
  AddRehearse(parser, options);
  AddReport(parser, options);
}

// By hand, since parsing has failed: a program that asked for JSON gets its complaint as JSON.
bool AsksForJson(int argc, const char* const* argv) {
  return std::any_of(argv, argv + argc,
                     [](const char* argument) { return std::string_view(argument) == "--json"; });
}

}  // namespace

ParsedCommandLine ParseCommandLine(int argc, const char* const* argv) {
  Options options;
  CLI::App parser("Migrates the apps of a device tree into the current layout.", "migration-host");
  AddEverything(parser, options);
  ParsedCommandLine parsed;
  const KnownValues known = {{"--force-preflight", {kRefusals.begin(), kRefusals.end()}}};
  if (const auto script = CompletionAskedFor(parser, argc, argv, known)) {
    parsed.text = *script;
    return parsed;
  }
  // Before parsing, which stops at the first thing that it does not like and has worse words for
  // it.
  const std::string complaint = UsageComplaint(parser, argc, argv);
  try {
    parser.parse(argc, argv);
    // A reader could not tell where the events end and the result begins.
    if (options.events == "-" && options.json) {
      throw CLI::ValidationError("--events - and --json both want standard output", ExitUsage);
    }
    parsed.options = std::move(options);
  } catch (const CLI::CallForHelp&) {
    // Help after a command's name is that command's.
    const auto chosen = parser.get_subcommands();
    parsed.text = chosen.empty() ? parser.help() : chosen.front()->help(parser.get_name());
    if (!parsed.text.ends_with('\n')) parsed.text += '\n';
  } catch (const CLI::CallForVersion& version) {
    parsed.text = std::string(version.what()) + "\n";
    parsed.isVersion = true;
  } catch (const CLI::ParseError& error) {
    parsed.exitCode = ExitUsage;
    parsed.text = complaint.empty() ? Printable(error.what()) : complaint;
    parsed.json = AsksForJson(argc, argv);
  }
  return parsed;
}

}  // namespace quorvel::host
