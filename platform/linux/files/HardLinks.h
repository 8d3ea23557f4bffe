// The items of one tree copy that have several names, and where their first copy went.
#pragma once

#include <sys/stat.h>

#include <string>
#include <unordered_map>

#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/DirectoryStack.h"

namespace quorvel::onlinux {

// Remembers only items with more than one link, so that a tree without any costs nothing. Why: a
// file with two names must not become two files, of which an app would then change one and read the
// other, and which take twice the space. Belongs to one thread, and to one copy.
class HardLinks {
 public:
  enum class Outcome {
    linked,
    copyAnew,  // not seen before, or its copy cannot be linked to (links full, none supported)
    failed,    // errno is set; EEXIST when there is an item of that name
  };

  // Makes `name` in the directory that `target` is in another name of the copy of the source
  // item. `base` holds the root of the copy, which paths of `target` begin below. What was linked
  // is looked at again: another item that somebody put in the place of the first copy is unlinked,
  // and the copy made anew. Data, attributes, owner and times are those of the first copy, so that
  // nothing is left to do after `linked`.
  Outcome link(const struct stat& source, DirectoryStack& target, int base, int directory,
               const char* name);
  // The copy of the source item is `name` there. False with errno set.
  // Called for every item with several names, once it is complete. The last one remembered counts:
  // where a link could not be made, later names are linked to the newer copy.
  bool remember(const struct stat& source, const DirectoryStack& target, int directory,
                const char* name);

 private:
  // Inodes of one tree are close together; the device seldom differs.
  struct Hash {
    std::size_t operator()(const DirectoryIdentity& item) const {
      return static_cast<std::size_t>(item.inode * 31 + item.device);
    }
  };
  // Where the first copy is, and what it was: a name that leads elsewhere by now is not linked to.
  // A path rather than a descriptor, since a tree may have more such items than a process may open
  // files.
  struct Copy {
    std::string directory;  // from `base`
    std::string name;
    DirectoryIdentity identity;
  };

  // The open directory of the copy, reached without links; -1 with errno. Not owned.
  int directoryOf(const Copy& copy, DirectoryStack& target, int base, int current);

  std::unordered_map<DirectoryIdentity, Copy, Hash> copies_;
  // The directory of the copy linked to last; links often come in groups.
  std::string lastPath_;
  UniqueDescriptor last_;
};

}  // namespace quorvel::onlinux
