// Builds one intent: chooses every new container and lists the steps in their order.
//
//   InstallPlan plan(layout, store);
//   AppRecord record = ...;
//   if (!plan.giveDataContainer(&record, error) || !plan.moveBundle(&record, bundle, error)) ...
//   plan.setRecord(record);
//   plan.run(transaction, error);
#pragma once

#include <map>
#include <string>

#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/linux/registry/DeviceLayout.h"
#include "platform/linux/registry/InstallTransaction.h"
#include "platform/linux/registry/RegistryStore.h"

namespace quorvel::onlinux {

// Nothing is changed before run(). Operations that can fail hand back an Error; a plan of which
// one failed is not run.
class InstallPlan {
 public:
  InstallPlan(const DeviceLayout& layout, RegistryStore& store) : layout_(layout), store_(store) {}

  // Gives the record a data container, unless it has one that is there.
  bool giveDataContainer(AppRecord* record, Error* error);
  // Sees to it that every group of the record has its container.
  bool giveGroupContainers(const AppRecord& record, Error* error);
  // Moves the bundle into a new bundle container of the record; the old one is removed.
  bool moveBundle(AppRecord* record, const Path& bundle, Error* error);
  // The following come after moveBundle() and concern the record's bundle or its container.
  void moveMetadata(const AppRecord& record, const Path& item);
  void writeMetadata(const AppRecord& record, std::string data);
  void markPlaceholder(const AppRecord& record);
  // Once the records are replaced.
  void removeTree(const AppRecord& record, const Path& path);
  // The emptied staging directory. After all moves were added.
  void removeStaging(const AppRecord& record, const Path& staging);
  // Adds the record as it is to be; the last call for it.
  void setRecord(const AppRecord& record) { intent_.records.push_back(record); }

  // Carries the intent out; what holds afterwards is said in InstallTransaction.h.
  bool run(InstallTransaction& transaction, Error* error) {
    return transaction.run(intent_, newGroups_, error);
  }

 private:
  void addStep(InstallStep::Kind kind, const std::string& identifier, const Path& source,
               const Path& target);
  Path bundleContainer(const AppRecord& record) const {
    return layout_.container(ContainerKind::bundle, record.bundleContainer.value_or(""));
  }

  const DeviceLayout& layout_;
  RegistryStore& store_;
  InstallIntent intent_;
  std::map<std::string, std::string> newGroups_;
};

}  // namespace quorvel::onlinux
