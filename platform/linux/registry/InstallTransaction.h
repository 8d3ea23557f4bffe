// Carries out intents so that neither a kill nor a power cut leaves anything in between.
//
// The order of writes and flushes, for every change of the registry:
//
//   1. The intent goes into the database in one transaction: every new name, so that whatever is
//      made next has an owner, and the records as they will be.
//   2. A barrier, when the steps take what exists nowhere else: from here on the intent cannot be
//      lost. A placeholder needs none (undone by a power cut it is made anew).
//   3. The steps: directories are made; bundles are moved (one rename; across file systems the
//      copy is flushed before it takes its name, and the source goes after that), store metadata
//      after its bundle. Nothing that exists elsewhere only is removed.
//   4. A barrier: the steps are done for good, and the intent cannot be lost.
//   5. The records are replaced in one transaction. Before it the app is as it was, after it the
//      app is as requested. It is not flushed: a power cut that undoes it finds the intent open,
//      whose steps find all done, and replaces the records again.
//   6. Only now what was replaced is removed: the old bundle container, obsolete bundles, and the
//      emptied staging directories (never one with something in it).
//   7. The intent is forgotten with the next transaction. Lost, it repeats step 6 in vain. The log
//      keeps transactions in their order, so that no intent is forgotten before its records last.
//
// A barrier is one flush of each file system that holds the registry, the staging directory or a
// container of the request. It covers all that was written there by anyone: that is how callers
// get their own preparations to stable storage for nothing (platform/ApplicationRegistry.h).
//
// Whoever opens the registry next takes up each intent where it was left: steps and clean-up may
// be repeated at any point. An intent is carried forward, with two exceptions that lose nothing.
// A failure before the first bundle was moved gives the intent up, with the new and still unused
// containers: everything is as it was. And a bundle that has vanished from the staging directory
// before it could be moved is given up alone: its identifier is as it was.
// From the first moved bundle on each step is tried twice, so that a failure that passes costs the
// app none of its store metadata.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>

#include "platform/Error.h"
#include "platform/FileSystem.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/registry/DeviceLayout.h"
#include "platform/linux/registry/RegistryStore.h"

namespace quorvel::onlinux {

class InstallTransaction {
 public:
  // All must outlive the object.
  InstallTransaction(FileSystem& fileSystem, const DeviceLayout& layout, RegistryStore& store)
      : fileSystem_(fileSystem),
        flush_(dynamic_cast<DescriptorFlush*>(&fileSystem)),
        layout_(layout),
        store_(store) {}

  // Steps 1 to 7. True once the records are replaced, whether or not the clean-up succeeded: what
  // is left of it is tried again by finishOpenIntents(). False with an Error otherwise.
  bool run(InstallIntent intent, const std::map<std::string, std::string>& newGroups, Error* error);

  // Takes up what was left open, by this process or another one. Each intent is tried; false with
  // the first failure. Costs nothing after a success until an intent is left open again.
  bool finishOpenIntents(Error* error);

  // Whether an open intent has moved the bundle of the identifier out of this staging directory.
  // False where that cannot be told.
  bool hasTakenOver(const std::string& identifier, const Path& staging);

  // A barrier for a request that finds nothing left to do, or for the registry alone.
  bool flush(const AppRecord& record, const Path& staging, Error* error);
  bool flushStore(Error* error);

 private:
  enum class Vanished { fails, isGivenUp };  // a bundle that is nowhere

  bool advance(InstallIntent* intent, Vanished vanished, Error* error);
  bool performSteps(InstallIntent* intent, Vanished vanished, Error* error);
  bool perform(const InstallStep& step, Error* error);
  bool move(const InstallStep& step, Error* error);
  bool moveIfExists(const InstallStep& step, Error* error);
  bool writeFile(const InstallStep& step, Error* error);
  bool markPlaceholder(const InstallStep& step, Error* error);
  bool removeTree(const InstallStep& step, Error* error);
  bool removeStaging(const InstallStep& step, Error* error);
  bool flush(const InstallIntent& intent, Error* error);
  bool flush(const std::set<std::string>& items, Error* error);
  bool flushRegistry(std::set<dev_t>* flushed, Error* error);
  bool flushItem(const std::string& item, std::set<dev_t>* flushed, Error* error);
  void conclude(const InstallIntent& intent);
  bool cleanUp(const InstallIntent& intent, Error* error);
  bool withdraw(InstallIntent* intent);

  FileSystem& fileSystem_;
  DescriptorFlush* const flush_;  // null where the file system takes only paths
  const DeviceLayout& layout_;
  RegistryStore& store_;
  bool mayHaveOpenIntents_ = true;
  // The registry's own directory is flushed at every barrier: open since the first one.
  UniqueDescriptor registryDirectory_;
  dev_t registryDevice_ = 0;
  // On which file system lies what the intent at hand works on; known from one barrier to the next.
  std::map<std::string, dev_t> devices_;
};

}  // namespace quorvel::onlinux
