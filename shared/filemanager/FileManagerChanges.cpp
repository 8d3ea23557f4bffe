// Removal, directory creation and temporary directories.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <new>
#include <set>

#include "platform/UniqueDescriptor.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"
#include "shared/support/PathStrings.h"
#include "shared/support/Services.h"

namespace quorvel {

namespace {

constexpr const char* kRemove = "-[QVFileManager removeItemAtURL:error:]";
constexpr const char* kCreate =
    "-[QVFileManager createDirectoryAtURL:withIntermediateDirectories:mode:class:error:]";
constexpr const char* kTemporary = "-[QVFileManager createTemporaryDirectoryInDirectoryURL:error:]";
constexpr const char* kSync = "-[QVFileManager syncDirectoryAtURL:error:]";
constexpr const char* kSyncFileSystems = "-[QVFileManager syncFileSystemsOfItems:error:]";

// Hears of each item that cannot be removed. `context` is the call's slot for the first number.
int _wipetree_error_callback(WipeTreeState& state, const char* path, void* context) {
  constexpr const char* function = "_wipetree_error_callback";
  int number = 0;
  if (!state.getErrorNumber(&number)) {
    QV_LOG(LogLevelError, function,
           "wipetree hit error for %s but we failed to get the error number", path);
    // Counts like a vanished item: it must not hide a number that can be read.
    number = ENOENT;
  }
  if (number != ENOENT) {
    QV_LOG(LogLevelError, function, "wipetree hit error for %s : %s", path,
           ErrnoDescription(number));
  }
  int* slot = static_cast<int*>(context);
  // The first one is what the caller is told.
  if (slot != nullptr && *slot == 0) *slot = number;
  return WIPETREE_PROCEED;
}

// Tells the state whom to tell. Without it the removal still runs, only less is heard of it.
void PrepareWipe(WipeTreeState& state, int* slot) {
  if (!state.setErrorCallback(_wipetree_error_callback)) {
    QV_LOG(LogLevelError, kRemove, "wipetree_state_set WIPETREE_STATE_ERROR_CALLBACK failed: %s",
           ErrnoDescription(errno));
  }
  if (!state.setErrorContext(slot)) {
    QV_LOG(LogLevelError, kRemove, "wipetree_state_set WIPETREE_STATE_ERROR_CONTEXT failed: %s",
           ErrnoDescription(errno));
  }
}

bool FailRemoval(const Path& path, int number, Error* error) {
  return FailWithErrno(number, {kRemove, __LINE__}, error, "wipetree of %@ failed: %s", path);
}

bool ApplyProtectionClass(const Path& path, std::int32_t protectionClass, Error* error) {
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  // As opendir does: a link to a directory counts as that directory here.
  const UniqueDescriptor directory(
      ::open(representation.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    return FailWithErrno(errno, {kCreate, __LINE__}, error, "opendir of %@ failed: %s",
                         path.string());
  }
  if (!HasService(kFileSystem, kCreate, __LINE__, error)) return false;
  if (RequiredService(kFileSystem).SetProtectionClass(directory.get(), protectionClass) != 0) {
    return FailWithErrno(errno, {kCreate, __LINE__}, error,
                         "Failed to setclass(%d) on directory %@: %s", protectionClass,
                         path.string());
  }
  return true;
}

// The mode that was asked for, whatever the umask took of it. By descriptor where it can be had:
// the name may by now be somebody else's.
bool GiveMode(const char* made, mode_t mode) {
  const UniqueDescriptor directory(::open(made, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (directory) return ::fchmod(directory.get(), mode) == 0;
  return errno == EACCES && RequiredService(kFileSystem).lchmod(AT_FDCWD, made, mode) == 0;
}

// Parents that had to be made stay after a failure further down. mkdir takes the umask off the
// mode, hence the second call for a directory that is new; one that was there keeps its mode.
bool MakeDirectory(const Path& path, const DirectoryCreation& how, Error* error) {
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  if (how.withIntermediateDirectories) {
    if (!HasService(kFileSystem, kCreate, __LINE__, error)) return false;
    const int number = RequiredService(kFileSystem).MakePath(representation.c_str(), how.mode);
    // A directory that is there already was what was asked for.
    if (number == 0 || number == EEXIST) return true;
    return FailWithErrno(number, {kCreate, __LINE__}, error, "ensuredirs_np of %@ failed: %s",
                         path.string());
  }
  const bool made = ::mkdir(representation.c_str(), how.mode) == 0;
  if (!made && errno == EEXIST) return true;
  if (made && GiveMode(representation.c_str(), how.mode)) return true;
  return FailWithErrno(errno, {kCreate, __LINE__}, error, "mkdir of %@ failed: %s", path.string());
}

}  // namespace

QVFileManager& QVFileManager::defaultManager() {
  static QVFileManager manager;
  return manager;
}

// The tree's removal goes on past items that cannot be removed and tells of each by the callback:
// as much as can be is gone afterwards, and the first failure is the one that is told.
bool QVFileManager::removeItemAtURL(const Path& path, Error* error) try {
  if (!HasService(kFileSystem, kRemove, __LINE__, error)) return false;
  FileSystem& fileSystem = RequiredService(kFileSystem);
  const std::unique_ptr<WipeTreeState> state = fileSystem.allocateWipeTreeState();
  if (path.isAbsent()) {
    return SetError(error, _CreateError(kRemove, __LINE__, PosixErrorDomain, EFAULT,
                                        "nil url passed to -removeItemAtURL:error:"));
  }
  // Only now: an absent path is told as such in any case.
  if (!state) return FailRemoval(path, errno, error);
  int firstNumber = 0;
  PrepareWipe(*state, &firstNumber);
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  if (fileSystem.RemoveTree(representation.c_str(), WIPETREE_RECURSIVE, *state) != 0 &&
      errno != ENOENT) {
    return FailRemoval(path, errno, error);
  }
  // Items that vanished meanwhile are what was wanted.
  if (firstNumber == 0 || firstNumber == ENOENT) return true;
  return FailRemoval(path, firstNumber, error);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kRemove, __LINE__, error);
}

// A failure to set the class leaves the directory behind: it may have been there before.
bool QVFileManager::createDirectoryAtURL(const Path& path, const DirectoryCreation& how,
                                         Error* error) try {
  if (!MakeDirectory(path, how, error)) return false;
  return how.protectionClass == QVNoProtectionClass ||
         ApplyProtectionClass(path, how.protectionClass, error);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kCreate, __LINE__, error);
}

std::optional<Path> QVFileManager::createTemporaryDirectoryInDirectoryURL(const Path& parent,
                                                                          Error* error) try {
  // Callers look at the Error alone here.
  if (error != nullptr) *error = Error();
  const Path pattern = parent.childDirectory("temp.XXXXXX");
  // mkdtemp writes the name that it chose into the bytes, and makes the directory for its owner
  // alone.
  std::string name = BytesOfFileSystemRepresentation(pattern.string());
  if (::mkdtemp(name.data()) != nullptr) {
    return Path::directory(StringFromFileSystemRepresentation(name));
  }
  const int number = errno;
  SetError(error,
           _CreateAndLogError(
               {kTemporary, __LINE__}, QVInstallerErrorDomain, QVFileOperationFailed,
               {QVPosixCause(number), {{QVPathArgumentErrorKey, PlistValue(pattern.string())}}},
               "Failed to create temp dir at path %s", name.c_str()));
  return std::nullopt;
} catch (const std::bad_alloc&) {
  OutOfMemory(kTemporary, __LINE__, error);
  return std::nullopt;
}

bool QVFileManager::syncDirectoryAtURL(const Path& directory, Error* error) try {
  const FileSystemRepresentation representation = directory.fileSystemRepresentation();
  if (!HasService(kFileSystem, kSync, __LINE__, error)) return false;
  if (RequiredService(kFileSystem).SyncDirectory(representation.c_str()) == 0) return true;
  return FailWithErrno(errno, {kSync, __LINE__}, error, "sync of %@ failed: %s",
                       directory.string());
} catch (const std::bad_alloc&) {
  return OutOfMemory(kSync, __LINE__, error);
}

bool QVFileManager::syncFileSystemsOfItems(const std::vector<Path>& items, Error* error) try {
  if (!HasService(kFileSystem, kSyncFileSystems, __LINE__, error)) return false;
  std::set<dev_t> synced;
  for (const Path& item : items) {
    const FileSystemRepresentation representation = item.fileSystemRepresentation();
    struct stat info {};
    const bool known = ::lstat(representation.c_str(), &info) == 0;
    // One flush stores all of a file system.
    if (known && !synced.insert(info.st_dev).second) continue;
    if (known && RequiredService(kFileSystem).SyncFileSystem(representation.c_str()) == 0) continue;
    return FailWithErrno(errno, {kSyncFileSystems, __LINE__}, error, "sync of %@ failed: %s",
                         item.string());
  }
  return true;
} catch (const std::bad_alloc&) {
  return OutOfMemory(kSyncFileSystems, __LINE__, error);
}

}  // namespace quorvel
