// How the source of a move between file systems goes: the file manager and the registry both move
// this way, and what one of them leaves the other knows for what it is.
//
// Such a move copies, flushes the copy and only then takes the source away. Removing a directory in
// its place would, cut short, leave a part of it under its own name, which a repeated move would
// put in place of the whole copy. So it is first renamed into a new directory beside it, a remain,
// whose name and attribute say that whatever is in it may go. Paths here are bytes. Any thread.
//
// What a crash leaves, in the order of the steps: an empty remain without its mark is known by its
// name, mode and emptiness, and goes. An empty one with its mark goes as well. From the rename on
// the source is in a remain that is marked on stable storage, so that whoever finds it removes it;
// until the flush of the parent a power cut may bring the source back to its own name, whole, and
// the move is then repeated.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/DeviceNames.h"
#include "platform/FileSystem.h"
#include "platform/Path.h"

namespace quorvel {

// A remain's permission bits. Nobody else gets at what is about to be removed, and a directory of
// another mode is none that was made here.
inline constexpr mode_t MoveRemainMode = 0700;

// How far the source came on its way into a remain. Told so exactly because the two movers report
// failures in different words.
struct SourceSetAside {
  std::string remain;    // the directory in which it is to be removed
  std::string place;     // where it was to be renamed to, or the remain that could not be made
  bool isThere = false;  // it was renamed to `place`
  int number = 0;        // why there is no remain or no rename; 0 when a flush failed
};

// Makes a remain in `parent`, marked where the file system has attributes. Where it has none, what
// an interruption leaves in it is taken for somebody else's and kept. 0, or an errno value.
// `parent` may end in a slash; `made` is the last name that was tried, also on failure. The mark
// may fail: it is no reason to fail a move whose copy is whole. A hundred names in use say that
// something else is wrong, and end the search with EEXIST.
inline int MakeMoveRemain(FileSystem& files, const std::string& parent, std::string* made) {
  constexpr int most = 100;
  for (int number = 1; number <= most; ++number) {
    *made = parent + (parent.ends_with('/') ? "" : "/");
    made->append(MoveRemainPrefix).append(std::to_string(number));
    if (::mkdir(made->c_str(), MoveRemainMode) == 0) {
      constexpr std::uint8_t mark = 1;
      files.setxattr(made->c_str(), MoveRemainAttributeName, &mark, sizeof mark, 0, XATTR_NOFOLLOW);
      return 0;
    }
    if (errno != EEXIST) return errno;
  }
  return EEXIST;
}

// Renames the directory `source`, whose copy is complete and on stable storage, into a new remain.
// `flush(directory)` brings the names in a directory to stable storage: the mark before there is
// anything in the remain, then the rename. True once the remain can be removed; on failure errno
// is that of `flush` when `number` is 0. After a failed flush the source is where `isThere` says
// and is not removed: what is not known to be stored must not be relied on. After a failed rename
// the source stands under its own name, and the remain, which is empty, is removed again.
template <class Flush>
bool SetMoveSourceAside(FileSystem& files, const std::string& source, Flush&& flush,
                        SourceSetAside* aside) {
  const std::string parent = ParentOf(source);
  aside->number = MakeMoveRemain(files, parent, &aside->remain);
  aside->place = aside->remain;
  if (aside->number != 0 || !flush(aside->remain)) return false;
  aside->place += "/" + source.substr(source.rfind('/') + 1);
  if (::rename(source.c_str(), aside->place.c_str()) != 0) {
    aside->number = errno;
    ::rmdir(aside->remain.c_str());
    return false;
  }
  aside->isThere = true;
  return flush(aside->remain) && flush(parent);
}

// Whether the item is a remain: by the attribute, which only this code sets, as a name alone may
// be a user's. One whose making was interrupted has no attribute yet, but nothing in it either,
// which `isEmpty(item)` tells. False where it cannot be told: what is not known to be a remain
// stays. No link is followed.
template <class IsEmpty>
bool IsMoveRemain(FileSystem& files, const std::string& item, IsEmpty&& isEmpty) {
  const std::string_view name = std::string_view(item).substr(item.rfind('/') + 1);
  struct stat info {};
  if (!name.starts_with(MoveRemainPrefix) || ::lstat(item.c_str(), &info) != 0 ||
      !S_ISDIR(info.st_mode)) {
    return false;
  }
  std::uint8_t mark = 0;
  if (files.getxattr(item.c_str(), MoveRemainAttributeName, &mark, sizeof mark, 0,
                     XATTR_NOFOLLOW) == sizeof mark) {
    return true;
  }
  const bool isNumbered =
      name.find_first_not_of("0123456789", MoveRemainPrefix.size()) == std::string_view::npos;
  return isNumbered && (info.st_mode & 07777U) == MoveRemainMode && isEmpty(item);
}

}  // namespace quorvel
