// A walk over one tree in an order that does not depend on the file system: a directory before its
// contents, and these by the bytes of their names.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/DirectoryStack.h"

namespace quorvel::host {

// Delivered before anything below it.
// May be kept after the walk has gone on: the shared descriptor keeps its directory open for as
// long as somebody reads by name in it.
struct WalkedItem {
  std::size_t depth = 0;  // 0 is the root of the walk
  std::string name;
  // The directory that it is in; shared by its items, and closed when nobody needs it any more. No
  // descriptor for the root.
  std::shared_ptr<const UniqueDescriptor> parent;
  struct stat info {};  // nothing when the item cannot be examined
  int problem = 0;      // why that is so, or a directory's contents are not (all) known
};

// Keeps the names of the directories from the root down to where it is, and nothing else of the
// tree. Never follows a link; sets no access time where that can be avoided. One thread.
class SortedWalk {
 public:
  // `root` is a path as the system knows it; links before its last component are followed.
  explicit SortedWalk(std::string root);

  // False at the end, with 0 or the errno value that ended the walk early. A root that is not
  // there ends it at once with ENOENT.
  // An item that vanishes between its listing and its look is passed over; a directory that cannot
  // be opened or read whole is delivered with its problem, and the walk goes on beside it.
  bool next(WalkedItem& item, int& failure);

 private:
  // The sorted names of one directory, in one block of memory.
  // A string a name would cost several times the memory in a large directory.
  class Names {
   public:
    void add(std::string_view name);
    void sort();
    const char* next();

   private:
    std::string text_;
    std::vector<std::size_t> offsets_;
    std::size_t at_ = 0;
  };

  // The root, which may be anything.
  // A root that is no directory is the walk's only item.
  bool first(WalkedItem& item, int& failure);
  // Fills the item from its stat information. False when the walk cannot go on.
  bool describe(int directory, const char* name, WalkedItem& item, int& failure);
  // Opens the directory that is about to be delivered, and reads its names.
  void prepareDirectory(int directory, const char* name, WalkedItem& item);
  // Goes down into the directory that was delivered last.
  void enterPrepared();
  // Back up; false when the way up is gone.
  // As when a directory was moved away while the walk was in it: going on elsewhere would list
  // another tree's items.
  bool leave(int& failure);
  // A descriptor of the directory at hand that outlives the stack's own, for its items to share.
  bool pin(int& failure);

  std::string root_;
  onlinux::DirectoryStack stack_;
  std::vector<Names> names_;  // of the levels of the stack
  std::shared_ptr<const UniqueDescriptor> pinned_;
  bool begun_ = false;
  // A directory that was delivered and is entered next.
  UniqueDescriptor prepared_;
  onlinux::DirectoryIdentity preparedIdentity_;
  std::string preparedName_;
};

}  // namespace quorvel::host
