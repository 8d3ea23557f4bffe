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
// The device must not be changed meanwhile: the caller holds its lock. An item that cannot be read
// is written with the reason and counted, and does not end the snapshot. Until this succeeds the
// file is no manifest: its end is missing.
bool WriteSnapshot(const ManifestHeader& header, EntryReader& reader, ManifestWriter& writer,
                   SnapshotTotals& totals, Error* error);

}  // namespace quorvel::host
