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
#include "shared/support/Services.h"

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
  // Absence is an answer; anything else leaves the caller without one.
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
    FailWithErrno(errno, {function, __LINE__}, error, "Failed to open %s : %s", path);
  }
  return descriptor;
}

bool ReadClass(const UniqueDescriptor& descriptor, const FileSystemRepresentation& path,
               const char* function, std::int32_t* protectionClass, Error* error) {
  if (!HasService(kFileSystem, function, __LINE__, error)) return false;
  *protectionClass = RequiredService(kFileSystem).GetProtectionClass(descriptor.get());
  if (*protectionClass >= 0) return true;
  return FailWithErrno(errno, {function, __LINE__}, error, "Failed to getclass of file %s: %s",
                       path);
}

// A failed operation on a bundle's attribute is logged, too.
bool FailAttribute(int number, ErrorSite site, Error* error,
                   FormatString<FileSystemRepresentation, std::string> format,
                   const FileSystemRepresentation& path) {
  return SetError(
      error, _CreateAndLogError(site, QVInstallerErrorDomain, QVFileOperationFailed,
                                {QVPosixCause(number)}, format, path, ErrnoDescription(number)));
}

}  // namespace

// Neither this nor its opposite is true of an item that cannot be looked at: whoever acts on
// absence asks for absence.
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
  return FailWithErrno(errno, {kCreateLink, __LINE__}, error,
                       "Could not create symlink containing %s at %s: %s", target, at);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kCreateLink, __LINE__, error);
}

// The text as it is stored, a final slash included: it is compared and written elsewhere.
std::optional<Path> QVFileManager::destinationOfSymbolicLinkAtURL(const Path& link,
                                                                  Error* error) try {
  char buffer[1024 + 1];  // a target of up to 1024 bytes is read whole
  const FileSystemRepresentation at = link.fileSystemRepresentation();
  const ssize_t length = ::readlink(at.c_str(), buffer, sizeof buffer - 1);
  if (length >= 0) {
    return Path::linkText(QuorvelAdditions::stringWithFileSystemRepresentation(
        buffer, static_cast<std::size_t>(length)));
  }
  FailWithErrno(errno, {kReadLink, __LINE__}, error, "Could not readlink %s : %s", at);
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
  // Through a variable of its own: on failure the caller's number stays as it was.
  if (!ReadClass(descriptor, representation, kGetClass, &current, error)) return false;
  *protectionClass = current;
  return true;
} catch (const std::bad_alloc&) {
  return OutOfMemory(kGetClass, __LINE__, error);
}

// Class and question refer to one opened item, which cannot be exchanged in between.
bool QVFileManager::setDataProtectionClassOfItemAtURL(
    const Path& path, std::int32_t protectionClass,
    const std::function<bool(std::int32_t)>& ifPredicate, Error* error) try {
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  const UniqueDescriptor descriptor = OpenForClass(representation, kSetClass, error);
  if (!descriptor) return false;
  if (ifPredicate) {
    std::int32_t current = 0;
    if (!ReadClass(descriptor, representation, kSetClass, &current, error)) return false;
    // The caller does not want it changed, which is no failure.
    if (!ifPredicate(current)) return true;
  }
  if (!HasService(kFileSystem, kSetClass, __LINE__, error)) return false;
  if (RequiredService(kFileSystem).SetProtectionClass(descriptor.get(), protectionClass) == 0) {
    return true;
  }
  return FailWithErrno(errno, {kSetClass, __LINE__}, error, "Failed to setclass(%d) on file %s: %s",
                       protectionClass, representation);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kSetClass, __LINE__, error);
}

// On the directory itself, never on what a link of that name leads to.
bool QVFileManager::markBundleAsPlaceholder(const Path& bundle, Error* error) try {
  if (!HasService(kFileSystem, kMark, __LINE__, error)) return false;
  const std::uint32_t value = 1;
  const FileSystemRepresentation path = bundle.fileSystemRepresentation();
  if (RequiredService(kFileSystem)
          .setxattr(path.c_str(), PlaceholderAttributeName, &value, sizeof value, 0,
                    XATTR_NOFOLLOW) == 0) {
    return true;
  }
  return FailAttribute(errno, {kMark, __LINE__}, error, "Could't set placeholder EA on \"%s\": %s",
                       path);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kMark, __LINE__, error);
}

// Whatever goes wrong the answer is no: a bundle taken for a placeholder is not installed.
bool QVFileManager::bundleAtURLIsPlaceholder(const Path& bundle) try {
  std::uint32_t value = 0;
  const FileSystemRepresentation path = bundle.fileSystemRepresentation();
  return RequiredService(kFileSystem)
             .getxattr(path.c_str(), PlaceholderAttributeName, &value, sizeof value, 0,
                       XATTR_NOFOLLOW) == sizeof value;
} catch (const std::bad_alloc&) {
  return false;
}

bool QVFileManager::setInstallType(std::uint64_t installType, const Path& bundle,
                                   Error* error) try {
  if (!HasService(kFileSystem, kSetType, __LINE__, error)) return false;
  const FileSystemRepresentation path = bundle.fileSystemRepresentation();
  if (RequiredService(kFileSystem)
          .setxattr(path.c_str(), InstallTypeAttributeName, &installType, sizeof installType, 0,
                    XATTR_NOFOLLOW) == 0) {
    return true;
  }
  return FailAttribute(errno, {kSetType, __LINE__}, error,
                       "Could't set installType EA on \"%s\": %s", path);
} catch (const std::bad_alloc&) {
  return OutOfMemory(kSetType, __LINE__, error);
}

// An absent attribute is type 0, and no failure.
std::optional<std::uint64_t> QVFileManager::installTypeForBundle(const Path& bundle,
                                                                 Error* error) try {
  if (!HasService(kFileSystem, kGetType, __LINE__, error)) return std::nullopt;
  std::uint64_t value = 0;
  const FileSystemRepresentation path = bundle.fileSystemRepresentation();
  const ssize_t size = RequiredService(kFileSystem)
                           .getxattr(path.c_str(), InstallTypeAttributeName, &value, sizeof value,
                                     0, XATTR_NOFOLLOW);
  if (size == sizeof value) return value;
  if (size < 0) {
    // A bundle that nobody ever marked.
    if (errno == ENODATA) return 0;
    FailAttribute(errno, {kGetType, __LINE__}, error, "Couldn't get installType EA from \"%s\": %s",
                  path);
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
