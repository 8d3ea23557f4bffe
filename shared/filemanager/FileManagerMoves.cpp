// Copies, moves and the capture of store metadata.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "platform/DeviceNames.h"
#include "platform/MoveRemains.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"
#include "shared/support/Services.h"

namespace quorvel {

namespace {

constexpr const char* kCopy = "-[QVFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]";
constexpr const char* kMove = "-[QVFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]";
constexpr const char* kRemains = "-[QVFileManager removeRemainsOfMovesInDirectory:]";
constexpr const char* kCapture =
    "-[QVFileManager captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:withError:]";

enum class Presence { present, missing, unknown };

// Whether there is a source; `unknown` has filled the Error, under the asking operation's name.
// Only ENOENT is certain to mean that nothing is there: a parent that may not be searched hides an
// item rather than removing it.
Presence CheckSource(const Path& source, const char* function, Error* error) {
  struct stat info {};
  const FileSystemRepresentation representation = source.fileSystemRepresentation();
  if (::lstat(representation.c_str(), &info) == 0) return Presence::present;
  if (errno == ENOENT) return Presence::missing;
  FailWithErrno(errno, {function, __LINE__}, error, "stat of %@ failed: %s", source);
  return Presence::unknown;
}

// Neither end is followed: a link is copied as a link, and one that stands at the destination is
// not written through. Sockets cannot be copied and are named in the log, as their loss is not a
// failure.
bool CopyWhole(const Path& source, const Path& destination, Error* error) {
  constexpr std::uint32_t flags = CLONETREE_DATA_STAT_XATTR_ACL | CLONETREE_RECURSIVE |
                                  CLONETREE_NOFOLLOW_SRC | CLONETREE_NOFOLLOW_DST;
  const FileSystemRepresentation from = source.fileSystemRepresentation();
  const FileSystemRepresentation to = destination.fileSystemRepresentation();
  const auto skipped = [](const char* path) {
    QV_LOG(LogLevelError, kCopy, "clonetree left out the socket %s", path);
  };
  if (!HasService(kFileSystem, kCopy, __LINE__, error)) return false;
  FileSystem& fileSystem = RequiredService(kFileSystem);
  if (fileSystem.CopyTree(from.c_str(), to.c_str(), flags, skipped) == 0) return true;
  return FailWithErrno(errno, {kCopy, __LINE__}, error, "clonetree of %@ to %@ failed: %s", source,
                       destination);
}

bool FailMove(const Path& source, const Path& destination, int number, Error* error) {
  return FailWithErrno(number, {kMove, __LINE__}, error, "rename of %@ to %@ failed: %s", source,
                       destination);
}

bool IsDirectory(const FileSystemRepresentation& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Removes a source whose copy is complete and on stable storage, a directory from within a remain.
// `rest` is where a failure leaves what it leaves.
bool RemoveMoveSource(QVFileManager& manager, const Path& source, Path* rest, Error* error) {
  *rest = source;
  const FileSystemRepresentation from = source.fileSystemRepresentation();
  if (!IsDirectory(from)) return manager.removeItemAtURL(source, error);
  const auto pathOf = [](const std::string& bytes) {
    return Path::directory(StringFromFileSystemRepresentation(bytes));
  };
  const auto flush = [&](const std::string& directory) {
    return manager.syncDirectoryAtURL(pathOf(directory), error);
  };
  SourceSetAside aside;
  const bool isAside =
      SetMoveSourceAside(RequiredService(kFileSystem), from.c_str(), flush, &aside);
  if (aside.isThere) *rest = pathOf(aside.place);
  if (isAside) return manager.removeItemAtURL(pathOf(aside.remain), error);
  return aside.number != 0 && FailMove(source, pathOf(aside.place), aside.number, error);
}

// A crash before the flush leaves the source whole and at most a partial copy; one after it leaves
// both. The source goes only when the copy is known to be stored.
bool MoveAcrossFileSystems(QVFileManager& manager, const Path& source, const Path& destination,
                           Error* error) {
  if (!manager._copyItemAtURL(source, destination, true, error)) return false;
  // Not known to be stored, the source must stay.
  if (!manager.syncFileSystemsOfItems({destination}, error)) return false;
  Error removal;
  Path rest;
  // The move has succeeded all the same: the item is at its destination.
  if (!RemoveMoveSource(manager, source, &rest, &removal)) {
    QV_LOG(LogLevelError, kMove, "Failed to remove move source after copy at %@ : %@",
           rest.string(), removal);
  }
  return true;
}

// What travels with an app bundle, and what the former service called the failure to take it.
struct StoreItem {
  const char* name;
  const char* failureKey;
};
constexpr StoreItem kStoreItems[] = {
    {StoreManifestName, "ManifestCaptureFailed"},
    {StoreArtworkName, "LorvixArtworkCaptureFailed"},
    {StoreMetadataName, "LorvixMetadataCaptureFailed"},
    {StoreGeoName, "GeoJSONCaptureFailed"},
};

// Two formats rather than a word put in: both are fixed texts that are searched for in logs.
Error CaptureError(const Path& source, const Path& destination, bool copied, ErrorContext context) {
  const ErrorSite site{kCapture, __LINE__};
  if (copied) {
    return _CreateAndLogError(site, QVInstallerErrorDomain, QVMetadataCaptureFailed,
                              std::move(context), "Failed to copy %@ to %@", source, destination);
  }
  return _CreateAndLogError(site, QVInstallerErrorDomain, QVMetadataCaptureFailed,
                            std::move(context), "Failed to move %@ to %@", source, destination);
}

}  // namespace

bool QVFileManager::_copyItemAtURL(const Path& source, const Path& destination,
                                   bool failIfSrcMissing, Error* error) try {
  if (!failIfSrcMissing) {
    const Presence presence = CheckSource(source, kCopy, error);
    if (presence != Presence::present) return presence == Presence::missing;
  }
  return CopyWhole(source, destination, error);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kCopy, __LINE__, error);
}

// The rename is tried first: what was renamed was there, and EXDEV tells that a copy is needed as
// no look beforehand can. A failure of it may only mean that there is no source.
bool QVFileManager::_moveItemAtURL(const Path& source, const Path& destination,
                                   bool failIfSrcMissing, Error* error) try {
  const FileSystemRepresentation from = source.fileSystemRepresentation();
  const FileSystemRepresentation to = destination.fileSystemRepresentation();
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  const int failure = errno;
  if (!failIfSrcMissing) {
    const Presence presence = CheckSource(source, kMove, error);
    if (presence != Presence::present) return presence == Presence::missing;
  }
  if (failure != EXDEV) return FailMove(source, destination, failure, error);
  return MoveAcrossFileSystems(*this, source, destination, error);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kMove, __LINE__, error);
}

