// The service's one object for changing the file system.
//
// When to use what: the "IfExists" forms for steps that may be repeated after an interruption (a
// missing source is a quiet success), the plain forms where a missing source is a failure.
// Anything that must survive a power cut is followed by syncDirectoryAtURL.
//
//   Error error;
//   if (!QVFileManager::defaultManager().removeItemAtURL(path, &error)) Report(error);
//
// Paths are absolute. Nothing here follows a symbolic link as the last component of a path, unless
// it says so.
// Results: a success flag, or a result that is absent on failure; the optional Error is filled on
// failure only. Operations keep no state, throw nothing and may run on any thread; two that work
// on the same item at once interfere as the file system lets them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/TreeWalker.h"
#include "shared/support/Export.h"

namespace quorvel {

// No data-protection class is to be set.
inline constexpr std::int32_t QVNoProtectionClass = -1;

// How a directory is created.
struct DirectoryCreation {
  bool withIntermediateDirectories = false;
  std::uint16_t mode = 0755;
  std::int32_t protectionClass = QVNoProtectionClass;
};

// How store metadata is captured.
struct StoreDataCapture {
  bool doCopy = false;          // copy and leave the source in place; otherwise move
  bool failureIsFatal = false;  // end at the first item that fails; otherwise log and go on
};

// What a tree is standardized to.
struct OwnershipStandard {
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  bool validateSymlinks = false;  // stop at a link that leads out of the tree
};

class QV_EXPORT QVFileManager {
 public:
  // The process's shared instance, created on first use.
  static QVFileManager& defaultManager();

  // --- Removal, creation, copy, move -------------------------------------------------------

  // Removes the item and everything below it. Missing is success. An item that cannot be removed
  // is logged and passed over; the first such number is the result's Error.
  bool removeItemAtURL(const Path& path, Error* error = nullptr);

  // The mode is given whatever the umask. An existing directory is success, and gets the protection
  // class too; here a link to a directory counts as one. Without intermediates an existing item of
  // any kind counts as created.
  bool createDirectoryAtURL(const Path& path, const DirectoryCreation& how, Error* error = nullptr);

  // Copies with data, modes, owners, times, attributes and access-control lists, links as links.
  // A directory is merged into one that is there, and fails with ENOTDIR over anything else; what
  // is no directory replaces everything but a directory (EISDIR). A socket inside a tree is left
  // out with an error line that names it; one that is the source is a failure (EOPNOTSUPP).
  bool copyItemAtURL(const Path& source, const Path& destination, Error* error = nullptr);
  bool copyItemIfExistsAtURL(const Path& source, const Path& destination, Error* error = nullptr);

  // One rename. Between file systems: a whole copy on stable storage, then removal of the source,
  // whose failure is only logged. A source that is a directory is first renamed, so that what an
  // interrupted removal leaves can never be taken for the source again
  // (removeRemainsOfMovesInDirectory).
  bool moveItemAtURL(const Path& source, const Path& destination, Error* error = nullptr);
  bool moveItemIfExistsAtURL(const Path& source, const Path& destination, Error* error = nullptr);

  // A new directory "temp.XXXXXX" with mode 0700 in the parent. Clears `error` on entry.
  std::optional<Path> createTemporaryDirectoryInDirectoryURL(const Path& parent,
                                                             Error* error = nullptr);

  // Brings the names in the directory itself to stable storage.
  bool syncDirectoryAtURL(const Path& directory, Error* error = nullptr);
  // Brings everything written so far to the file systems of the items to stable storage, each file
  // system once: one flush in place of many where much was written.
  bool syncFileSystemsOfItems(const std::vector<Path>& items, Error* error = nullptr);

  // Whether the item is what an interrupted removal of a moved directory left behind.
  static bool isRemainOfMove(const Path& item);
  // Removes such remains from the directory. What cannot be removed stays, with a line in the log.
  void removeRemainsOfMovesInDirectory(const Path& directory);

  // --- Listing and walking ------------------------------------------------------------------

  // The entries without "." and "..", in the directory's order; each flagged as a directory
  // exactly when it is one. One descriptor and one buffer serve the whole listing.
  std::optional<std::vector<Path>> urlsForItemsInDirectoryAtURL(const Path& directory,
                                                                bool ignoringSymlinks,
                                                                Error* error = nullptr);

