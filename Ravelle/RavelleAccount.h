// The plug-in's facts in the host's account.
#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "Ravelle/Classification.h"
#include "platform/MigrationAccount.h"
#include "platform/Path.h"
#include "shared/support/Platform.h"

namespace quorvel {

// The host's account, or one that nobody reads.
// Never null, so that no step has to ask; the same object on every call of a run.
inline MigrationAccount& Account() {
  static MigrationAccount unread;
  MigrationAccount* account = QVPlatform().account;
  return account != nullptr ? *account : unread;
}

// What ends the container's migration, or makes the run fail.
inline void TellProblem(MigrationStep step, MigrationReason reason, const Path& path,
                        const Error& error = {}) {
  Account().problem({.step = step, .reason = reason, .path = path.string(), .error = error});
}

// What is worth knowing, and ends nothing.
inline void TellNote(MigrationStep step, MigrationReason reason, const Path& path,
                     const Error& error = {}) {
  Account().problem(
      {.step = step, .reason = reason, .path = path.string(), .error = error, .stops = false});
}

// What was decided, and every problem that it rests on.
// Once for each container. A container without a record has its kind alone.
void TellClassification(const Classification& found, MigrationAccount& account);

// What would go with the item, except for its marker and what lies at or below `except`. A tree
// that is not there, or holds nothing but directories, is no loss. Nothing is followed or changed.
std::optional<MigrationLoss> MeasureLoss(const Path& item, const std::vector<Path>& except = {});

// Removes an entry that nothing can be made of, tells what went with it, and ends it.
// An entry that cannot be removed is left as it is; the next run meets it again.
void RemoveWithAccount(QVFileManager& files, const Path& entry);

// Removes the item and tells what went with it, where anybody wants to know.
// True and false are the removal's. After a failed one the rest is measured again, and what is
// still there is not told as lost.
bool RemoveAndTellLoss(QVFileManager& files, const Path& item, const std::vector<Path>& except,
                       Error* error);

// Moves an item of user data to its place in the data container or, in the step of the groups, in
// that of its group, and tells what it replaced. Otherwise as ReplaceByMove.
bool ReplaceAndTellLoss(QVFileManager& files, const Path& source, const Path& destination,
                        MigrationStep step, Error* error);

// Runs one step, and hands back what it hands back: whether it succeeded, or what it found.
template <class Step>
auto InStep(MigrationStep step, Step&& run) {
  Account().stepBegan(step);
  auto result = std::forward<Step>(run)();
  Account().stepEnded(step, static_cast<bool>(result));
  return result;
}

}  // namespace quorvel
