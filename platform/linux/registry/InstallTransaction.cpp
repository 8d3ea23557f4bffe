// Each step can be repeated; the order of their flushes is said where they are carried out.
#include "platform/linux/registry/InstallTransaction.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <set>
#include <utility>
#include <vector>

#include "platform/DeviceNames.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/Path.h"
#include "platform/UniqueDescriptor.h"
#include "platform/WriteWhole.h"
#include "platform/linux/files/DurableDirectory.h"
#include "platform/linux/files/MoveTree.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/files/RemoveItem.h"
#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {
namespace {

using Kind = InstallStep::Kind;

constexpr unsigned char PlaceholderMark[4] = {1, 0, 0, 0};

// Whether certainly nothing has that name; a failure to tell is no.
bool IsMissing(const std::string& path) {
  struct stat info {};
  return ::lstat(FileSystemRepresentation(path).c_str(), &info) != 0 &&
         (errno == ENOENT || errno == ENOTDIR);
}

bool MakeDirectory(FileSystem& fileSystem, const std::string& path, Error* error) {
  const FileSystemRepresentation bytes(path);
  if (::mkdir(bytes.c_str(), 0755) != 0) {
    if (errno != EEXIST && errno != ENOENT) return Fail(path, error);
    // A device's first container finds its parents missing, a repeated step finds the directory
    // itself.
    if (!MakeDurableDirectory(fileSystem, bytes.c_str(), error)) return false;
  }
  // The umask may have taken bits away, also in an attempt that was killed before it came here.
  return ::chmod(bytes.c_str(), 0755) == 0 || Fail(path, error);
}

// A directory with something in it stays: that something was not understood. *stays, where asked
// for, is set when anything may have the name afterwards.
bool RemoveEmptyDirectory(const std::string& path, Error* error, bool* stays = nullptr) {
  const bool removed = ::rmdir(FileSystemRepresentation(path).c_str()) == 0;
  if (stays != nullptr) *stays = !removed && errno != ENOENT;
  if (removed) return true;
  static constexpr int harmless[] = {ENOENT, ENOTDIR, ENOTEMPTY, EEXIST, EBUSY};
  if (std::find(std::begin(harmless), std::end(harmless), errno) != std::end(harmless)) return true;
  return Fail(path, error);
}

// Takes everything of the identifier out of the intent. Containers that were to be its own are
// removed; the bundle's may hold the beginning of a copy.
void GiveUp(InstallIntent* intent, const std::string& identifier) {
  std::erase_if(intent->records,
                [&](const AppRecord& record) { return record.identifier == identifier; });
  std::set<std::string> bundleContainers;
  for (const InstallStep& step : intent->steps) {
    if (step.kind == Kind::moveBundle && step.identifier == identifier) {
      bundleContainers.insert(ParentOf(step.target));
    }
  }
  std::vector<InstallStep> kept;
  for (InstallStep& step : intent->steps) {
    if (step.identifier != identifier) {
      kept.push_back(std::move(step));
    } else if (step.kind == Kind::makeDirectory) {
      const bool holdsCopy = bundleContainers.contains(step.target);
      kept.push_back({holdsCopy ? Kind::removeTree : Kind::removeEmptyDirectory,
                      true,
                      "",
                      "",
                      step.target,
                      {}});
    }
  }
  intent->steps = std::move(kept);
}

bool HasOpenSteps(const InstallIntent& intent) {
  return std::any_of(intent.steps.begin(), intent.steps.end(),
                     [](const InstallStep& step) { return !step.cleanup; });
}

// Whether nothing of the identifier was moved yet: giving it up loses nothing.
bool IsUntouched(const InstallIntent& intent, const std::string& identifier) {
  bool makesDirectory = false;
  for (const InstallStep& step : intent.steps) {
    if (step.identifier != identifier) continue;
    if (step.kind == Kind::moveBundle) return IsMissing(step.target);
    makesDirectory = makesDirectory || step.kind == Kind::makeDirectory;
  }
  return makesDirectory;
}

// Whether a power cut that undoes the intent but not the steps would lose anything: a placeholder
// is made anew, an unused container is only litter.
bool TakesWhatIsNowhereElse(const InstallIntent& intent) {
  const auto has = [&intent](Kind kind) {
    return std::any_of(intent.steps.begin(), intent.steps.end(),
                       [kind](const InstallStep& step) { return step.kind == kind; });
  };
  return !has(Kind::markPlaceholder) &&
         (has(Kind::moveBundle) || has(Kind::moveItem) || has(Kind::removeTree));
}

}  // namespace

