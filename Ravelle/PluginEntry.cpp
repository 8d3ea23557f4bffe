// The bundle's exported symbols.
#include "QuorvelCommit.h"
#include "Ravelle/Preview.h"
#include "Ravelle/Ravelle.h"

// The declaration that the host looks up by name (MigratorPluginEntry).
extern "C" QV_EXPORT quorvel::MigratorPlugin* QVMigratorPluginCreate(
    std::uint32_t interfaceVersion) {
  if (interfaceVersion != quorvel::MigratorPluginInterfaceVersion) return nullptr;
  return new quorvel::QVRavelle;
}

// The same for MigrationPreviewEntry.
extern "C" QV_EXPORT quorvel::MigrationPreview* QVMigrationPreviewCreate(
    std::uint32_t interfaceVersion) {
  if (interfaceVersion != quorvel::MigrationPreviewInterfaceVersion) return nullptr;
  return new quorvel::RavellePreview;
}

// The same for MigrationSelectionVersionEntry.
extern "C" QV_EXPORT std::uint32_t QVMigrationSelectionVersion() {
  return quorvel::MigrationSelectionVersion;
}

// The same for MigratorPluginVersionEntry.
extern "C" QV_EXPORT const char* QVMigratorPluginVersion() { return quorvel::kBuiltVersion; }
