// The migration host as a plug-in sees it: the protocol it drives and the log it offers.
#pragma once

#include <cstdint>
#include <string_view>

namespace quorvel {

// Base class of every plug-in. The host calls init() first and performMigration() once, on one
// thread; the other three at any time after init(), migrationProgress() also from another
// thread while performMigration() runs. Nothing is thrown.
class MigratorPlugin {
 public:
  virtual ~MigratorPlugin() = default;

  // The instance itself, ready to be driven; null when it cannot be. The caller keeps ownership
  // of the object in either case.
  virtual MigratorPlugin* init() { return this; }
  virtual const char* dataClassName() const = 0;
  // Seconds the migration is expected to take.
  virtual float estimatedDuration() const = 0;
  // Whether every step succeeded.
  virtual bool performMigration() = 0;
  // Fraction done, 0 to 1; negative when there is nothing to measure.
  virtual float migrationProgress() const = 0;
};

// The host's log. Why a service: the host decides where lines go, tests collect them.
class HostLogWriter {
 public:
  virtual ~HostLogWriter() = default;
  // One line; `line` is the call site's. `message` is fully formatted and may hold any bytes.
  // Never fails towards the caller; any thread may call.
  virtual void write(const char* sourceFile, const char* function, int line, const char* category,
                     int level, std::string_view message) = 0;
};

// A plug-in bundle is a shared object that exports this function under this name. The
// host installs the platform services first (shared/support/Platform.h). The result is a new
// plug-in that the host destroys with `delete`; null when the host's interface version is not
// the plug-in's.
inline constexpr std::uint32_t MigratorPluginInterfaceVersion = 1;
inline constexpr const char* MigratorPluginEntryName = "QVMigratorPluginCreate";
using MigratorPluginEntry = MigratorPlugin* (*)(std::uint32_t interfaceVersion);
// It may also export one that names its build, for reports: "VERSION (COMMIT)".
inline constexpr const char* MigratorPluginVersionName = "QVMigratorPluginVersion";
using MigratorPluginVersionEntry = const char* (*)();

}  // namespace quorvel