  // Not installed: what others cannot link.
  // Hands every entry of the tree to the visitor, each directory before and after its contents,
  // without following links or entering other devices. The visitor goes on with true; with false
  // it ends the walk as a failure and may leave an Error. False also when the tree could not be
  // walked whole.
  using TreeVisitor = std::function<bool(const TreeWalkEntry& entry, Error* error)>;
  bool _traverseDirectory(const Path& root, Error* error, const TreeVisitor& visitor);
  // Installed again.

  // Gives every item of the tree one owner and group, directories mode 0755 and everything else
  // 0644. What cannot be changed is logged and passed over; a link that leads out of the tree
  // (when asked to look) or an incomplete walk is a failure. Nothing is rolled back.
  bool standardizeOwnershipAtURL(const Path& root, const OwnershipStandard& standard,
                                 Error* error = nullptr);

  // --- Confined resolution ------------------------------------------------------------------

  // Where an untrusted path really leads, links resolved; absent, with one line in the log, when
  // the rule rejects it. What is no link must really lie inside the base, and need not exist. A
  // link is judged by its own text, not by where other links take it: with "a" -> "/etc" and "b" ->
  // "a/passwd" in the base, "b" is accepted and the result is "/etc/passwd". This confines nothing
  // unless it is asked about every link, as a walk that follows none meets them
  // (standardizeOwnershipAtURL does).
  // Looks at the disk at several moments: a change between them is not guarded against.
  std::optional<Path> realPathForURL(const Path& child, const Path& base);

  // --- Store metadata -----------------------------------------------------------------------

  // Carries the four store-metadata items, those that exist, from one directory into another.
  bool captureStoreDataFromDirectory(const Path& source, const Path& destination,
                                     StoreDataCapture how, Error* error = nullptr);

  // --- Attributes ---------------------------------------------------------------------------

  // Existence by lstat: a link exists whether or not its target does. An item whose existence
  // cannot be determined neither exists nor does not exist, and is logged.
  bool itemExistsAtURL(const Path& path);
  bool itemDoesNotExistAtURL(const Path& path);

  bool createSymbolicLinkAtURL(const Path& link, const Path& destination, Error* error = nullptr);
  // The target as it is written in the link; one of more than 1024 bytes is cut there.
  std::optional<Path> destinationOfSymbolicLinkAtURL(const Path& link, Error* error = nullptr);

  bool dataProtectionClassOfItemAtURL(const Path& path, std::int32_t* protectionClass,
                                      Error* error = nullptr);
  // With a predicate, only when it answers true for the current class; otherwise a success that
  // changes nothing.
  bool setDataProtectionClassOfItemAtURL(const Path& path, std::int32_t protectionClass,
                                         const std::function<bool(std::int32_t)>& ifPredicate,
                                         Error* error = nullptr);

  // Marks on a bundle directory, kept as extended attributes.
  bool markBundleAsPlaceholder(const Path& bundle, Error* error = nullptr);
  bool bundleAtURLIsPlaceholder(const Path& bundle);
  bool setInstallType(std::uint64_t installType, const Path& bundle, Error* error = nullptr);
  // 0 when none was set.
  std::optional<std::uint64_t> installTypeForBundle(const Path& bundle, Error* error = nullptr);

  // Not installed: what others cannot link.
  // --- Steps of the above ------------------------------------------------------------------

  bool _copyItemAtURL(const Path& source, const Path& destination, bool failIfSrcMissing,
                      Error* error);
  bool _moveItemAtURL(const Path& source, const Path& destination, bool failIfSrcMissing,
                      Error* error);
  // The answer of realPathForURL for a link that a walk from the base has met, however long its
  // path is.
  bool _linkStaysInside(const TreeWalkEntry& entry, const Path& base);
  // The path with links resolved; with missing trailing components only if allowed.
  std::optional<Path> _realPathForURL(const Path& path, bool allowNonExistentPathComponents);
  // The real path of the longest existing prefix, the root alone excepted, and the rest after it.
  std::optional<Path> _realPathWhatExistsInPath(const std::string& path);
  // Whether no prefix of the path climbs above where it starts: ".." counts -1, a name +1, "/"
  // and "." nothing. Writes the depth reached on success.
  bool _validateSymlink(const std::optional<std::string>& path, std::uint32_t startingDepth,
                        std::uint32_t* endingDepth);
  // Installed again.
};

}  // namespace quorvel
