// Reads names without changing the directory's access time.
#include "host/DirectoryListing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

namespace {

constexpr int DirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

int OpenDirectory(const Path& directory) {
  const auto name = directory.fileSystemRepresentation();
  const int quiet = ::open(name.c_str(), DirectoryFlags | O_NOATIME);
  // Only an owner may ask for that.
  return quiet >= 0 || errno != EPERM ? quiet : ::open(name.c_str(), DirectoryFlags);
}

struct CloseDirectory {
  void operator()(DIR* stream) const { ::closedir(stream); }
};

}  // namespace

int ListDirectory(const Path& directory, std::vector<std::string>& names) {
  UniqueDescriptor descriptor(OpenDirectory(directory));
  if (!descriptor) return errno;
  const std::unique_ptr<DIR, CloseDirectory> stream(::fdopendir(descriptor.get()));
  if (stream == nullptr) return errno;
  (void)descriptor.release();
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());  // NOLINT(concurrency-mt-unsafe): own stream
    if (entry == nullptr) return errno;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.push_back(StringFromFileSystemRepresentation(name));
  }
}

unsigned ItemType(const Path& item) {
  struct stat info {};
  return ::lstat(item.fileSystemRepresentation().c_str(), &info) == 0 ? info.st_mode & S_IFMT : 0;
}

}  // namespace quorvel::host
