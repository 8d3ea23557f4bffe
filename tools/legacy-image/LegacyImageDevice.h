// What stands on a made device, and why it does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/legacy-image/LegacyImageApp.h"

namespace quorvel::tools {

// What the command line sets; the same options give the same tree byte for byte.
// Including the times of all items but inode change times, which nobody can set.
struct LegacyImageOptions {
  unsigned apps = 40;
  std::uint64_t seed = 1;
  std::uint64_t dataBytes = 4096;  // per container
  bool failing = false;
  bool plain = false;
  bool icons = true;
};

// What the caller has to know of a made device.
struct LegacyImageResult {
  std::vector<std::string> registered;  // identifiers to be registered before a migration
  std::vector<std::string> notes;       // what the file system could not keep
};

// Writes a device that migrates with success, once `registered` has been registered; with
// `failing`, also the containers of FailingCases(). Failures are the writer's problem().
// The writer must be open. Its finish() is the caller's, after everything else has been written.
LegacyImageResult WriteDevice(LegacyImageWriter& writer, const LegacyImageOptions& options);

// A container that cannot be migrated, or something else that makes a migration report failure.
struct FailingCase {
  const char* name;  // of its directory in the legacy applications directory, when it has one
  const char* why;   // what is wrong, and what a migration does about it
  void (*write)(LegacyImageWriter& writer, LegacyImageRandom& random, const FailingCase& self,
                std::vector<std::string>& notes);
};
// Every way to fail once, in a fixed order, also for the tool's list.
const std::vector<FailingCase>& FailingCases();

// The harbor map and the directories it names, with entries that cannot be registered or are
// damaged when asked for.
// Part of WriteDevice.
void WriteHarbors(LegacyImageWriter& writer, LegacyImageRandom& random, bool failing);

}  // namespace quorvel::tools
