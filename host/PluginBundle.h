// The plug-in's bundle: a shared object with one exported entry point.
#pragma once

#include <memory>
#include <string>

#include "host/console/ExitCode.h"
#include "platform/MigrationHost.h"
#include "platform/MigrationPreview.h"
#include "platform/MigrationSelection.h"

namespace quorvel::host {

// Once loaded the object stays until the process ends: instances, and what they registered to run
// at exit, need its code.
class PluginBundle {
 public:
  // Loads the file (empty: the plug-in beside the executable) with everything that it needs, so
  // that nothing is looked for once the root has changed.
  bool load(const std::string& file, FatalError& error);

  // A new instance that is ready to be driven; null with the error when the plug-in refuses this
  // host, or cannot be initialised. The platform services must be installed.
  std::unique_ptr<MigratorPlugin> create(FatalError& error) const;
  // The same for what can tell what a migration would do.
  std::unique_ptr<MigrationPreview> createPreview(FatalError& error) const;
  // Whether its instances confine themselves to what the platform's selection chooses.
  bool selects() const;
  // "VERSION (COMMIT)"; empty when it does not tell.
  std::string version() const;

 private:
  // Found by load(); valid for as long as the process lives.
  MigratorPluginEntry entry_ = nullptr;
  MigrationPreviewEntry previewEntry_ = nullptr;  // may be missing, and so may these
  MigratorPluginVersionEntry versionEntry_ = nullptr;
  MigrationSelectionVersionEntry selectionEntry_ = nullptr;
  // The file's name, for messages.
  std::string printable_;
};

}  // namespace quorvel::host
