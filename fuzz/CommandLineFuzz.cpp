// Arbitrary words as command lines. The host's is parsed whole; of quorvelctl's, whose commands act
// while they are parsed, the declaration of options through which every word reaches them.
#include <vector>

#include "fuzz/Fuzzing.h"
#include "host/CommandLine.h"
#include "tools/quorvelctl/CtlOptions.h"

namespace quorvel::fuzzing {
namespace {

const char* const kWords[] = {"migrate",
                              "inspect",
                              "registry",
                              "register",
                              "snapshot",
                              "verify",
                              "rehearse",
                              "--root",
                              "--json",
                              "--all",
                              "--plugin",
                              "--progress",
                              "--help",
                              "--version",
                              "--events",
                              "--log-file",
                              "--force-preflight",
                              "--output",
                              "--quiet",
                              "--fast",
                              "--keep",
                              "--strict",
                              "--result",
                              "--identifier",
                              "--upper",
                              "--manifest",
                              "--",
                              "-",
                              "always",
                              "/tmp",
                              "--root=/",
                              "",
                              "report"};

std::vector<std::string> Words(Input& input) {
  std::vector<std::string> words;
  while (!input.isEmpty() && words.size() < 32) {
    std::string word = input.number(3) == 0 ? input.upTo('\0') : input.oneOf(kWords);
    words.push_back(word.substr(0, word.find('\0')));
  }
  return words;
}

void RequireHostLine(const std::vector<std::string>& words) {
  std::vector<const char*> argv = {"migration-host"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  const auto parsed = host::ParseCommandLine(static_cast<int>(argv.size()), argv.data());
  Require(parsed.options.has_value() ? parsed.exitCode == 0 : !parsed.text.empty());
  if (!parsed.options) return;
  // A report is made of files, everything else works on one device.
  const bool isReport = parsed.options->command == host::Command::report;
  Require(isReport ? !parsed.options->files.empty() : !parsed.options->root.empty());
}

// Every word arrives as it was given, behind "--".
void RequireOperands(const std::vector<std::string>& words) {
  std::vector<std::string> guarded = {"--"}, operands, expected;
  for (const std::string& word : words) {
    Require(ctl::Unguarded(ctl::Guarded(word)) == word);
    if (word.empty()) continue;
    expected.push_back(word);
    guarded.push_back(ctl::Guarded(word));
  }
  if (expected.empty()) return;
  CLI::App parser;
  ctl::AddTexts(parser, "operands", operands, "");
  std::vector<const char*> argv = {"quorvelctl"};
  for (const std::string& word : guarded) argv.push_back(word.c_str());
  parser.parse(static_cast<int>(argv.size()), argv.data());
  Require(operands == expected);
}

}  // namespace
}  // namespace quorvel::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel::fuzzing;  // NOLINT
  Input input(data, size);
  const auto words = Words(input);
  RequireHostLine(words);
  RequireOperands(words);
  return 0;
}
