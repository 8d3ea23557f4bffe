// A device tree as it would be after steps that nobody takes.
//
// Why: what a container's migration does depends on what earlier ones left, and on what the process
// may do. Both are asked of the disk, where nothing changes.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/MigrationAccount.h"
#include "platform/Path.h"
#include "platform/TreeWalker.h"

namespace quorvel {

// Knows the process's rights (the mode bits, owners and flags of directories and items) and which
// moves take a copy, not what only an attempt shows: a full disk, a failing one.
class ForeseenTree {
 public:
  struct Removal {
    bool whole = true;                // nothing of the item would stay
    MigrationLoss loss{};             // what would go, without markers
    std::vector<std::string> went{};  // paths of it
  };

  // Where the item that would be at the path is now; absent when there would be none.
  std::optional<Path> now(const Path& path) const;
  bool exists(const Path& path) const;
  bool isDirectory(const Path& path) const;
  // Why nobody can tell whether there would be an item; 0 when it can be told.
  int whyUnknown(const Path& path) const;
  // Sorted. Absent when the directory could not be listed; empty when it would not be there.
  std::optional<std::vector<std::string>> names(const Path& directory) const;

  // Whether the directory, with those on the way to it, is or could be made. 0 or an error number.
  int whyNotMade(const Path& directory) const;
  // Whether moving the item takes a copy, wherever the destination is to be made.
  bool isOnAnotherFileSystem(const Path& from, const Path& to) const;
  // Whether a rename or a copy would do, or there would be nothing to move. 0 or an error number.
  int whyNotMoved(const Path& from, const Path& to) const;
  // What a removal of the item would remove.
  Removal removal(const Path& item) const;

  // An item that is not there makes no difference. After a copy what cannot be removed stays.
  void move(const Path& from, const Path& to);
  void remove(const Path& path);
  void remove(const Path& item, const Removal& removal);

 private:
  // Adds up what one removal would take with it.
  class Count;
  using Visit = std::function<void(const TreeWalkEntry& entry)>;

  // Whether the process may make entries in the directory. 0 or an error number.
  int whyNotPutInto(const Path& directory) const;
  // Whether all of the item, which is at `source` now, could be read. 0 or an error number.
  int whyNotCopied(const Path& source, const Path& from) const;
  // What a removal of a copy's source, which is at `source` now, would leave in a remain of it.
  void placeRest(const Path& from, const Path& source, const Removal& removal);
  // Walks the item as it is now, which would be at `at` by then, past what would be gone. Whether
  // the walk came to its end.
  bool walk(const Path& item, const Path& at, const Visit& visit) const;
  // Adds to `removal` what would go of `item`, which would be at `at` by then; whether all would.
  bool count(const Path& item, const Path& at, bool changeable, Removal& removal) const;
  // Whether what would be at the path would be a copy that the process made.
  bool isCopied(const Path& path) const;
  // Whether anything below was moved or removed: otherwise paths need no look-up each.
  bool hasChangesBelow(const std::string& path) const;

  std::map<std::string, std::string> placed_;  // where something would be, to where it is now
  std::set<std::string> copied_;               // those of them that would be copies
  // Paths that nothing would be at. What is below one is gone with it, unless it was placed.
  std::set<std::string> gone_;
};

}  // namespace quorvel
