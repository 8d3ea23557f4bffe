// Tests and settings of one property of one item.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/DeviceNames.h"
#include "platform/UniqueDescriptor.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"
#include "shared/support/PathStrings.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

constexpr const char* kExists = "-[QVFileManager itemExistsAtURL:]";
constexpr const char* kNotExists = "-[QVFileManager itemDoesNotExistAtURL:]";
constexpr const char* kCreateLink =
    "-[QVFileManager createSymbolicLinkAtURL:withDestinationURL:error:]";
constexpr const char* kReadLink = "-[QVFileManager destinationOfSymbolicLinkAtURL:error:]";
constexpr const char* kGetClass = "-[QVFileManager dataProtectionClassOfItemAtURL:class:error:]";
constexpr const char* kSetClass =
    "-[QVFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]";
constexpr const char* kMark = "-[QVFileManager markBundleAsPlaceholder:withError:]";
constexpr const char* kSetType = "-[QVFileManager setInstallType:onBundle:error:]";
constexpr const char* kGetType = "-[QVFileManager installTypeForBundle:error:]";

// Both marks are stored in the order of this processor's bytes.
static_assert(std::endian::native == std::endian::little);

// 0 when the item exists, else lstat's error number; one that says neither is logged.
int LookUp(const Path& path, const char* function) {
  struct stat info {};
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  if (::lstat(representation.c_str(), &info) == 0) return 0;
  const int number = errno;
  if (number != ENOENT) {
    QV_LOG(LogLevelError, function, "Failed to determine if %@ exists: %s", path,
           ErrnoDescription(number));
  }
  return number;
}

UniqueDescriptor OpenForClass(const FileSystemRepresentation& path, const char* function,
                              Error* error) {
  // Not blocking: the item may be a pipe without a writer.
  UniqueDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!descriptor) {
    const int number = errno;
    SetError(error, _CreateError(function, __LINE__, PosixErrorDomain, number,
                                 "Failed to open %s : %s", path, ErrnoDescription(number)));
  }
  return descriptor;
}

bool ReadClass(const UniqueDescriptor& descriptor, const FileSystemRepresentation& path,
               const char* function, std::int32_t* protectionClass, Error* error) {
  *protectionClass = QVPlatform().fileSystem->GetProtectionClass(descriptor.get());
  if (*protectionClass >= 0) return true;
  const int number = errno;
  return SetError(
      error, _CreateError(function, __LINE__, PosixErrorDomain, number,
                          "Failed to getclass of file %s: %s", path, ErrnoDescription(number)));
}

}  // namespace

bool QVFileManager::itemExistsAtURL(const Path& path) try {
  return LookUp(path, kExists) == 0;
} catch (const std::bad_alloc&) {
  return false;
}

bool QVFileManager::itemDoesNotExistAtURL(const Path& path) try {
  return LookUp(path, kNotExists) == ENOENT;
} catch (const std::bad_alloc&) {
  return false;
}

bool QVFileManager::createSymbolicLinkAtURL(const Path& link, const Path& destination,
                                            Error* error) try {
  const FileSystemRepresentation target = destination.fileSystemRepresentation();
  const FileSystemRepresentation at = link.fileSystemRepresentation();
  if (::symlink(target.c_str(), at.c_str()) == 0) return true;
  const int number = errno;
  return SetError(error, _CreateError(kCreateLink, __LINE__, PosixErrorDomain, number,
                                      "Could not create symlink containing %s at %s: %s", target,
                                      at, ErrnoDescription(number)));
} catch (const std::bad_alloc&) {
  return OutOfMemory(kCreateLink, __LINE__, error);
}

std::optional<Path> QVFileManager::destinationOfSymbolicLinkAtURL(const Path& link,
                                                                  Error* error) try {
  char buffer[1024 + 1];  // a target of up to 1024 bytes is read whole
  const FileSystemRepresentation at = link.fileSystemRepresentation();
  const ssize_t length = ::readlink(at.c_str(), buffer, sizeof buffer - 1);
  if (length >= 0) {
    return Path::linkText(QuorvelAdditions::stringWithFileSystemRepresentation(
        buffer, static_cast<std::size_t>(length)));
  }
  const int number = errno;
  SetError(error, _CreateError(kReadLink, __LINE__, PosixErrorDomain, number,
                               "Could not readlink %s : %s", at, ErrnoDescription(number)));
  return std::nullopt;
} catch (const std::bad_alloc&) {
  OutOfMemory(kReadLink, __LINE__, error);
  return std::nullopt;
}

