// The copy of one tree. FileSystemLinux.h has what it promises.
#pragma once

#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/linux/files/DataCopier.h"
#include "platform/linux/files/DirectoryStack.h"
#include "platform/linux/files/HardLinks.h"
#include "platform/linux/files/ItemPath.h"
#include "platform/linux/files/MetadataCopier.h"

namespace quorvel::onlinux {

// Used once, by one thread. Two stacks walk down in step: the source, which is read, and the
// target, in which every directory stays private to the copying process until it is finished. The
// first item that cannot be copied whole ends the copy, with its number; what was copied until then
// stays, half a file excepted.
class TreeCopier {
 public:
  TreeCopier(ItemPath source, ItemPath destination, const ModeChanger& modes, bool recursive,
             const LeftOutCallback& leftOut);
  // 0, or the number of the failure that ended the copy.
  int run();

 private:
  // What a directory is remembered by beside its place in the stacks.
  // From the directory's making to its end, when it gets the source's metadata.
  struct Level {
    ItemStatus source;
    Owners target;             // as it was made or found
    bool inherits = false;     // it may have access-control lists that are not the source's
    bool handsDown = false;    // it gives such lists to what is made in it
    bool ownersKnown = false;  // what owner new files get
    Owners owners{};
  };

  // The operations below are false with errno set.
  // Refuses what would copy into or onto itself, before anything is made.
  bool checkRoots(struct stat* info);
  // Whether the destination is below the directory. Asked of the disk: paths do not show mounts.
  bool liesWithin(const DirectoryIdentity& directory);
  // Until the source's root is left again.
  bool walk();
  // `type` is DT_* as the directory lists it, and may be unknown.
  bool copyEntry(const char* name, unsigned char type);
  bool copyItem(const char* name, mode_t kind);
  // The file is opened first and judged by what was opened.
  bool copyFile(const char* name);
  // Data, then metadata: the file is for its owner alone until both are there.
  bool fillFile(int input, int output, const char* name, const struct stat& info);
  // The text is copied as it stands; where it leads is of no interest.
  bool copyLink(const char* name, const struct stat& info);
  // A pipe or a device node: the same kind and number, no content.
  bool copySpecial(const char* name, const struct stat& info);
  // `entry` is the source's name.
  bool finishPinned(const char* entry, const struct stat& info);
  // Passes over what cannot be copied, and tells the caller of it. At the root it is a failure.
  bool leaveOut(const char* name);
  // Makes an item with `make`, which is 0 or -1 with errno set; what is in the way is cleared.
  template <class Make>
  bool makeInPlace(const char* name, const Make& make);
  // Makes the directory's copy, or merges into what is there, and goes down on both sides.
  bool enterDirectory(const char* name);
  bool makeDirectory(const char* name, UniqueDescriptor* made, bool* merged);
  // A directory that was found shows others no more than the source's does while it is filled.
  // Until finishDirectory() gives it its mode. Others who have it open already are not shut out.
  bool makePrivate(int directory, const struct stat& found, mode_t sourceMode);
  // Gives the copy the source's metadata, last: its mode may bar and its times would change.
  bool finishDirectory();

  // Whether the copy of `info` is done by a second link; `failed` when that failed. Only within
  // directories: the root's other names are not in the tree.
  bool linkInstead(const char* name, const struct stat& info, bool* failed);
  bool rememberLink(const char* name, const struct stat& info);
  // Removes a non-directory that is in the way; EISDIR for a directory.
  bool clear(const char* name);
  // The owner and group that new files get in the directory that is being filled.
  bool ownersIn(int made, Owners* owners);

  // Where entries are taken from and made: the deepest directories, or the roots' parents.
  int from() const;
  int into() const;
  // The name on the target's side: the root has one of its own there.
  const char* targetName(const char* name) const;
  // Whether items that are made now get an access-control list from their directory.
  bool handsDown() const { return levels_.empty() ? baseHandsDown_ : levels_.back().handsDown; }

  ItemPath sourceItem_;
  ItemPath targetItem_;
  bool recursive_;
  const LeftOutCallback& leftOut_;
  DirectoryStack source_;
  DirectoryStack target_;
  std::vector<Level> levels_;  // as deep as the stacks
  DirectoryIdentity targetRoot_;
  bool baseHandsDown_ = false;
  DataCopier data_;
  MetadataCopier metadata_;
  // Within one copy only: names elsewhere are not looked for.
  HardLinks links_;
};

}  // namespace quorvel::onlinux