bool QVFileManager::copyItemAtURL(const Path& source, const Path& destination, Error* error) {
  return _copyItemAtURL(source, destination, true, error);
}

bool QVFileManager::copyItemIfExistsAtURL(const Path& source, const Path& destination,
                                          Error* error) {
  return _copyItemAtURL(source, destination, false, error);
}

bool QVFileManager::moveItemAtURL(const Path& source, const Path& destination, Error* error) {
  return _moveItemAtURL(source, destination, true, error);
}

bool QVFileManager::moveItemIfExistsAtURL(const Path& source, const Path& destination,
                                          Error* error) {
  return _moveItemAtURL(source, destination, false, error);
}

bool QVFileManager::isRemainOfMove(const Path& item) {
  // Nearly every item ends here, and needs no service.
  if (!item.lastPathComponent().starts_with(MoveRemainPrefix)) return false;
  const auto isEmpty = [&item](const std::string&) {
    const auto items = defaultManager().urlsForItemsInDirectoryAtURL(item, false, nullptr);
    return items && items->empty();
  };
  return IsMoveRemain(RequiredService(kFileSystem), item.fileSystemRepresentation().c_str(),
                      isEmpty);
}

// Best effort, with a line for each failure: a remain costs space and nothing else.
void QVFileManager::removeRemainsOfMovesInDirectory(const Path& directory) {
  Error error;
  const auto items = urlsForItemsInDirectoryAtURL(directory, false, &error);
  if (!items) {
    QV_LOG(LogLevelError, kRemains, "Failed to look for remains of moves in %@ : %@",
           directory.string(), error);
    return;
  }
  for (const Path& item : *items) {
    if (isRemainOfMove(item) && !removeItemAtURL(item, &error)) {
      QV_LOG(LogLevelError, kRemains, "Failed to remove remains of a move at %@ : %@",
             item.string(), error);
    }
  }
}

// Every item is tried unless the caller said that one failure is fatal: four files, each worth
// something without the others.
bool QVFileManager::captureStoreDataFromDirectory(const Path& source, const Path& destination,
                                                  StoreDataCapture how, Error* error) try {
  for (const StoreItem& item : kStoreItems) {
    const Path from = source.child(item.name);
    const Path to = destination.child(item.name);
    Error cause;
    // Most apps have none of them: a look costs less than a rename that fails, and one after it.
    const Presence presence = how.doCopy ? Presence::present : CheckSource(from, kMove, &cause);
    if (presence == Presence::missing) continue;
    const bool carried =
        presence == Presence::present && (how.doCopy ? copyItemIfExistsAtURL(from, to, &cause)
                                                     : moveItemIfExistsAtURL(from, to, &cause));
    if (carried) continue;
    Error failure =
        CaptureError(from, to, how.doCopy,
                     {std::move(cause), {{QVLegacyErrorStringKey, PlistValue(item.failureKey)}}});
    if (how.failureIsFatal) return SetError(error, std::move(failure));
  }
  return true;
} catch (const std::bad_alloc&) {
  return OutOfMemory(kCapture, __LINE__, error);
}

}  // namespace quorvel
