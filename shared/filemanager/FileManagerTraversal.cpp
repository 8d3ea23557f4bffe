// Walks over trees, and the standardization of their ownership and permissions.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"
#include "shared/support/PathStrings.h"
#include "shared/support/Services.h"

namespace quorvel {

namespace {

constexpr const char* kTraverse = "-[QVFileManager _traverseDirectory:error:withBlock:]";
constexpr const char* kStandardize =
    "__76-[QVFileManager "
    "standardizeOwnershipAtURL:toUID:GID:validateSymlinks:error:]_block_invoke";

constexpr mode_t kPermissionBits = 07777;  // setuid, setgid and sticky included
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kItemMode = 0644;

bool FailEntry(const FileSystemRepresentation& root, int number, Error* error) {
  return FailWithErrno(number, {kTraverse, __LINE__}, error, "Error for path %s: %s", root);
}

// Reads the walk to its end or first failure. The result is the last visitor's.
bool VisitAll(TreeWalk& walk, const FileSystemRepresentation& root, Error* error,
              const QVFileManager::TreeVisitor& visitor) {
  while (true) {
    // The end of the walk and its failure give the same result.
    errno = 0;
    const TreeWalkEntry* entry = walk.read();
    if (entry == nullptr) return errno == 0 || FailEntry(root, errno, error);
    if (entry->kind == TreeWalkKind::error || entry->kind == TreeWalkKind::noStat) {
      return FailEntry(root, entry->errorNumber, error);
    }
    if (!visitor(*entry, error)) return false;
  }
}

// Both changes reach the item by its name in the directory that the walk has open: its whole path
// may be too long for a system call, and may by now lead somewhere else.
void ChangeOwner(const TreeWalkEntry& entry, const OwnershipStandard& standard) {
  if (entry.info.uid == standard.uid && entry.info.gid == standard.gid) return;
  if (::fchownat(entry.parent, entry.name, standard.uid, standard.gid, AT_SYMLINK_NOFOLLOW) == 0) {
    return;
  }
  const int number = errno;
  QV_LOG(LogLevelError, kStandardize, "Could not chown %s: %s", entry.path,
         ErrnoDescription(number));
}

// A mode that is right is left alone, and with it the time of the item's last change.
void ChangeMode(const TreeWalkEntry& entry) {
  if (S_ISLNK(entry.info.mode) && !RequiredService(kFileSystem).LinksHaveModes()) return;
  const mode_t wanted = S_ISDIR(entry.info.mode) ? kDirectoryMode : kItemMode;
  if ((entry.info.mode & kPermissionBits) == wanted) return;
  if (RequiredService(kFileSystem).lchmod(entry.parent, entry.name, wanted) == 0) return;
  const int number = errno;
  QV_LOG(LogLevelError, kStandardize, "Could not chmod %s: %s", entry.path,
         ErrnoDescription(number));
}

// Whether the link stays inside the tree; one that does not ends the walk, since an installer that
// gives a tree to an app must not give it what lies outside.
bool ValidateLink(QVFileManager& manager, const TreeWalkEntry& entry, const Path& root,
                  Error* error) {
  if (manager._linkStaysInside(entry, root)) return true;
  return SetError(
      error,
      _CreateAndLogError({kStandardize, __LINE__}, QVInstallerErrorDomain, QVInvalidSymbolicLink,
                         {{}, {{QVLegacyErrorStringKey, PlistValue(QVInvalidSymbolicLink)}}},
                         "invalid symlink at %s", entry.path));
}

}  // namespace

// Both ways out close the walk, and the first failure is the one that is told.
bool QVFileManager::_traverseDirectory(const Path& root, Error* error,
                                       const TreeVisitor& visitor) try {
  const FileSystemRepresentation representation = root.fileSystemRepresentation();
  if (!HasService(kTreeWalker, kTraverse, __LINE__, error)) return false;
  const std::unique_ptr<TreeWalk> walk =
      RequiredService(kTreeWalker)
          .open(representation.c_str(), FTS_PHYSICAL_OPTION | FTS_NOCHDIR_OPTION | FTS_XDEV_OPTION);
  if (!walk) {
    return FailWithErrno(errno, {kTraverse, __LINE__}, error,
                         "fts_open failed for %s with error %s", representation);
  }
  Error failure;
  const bool visited = VisitAll(*walk, representation, &failure, visitor);
  const bool closed = walk->close();
  if (!closed && !failure) {
    const int number = errno;
    failure = _CreateError(kTraverse, __LINE__, PosixErrorDomain, number,
                           "fts_close failed for %s with error %s", representation,
                           ErrnoDescription(number));
  }
  return (visited && closed) || SetError(error, failure);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kTraverse, __LINE__, error);
}

// The owner comes before the mode, as a change of owner clears setuid and setgid. A tree with a
// link that leads out is left half standardized.
bool QVFileManager::standardizeOwnershipAtURL(const Path& root, const OwnershipStandard& standard,
                                              Error* error) try {
  if (!HasService(kFileSystem, kStandardize, __LINE__, error)) return false;
  return _traverseDirectory(root, error, [&](const TreeWalkEntry& entry, Error* entryError) {
    ChangeOwner(entry, standard);
    if (standard.validateSymlinks && S_ISLNK(entry.info.mode) &&
        !ValidateLink(*this, entry, root, entryError)) {
      return false;
    }
    ChangeMode(entry);
    return true;
  });
} catch (const std::bad_alloc&) {
  return OutOfMemory(kStandardize, __LINE__, error);
}

}  // namespace quorvel