bool InstallTransaction::run(InstallIntent intent,
                             const std::map<std::string, std::string>& newGroups, Error* error) {
  if (!store_.begin(&intent, newGroups)) {
    // Should the log hold the transaction in spite of its failure, a later open finds it.
    mayHaveOpenIntents_ = true;
    return SetError(error, store_.failure());
  }
  if (advance(&intent, Vanished::fails, error)) return true;
  mayHaveOpenIntents_ = !withdraw(&intent) || mayHaveOpenIntents_;
  return false;
}

bool InstallTransaction::hasTakenOver(const std::string& identifier, const Path& staging) {
  std::vector<InstallIntent> intents;
  if (!mayHaveOpenIntents_ || !store_.openIntents(&intents)) return false;
  return std::any_of(intents.begin(), intents.end(), [&](const InstallIntent& intent) {
    return !intent.committed && !IsUntouched(intent, identifier) &&
           std::any_of(intent.records.begin(), intent.records.end(), [&](const AppRecord& record) {
             return record.identifier == identifier && !record.obsolete &&
                    record.staging == staging.string();
           });
  });
}

bool InstallTransaction::finishOpenIntents(Error* error) {
  if (!mayHaveOpenIntents_) return true;
  std::vector<InstallIntent> intents;
  if (!store_.openIntents(&intents)) return SetError(error, store_.failure());
  mayHaveOpenIntents_ = false;
  Error first;
  for (InstallIntent& intent : intents) {
    Error failure;
    if (advance(&intent, Vanished::isGivenUp, &failure)) continue;
    mayHaveOpenIntents_ = true;
    if (!first) first = std::move(failure);
  }
  return first ? SetError(error, std::move(first)) : true;
}

bool InstallTransaction::advance(InstallIntent* intent, Vanished vanished, Error* error) {
  devices_.clear();
  if (!intent->committed) {
    // Also of an intent that was found open: it may have outlived a kill without being stored.
    if (TakesWhatIsNowhereElse(*intent) && !flush(*intent, error)) return false;
    if (!performSteps(intent, vanished, error) || !flush(*intent, error)) return false;
    if (!store_.commit(intent)) return SetError(error, store_.failure());
  }
  conclude(*intent);
  return true;
}

// The records are replaced: what is left of the intent.
void InstallTransaction::conclude(const InstallIntent& intent) {
  if (cleanUp(intent, nullptr)) {
    store_.finish(intent);
  } else {
    mayHaveOpenIntents_ = true;
  }
}

bool InstallTransaction::performSteps(InstallIntent* intent, Vanished vanished, Error* error) {
  std::set<std::string> givenUp;
  bool movedBundle = false;
  for (const InstallStep& step : intent->steps) {
    if (step.cleanup || givenUp.contains(step.identifier)) continue;
    Error failure;
    bool done = perform(step, &failure);
    movedBundle =
        movedBundle || (step.kind == Kind::moveBundle && (done || !IsMissing(step.target)));
    // From the first moved bundle on each step is tried twice: that bundle does not go back, and a
    // caller that is told of a failure may drop the package with all that was still to follow.
    if (!done && movedBundle) done = perform(step, &failure);
    if (done) continue;
    const bool isGone = step.kind == Kind::moveBundle && vanished == Vanished::isGivenUp &&
                        IsMissing(step.source) && IsMissing(step.target);
    if (!isGone) return SetError(error, std::move(failure));
    givenUp.insert(step.identifier);
  }
  for (const std::string& identifier : givenUp) GiveUp(intent, identifier);
  return true;
}

