// The entries of one tree, in the order of a manifest, read ahead by a few.
#pragma once

#include <deque>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "host/proof/EntryReader.h"
#include "host/proof/ManifestEntry.h"
#include "host/proof/SortedWalk.h"

namespace quorvel::host {

// Memory and descriptors are bounded by the pieces that are read ahead. One thread.
// Pieces are read by several threads and delivered in the order of the walk: an entry is never
// given before those that precede it. What could not be read of a single item is in its entry.
class TreeStream {
 public:
  // Opens nothing yet. The reader must outlive the stream, and finishes what was handed to it even
  // when the stream is destroyed before its end.
  TreeStream(EntryReader& reader, std::string root) : reader_(reader), root_(root), walk_(root) {}

  // The next entry; the root has depth 0. None at the end: `failure` is 0 then, or the errno value
  // of why the tree could not be seen whole (ENOENT: there is none).
  // Entries that were read before the walk failed are delivered first. After the end it stays at
  // the end.
  std::optional<ManifestEntry> next(int& failure);

 private:
  // Hands pieces of the walk to the reader until enough of them are on their way.
  void readAhead();

  EntryReader& reader_;
  const std::string root_;
  SortedWalk walk_;
  // The walk has ended; what was read ahead is still to be delivered.
  bool walked_ = false;
  int failure_ = 0;
  std::deque<std::future<std::vector<ManifestEntry>>> ahead_;
  std::vector<ManifestEntry> piece_;
  std::size_t at_ = 0;
};

}  // namespace quorvel::host
