// Tries the whole path first and walks up only where a parent is missing.
#include "platform/linux/files/DirectoryMaker.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Path.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {
namespace {

constexpr int kPin = O_PATH | O_DIRECTORY | O_CLOEXEC;

int Made(int directory, const char* name, mode_t mode, const ModeChanger& modes) {
  if (::mkdirat(directory, name, mode) != 0) return errno;
  // Mostly the umask takes nothing away.
  struct stat info;
  if (::fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode) &&
      (info.st_mode & 07777U) == mode) {
    return 0;
  }
  // Pinned as a directory: whoever may write here could have put another kind of item there.
  const UniqueDescriptor made(::openat(directory, name, kPin | O_NOFOLLOW));
  return made && modes.changePinned(made.get(), mode) == 0 ? 0 : errno;
}

// What EEXIST means for the last component.
int Existing(int directory, const char* name) {
  struct stat info;
  // A link to a directory counts as one, as it does in the middle of the path.
  if (::fstatat(directory, name, &info, 0) != 0) return errno;
  return S_ISDIR(info.st_mode) ? EEXIST : ENOTDIR;
}

// Goes into `name`, which is made when it is missing, as it mostly is.
int EnterOrMake(UniqueDescriptor* directory, const std::string& name, mode_t mode,
                const ModeChanger& modes) {
  const int number = Made(directory->get(), name.c_str(), mode, modes);
  // It is there already, or a link leads nowhere: the opening tells.
  if (number != 0 && number != EEXIST) return number;
  UniqueDescriptor next(::openat(directory->get(), name.c_str(), kPin));
  if (!next) return errno;
  *directory = std::move(next);
  return 0;
}

// Opens the deepest directory above the path's last component that is there, and takes its name off
// *rest. `isLong`: the path is longer than one call takes, so only its first component will do.
int OpenDeepest(std::string_view* rest, bool isLong, UniqueDescriptor* directory) {
  std::string_view above = *rest;
  do {
    const std::size_t slash = isLong ? std::string_view::npos : above.rfind('/');
    above = above.substr(0, slash == std::string_view::npos ? 0 : slash);
    while (above.ends_with('/')) above.remove_suffix(1);
    const char* start = rest->front() == '/' ? "/" : ".";
    directory->reset(::open(above.empty() ? start : std::string(above).c_str(), kPin));
  } while (!*directory && errno == ENOENT && !above.empty());
  rest->remove_prefix(above.size());
  return *directory ? 0 : errno;
}

// Where the parent only is missing, too: both by their whole names. ENOENT when that was not it.
int MadeWithParent(const std::string& path, mode_t mode, const ModeChanger& modes) {
  const int number = Made(AT_FDCWD, ParentOf(path).c_str(), mode, modes);
  if (number == 0) return Made(AT_FDCWD, path.c_str(), mode, modes);
  return number == EEXIST ? ENOENT : number;
}

}  // namespace

int MakeDirectories(const char* path, mode_t mode, const ModeChanger& modes) {
  if (path == nullptr) return EFAULT;
  std::string_view rest(path);
  if (rest.empty()) return ENOENT;
  while (rest.size() > 1 && rest.back() == '/') rest.remove_suffix(1);

  const std::string whole(rest);
  // Mostly only the last component is missing, or nothing.
  int number = Made(AT_FDCWD, whole.c_str(), mode, modes);
  if (number == EEXIST) return Existing(AT_FDCWD, whole.c_str());
  if (number == ENOENT) number = MadeWithParent(whole, mode, modes);
  if (number == EEXIST) return Existing(AT_FDCWD, whole.c_str());
  if (number != ENOENT && number != ENAMETOOLONG) return number;

  UniqueDescriptor directory;
  number = OpenDeepest(&rest, number == ENAMETOOLONG, &directory);
  if (number != 0) return number;
  for (;;) {
    rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
    const std::size_t length = std::min(rest.find('/'), rest.size());
    const std::string name(rest.substr(0, length));
    rest.remove_prefix(length);
    if (rest.empty()) {
      number = Made(directory.get(), name.c_str(), mode, modes);
      return number == EEXIST ? Existing(directory.get(), name.c_str()) : number;
    }
    number = EnterOrMake(&directory, name, mode, modes);
    if (number != 0) return number;
  }
}

}  // namespace quorvel::onlinux
