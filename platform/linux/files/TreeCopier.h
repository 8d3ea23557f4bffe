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
// target, in which every directory stays private to the copying process until it is finished.
class TreeCopier {
 public:
  TreeCopier(ItemPath source, ItemPath destination, const ModeChanger& modes, bool recursive,
             const LeftOutCallback& leftOut);
  // 0, or the number of the failure that ended the copy.
  int run();

 private:
  // What a directory is remembered by beside its place in the stacks.
  struct Level {
    ItemStatus source;
    Ownership target;          // as it was made or found
    bool inherits = false;     // it may have access-control lists that are not the source's
    bool handsDown = false;    // it gives such lists to what is made in it
    bool ownersKnown = false;  // what owner new files get
    Ownership owners{};
  };

  // The operations below are false with errno set.
  bool checkRoots(struct stat* info);
  bool liesWithin(const DirectoryIdentity& directory);
  bool walk();
  bool copyEntry(const char* name, unsigned char type);
  bool copyItem(const char* name, mode_t kind);
  bool copyFile(const char* name);
  bool fillFile(int input, int output, const char* name, const struct stat& info);
  bool copyLink(const char* name, const struct stat& info);
  bool copySpecial(const char* name, const struct stat& info);
  // `entry` is the source's name.
  bool finishPinned(const char* entry, const struct stat& info);
  bool leaveOut(const char* name);
  // Makes an item with `make`, which is 0 or -1 with errno set; what is in the way is cleared.
  template <class Make>
  bool makeInPlace(const char* name, const Make& make);
  bool enterDirectory(const char* name);
  bool makeDirectory(const char* name, UniqueDescriptor* made, bool* merged);
  bool makePrivate(int directory, const struct stat& found, mode_t sourceMode);
  bool finishDirectory();

  // Whether the copy of `info` is done by a second link; `failed` when that failed.
  bool linkInstead(const char* name, const struct stat& info, bool* failed);
  bool rememberLink(const char* name, const struct stat& info);
  // Removes a non-directory that is in the way; EISDIR for a directory.
  bool clear(const char* name);
  bool ownersIn(int made, Ownership* owners);

  // Where entries are taken from and made: the deepest directories, or the roots' parents.
  int from() const;
  int into() const;
  const char* targetName(const char* name) const;
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
  HardLinks links_;
};

}  // namespace quorvel::onlinux
