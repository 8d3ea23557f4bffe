// Finds every item of a manifest on the device again, or says what became of it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/proof/EntryReader.h"
#include "host/proof/ManifestFile.h"
#include "host/proof/Places.h"
#include "platform/Error.h"

namespace quorvel::host {

// What became of one item. The words for programs are NameOf's.
// Only changed, missing and unproven make a verification fail by themselves.
enum class Verdict {
  arrived,      // in the current layout, unchanged
  kept,         // where it was or in its staging directory, unchanged
  changed,      // found, but not as it was
  missing,      // found nowhere
  lost,         // gone, as the migration's sequence orders
  unproven,     // found, but not (all) of it could be read, then or now
  unexplained,  // in a container of the current layout, and from nowhere in the manifest
};

const char* NameOf(Verdict verdict);

// What is worth telling of one item, or of a tree that shares its fate.
// Texts of `what` are Differences' (ManifestEntry.h); `reason` says why an item is lost or
// unproven. Either may be empty. An absent directory is told once for all that is below it.
struct ProofFinding {
  Verdict verdict = Verdict::missing;
  std::string path;   // where it was, or is when it is unexplained; bytes
  std::string where;  // where it is now, bytes; empty when nowhere
  std::vector<std::string> what{};
  std::string reason{};
  std::uint64_t items = 1;  // itself and what is below it
};

// Each item of the manifest is counted in exactly one of the verdicts but unexplained, which counts
// what the manifest does not have. Sections that the snapshot could not read add to unproven alone.
struct VerificationTotals {
  std::uint64_t items = 0;  // of the manifest
  std::uint64_t arrived = 0;
  std::uint64_t kept = 0;
  std::uint64_t changed = 0;
  std::uint64_t missing = 0;
  std::uint64_t lost = 0;
  std::uint64_t unproven = 0;
  std::uint64_t unexplained = 0;

  // Nothing is unaccounted for.
  // Losses that the migration orders do not count, nor what is new.
  bool isWhole() const { return changed + missing + unproven == 0; }
};

// Called on the verifying thread, in the order of the manifest.
// What it is given lives only as long as the call, and items that arrived or were kept as they were
// are not told, but counted.
using FindingSink = std::function<void(const ProofFinding&)>;

// In the device tree, which is only read. False with the Error when the manifest is damaged or a
// tree cannot be seen whole; what was found until then has been told. Memory does not grow with
// the number of items, other than by those with several names.
// The header must have been read and `places` made from it. `totals` is added to, not reset, so
// that the caller's own findings can be counted in it before. A manifest that is found damaged at
// its end makes all that was proven worthless: the caller says so.
bool Verify(ManifestReader& manifest, const Places& places, EntryReader& reader,
            const FindingSink& sink, VerificationTotals& totals, Error* error);

}  // namespace quorvel::host
