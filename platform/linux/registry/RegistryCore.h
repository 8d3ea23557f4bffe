// What the registry's operations share: the store, opened when first needed; lookups in it and
// among the built-in apps; and the way a change is carried out.
//
// The facade (ApplicationRegistryLinux.h) makes one core, and the two services work through it.
// One thread at a time. Operations that take an Error answer false, and fill it, when they fail.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/ApplicationRegistry.h"
#include "platform/BundleReader.h"
#include "platform/FileSystem.h"
#include "platform/linux/registry/DeviceLayout.h"
#include "platform/linux/registry/InstallPlan.h"
#include "platform/linux/registry/InstallTransaction.h"
#include "platform/linux/registry/PackageInspection.h"
#include "platform/linux/registry/RegistryStore.h"
#include "platform/linux/registry/RegistryTypes.h"

namespace quorvel::onlinux {

class RegistryCore {
 public:
  // Both services must outlive the object.
  RegistryCore(FileSystem& fileSystem, BundleReader& bundles, RegistryOptions options);
  RegistryCore(const RegistryCore&) = delete;
  RegistryCore& operator=(const RegistryCore&) = delete;

  bool isReadOnly() const { return options_.readOnly; }
  bool isBlacklisted(const std::string& identifier) const {
    return options_.isBlacklisted && options_.isBlacklisted(identifier);
  }

  // Opens the store and takes up what an interrupted or failed operation left open. What cannot
  // be finished now does not stop others: it only fails requests for the same identifier. False
  // only when the store cannot be opened. Costs little when it is open and nothing is left over.
  // With `readOnly` nothing is taken up.
  bool prepare(Error* error);
  // The same for operations that write.
  bool prepareToWrite(Error* error);
  // Whether an intent for the identifier is still open, then with the Error why. True also where
  // the open intents cannot be read: then nobody knows.
  bool isBlocked(const std::string& identifier, Error* error);

  // --- What is recorded: after prepare() ---------------------------------------------------

  // The record of the identifier; false when it cannot be told.
  bool find(const std::string& identifier, std::optional<AppRecord>* record, Error* error);
  // In the identifiers' order.
  bool forEachApp(const std::function<void(const AppRecord&)>& visit, Error* error);
  // Whether the record's bundle is where the record says. A link does not count. Looks at the disk
  // at each call.
  bool hasBundle(const AppRecord& record) const;
  // Whether the record's bundle container has an item of that name.
  bool containerHolds(const AppRecord& record, const std::string& name) const;
  // What callers get to see of an identifier, with what is on disk now. Groups that have no
  // container yet are left out.
  BundleProxy proxyOf(const AppRecord& record);
  // `record` holds the containers, if there are any yet.
  BundleProxy proxyOf(const BundleDescription& builtIn, const std::optional<AppRecord>& record);
  // Every record and every built-in app; false with the Error when not all of it can be told.
  bool snapshot(RegistrySnapshot* result, Error* error);
  // Whether all that is stored can be read; takes up open intents first.
  bool isSound(Error* error) { return prepare(error) && store_.isSound(error); }

  // --- Built-in apps, and packages (PackageInspection.h) ------------------------------------

  // Null with the Error when they cannot be listed.
  const BuiltInApps::Map* builtInApps(Error* error) { return builtIn_.all(error); }
  const BundleDescription* builtInApp(const std::string& id) { return builtIn_.find(id); }
  // The built-in app, unless the record (if there is one) has an installed bundle that is not
  // older. Null otherwise.
  const BundleDescription* effectiveBuiltIn(const std::string& identifier,
                                            const std::optional<AppRecord>& record);
  bool readBundle(const Path& directory, const char* type, BundleDescription* bundle,
                  Error* error) {
    return ReadBundle(bundles_, directory, type, bundle, error);
  }
  bool inspectPackage(const Path& staging, PackageContents* package, Error* error) {
    return InspectPackage(bundles_, staging, package, error);
  }

  // --- Changes: after prepareToWrite() ------------------------------------------------------

  // An empty plan, and the only way to carry one out.
  InstallPlan newPlan() { return {layout_, store_}; }
  bool run(InstallPlan& plan, Error* error) { return plan.run(transaction_, error); }
  // Gives a built-in app the containers it still lacks, and updates the record. Costs a lookup
  // where it lacks none. An update of the app that is installed keeps its record's bundle, version
  // and groups.
  bool giveContainers(const BundleDescription& builtIn, std::optional<AppRecord>* record,
                      Error* error);
  // See InstallTransaction.h.
  bool hasTakenOver(const std::string& identifier, const Path& staging) {
    return transaction_.hasTakenOver(identifier, staging);
  }
  // Brings what a request without changes rests on to stable storage (InstallTransaction.h).
  bool flush(const AppRecord& record, const Path& staging, Error* error) {
    return transaction_.flush(record, staging, error);
  }
  bool putSafeHarbor(const SafeHarborRecord& harbor) {
    return store_.putSafeHarbor(harbor) && transaction_.flushStore(nullptr);
  }
  // Records that the update of data protection ran, and how many containers could not hold a
  // class, once what it did is on stable storage.
  bool recordDataProtection(std::int64_t unsupported, Error* error);

  FileSystem& fileSystem() { return fileSystem_; }
  Path dataContainer(const std::string& name) const {
    return layout_.container(ContainerKind::data, name);
  }

 private:
  bool storeFailed(Error* error) { return SetError(error, store_.failure()); }
  // The container's path; absent without a name.
  std::optional<Path> container(ContainerKind kind, const std::optional<std::string>& name) const;
  // Those of the groups that have one. False when the store failed.
  bool groupContainers(const std::vector<std::string>& groups, std::map<std::string, Path>* paths);

  FileSystem& fileSystem_;
  BundleReader& bundles_;
  const RegistryOptions options_;
  const DeviceLayout layout_;
  RegistryStore store_;
  InstallTransaction transaction_;
  BuiltInApps builtIn_;
  // Without a record when every intent was finished.
  Error unfinished_;  // why an intent is still open
};

}  // namespace quorvel::onlinux
