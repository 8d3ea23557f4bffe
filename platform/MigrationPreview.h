// What a migration would do, from the plug-in that would do it.
#pragma once

#include <cstdint>

#include "platform/Error.h"
#include "platform/MigrationAccount.h"

namespace quorvel {

// A plug-in bundle may offer this besides MigratorPlugin. It needs the same platform services,
// except that the registry may be one that only answers.
class MigrationPreview {
 public:
  virtual ~MigrationPreview() = default;
  // Tells the account what a migration begun now would tell it, as far as that can be known
  // without changing anything: nothing on disk changes. Groups and harbors are told once each.
  // False with an Error when a migration could not even begin. One thread at a time.
  virtual bool preview(MigrationAccount& account, Error* error) = 0;
  // The same, except that only what each container is is told: far quicker. One that is to be
  // migrated is classified and does not end.
  virtual bool classify(MigrationAccount& account, Error* error) = 0;
};

// The function that such a bundle exports, under this name. The result is a new object that the
// host destroys with `delete`; null when the host's interface version is not the plug-in's.
inline constexpr std::uint32_t MigrationPreviewInterfaceVersion = 3;
inline constexpr const char* MigrationPreviewEntryName = "QVMigrationPreviewCreate";
using MigrationPreviewEntry = MigrationPreview* (*)(std::uint32_t interfaceVersion);

}  // namespace quorvel
