// The removal of one tree. FileSystemLinux.h has what it promises.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/linux/files/DirectoryStack.h"
#include "platform/linux/files/ItemPath.h"

namespace quorvel::onlinux {

// What the caller sets and asks about one removal. Belongs to the thread that removes. It outlives
// the removal, and serves one at a time.
class WipeTreeStateLinux final : public WipeTreeState {
 public:
  // Neither of the two fails here. Null, or not setting one, means that the first failure ends the
  // removal.
  bool setErrorCallback(ErrorCallback callback) override;
  bool setErrorContext(void* context) override;
  bool getErrorNumber(int* number) const override;

  // Whether the removal goes on after an item failed with `number`. Asks the callback, during which
  // getErrorNumber() answers; without one the answer is no.
  bool report(const std::string& path, int number);
  bool hasCallback() const { return callback_ != nullptr; }

 private:
  ErrorCallback callback_ = nullptr;
  void* context_ = nullptr;
  int number_ = 0;  // 0 outside of a callback
};

// Used once, by one thread. The directory that holds the item is pinned, and everything below is
// reached from there by descriptor. What was exchanged for a link or a file while the walk was on
// its way is unlinked under its name; nothing outside is ever reached.
class TreeRemover {
 public:
  TreeRemover(ItemPath item, bool recursive, WipeTreeStateLinux& state);
  // 0, or the number of the failure that ended the removal. 0 does not say that the item is gone:
  // what could not be removed was reported, and the callback wanted to go on.
  int run();

  // Where a directory is; all of it empty where nobody had to ask.
  struct Place {
    DirectoryIdentity identity;
    std::uint64_t mount = 0;  // 0 where the kernel does not tell
  };

 private:
  // What a directory is remembered by beside its place in the stack.
  struct Level {
    // The mount that the directory is on; 0 where the kernel does not tell.
    std::uint64_t mount = 0;
    // Why its entries could not be read to the end, or 0. It goes before the ENOTEMPTY that follows
    // from it.
    int readError = 0;
    // Bounded, since others may go on making entries.
    unsigned passes = 1;      // over its entries
    bool removed = false;     // something, during this pass
    bool incomplete = false;  // something below could not be removed, and was reported
  };

  // Which entries of the root directory are visited.
  // Files first: whoever keeps a note beside the directories that it speaks of finds them whole as
  // long as the note is there.
  enum class RootPass { files, directories, everything };

  // Opens or removes the item itself. 0, or the number of the failure that ends the removal.
  int begin();
  // Removes the entry, or goes down into it.
  void visit(int directory, const char* name, unsigned char type);
  // Whether the root's entry waits for, or was dealt with in, the other pass.
  bool isForOtherPass(int directory, const char* name, unsigned char type);
  // Unlinks it. False when it turns out to be a directory.
  bool visitFile(int directory, const char* name, unsigned char type);
  // Opens it without following links; what was exchanged for a file is removed as one.
  void visitDirectory(int directory, const char* name);
  // A directory that cannot be opened may still be empty: rmdir tells.
  void removeUnreadable(int directory, const char* name, int openError);
  // Goes down into a directory, if it is on the mount of the one above it.
  void enterLocated(UniqueDescriptor descriptor, const char* name);
  // Goes down into a directory that is known to be no mount point.
  void enter(UniqueDescriptor descriptor, const Place& place, const char* name);
  // The directory has no more entries: removes it, or looks again where that may help.
  void finishDirectory(int readError);
  // Whether to read the directory again: entries may be skipped while others are removed.
  bool mayHoldMore() const;
  // Something was removed, which makes another pass over the directory worth while.
  void gone();
  // It was gone before it could be removed: told once, at the end.
  void vanished(const char* name);
  // Reports the failure, and ends the removal if the callback does not want it to go on.
  void failed(const std::string& path, int number);

  // Where the removal begins. The stack holds a copy of its descriptor's number, so that this stays
  // open as long.
  ItemPath item_;
  bool recursive_;
  WipeTreeStateLinux& state_;
  DirectoryStack stack_;
  std::vector<Level> levels_;  // as deep as the stack
  // Whether the kernel refuses to open a mount point (openat2), so that nobody has to ask where a
  // directory is.
  bool tellsMounts_ = true;
  // Otherwise, of the directory that holds the item: what is elsewhere is a mount point, the item
  // itself included.
  std::uint64_t baseMount_ = 0;
  dev_t baseDevice_ = 0;
  RootPass rootPass_ = RootPass::files;
  bool directoriesWait_ = false;  // the first pass passed over some
  std::string firstVanished_;
  int ended_ = 0;  // the number of the failure that ended the removal
};

}  // namespace quorvel::onlinux
