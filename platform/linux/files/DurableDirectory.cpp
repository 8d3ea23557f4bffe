// Makes a directory and flushes the one that holds its name.
#include "platform/linux/files/DurableDirectory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>

#include "platform/Path.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::onlinux {
namespace {

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

bool MakeDurableDirectory(FileSystem& fileSystem, const std::string& directory, Error* error) {
  if (IsDirectory(directory)) return true;
  std::size_t end = 0;
  while (end != std::string::npos) {
    end = directory.find('/', end + 1);
    const std::string part = directory.substr(0, end);
    // What is there already may be of any kind: the next component, or the last look, tells.
    if (::mkdir(part.c_str(), 0755) != 0) {
      if (errno != EEXIST) return SetError(error, PosixFailure(errno, part));
      continue;
    }
    if (::chmod(part.c_str(), 0755) != 0) return SetError(error, PosixFailure(errno, part));
    // At once, from the top down: a name that is stored in a directory whose own name is not goes
    // with it.
    const std::string parent = ParentOf(part);
    if (fileSystem.SyncDirectory(parent.c_str()) != 0) {
      return SetError(error, PosixFailure(errno, parent));
    }
  }
  if (IsDirectory(directory)) return true;
  return SetError(error, PosixFailure(ENOTDIR, directory));
}

}  // namespace quorvel::onlinux
