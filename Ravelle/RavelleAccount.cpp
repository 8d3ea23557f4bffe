// What is told of a container beside its steps: what it is, and what goes with it.
#include "Ravelle/RavelleAccount.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "Ravelle/ReplaceItem.h"
#include "platform/DeviceNames.h"

namespace quorvel {

namespace {

// Directories count for nothing: they are made again by whoever needs them. What could not be
// looked into may hold anything.
void CountEntry(const TreeWalkEntry& entry, MigrationLoss& loss) {
  switch (entry.kind) {
    case TreeWalkKind::file:
      ++loss.files;
      loss.bytes += entry.info.size;
      break;
    case TreeWalkKind::symbolicLink:
    case TreeWalkKind::other:
      ++loss.files;
      break;
    case TreeWalkKind::directoryBefore:
    case TreeWalkKind::directoryAfter:
      break;
    case TreeWalkKind::unreadableDirectory:
    case TreeWalkKind::noStat:
    case TreeWalkKind::error:
      loss.complete = false;
      break;
  }
}

// The slash after the prefix matters: "Documents" must not pass for the parent of "Documents 2".
bool IsOrLiesIn(std::string_view path, std::string_view tree) {
  return !tree.empty() && path.starts_with(tree) &&
         (path.size() == tree.size() || path[tree.size()] == '/');
}

// The paths are encoded once for the whole walk: it compares every entry with each of them. A walk
// that ends with errno set has not seen everything.
void CountEntries(TreeWalk& walk, const std::vector<Path>& except, MigrationLoss& loss) {
  std::vector<std::string> passedOver;
  for (const Path& path : except) passedOver.emplace_back(path.fileSystemRepresentation().c_str());
  while (const TreeWalkEntry* entry = walk.read()) {
    const bool counts =
        std::none_of(passedOver.begin(), passedOver.end(),
                     [entry](const std::string& tree) { return IsOrLiesIn(entry->path, tree); });
    if (counts) CountEntry(*entry, loss);
  }
  loss.complete = loss.complete && errno == 0;
}

bool IsNothing(const MigrationLoss& loss) {
  return loss.complete && loss.files == 0 && loss.userDataItems.empty();
}

// What a removal that failed halfway left is not lost.
void Subtract(const MigrationLoss& kept, MigrationLoss& loss) {
  loss.files -= std::min(kept.files, loss.files);
  loss.bytes -= std::min(kept.bytes, loss.bytes);
  loss.complete = loss.complete && kept.complete;
  std::erase_if(loss.userDataItems, [&kept](const std::string& name) {
    return std::find(kept.userDataItems.begin(), kept.userDataItems.end(), name) !=
           kept.userDataItems.end();
  });
}

}  // namespace

void TellClassification(const Classification& found, MigrationAccount& account) {
  ClassifiedContainer container{.kind = found.kind};
  if (found.record) {
    RecordFields fields = FieldsOf(*found.record);
    container.identifier = std::move(fields.identifier);
    container.bundle = fields.bundle.string();
  }
  account.containerClassified(container);
  for (const MigrationProblem& problem : found.problems) account.problem(problem);
}

// A walk of the whole tree, for containers that go without having been migrated and only where
// somebody keeps an account.
std::optional<MigrationLoss> MeasureLoss(const Path& item, const std::vector<Path>& except) {
  struct stat info {};
  const FileSystemRepresentation root = item.fileSystemRepresentation();
  if (::lstat(root.c_str(), &info) != 0) return std::nullopt;
  MigrationLoss loss{.path = item.string()};
  const std::unique_ptr<TreeWalk> walk =
      QVPlatform().treeWalker->open(root.c_str(), FTS_PHYSICAL_OPTION | FTS_NOCHDIR_OPTION);
  loss.complete = walk != nullptr;
  std::vector<Path> passedOver = except;
  passedOver.push_back(item.child(MigrationMarkerName));
  if (walk != nullptr) CountEntries(*walk, passedOver, loss);
  for (const char* name : UserDataItemNames) {
    const Path data = item.child(name);
    if (std::find(except.begin(), except.end(), data) != except.end()) continue;
    if (::lstat(data.fileSystemRepresentation().c_str(), &info) == 0) {
      loss.userDataItems.emplace_back(name);
    }
  }
  if (IsNothing(loss)) return std::nullopt;
  return loss;
}

// Measured before the removal, as nothing can be afterwards. Without an account nobody asks, and
// the second walk of the tree is saved.
bool RemoveAndTellLoss(QVFileManager& files, const Path& item, const std::vector<Path>& except,
                       Error* error) {
  if (QVPlatform().account == nullptr) return files.removeItemAtURL(item, error);
  std::optional<MigrationLoss> loss = MeasureLoss(item, except);
  const bool removed = files.removeItemAtURL(item, error);
  if (!loss) return removed;
  if (!removed) {
    if (const auto kept = MeasureLoss(item, except)) Subtract(*kept, *loss);
  }
  if (!IsNothing(*loss)) Account().lost(*loss);
  return removed;
}

// By the time an item is moved to where one is, two containers have had data for one app, the app
// has been used since, or a group's legacy directory was filled again: the one in the way goes.
// What it replaces is told by the name of the place as one item of user data, not by the items in
// it.
bool ReplaceAndTellLoss(QVFileManager& files, const Path& source, const Path& destination,
                        MigrationStep step, Error* error) {
  // The normal case needs no further look.
  if (IsCertainlyNotThere(destination)) return MoveToFreePlace(files, source, destination, error);
  if (QVPlatform().account == nullptr) return ReplaceByMove(files, source, destination, error);
  std::optional<MigrationLoss> loss = MeasureLoss(destination);
  const bool moved = ReplaceByMove(files, source, destination, error);
  if (!loss) return moved;
  if (!moved) {
    if (const auto kept = MeasureLoss(destination)) Subtract(*kept, *loss);
  }
  loss->userDataItems.clear();
  if (IsNothing(*loss)) return moved;
  loss->userDataItems.emplace_back(destination.lastPathComponent());
  Account().lost(*loss);
  TellNote(step, MigrationReason::dataReplaced, destination);
  return moved;
}

void RemoveWithAccount(QVFileManager& files, const Path& entry) {
  Error error;
  const bool removed =
      InStep(MigrationStep::removal, [&] { return RemoveAndTellLoss(files, entry, {}, &error); });
  if (!removed) {
    TellProblem(MigrationStep::removal, MigrationReason::notRemoved, entry, error);
  }
  Account().containerEnded(removed ? MigrationOutcome::removed : MigrationOutcome::left, !removed);
}

}  // namespace quorvel
