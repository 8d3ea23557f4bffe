// The directories from the root of a tree walk down to where it is.
//
// Why: a walk must come back out of any depth with few descriptors, little memory and no trust in
// path names. The deepest directories stay open; a shallower one is closed, and opened again
// through ".." of its child when the walk returns to it, provided that it is still the same
// directory. Nothing here follows a link.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <vector>

#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/DirectoryReader.h"

namespace quorvel::onlinux {

struct DirectoryIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  friend bool operator==(const DirectoryIdentity&, const DirectoryIdentity&) = default;
};

inline DirectoryIdentity IdentityOf(const struct stat& info) { return {info.st_dev, info.st_ino}; }

// Belongs to one thread. Operations that can fail set errno. Paths are for messages, for recover()
// and for those who remember places; the way down and up goes by descriptors alone.
class DirectoryStack {
 public:
  // The root is the item `rootName` in the directory `base`, which the caller keeps open;
  // `rootPath` is what paths begin with. No directory is entered yet.
  DirectoryStack(int base, std::string rootName, std::string rootPath);

  // Two stacks that one walk uses at once: each closes directories when the other runs out of
  // descriptors.
  void shareDescriptorsWith(DirectoryStack* partner) { partner_ = partner; }

  std::size_t depth() const { return levels_.size(); }
  // The rest is about the deepest directory. Its path, from the root's down:
  const std::string& path() const { return path_; }
  std::string pathOf(const char* entry) const;
  const char* name() const;  // in its parent
  int descriptor() const { return levels_.back().descriptor.get(); }
  DirectoryReader& reader() { return levels_.back().reader; }

  // openat that makes room when descriptors run out. `directory` is one of the two deepest
  // directories, or not of this stack.
  UniqueDescriptor openAt(int directory, const char* name, int flags, mode_t mode = 0);
  // The same for a directory to read; ENOTDIR for anything else, a link included.
  UniqueDescriptor openDirectoryAt(int directory, const char* name);
  // The same for one that is no mount point; EXDEV for one that is. ENOSYS where the kernel, or a
  // filter, does not know the question.
  UniqueDescriptor openDirectoryHereAt(int directory, const char* name);

  // Goes down into the entry `name`, or into the root. An empty identity is found out when the
  // directory has to be closed, which in most trees is never.
  void enter(UniqueDescriptor descriptor, const DirectoryIdentity& identity, const char* name);
  // Sees to it that the parent is open. ESTALE when ".." is no longer the directory that the walk
  // came through.
  bool openParent();
  int parentDescriptor() const;
  // Goes up. The parent is open.
  void leave();
  // After openParent() failed: goes up to the deepest directory that can still be reached by its
  // names from the root, or to depth 0. Nothing above what was lost is skipped: a walk goes on
  // there with the next entry.
  void recover();

 private:
  // Opens by `open`, a call's result or -1 with errno, making room when descriptors run out.
  template <class Open>
  UniqueDescriptor openBy(const Open& open);

  struct Level {
    UniqueDescriptor descriptor;  // open from firstOpen_ on
    DirectoryIdentity identity;   // empty where it is not known yet
    std::size_t pathLength = 0;
    DirectoryReader reader;
  };

  // Frees one descriptor. False when only the two deepest directories are open.
  bool closeShallowest();
  std::string nameOf(std::size_t level) const;
  // Opens the directory `name` again. ESTALE when it is not the expected one any more.
  UniqueDescriptor reopen(int directory, const char* name, const DirectoryIdentity& expected);

  int base_;
  std::string rootName_;
  std::string path_;
  std::vector<Level> levels_;
  // Levels before this one are closed; all from it on are open.
  std::size_t firstOpen_ = 0;
  DirectoryStack* partner_ = nullptr;
};

}  // namespace quorvel::onlinux