bool QVFileManager::dataProtectionClassOfItemAtURL(const Path& path, std::int32_t* protectionClass,
                                                   Error* error) try {
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  const UniqueDescriptor descriptor = OpenForClass(representation, kGetClass, error);
  if (!descriptor) return false;
  std::int32_t current = 0;
  if (!ReadClass(descriptor, representation, kGetClass, &current, error)) return false;
  *protectionClass = current;
  return true;
} catch (const std::bad_alloc&) {
  return OutOfMemory(kGetClass, __LINE__, error);
}

bool QVFileManager::setDataProtectionClassOfItemAtURL(
    const Path& path, std::int32_t protectionClass,
    const std::function<bool(std::int32_t)>& ifPredicate, Error* error) try {
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  const UniqueDescriptor descriptor = OpenForClass(representation, kSetClass, error);
  if (!descriptor) return false;
  if (ifPredicate) {
    std::int32_t current = 0;
    if (!ReadClass(descriptor, representation, kSetClass, &current, error)) return false;
    if (!ifPredicate(current)) return true;
  }
  if (QVPlatform().fileSystem->SetProtectionClass(descriptor.get(), protectionClass) == 0) {
    return true;
  }
  const int number = errno;
  return SetError(error, _CreateError(kSetClass, __LINE__, PosixErrorDomain, number,
                                      "Failed to setclass(%d) on file %s: %s", protectionClass,
                                      representation, ErrnoDescription(number)));
} catch (const std::bad_alloc&) {
  return OutOfMemory(kSetClass, __LINE__, error);
}

bool QVFileManager::markBundleAsPlaceholder(const Path& bundle, Error* error) try {
  const std::uint32_t value = 1;
  const FileSystemRepresentation path = bundle.fileSystemRepresentation();
  if (QVPlatform().fileSystem->setxattr(path.c_str(), PlaceholderAttributeName, &value,
                                        sizeof value, 0, XATTR_NOFOLLOW) == 0) {
    return true;
  }
  const int number = errno;
  return SetError(
      error, _CreateAndLogError({kMark, __LINE__}, QVInstallerErrorDomain, QVFileOperationFailed,
                                {QVPosixCause(number)}, "Could't set placeholder EA on \"%s\": %s",
                                path, ErrnoDescription(number)));
} catch (const std::bad_alloc&) {
  return OutOfMemory(kMark, __LINE__, error);
}

bool QVFileManager::bundleAtURLIsPlaceholder(const Path& bundle) try {
  std::uint32_t value = 0;
  const FileSystemRepresentation path = bundle.fileSystemRepresentation();
  return QVPlatform().fileSystem->getxattr(path.c_str(), PlaceholderAttributeName, &value,
                                           sizeof value, 0, XATTR_NOFOLLOW) == sizeof value;
} catch (const std::bad_alloc&) {
  return false;
}

bool QVFileManager::setInstallType(std::uint64_t installType, const Path& bundle,
                                   Error* error) try {
  const FileSystemRepresentation path = bundle.fileSystemRepresentation();
  if (QVPlatform().fileSystem->setxattr(path.c_str(), InstallTypeAttributeName, &installType,
                                        sizeof installType, 0, XATTR_NOFOLLOW) == 0) {
    return true;
  }
  const int number = errno;
  return SetError(
      error, _CreateAndLogError({kSetType, __LINE__}, QVInstallerErrorDomain, QVFileOperationFailed,
                                {QVPosixCause(number)}, "Could't set installType EA on \"%s\": %s",
                                path, ErrnoDescription(number)));
} catch (const std::bad_alloc&) {
  return OutOfMemory(kSetType, __LINE__, error);
}

std::optional<std::uint64_t> QVFileManager::installTypeForBundle(const Path& bundle,
                                                                 Error* error) try {
  std::uint64_t value = 0;
  const FileSystemRepresentation path = bundle.fileSystemRepresentation();
  const ssize_t size = QVPlatform().fileSystem->getxattr(path.c_str(), InstallTypeAttributeName,
                                                         &value, sizeof value, 0, XATTR_NOFOLLOW);
  if (size == sizeof value) return value;
  if (size < 0) {
    const int number = errno;
    if (number == ENODATA) return 0;
    SetError(error, _CreateAndLogError({kGetType, __LINE__}, QVInstallerErrorDomain,
                                       QVFileOperationFailed, {QVPosixCause(number)},
                                       "Couldn't get installType EA from \"%s\": %s", path,
                                       ErrnoDescription(number)));
  } else {
    SetError(error,
             _CreateAndLogError({kGetType, __LINE__}, QVInstallerErrorDomain, QVFileOperationFailed,
                                {}, "getxattr for installType EA on %s returned %zd (expected %zu)",
                                path, size, sizeof value));
  }
  return std::nullopt;
} catch (const std::bad_alloc&) {
  OutOfMemory(kGetType, __LINE__, error);
  return std::nullopt;
}

}  // namespace quorvel
