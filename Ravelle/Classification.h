// What an entry of the legacy applications directory is, and what a migration does with it.
//
// The decision is made here, once, for the migration that carries it out (_introspectContainer)
// and for the preview that shows it. Nothing on disk changes.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Ravelle/ContainerRecord.h"
#include "platform/MigrationAccount.h"
#include "platform/Path.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Format.h"

namespace quorvel {

// A line of the host's log that is still to be written.
// Kept apart from the log, since a preview decides the same way and writes nothing.
// The names are literals and live as long as the program; the message is the line's own.
struct PendingLine {
  const char* file;
  const char* function;
  int line;
  int level;
  std::string message;
};

// Adds one, with a format and its arguments as RAVELLE_LOG takes them.
#define RAVELLE_ADD_LINE(lines, level, function, ...) \
  (lines).push_back(                                  \
      {__FILE__, (function), __LINE__, (level), ::quorvel::FormatMessage(__VA_ARGS__)})

// Made by one call and handed on by value: it refers to nothing on disk, which may change before it
// is acted on.
struct Classification {
  enum class Verdict {
    migrate,  // the record says what
    remove,   // it is certain that nothing can be made of it
    leave,    // as it is
    none,     // it is not there any more
  };

  Verdict verdict = Verdict::leave;
  LegacyItemKind kind = LegacyItemKind::unknown;
  // With `migrate` only: the marker's dictionary as it was read, or a new record.
  std::optional<ContainerRecord> record{};
  // The record belongs at the front of the work list.
  bool early = false;
  // What the decision rests on, in the order in which it was met; the last one decides.
  std::vector<MigrationProblem> problems{};
  // What is to be logged, in order, before anything is done.
  std::vector<PendingLine> lines{};
  // The names in the container, where it could be listed.
  std::vector<std::string> names{};
};

// Each file is read once; a failure is judged by its own Error. Whatever was not read whole, and
// is not certain to be absent, makes the verdict `leave`, unless a valid marker says what to do.
// Never fails: what cannot be decided is `leave`, with the problem that says why. One thread at a
// time for one container.
Classification ClassifyLegacyContainer(QVFileManager& files, const Path& container);

// Whether the entry is the note of the former service, which goes whatever it is.
// Told by its name alone.
bool IsFarewell(const Path& entry);

}  // namespace quorvel