bool InstallTransaction::perform(const InstallStep& step, Error* error) {
  switch (step.kind) {
    case Kind::makeDirectory:
      return MakeDirectory(fileSystem_, step.target, error);
    case Kind::moveBundle:
      return move(step, error);
    case Kind::moveItem:
      return moveIfExists(step, error);
    case Kind::writeFile:
      return writeFile(step, error);
    case Kind::markPlaceholder:
      return markPlaceholder(step, error);
    case Kind::removeTree:
      return removeTree(step, error);
    case Kind::removeEmptyDirectory:
      return RemoveEmptyDirectory(step.target, error);
    case Kind::removeStaging:
      return removeStaging(step, error);
  }
  return false;
}

bool InstallTransaction::move(const InstallStep& step, Error* error) {
  Error failure;
  if (MoveItem(fileSystem_, FileSystemRepresentation(step.source).c_str(),
               FileSystemRepresentation(step.target).c_str(), &failure)) {
    return true;
  }
  // A target is never there but whole, from an earlier attempt; what has the source's name now is
  // somebody else's.
  const bool isDone =
      failure.is(PosixErrorDomain, ENOTEMPTY) || failure.is(PosixErrorDomain, EEXIST);
  return isDone || SetError(error, std::move(failure));
}

bool InstallTransaction::moveIfExists(const InstallStep& step, Error* error) {
  Error failure;
  if (move(step, &failure) || (IsMissing(step.source) && IsMissing(step.target))) return true;
  return SetError(error, std::move(failure));
}

