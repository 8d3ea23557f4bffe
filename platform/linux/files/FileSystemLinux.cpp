// Maps the interface to system calls and hands trees to those who walk them.
#include "platform/linux/files/FileSystemLinux.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/DeviceNames.h"
#include "platform/linux/files/DirectoryMaker.h"
#include "platform/linux/files/ItemPath.h"
#include "platform/linux/files/TreeCopier.h"
#include "platform/linux/files/TreeRemover.h"

namespace quorvel::onlinux {
namespace {

constexpr std::size_t kProtectionClassSize = 4;

int Fail(int number) {
  errno = number;
  return -1;
}

// 0 and -1 as POSIX has them, from an operation that gives an error number. Memory that runs out
// is a failure like any other.
template <typename Operation>
int Result(const Operation& operation) {
  int number;
  try {
    number = operation();
  } catch (const std::bad_alloc&) {
    number = ENOMEM;
  }
  return number == 0 ? 0 : Fail(number);
}

int OpenBoth(const char* source, const char* destination, ItemPath* from, ItemPath* to) {
  const int number = OpenItemPath(source, from);
  return number != 0 ? number : OpenItemPath(destination, to);
}

// The system's name of an attribute; absent when memory is out.
std::optional<std::string> AttributeName(const char* name) {
  try {
    return std::string("user.") + name;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

bool AcceptsOptions(std::uint32_t position, int options) {
  return position == 0 && (options == 0 || options == XATTR_NOFOLLOW);
}

// A descriptor of the file system that holds the item. Only directories and regular files are
// opened themselves: opening a device can do things, and links are not to be followed.
UniqueDescriptor OpenOnFileSystemOf(const ItemPath& item) {
  const int parent = item.parent.get();
  const char* name = item.name.c_str();
  struct stat info;
  if (::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return {};
  if (S_ISDIR(info.st_mode) || S_ISREG(info.st_mode)) {
    UniqueDescriptor own(::openat(parent, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (own) return own;
  }
  return UniqueDescriptor(::openat(parent, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

std::unique_ptr<WipeTreeState> FileSystemLinux::allocateWipeTreeState() {
  std::unique_ptr<WipeTreeState> state(new (std::nothrow) WipeTreeStateLinux);
  if (state == nullptr) errno = ENOMEM;
  return state;
}

int FileSystemLinux::RemoveTree(const char* path, unsigned flags, WipeTreeState& state) {
  // A state that another implementation made has none of what a removal needs.
  auto* own = dynamic_cast<WipeTreeStateLinux*>(&state);
  if (own == nullptr || (flags & ~WIPETREE_RECURSIVE) != 0) return Fail(EINVAL);
  return Result([&] {
    ItemPath item;
    const int number = OpenItemPath(path, &item);
    if (number != 0) return number;
    return TreeRemover(std::move(item), (flags & WIPETREE_RECURSIVE) != 0, *own).run();
  });
}

int FileSystemLinux::CopyTree(const char* source, const char* destination, std::uint32_t flags,
                              const LeftOutCallback& leftOut) {
  // Whoever asks for less than everything without following links is asking for another system's
  // copy.
  constexpr std::uint32_t kNeeded =
      CLONETREE_DATA_STAT_XATTR_ACL | CLONETREE_NOFOLLOW_SRC | CLONETREE_NOFOLLOW_DST;
  if ((flags & ~CLONETREE_RECURSIVE) != kNeeded) return Fail(EINVAL);
  return Result([&] {
    ItemPath from;
    ItemPath to;
    const int number = OpenBoth(source, destination, &from, &to);
    if (number != 0) return number;
    const bool recursive = (flags & CLONETREE_RECURSIVE) != 0;
    return TreeCopier(std::move(from), std::move(to), modes_, recursive, leftOut).run();
  });
}

int FileSystemLinux::MakePath(const char* path, mode_t mode) {
  try {
    return MakeDirectories(path, mode, modes_);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

int FileSystemLinux::GetProtectionClass(int descriptor) {
  unsigned char value[kProtectionClassSize];
  const ssize_t size = ::fgetxattr(descriptor, ProtectionClassAttributeName, value, sizeof value);
  // No class was ever set, or none can be: both are class 0.
  if (size < 0 && (errno == ENODATA || errno == ENOTSUP)) return 0;
  if (size < 0 && errno != ERANGE) return -1;
  if (size != ssize_t{kProtectionClassSize}) return Fail(EINVAL);
  // Byte by byte: the attribute is little-endian whatever this machine is.
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < sizeof value; ++i) {
    number |= static_cast<std::uint32_t>(value[i]) << (8 * i);
  }
  // A negative number would read as a failure without a reason.
  const int protectionClass = static_cast<int>(number);
  return protectionClass >= 0 ? protectionClass : Fail(EINVAL);
}

int FileSystemLinux::SetProtectionClass(int descriptor, int protectionClass) {
  if (protectionClass < 0) return Fail(EINVAL);
  unsigned char value[kProtectionClassSize];
  for (std::size_t i = 0; i < sizeof value; ++i) {
    value[i] = static_cast<unsigned char>(static_cast<unsigned>(protectionClass) >> (8 * i));
  }
  return ::fsetxattr(descriptor, ProtectionClassAttributeName, value, sizeof value, 0);
}

ssize_t FileSystemLinux::getxattr(const char* path, const char* name, void* value, std::size_t size,
                                  std::uint32_t position, int options) {
  if (!AcceptsOptions(position, options)) return Fail(EINVAL);
  // As the kernel would say; the name has to be read here before it can.
  if (path == nullptr || name == nullptr) return Fail(EFAULT);
  const std::optional<std::string> own = AttributeName(name);
  return own ? ::lgetxattr(path, own->c_str(), value, size) : Fail(ENOMEM);
}

int FileSystemLinux::setxattr(const char* path, const char* name, const void* value,
                              std::size_t size, std::uint32_t position, int options) {
  if (!AcceptsOptions(position, options)) return Fail(EINVAL);
  if (path == nullptr || name == nullptr) return Fail(EFAULT);
  const std::optional<std::string> own = AttributeName(name);
  return own ? ::lsetxattr(path, own->c_str(), value, size, 0) : Fail(ENOMEM);
}

int FileSystemLinux::lchmod(int directory, const char* name, mode_t mode) {
  return modes_.change(directory, name, mode);
}

int FileSystemLinux::SyncDirectory(const char* path) {
  // fsync of a directory stores the names in it.
  const UniqueDescriptor directory(::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return directory ? ::fsync(directory.get()) : -1;
}

int FileSystemLinux::SyncFileSystemOf(int descriptor) { return ::syncfs(descriptor); }

int FileSystemLinux::SyncFileSystem(const char* path) {
  return Result([&] {
    // Nearly always a directory; a slash at the end would have a link followed.
    const UniqueDescriptor directory(
        std::string_view(path).ends_with('/')
            ? -1
            : ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (directory) return ::syncfs(directory.get()) == 0 ? 0 : errno;
    ItemPath item;
    const int number = OpenItemPath(path, &item);
    // The root directory and paths that end in a dot name no link.
    const UniqueDescriptor descriptor =
        number == 0 ? OpenOnFileSystemOf(item)
                    : UniqueDescriptor(number == EINVAL || number == EBUSY
                                           ? ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                           : -1);
    if (!descriptor) return number == 0 || number == EINVAL || number == EBUSY ? errno : number;
    return ::syncfs(descriptor.get()) == 0 ? 0 : errno;
  });
}

}  // namespace quorvel::onlinux
