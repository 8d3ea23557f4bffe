#include "host/MigrationResult.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <set>

#include "host/DirectoryListing.h"
#include "host/FailureWords.h"
#include "host/console/Json.h"
#include "host/console/TerminalText.h"
#include "platform/DeviceNames.h"

namespace quorvel::host {

namespace {

constexpr std::size_t OutcomeColumns = 10;
constexpr std::size_t WidestIdentifier = 48;

// The shortest number that is this float: 42.1 rather than 42.09999847412109.
double AsWritten(float number) {
  if (!std::isfinite(number)) return number;
  char digits[32];
  const auto written = std::to_chars(digits, digits + sizeof digits, number);
  double result = number;
  std::from_chars(digits, written.ptr, result);
  return result;
}

std::string Seconds(double seconds) {
  char digits[64];
  const auto written =
      std::to_chars(digits, digits + sizeof digits, seconds, std::chars_format::fixed, 2);
  return std::string(digits, written.ptr) + " s";
}

// The word as a shell takes it. $'...' understands the escapes of printable text.
std::string ShellWord(const std::string& word) {
  static constexpr std::string_view plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:=+@%,";
  if (!word.empty() && word.find_first_not_of(plain) == std::string::npos) return word;
  std::string quoted = "$'";
  for (const char c : Printable(word)) {
    if (c == '\'') quoted += '\\';
    quoted += c;
  }
  return quoted + "'";
}

class Table {
 public:
  Table(const RunAccount& account, Terminal terminal, const Path& legacy)
      : account_(account), terminal_(terminal), legacy_(legacy) {}

  std::string text() {
    for (const ContainerOutcome& outcome : account_.outcomes()) {
      identifierColumns_ =
          std::max(identifierColumns_, DisplayWidth(Printable(outcome.identifier)));
    }
    identifierColumns_ = std::min(identifierColumns_, WidestIdentifier);
    if (!account_.outcomes().empty()) row("", "OUTCOME", "APP", "CONTAINER");
    for (const ContainerOutcome& outcome : account_.outcomes()) container(outcome);
    remainders();
    for (const std::string& reason : account_.generalReasons()) {
      const FailureWords words = InWords(reason);
      if (!words.minor) out_ += "Problem: " + words.text + "\n";
    }
    return std::move(out_);
  }

 private:
  void row(const char* color, const char* outcome, const std::string& app,
           const std::string& path) {
    const bool colored = terminal_.colors && *color != '\0';
    if (colored) out_ += color;
    out_ += Padded(outcome, OutcomeColumns);
    if (colored) out_ += "\x1b[0m";
    out_ += "  " + Padded(CutEnd(app, identifierColumns_), identifierColumns_) + "  " + path + "\n";
  }

  void container(const ContainerOutcome& outcome) {
    const Path path = Path::directory(outcome.container);
    const bool kept = ItemType(path) != 0;
    const std::string app = outcome.identifier.empty() ? "-" : Printable(outcome.identifier);
    const std::string name(path.lastPathComponent());
    switch (outcome.kind) {
      case ContainerOutcome::Kind::migrated:
        row("\x1b[32m", "migrated", app, Printable(name));
        break;
      case ContainerOutcome::Kind::failed:
        row("\x1b[31m", "failed", app, Printable(name));
        break;
      case ContainerOutcome::Kind::notTaken:
        kept ? row("\x1b[31m", "left", app, Printable(name))
             : row("\x1b[33m", "removed", app, Printable(name));
        break;
    }
    reasons(outcome);
    if (outcome.kind == ContainerOutcome::Kind::failed || kept) whatIsLeft(outcome, path, kept);
  }

  void reasons(const ContainerOutcome& outcome) {
    std::string previous;
    for (const std::string& reason : outcome.reasons) {
      FailureWords words = InWords(reason);
      if (words.minor || words.text == previous) continue;
      detail(outcome.kind == ContainerOutcome::Kind::migrated ? "note" : "why", words.text);
      previous = std::move(words.text);
    }
  }

  void whatIsLeft(const ContainerOutcome& outcome, const Path& path, bool kept) {
    if (kept) {
      const bool marked = ItemType(path.child(MigrationMarkerName)) == S_IFREG;
      detail("kept", Printable(path.string()) +
                         (marked ? ", with its marker: a later run takes it up again" : ""));
    } else {
      detail("gone",
             "the container; unless the registry has its bundle, that has to be installed again");
    }
    if (!outcome.dataContainer.empty()) {
      detail("data", "what has moved is in " + Printable(outcome.dataContainer));
    }
  }

  void detail(const char* label, const std::string& text) {
    out_ += std::string(OutcomeColumns + 2, ' ') + Padded(label, 4) + "  " + text + "\n";
  }

  // What is left in the legacy directory and was not accounted for: links, which are no work items,
  // so that the plug-in's log has nothing about them, and containers whose marker names another.
  void remainders() {
    std::vector<std::string> names;
    if (ListDirectory(legacy_, names) != 0 || names.empty()) return;
    std::set<std::string> told;
    for (const ContainerOutcome& outcome : account_.outcomes()) told.insert(outcome.container);
    for (const std::string& name : names) {
      const Path path = legacy_.childDirectory(name);
      if (told.contains(path.string())) continue;
      row("\x1b[31m", "left", "-", Printable(name));
      if (ItemType(path) == S_IFLNK) {
        detail("why", "a symbolic link is not followed; remove it if nothing needs it");
      } else if (ItemType(path.child(MigrationMarkerName)) == S_IFREG) {
        detail("why", "its marker names another container; without it, it is looked at afresh");
      } else {
        detail("why", "nothing took it up");
      }
    }
  }

  const RunAccount& account_;
  const Terminal terminal_;
  const Path& legacy_;
  std::size_t identifierColumns_ = 3;
  std::string out_;
};

std::string HowToRunAgain(const Options& options) {
  std::string command = "migration-host migrate --root " + ShellWord(options.root);
  if (!options.plugin.empty()) command += " --plugin " + ShellWord(options.plugin);
  if (!options.logFile.empty()) command += " --log " + ShellWord(options.logFile);
  return command;
}

}  // namespace

std::string ResultAsJson(const MigrationResult& result) {
  Json object;
  object["dataClassName"] = result.dataClassName;
  object["estimatedDuration"] = AsWritten(result.estimatedDuration);
  object["items"] = result.items;
  object["progress"] = AsWritten(result.progress);
  object["succeeded"] = result.succeeded;
  object["seconds"] = result.seconds;
  return JsonLine(object);
}

std::string ResultAsText(const MigrationResult& result, const RunAccount& account,
                         const Path& legacyContainers, const Options& options, Terminal terminal) {
  std::string text = Table(account, terminal, legacyContainers).text();
  if (!text.empty()) text += "\n";
  if (result.succeeded) {
    text += result.items == 0 ? "Nothing to migrate" : "The migration succeeded";
  } else {
    text += "The migration failed";
  }
  if (account.migrated() + account.failed() > 0) {
    text += ": " + std::to_string(account.migrated()) + " migrated";
    if (account.failed() > 0) text += ", " + std::to_string(account.failed()) + " failed";
  }
  text += " (" + Seconds(result.seconds) + ").\n";
  if (!result.succeeded) {
    text += "What was kept is taken up again when the causes are removed:\n  " +
            HowToRunAgain(options) + "\n";
  }
  return text;
}

}  // namespace quorvel::host
