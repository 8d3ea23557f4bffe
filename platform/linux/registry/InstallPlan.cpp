// Lists the steps that take an app from what is recorded to what is staged.
#include "platform/linux/registry/InstallPlan.h"

#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include "platform/DeviceNames.h"
#include "platform/linux/registry/PackageInspection.h"
#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {
namespace {

using Kind = InstallStep::Kind;

bool ChooseName(std::string* name, Error* error) {
  *name = NewContainerName();
  return !name->empty() || Fail("A new container's name", error);
}

}  // namespace

void InstallPlan::addStep(Kind kind, const std::string& identifier, const Path& source,
                          const Path& target) {
  const bool cleanup = kind == Kind::removeTree || kind == Kind::removeStaging;
  intent_.steps.push_back({kind, cleanup, identifier, source.string(), target.string(), {}});
}

bool InstallPlan::giveDataContainer(AppRecord* record, Error* error) {
  const bool isNew = !record->dataContainer;
  if (isNew) {
    std::string name;
    if (!ChooseName(&name, error)) return false;
    record->dataContainer = std::move(name);
  }
  const Path path = layout_.container(ContainerKind::data, *record->dataContainer);
  // A container that somebody removed is made again under the name that the record has.
  if (isNew || !IsRealDirectory(path)) addStep(Kind::makeDirectory, record->identifier, {}, path);
  return true;
}

// The groups belong to nobody: should the app be given up, they are kept for the next one.
bool InstallPlan::giveGroupContainers(const AppRecord& record, Error* error) {
  for (const std::string& group : record.groups) {
    // Bundles of one package may share a group.
    if (newGroups_.contains(group)) continue;
    std::optional<std::string> name;
    if (!store_.findGroup(group, &name)) return SetError(error, store_.failure());
    if (!name) {
      name.emplace();
      if (!ChooseName(&*name, error)) return false;
      newGroups_[group] = *name;
    }
    const Path path = layout_.container(ContainerKind::group, *name);
    if (!IsRealDirectory(path)) addStep(Kind::makeDirectory, "", {}, path);
  }
  return true;
}

bool InstallPlan::moveBundle(AppRecord* record, const Path& bundle, Error* error) {
  const bool replaces = record->bundleContainer.has_value();
  const Path old = bundleContainer(*record);
  std::string name;
  if (!ChooseName(&name, error)) return false;
  record->bundleContainer = std::move(name);
  record->bundleName = bundle.lastPathComponent();
  const Path container = bundleContainer(*record);
  // A container of its own for every install: the old bundle stays whole until the record names the
  // new one.
  addStep(Kind::makeDirectory, record->identifier, {}, container);
  addStep(Kind::moveBundle, record->identifier, bundle,
          container.childDirectory(record->bundleName));
  // A clean-up step: after the record was replaced.
  if (replaces) removeTree(*record, old);
  return true;
}

void InstallPlan::moveMetadata(const AppRecord& record, const Path& item) {
  addStep(Kind::moveItem, record.identifier, item,
          bundleContainer(record).child(item.lastPathComponent()));
}

void InstallPlan::writeMetadata(const AppRecord& record, std::string data) {
  addStep(Kind::writeFile, record.identifier, {}, bundleContainer(record).child(StoreMetadataName));
  intent_.steps.back().data = std::move(data);
}

void InstallPlan::markPlaceholder(const AppRecord& record) {
  addStep(Kind::markPlaceholder, record.identifier, {},
          bundleContainer(record).childDirectory(record.bundleName));
}

void InstallPlan::removeTree(const AppRecord& record, const Path& path) {
  addStep(Kind::removeTree, record.identifier, {}, path);
}

void InstallPlan::removeStaging(const AppRecord& record, const Path& staging) {
  addStep(Kind::removeStaging, record.identifier, {}, staging);
}

}  // namespace quorvel::onlinux
