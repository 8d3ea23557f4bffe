// Walks all sections and writes what is there.
#include "host/proof/Snapshot.h"

#include <cerrno>

#include "host/proof/ProofProgress.h"
#include "host/proof/TreeStream.h"
#include "platform/FileSystemRepresentation.h"

namespace quorvel::host {

namespace {

bool Fail(Error* error, int number, const std::string& what) {
  return SetError(
      error,
      Error(PosixErrorDomain, number,
            {{LocalizedDescriptionKey, PlistValue(what + ": " + ErrnoDescription(number))}}));
}

// Sizes are those of files; the size of a directory says nothing about what is in it.
void Count(const ManifestEntry& entry, SnapshotTotals& totals) {
  ++totals.items;
  totals.bytes += entry.size;
  if (!entry.unreadable.empty()) ++totals.unreadable;
}

}  // namespace

// A section whose directory is not there has no entries, which is no failure: maps name places that
// may be gone.
bool WriteSnapshot(const ManifestHeader& header, EntryReader& reader, ManifestWriter& writer,
                   SnapshotTotals& totals, Error* error) {
  ProofProgress progress("Reading", header.sections.size());
  writer.header(header);
  for (std::size_t i = 0; i < header.sections.size(); ++i) {
    const ManifestSection& section = header.sections[i];
    if (!section.unreadable.empty()) ++totals.unreadable;
    writer.begin(i);
    TreeStream stream(reader, BytesOfFileSystemRepresentation(section.path));
    int failure = 0;
    while (const auto entry = stream.next(failure)) {
      // A section's own directory does not migrate: what is in it does.
      if ((entry->depth == 0) != (section.kind == SectionKind::stray)) continue;
      writer.entry(*entry);
      Count(*entry, totals);
      progress.at(i, totals.items);
    }
    if (failure != 0 && failure != ENOENT) return Fail(error, failure, section.path);
  }
  return writer.finish() || Fail(error, errno, "The manifest");
}

}  // namespace quorvel::host
