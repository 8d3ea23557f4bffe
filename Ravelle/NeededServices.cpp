// Looks through the installed set once.
#include "Ravelle/NeededServices.h"

#include "shared/support/Services.h"

namespace quorvel {

namespace {

template <class... Slots>
const char* FirstMissing(const Slots&... slots) {
  for (const char* name : {(FindService(slots) == nullptr ? slots.name : nullptr)...}) {
    if (name != nullptr) return name;
  }
  return nullptr;
}

}  // namespace

const char* MissingService() {
  return FirstMissing(kWorkspace, kInstallationService, kBundles, kIcons, kPropertyLists, kFileData,
                      kFileSystem, kTreeWalker);
}

const MigrationSelection* Selection() {
  constexpr ServiceSlot<const MigrationSelection> slot{&PlatformServices::selection, ""};
  return FindService(slot);
}

}  // namespace quorvel
