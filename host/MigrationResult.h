// A migration's result, for programs and for people.
#pragma once

#include <string>
#include <vector>

#include "host/CommandLine.h"
#include "host/PluginBundle.h"
#include "host/RunAccount.h"
#include "host/console/Json.h"
#include "host/preflight/Finding.h"

namespace quorvel::host {

// What ran, and since when.
struct RunIdentity {
  std::string plugin{};  // its version; empty when it does not tell
  std::string started{};
};

// Of a run that begins now.
// The time is in UTC to the second, and empty if the clock's cannot be expressed.
RunIdentity IdentifyRun(const PluginBundle& bundle);
// Adds "versions" and "started".
void AddIdentity(const RunIdentity& identity, Json& object);

// Everything about a run but what became of its containers, which is the account's.
// A run that was interrupted has what was known by then.
struct MigrationResult {
  RunIdentity identity{};
  std::string device{};             // its name
  std::vector<std::string> only{};  // the identifiers it was limited to; empty: everything
  double startedAt = 0;  // seconds since 1970, what all other times of the run are counted from
  std::string dataClassName{};
  // As the plug-in told it before the run, in its own unit.
  float estimatedDuration = 0;
  std::size_t items = 0;
  std::size_t installedBefore = 0;  // apps that the registry had before the run
  float progress = 0;
  bool succeeded = false;
  int interruptedBy = 0;  // a signal, which ended the run before its end
  double seconds = 0;
  Findings preflight{};
};

// One object, with a line feed.
// Read again by report and verify (report/Result.h).
std::string ResultAsJson(const MigrationResult& result, const RunAccount& account);

// Failures first, then how many containers ended how, where the logs are, how to run again, and
// the rest. For the descriptor that it is written to.
// The command to run again is quoted for a shell, to be pasted as it is. Names are made printable.
std::string ResultAsText(const MigrationResult& result, const RunAccount& account,
                         const Options& options, int descriptor);

}  // namespace quorvel::host
