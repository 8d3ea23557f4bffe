// What the registry's operations share: the store, opened when first needed, and lookups.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/ApplicationRegistry.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"
#include "platform/linux/registry/DeviceLayout.h"
#include "platform/linux/registry/InstallPlan.h"
#include "platform/linux/registry/InstallTransaction.h"
#include "platform/linux/registry/PackageInspection.h"
#include "platform/linux/registry/RegistryStore.h"

namespace quorvel::onlinux {

class RegistryCore {
 public:
  RegistryCore(FileSystem& fileSystem, BundleReader& bundles, RegistryOptions options);
  RegistryCore(const RegistryCore&) = delete;
  RegistryCore& operator=(const RegistryCore&) = delete;

  // Opens the store and takes up what an interrupted or failed operation left open. What cannot
  // be finished now does not stop others: it only fails requests for the same identifier.
  bool prepare(Error* error);
  // The same for operations that write.
  bool prepareToWrite(Error* error);
  // Whether an intent for the identifier is still open, then with the Error why.
  bool isBlocked(const std::string& identifier, Error* error);

  // The record of the identifier; false when it cannot be told.
  bool find(const std::string& identifier, std::optional<AppRecord>* record, Error* error);
  // Whether the record's bundle is where the record says.
  bool hasBundle(const AppRecord& record) const;
  // Whether the record's bundle container has an item of that name.
  bool containerHolds(const AppRecord& record, const std::string& name) const;
  // The built-in app, unless the record (if there is one) has an installed bundle that is not
  // older. Null otherwise.
  const BundleDescription* effectiveBuiltIn(const std::string& identifier,
                                            const std::optional<AppRecord>& record);
  BundleProxy proxyOf(const AppRecord& record);
  // `record` holds the containers, if there are any yet.
  BundleProxy proxyOf(const BundleDescription& builtIn, const std::optional<AppRecord>& record);
  // Gives a built-in app the containers it still lacks, and updates the record.
  bool giveContainers(const BundleDescription& builtIn, std::optional<AppRecord>* record,
                      Error* error);

  // False with the store's failure, which is remembered.
  bool storeFailed(Error* error);
  void remember(const Error& failure) { lastFailure_ = failure; }
  const Error& lastFailure() const { return lastFailure_; }

  FileSystem& fileSystem;
  BundleReader& bundles;
  const RegistryOptions options;
  const DeviceLayout layout;
  RegistryStore store;
  InstallTransaction transaction;
  BuiltInApps builtIn;

 private:
  std::optional<Path> container(ContainerKind kind, const std::optional<std::string>& name) const;
  bool groupContainers(const std::vector<std::string>& groups, std::map<std::string, Path>* paths);

  Error unfinished_;  // why an intent is still open
  Error lastFailure_;
};

}  // namespace quorvel::onlinux
