// legacy-image: makes a device tree as the former installation service left it.
//
// Exit codes: 0 made, 1 could not be made, 2 usage.

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <limits>
#include <string>

#include "QuorvelCommit.h"
#include "host/console/Completion.h"
#include "host/console/ExitCode.h"
#include "host/console/Help.h"
#include "host/console/ShellWord.h"
#include "host/console/TerminalText.h"
#include "host/console/UsageComplaint.h"
#include "tools/legacy-image/LegacyImageDevice.h"

namespace {

using quorvel::tools::FailingCases;
using quorvel::tools::LegacyImageOptions;
using quorvel::tools::LegacyImageResult;
using quorvel::tools::LegacyImageWriter;

using quorvel::host::ExitFailed;
using quorvel::host::ExitUsage;
using quorvel::host::Printable;
using quorvel::host::ShellWord;

// A check of a number; the parser's own words for a wrong one are not for people.
auto UpTo(std::uint64_t most) {
  return [most](const std::string& text) {
    std::uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number);
    if (failure == std::errc() && stop == end && number <= most) return std::string();
    return Printable(text) + " is no whole number up to " + std::to_string(most);
  };
}

std::string Footer() {
  std::string text =
      "\nStandard output has the commands that make the registry know the VPN plug-ins\n"
      "that stand alone; without them their containers fail. The same arguments write\n"
      "the same bytes, names, modes and times.\n"
      "\n--failing adds, each of which must make a migration report failure:\n";
  for (const auto& one : FailingCases()) {
    text += std::string("  ") + one.name + "\n      " + one.why + "\n";
  }
  return text +
         "\nExample, a device with 40 apps in a new directory, made ready and migrated:\n"
         "  legacy-image /tmp/device --apps 40 | sh\n"
         "  migration-host migrate --root /tmp/device";
}

int Complain(const std::string& problem) {
  std::cerr << "legacy-image: " << problem << "\n";
  return ExitFailed;
}

int ComplainOfUsage(const std::string& problem) {
  (void)Complain(problem + "\nSee legacy-image --help");
  return ExitUsage;
}

// One identifier per line.
bool WriteList(const std::string& path, const LegacyImageResult& result) {
  std::ofstream list(path);
  for (const std::string& identifier : result.registered) list << identifier << "\n";
  // Explicitly: what could not be written shows only now.
  list.close();
  return !list.fail();
}

int Run(const std::string& directory, const LegacyImageOptions& options,
        const std::string& listPath) {
  LegacyImageWriter writer;
  if (!writer.open(directory)) return Complain(writer.problem());
  const LegacyImageResult result = WriteDevice(writer, options);
  if (!writer.finish()) return Complain(writer.problem());
  for (const std::string& note : result.notes) std::cerr << "legacy-image: note: " << note << "\n";
  if (!listPath.empty() && !WriteList(listPath, result)) {
    return Complain(listPath + ": cannot be written");
  }
  for (const std::string& identifier : result.registered) {
    // Lines for a shell, so that the output can be piped into one.
    std::cout << "migration-host register --root " << ShellWord(directory) << " --identifier "
              << ShellWord(identifier) << "\n";
  }
  std::cout.flush();
  return std::cout ? 0 : Complain("standard output cannot be written");
}

struct Arguments {
  std::string directory;
  std::string listPath;
  LegacyImageOptions image;
  bool withoutIcons = false;
};

void AddOptions(CLI::App& app, Arguments& arguments) {
  LegacyImageOptions& options = arguments.image;
  app.set_version_flag("--version", std::string("legacy-image ") + quorvel::kBuiltVersion);
  app.add_option("DIR", arguments.directory, "where to make it: a new or empty directory")
      ->required();
  app.add_option("--apps", options.apps, "number of apps")
      ->check(UpTo(1000000))
      ->capture_default_str();
  app.add_option("--seed", options.seed, "chooses names, colours and data")
      ->check(UpTo(std::numeric_limits<std::uint64_t>::max()))
      ->capture_default_str();
  app.add_option("--data-bytes", options.dataBytes, "user data of each container, in bytes")
      ->check(UpTo(std::uint64_t{1} << 40U))
      ->capture_default_str();
  app.add_flag("--failing", options.failing, "add containers that must fail");
  app.add_flag("--plain", options.plain, "nothing but apps that are all alike, for measurements");
  app.add_flag("--no-icons", arguments.withoutIcons, "apps without icons");
  app.add_option("--registered-list", arguments.listPath,
                 "also write the identifiers to be registered to this file, one per line")
      ->type_name("FILE");
  app.formatter(quorvel::host::HelpFormatter());
  app.footer(Footer());
}

int ParseAndRun(int argc, char** argv) {
  CLI::App app("Makes a device tree in the legacy layout, to try migrations on.", "legacy-image");
  Arguments arguments;
  AddOptions(app, arguments);
  if (const auto script = quorvel::host::CompletionAskedFor(app, argc, argv)) {
    std::cout << *script << std::flush;
    return std::cout ? 0 : ExitFailed;
  }
  // Before the parser, whose own words for the same are worse.
  const std::string wrong = quorvel::host::UsageComplaint(app, argc, argv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& problem) {
    // --help and --version come as exceptions, too.
    if (problem.get_exit_code() == 0) return app.exit(problem);
    return ComplainOfUsage(wrong.empty() ? Printable(problem.what()) : wrong);
  }
  LegacyImageOptions& options = arguments.image;
  if (options.plain && options.failing) {
    return ComplainOfUsage("--plain and --failing exclude each other");
  }
  options.icons = !arguments.withoutIcons;
  return Run(arguments.directory, options, arguments.listPath);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return ParseAndRun(argc, argv);
  } catch (const std::exception& problem) {  // no memory; nothing else throws
    std::fprintf(stderr, "legacy-image: %s\n", problem.what());
    return ExitFailed;
  }
}
