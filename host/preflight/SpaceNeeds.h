// What must be copied from one file system to another, and whether there is room for it.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "host/preflight/Finding.h"
#include "host/preflight/ItemFacts.h"

namespace quorvel::host {

// Sums up per file system, then asks each once. Sizes are rounded up to the blocks of the file
// system that the copy goes to: many small files take more than their bytes.
// Nothing on disk changes. What is free is asked for in check() and not before, as late as can be.
class SpaceNeeds {
 public:
  // A tree that goes to a directory of another mount; `destination` exists. Walks it, the only
  // part of the checks whose cost grows with what is in a container. 0, or the error number of
  // what could not be read.
  // What could be read is added also after a failure. Files with several names within the tree
  // count once; holes do not count.
  int addCopy(const std::string& source, const ItemFacts& sourceFacts,
              const std::string& destination, const ItemFacts& destinationFacts);
  // What a number of moves and installs writes besides: markers, placeholders, records, logs.
  // Asked for once for each file system that they are written to.
  void addMargin(const std::string& directory, const ItemFacts& facts, std::size_t containers);

  // Adds a finding for each file system that has too few bytes or inodes for its needs.
  // A file system that does not tell its room is passed over, as is one without a limit. Quotas
  // count for users that have them, hard limits only.
  void check(Findings& findings) const;

 private:
  // Of one file system.
  struct Need {
    std::string directory{};      // on that file system, for asking it
    std::uint64_t blockSize = 0;  // 0: it does not tell
    std::uint64_t bytes = 0;      // that come to stay
    std::uint64_t inodes = 0;
    std::uint64_t largestBytes = 0;  // of one copy whose original, on the same one, then goes
    std::uint64_t largestInodes = 0;
  };
  // Of one tree, as a copy of it would have.
  struct Size {
    std::uint64_t bytes = 0;
    std::uint64_t inodes = 0;
    int failure = 0;
  };

  // The entry of the directory's file system, made at the first use.
  Need& needOf(const std::string& directory, const ItemFacts& facts);
  // What a copy of the tree takes up in blocks of `blockSize` bytes.
  static Size sizeOf(const std::string& tree, std::uint64_t blockSize);

  std::map<dev_t, Need> needs_;
};

}  // namespace quorvel::host
