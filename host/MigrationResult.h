// A migration's result, for programs and for people.
#pragma once

#include <string>

#include "host/CommandLine.h"
#include "host/RunAccount.h"
#include "host/console/Terminal.h"
#include "host/preflight/Finding.h"

namespace quorvel::host {

struct MigrationResult {
  std::string dataClassName;
  float estimatedDuration = 0;
  std::size_t items = 0;
  float progress = 0;
  bool succeeded = false;
  int interruptedBy = 0;  // a signal, which ended the run before its end
  double seconds = 0;
  Findings preflight{};
};

// One object, with a line feed.
std::string ResultAsJson(const MigrationResult& result, const RunAccount& account);

// Failures first, what is left for a person, then how many containers ended how, and how to run
// again.
std::string ResultAsText(const MigrationResult& result, const RunAccount& account,
                         const Options& options, Terminal terminal);

}  // namespace quorvel::host
