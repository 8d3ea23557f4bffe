// Writes the manifest of a device tree.
#pragma once

#include <cstdint>

#include "host/proof/EntryReader.h"
#include "host/proof/ManifestFile.h"
#include "platform/Error.h"

namespace quorvel::host {

struct SnapshotTotals {
  std::uint64_t items = 0;
  std::uint64_t bytes = 0;       // of files
  std::uint64_t unreadable = 0;  // items and sections
};

// In the device tree. Memory does not grow with the number of items. False with the Error when a
// tree changed so that it cannot be seen whole, or the manifest cannot be written.
bool WriteSnapshot(const ManifestHeader& header, EntryReader& reader, ManifestWriter& writer,
                   SnapshotTotals& totals, Error* error);

}  // namespace quorvel::host
