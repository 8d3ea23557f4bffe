// File-system operations beyond POSIX.
//
// Why a service: tree removal, tree copies, protection classes and named attributes are the
// platform's. All results follow POSIX habits: 0 or a count on success, -1 with errno set, unless
// said otherwise. Paths are FileSystemRepresentations. No operation follows a link as the last
// component, nor any link met inside a tree, also not one put there meanwhile. Any thread may
// call; nothing is kept between calls.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace quorvel {

// RemoveTree flags.
inline constexpr unsigned WIPETREE_RECURSIVE = 1;
// The answer of an error callback: go on with the remaining items.
inline constexpr int WIPETREE_PROCEED = 0;

// The state of one RemoveTree call: who is told about each item that cannot be removed.
class WipeTreeState {
 public:
  // `path` is the item's, beginning with the path that RemoveTree was given. Any answer but
  // WIPETREE_PROCEED ends the removal.
  using ErrorCallback = int (*)(WipeTreeState& state, const char* path, void* context);

  virtual ~WipeTreeState() = default;
  virtual bool setErrorCallback(ErrorCallback callback) = 0;  // false with errno set
  virtual bool setErrorContext(void* context) = 0;            // false with errno set
  // During a callback: the item's error number. False when it cannot be told.
  virtual bool getErrorNumber(int* number) const = 0;
};

// CopyTree flags.
inline constexpr std::uint32_t CLONETREE_DATA_STAT_XATTR_ACL = 0xF;
inline constexpr std::uint32_t CLONETREE_RECURSIVE = 0x8000;
inline constexpr std::uint32_t CLONETREE_NOFOLLOW_SRC = 0x40000;
inline constexpr std::uint32_t CLONETREE_NOFOLLOW_DST = 0x80000;

// Hears of an item that a copy left out.
using LeftOutCallback = std::function<void(const char* path)>;

// Extended attributes: act on the item itself, never through a link.
inline constexpr int XATTR_NOFOLLOW = 1;

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // A fresh state; null with errno set when it cannot be made.
  virtual std::unique_ptr<WipeTreeState> allocateWipeTreeState() = 0;
  // Removes the item and, with WIPETREE_RECURSIVE, everything below it, however deep; the files of
  // the directory itself go before any directory in it. Items that
  // cannot be removed are reported to the state's callback and passed over. 0 when the walk was
  // completed, whatever the callback heard.
  virtual int RemoveTree(const char* path, unsigned flags, WipeTreeState& state) = 0;
  // Copies the item with data, holes, mode, owner where permitted, times, extended attributes
  // and access-control lists, directories with everything below them. The destination need not
  // be absent: a directory is merged into one that is there and is ENOTDIR over anything else, what
  // is no directory replaces everything but a directory (EISDIR). At no moment is the copy
  // more accessible than the source. -1 at the first item that cannot be copied whole. A socket
  // means nothing without its process: one inside a tree is left out, which `leftOut`, if any,
  // hears with the source's path; one that is the source itself is EOPNOTSUPP.
  virtual int CopyTree(const char* source, const char* destination, std::uint32_t flags,
                       const LeftOutCallback& leftOut) = 0;
  // Creates the directory and its missing parents. Returns 0 when it was created, EEXIST when it
  // exists as a directory, another error number otherwise; errno is not used.
  virtual int MakePath(const char* path, mode_t mode) = 0;

  // The data-protection class of an open file or directory; 0 when none was ever set.
  virtual int GetProtectionClass(int descriptor) = 0;
  virtual int SetProtectionClass(int descriptor, int protectionClass) = 0;

  // Extended attributes by the system's names, with XATTR_NOFOLLOW and position 0. A missing
  // attribute is ENOATTR (ENODATA here). getxattr with size 0 gives the size.
  virtual ssize_t getxattr(const char* path, const char* name, void* value, std::size_t size,
                           std::uint32_t position, int options) = 0;
  virtual int setxattr(const char* path, const char* name, const void* value, std::size_t size,
                       std::uint32_t position, int options) = 0;

  // Sets the permission bits of the item `name` in the directory that `directory` has open
  // (AT_FDCWD for a whole path). Where links have no mode of their own, EOPNOTSUPP for a link.
  virtual int lchmod(int directory, const char* name, mode_t mode) = 0;
  // Whether links have permission bits of their own, which lchmod then sets.
  virtual bool LinksHaveModes() = 0;

  // Brings what was changed in the directory itself (names added, removed, replaced) to stable
  // storage.
  virtual int SyncDirectory(const char* path) = 0;
  // Brings everything written so far to the file system that holds `path` to stable storage.
  virtual int SyncFileSystem(const char* path) = 0;
};

}  // namespace quorvel
