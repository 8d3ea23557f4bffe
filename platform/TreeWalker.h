// fts: walks over file trees.
//
// Why a service: a walk must see every entry of any tree, however deep, or say that it did not;
// a test wants to present entries that no real file system yields.
#pragma once

#include <cstdint>
#include <memory>

namespace quorvel {

// Options, as fts names them. The numbers are those of fts.
inline constexpr int FTS_PHYSICAL_OPTION = 0x10;  // links are entries, never followed
inline constexpr int FTS_NOCHDIR_OPTION = 0x04;   // the current directory is never changed
inline constexpr int FTS_XDEV_OPTION = 0x40;      // directories of other devices are not entered

// A directory is delivered twice, before and after what is in it; the second time may be
// unreadableDirectory. Every other entry is delivered once. No kind but these is ever given, so
// that a switch without a default is complete.
enum class TreeWalkKind {
  directoryBefore,      // FTS_D: before its contents
  directoryAfter,       // FTS_DP: after its contents
  unreadableDirectory,  // FTS_DNR, in place of FTS_DP: it could not be opened, or is gone
  file,                 // FTS_F
  symbolicLink,         // FTS_SL
  other,                // FTS_DEFAULT: pipe, socket, device
  noStat,               // FTS_NS: no stat information; ENOENT when the entry vanished
  error,                // FTS_ERR
};

// What lstat tells of an entry, in types that are the same in every program: those of its record
// change with _FILE_OFFSET_BITS and _TIME_BITS. Allocated bytes are 512 * blocks, which for a
// sparse file is less than its size.
struct TreeWalkInfo {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t links = 0;
  std::uint64_t size = 0;    // bytes
  std::uint64_t blocks = 0;  // of 512 bytes
  std::uint32_t mode = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

// One entry. All pointers are valid until the next read().
struct TreeWalkEntry {
  TreeWalkKind kind = TreeWalkKind::error;
  // From the root's path down; NUL-terminated; may be longer than any system call accepts.
  const char* path = nullptr;
  // How to reach the entry without its whole path: a directory descriptor (owned by the walk) and
  // the name in it. For the root, AT_FDCWD and the root's path.
  int parent = -1;
  const char* name = nullptr;
  int errorNumber = 0;  // for the last two kinds and unreadable directories
  // Taken without following links; for directoryAfter the one of directoryBefore. Not filled for
  // noStat and error.
  TreeWalkInfo info = {};
};

// Belongs to one thread at a time. A visitor may remove or change what it is given; a directory
// that is moved away while the walk is in it may end the walk.
class TreeWalk {
 public:
  virtual ~TreeWalk() = default;  // closes silently
  // The next entry; null at the end. At the end errno is 0 when the tree was walked whole, else
  // the number of the failure that ended the walk. After the end it answers null again, with the
  // same errno.
  virtual const TreeWalkEntry* read() = 0;
  // Whether closing succeeded; errno set otherwise. Called at most once, last.
  virtual bool close() = 0;
};

class TreeWalker {
 public:
  virtual ~TreeWalker() = default;
  // A walk over one root (fts_open); null with errno set. A missing root is no failure here: it
  // is the first entry, of kind noStat. Memory and descriptors stay bounded whatever the tree.
  virtual std::unique_ptr<TreeWalk> open(const char* root, int options) = 0;
};

}  // namespace quorvel
