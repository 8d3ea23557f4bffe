// Uses fchmodat2 where the kernel has it, and a pinned descriptor where not.
#include "platform/linux/files/ModeChanger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

namespace quorvel::onlinux {
namespace {

// The same number on every architecture; the C library of today may not know it yet.
constexpr long kFchmodat2 = 452;

int Fchmodat2(int directory, const char* name, mode_t mode, int flags) {
  return static_cast<int>(::syscall(kFchmodat2, directory, name, mode, flags));
}

// Kernels before 6.6 do not have the call, some system-call filters refuse what they do not know.
bool MayBeUnknownCall() { return errno == ENOSYS || errno == EPERM; }

}  // namespace

ModeChanger::ModeChanger()
    : procDescriptors_(::open("/proc/self/fd", O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

int ModeChanger::change(int directory, const char* name, mode_t mode) const {
  if (Fchmodat2(directory, name, mode, AT_SYMLINK_NOFOLLOW) == 0) return 0;
  if (!MayBeUnknownCall()) return -1;
  const int refusal = errno;
  const UniqueDescriptor item(::openat(directory, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  return item ? changeThroughProc(item.get(), mode, refusal) : -1;
}

int ModeChanger::changePinned(int descriptor, mode_t mode) const {
  if (Fchmodat2(descriptor, "", mode, AT_EMPTY_PATH) == 0) return 0;
  return MayBeUnknownCall() ? changeThroughProc(descriptor, mode, errno) : -1;
}

int ModeChanger::changeThroughProc(int descriptor, mode_t mode, int refusal) const {
  struct stat item;
  if (::fstat(descriptor, &item) != 0) return -1;
  if (S_ISLNK(item.st_mode)) {
    errno = EOPNOTSUPP;
    return -1;
  }
  char name[16] = {};
  std::to_chars(name, name + sizeof name - 1, descriptor);
  // After a fork the directory still shows the parent's descriptors: see that it is this item.
  struct stat seen;
  if (::fstatat(procDescriptors_.get(), name, &seen, 0) != 0 || seen.st_dev != item.st_dev ||
      seen.st_ino != item.st_ino) {
    // No second way: then a missing privilege is what it says it is.
    errno = refusal == EPERM ? EPERM : EBADF;
    return -1;
  }
  return ::fchmodat(procDescriptors_.get(), name, mode, 0);
}

}  // namespace quorvel::onlinux
