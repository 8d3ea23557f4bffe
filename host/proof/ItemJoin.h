// Compares one item of a manifest, with all that is below it, with what is on disk now.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/proof/Places.h"
#include "host/proof/TreeStream.h"
#include "host/proof/Verification.h"

namespace quorvel::host {

// Which item on disk each item with several names was found as, over the whole verification.
using FoundLinks = std::map<ItemIdentity, ItemIdentity>;

// What all items of one verification share. The references outlive it.
struct JoinContext {
  EntryReader& reader;
  const FindingSink& sink;
  VerificationTotals& totals;
  FoundLinks& links;
  bool contents = true;
};

// A direct child of a section, which a migration moves as a whole.
struct JoinedItem {
  std::string origin;         // path of the item when the manifest was made, bytes
  std::size_t depth = 0;      // of its root in the manifest
  std::vector<Place> places;  // where it is, likeliest first
  std::string loss;           // why all of it had to be lost when it is nowhere
  bool isBundle = false;
};

// Both sides come in the same order, so that neither has to be remembered.
class ItemJoin {
 public:
  ItemJoin(JoinContext& context, JoinedItem item);

  // The manifest's next entry of this item; the first is its root. False with `failure` when the
  // tree on disk cannot be seen whole.
  // Counts the entry once in the totals, whatever its verdict is.
  bool take(const ManifestEntry& entry, int& failure);
  // After the last entry.
  bool finish(int& failure);

 private:
  // The next entry of the disk's side into head_. False with `failure`.
  bool advance(int& failure);
  // Tells of entries on disk that come before `until` and are in no manifest.
  bool passUnexplained(const ManifestEntry& until, int& failure);
  // Once for a tree, and only where the current layout has it.
  void noteUnexplained();
  // Compares one entry with what is there, and counts it.
  void judge(const ManifestEntry& before, const ManifestEntry& now, const Place& place);
  // An entry that is not in the first place: its other places, then lost or missing.
  void judgeAbsent(const ManifestEntry& before);
  std::optional<ManifestEntry> elsewhere(const ManifestEntry& before, std::size_t place);
  // Whether the entry is unchanged in another of the item's places; counted there.
  bool joinElsewhere(const ManifestEntry& before);
  // In words; hard links count as long as both names were seen.
  std::vector<std::string> differences(const ManifestEntry& before, const ManifestEntry& now);
  // In the order of the manifest: what is pending goes first.
  void tell(ProofFinding finding);
  // Tells of an absent tree once its last entry has been counted.
  void flush();
  // The path of the current entry, as it would be under another root.
  std::string below(const std::string& root) const;

  JoinContext& context_;
  const JoinedItem item_;
  std::unique_ptr<TreeStream> stream_;  // of the first place; null when there is none
  std::optional<ManifestEntry> head_;
  std::vector<std::string> names_;      // of the manifest's entry, below the item's root
  std::vector<std::string> current_;    // of the stream's
  std::size_t unexplainedDepth_ = 0;    // of the tree being passed over; 0 is none
  std::optional<ProofFinding> absent_;  // told when it is known how much is below it
  std::size_t absentDepth_ = 0;
};

}  // namespace quorvel::host
