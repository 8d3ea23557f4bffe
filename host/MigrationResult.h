// A migration's result, for programs and for people.
#pragma once

#include <string>

#include "host/CommandLine.h"
#include "host/RunAccount.h"
#include "host/console/Terminal.h"
#include "platform/Path.h"

namespace quorvel::host {

struct MigrationResult {
  std::string dataClassName;
  float estimatedDuration = 0;
  std::int64_t items = 0;
  float progress = 0;
  bool succeeded = false;
  double seconds = 0;
};

// One object, with a line feed.
std::string ResultAsJson(const MigrationResult& result);

// A table of the containers with what happened to each, why, what was kept and where, and how to
// run again. Looks at the device tree, which the process must be confined to, for what was kept.
std::string ResultAsText(const MigrationResult& result, const RunAccount& account,
                         const Path& legacyContainers, const Options& options, Terminal terminal);

}  // namespace quorvel::host