bool InstallTransaction::writeFile(const InstallStep& step, Error* error) {
  // In a container of our own: what has the name is an earlier attempt. Not flushed by itself: the
  // barrier after the steps covers it.
  const UniqueDescriptor file(::open(FileSystemRepresentation(step.target).c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  const bool written =
      file && ::fchmod(file.get(), 0644) == 0 && WriteWhole(file.get(), step.data) == 0;
  return written || Fail(step.target, error);
}

bool InstallTransaction::markPlaceholder(const InstallStep& step, Error* error) {
  if (fileSystem_.setxattr(FileSystemRepresentation(step.target).c_str(), PlaceholderAttributeName,
                           PlaceholderMark, sizeof PlaceholderMark, 0, XATTR_NOFOLLOW) == 0) {
    return true;
  }
  // Without attributes in the file system the record alone says that it is a placeholder.
  return errno == ENOTSUP || Fail(step.target, error);
}

bool InstallTransaction::removeTree(const InstallStep& step, Error* error) {
  const int number = RemoveItem(fileSystem_, FileSystemRepresentation(step.target).c_str());
  return number == 0 || SetError(error, PosixFailure(number, step.target));
}

// Across file systems interrupted moves leave remains of their sources.
bool InstallTransaction::removeStaging(const InstallStep& step, Error* error) {
  const std::string payload = step.target + "/" + PayloadName;
  for (const std::string& directory : {payload, step.target}) {
    bool stays = false;
    if (!RemoveEmptyDirectory(directory, error, &stays)) return false;
    if (!stays) continue;
    RemoveRemainsOfMoves(fileSystem_, FileSystemRepresentation(directory).c_str());
    if (!RemoveEmptyDirectory(directory, error)) return false;
  }
  return true;
}

bool InstallTransaction::flush(const InstallIntent& intent, Error* error) {
  std::set<std::string> items;
  for (const InstallStep& step : intent.steps) {
    if (step.cleanup) continue;
    // A made directory stands for itself; what is moved into it would only repeat it.
    const bool makes = step.kind == Kind::makeDirectory;
    items.insert(makes ? step.target : ParentOf(step.target));
    if (!step.source.empty()) items.insert(ParentOf(step.source));
  }
  // The data went there before the request was made, by the caller: its barrier is this one.
  for (const AppRecord& record : intent.records) {
    if (!record.dataContainer) continue;
    items.insert(layout_.container(ContainerKind::data, *record.dataContainer).string());
  }
  return flush(items, error);
}

bool InstallTransaction::flush(const AppRecord& record, const Path& staging, Error* error) {
  std::set<std::string> items{ParentOf(staging.string())};
  if (record.dataContainer) {
    items.insert(layout_.container(ContainerKind::data, *record.dataContainer).string());
  }
  if (record.bundleContainer) {
    items.insert(layout_.container(ContainerKind::bundle, *record.bundleContainer).string());
  }
  return flush(items, error);
}

bool InstallTransaction::flushStore(Error* error) { return flush(std::set<std::string>{}, error); }

// One flush of a file system costs less than one for each of its directories, and one is enough
// for all that lie on it.
bool InstallTransaction::flush(const std::set<std::string>& items, Error* error) {
  std::set<dev_t> flushed;
  return flushRegistry(&flushed, error) &&
         std::all_of(items.begin(), items.end(),
                     [&](const std::string& item) { return flushItem(item, &flushed, error); });
}

bool InstallTransaction::flushRegistry(std::set<dev_t>* flushed, Error* error) {
  const std::string path = layout_.registryDirectory().string();
  if (!registryDirectory_) {
    UniqueDescriptor directory(::open(FileSystemRepresentation(path).c_str(),
                                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    // What is not there has nothing to lose.
    if (!directory) return errno == ENOENT || Fail(path, error);
    struct stat info {};
    if (::fstat(directory.get(), &info) != 0) return Fail(path, error);
    registryDevice_ = info.st_dev;
    registryDirectory_ = std::move(directory);
  }
  const bool isFlushed =
      flush_ != nullptr ? flush_->SyncFileSystemOf(registryDirectory_.get()) == 0
                        : fileSystem_.SyncFileSystem(FileSystemRepresentation(path).c_str()) == 0;
  if (!isFlushed) return Fail(path, error);
  flushed->insert(registryDevice_);
  return true;
}

bool InstallTransaction::flushItem(const std::string& item, std::set<dev_t>* flushed,
                                   Error* error) {
  const FileSystemRepresentation bytes(item);
  auto known = devices_.find(item);
  if (known == devices_.end()) {
    struct stat info {};
    if (::lstat(bytes.c_str(), &info) != 0) {
      return errno == ENOENT || errno == ENOTDIR || Fail(item, error);
    }
    known = devices_.emplace(item, info.st_dev).first;
  }
  if (flushed->contains(known->second)) return true;
  if (fileSystem_.SyncFileSystem(bytes.c_str()) != 0) return Fail(item, error);
  flushed->insert(known->second);
  return true;
}

// Every step is tried: one item that cannot be removed must not keep the others.
bool InstallTransaction::cleanUp(const InstallIntent& intent, Error* error) {
  bool done = true;
  for (const InstallStep& step : intent.steps) {
    done = (!step.cleanup || perform(step, done ? error : nullptr)) && done;
  }
  return done;
}

// After a failure: when no bundle was moved the intent is given up, so that the staging directory
// stays as it is and nothing half-made stays behind. False when the intent is still open: once
// one bundle was moved the others follow it, sooner or later.
bool InstallTransaction::withdraw(InstallIntent* intent) {
  const std::vector<AppRecord> records = intent->records;
  const bool isUntouched =
      std::all_of(records.begin(), records.end(),
                  [&](const AppRecord& record) { return IsUntouched(*intent, record.identifier); });
  if (!isUntouched) return false;
  for (const AppRecord& record : records) GiveUp(intent, record.identifier);
  if (HasOpenSteps(*intent)) {
    store_.rewrite(*intent);
    return false;
  }
  // Needs no barrier: undone by a power cut it is an open intent again, of which nothing was done.
  if (!store_.commit(intent)) return false;
  conclude(*intent);
  return true;
}

}  // namespace quorvel::onlinux
