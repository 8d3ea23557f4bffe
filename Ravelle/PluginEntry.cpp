// The bundle's one exported symbol.
#include "Ravelle/Ravelle.h"

// The declaration that the host looks up by name (MigratorPluginEntry).
extern "C" QV_EXPORT quorvel::MigratorPlugin* QVMigratorPluginCreate(
    std::uint32_t interfaceVersion) {
  if (interfaceVersion != quorvel::MigratorPluginInterfaceVersion) return nullptr;
  return new quorvel::QVRavelle;
}
