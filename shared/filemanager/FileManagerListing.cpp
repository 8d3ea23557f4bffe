// Directory listing.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "platform/UniqueDescriptor.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"

namespace quorvel {

namespace {

constexpr const char* kList =
    "-[QVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]";
constexpr const char* kListVisitor =
    "__69-[QVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]_block_invoke";

// One entry, as the directory reader delivers it.
struct DirectoryEntry {
  std::string_view name;   // bytes
  unsigned char type = 0;  // dirent type code
  int directory = -1;      // that it is in
};

// The type of an entry whose reader did not tell; DT_UNKNOWN when it cannot be learned.
unsigned char LookUpType(int directory, const char* name) {
  struct stat info {};
  if (::fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
  if (S_ISDIR(info.st_mode)) return DT_DIR;
  if (S_ISLNK(info.st_mode)) return DT_LNK;
  if (S_ISREG(info.st_mode)) return DT_REG;
  return DT_UNKNOWN;
}

// Hands each entry to the visitor until it answers false. Returns 0 or an error number.
template <class Visitor>
int _IterateDirectory(const char* path, Visitor&& visitor) {
  UniqueDescriptor descriptor(::open(path, O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor) return errno;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(descriptor.get()), ::closedir);
  if (!stream) return errno;
  const int directory = descriptor.release();  // closed with the stream
  while (true) {
    errno = 0;
    // The stream is private to this call, which is what makes readdir safe.
    const dirent* entry = ::readdir(stream.get());  // NOLINT(concurrency-mt-unsafe)
    if (entry == nullptr) return errno;
    DirectoryEntry delivered{entry->d_name, entry->d_type, directory};
    if (delivered.type == DT_UNKNOWN) delivered.type = LookUpType(directory, entry->d_name);
    if (!visitor(delivered)) return 0;
  }
}

// A directory's size tells roughly how many entries it has; without a reserve a large list is moved
// again and again while it grows. It is asked only once the directory has shown to be large; where
// it means something else, at most a list of the greatest directories is reserved.
constexpr std::size_t kEntriesBeforeReserve = 4096;
constexpr std::size_t kMostReserved = std::size_t{1} << 20U;
constexpr std::size_t kLeastBytesOfAnEntry = 20;  // on tmpfs of each entry

void ReserveFor(int directory, std::vector<Path>& items) {
  struct stat info {};
  if (::fstat(directory, &info) != 0) return;
  const auto expected = static_cast<std::size_t>(info.st_size) / kLeastBytesOfAnEntry;
  if (expected <= items.size()) return;
  try {
    items.reserve(std::min(expected, kMostReserved));
  } catch (const std::bad_alloc&) {  // the list may turn out to be short
    return;
  }
}

}  // namespace

// In the order of the directory: sorting would cost more than reading, and no caller needs it. What
// vanishes meanwhile is listed or not; an entry whose type cannot be learnt is listed as a file.
std::optional<std::vector<Path>> QVFileManager::urlsForItemsInDirectoryAtURL(const Path& directory,
                                                                             bool ignoringSymlinks,
                                                                             Error* error) try {
  std::vector<Path> items;
  const FileSystemRepresentation representation = directory.fileSystemRepresentation();
  const auto visitor = [&](const DirectoryEntry& entry) {
    if (entry.name == "." || entry.name == "..") return true;
    if (entry.type == DT_LNK && ignoringSymlinks) {
      QV_LOG(LogLevelNotice, kListVisitor, "Ignoring symlink at %s/%s", representation, entry.name);
      return true;
    }
    if (items.size() == kEntriesBeforeReserve) ReserveFor(entry.directory, items);
    const auto kind = entry.type == DT_DIR ? Path::Kind::directory : Path::Kind::file;
    items.push_back(
        AreTheirOwnText(entry.name)
            ? directory.appending(entry.name, kind)
            : directory.appending(StringFromFileSystemRepresentation(entry.name), kind));
    return true;
  };
  const int number = _IterateDirectory(representation.c_str(), visitor);
  if (number == 0) return items;
  FailWithErrno(number, {kList, __LINE__}, error, "_IterateDirectory for %s returned %s",
                representation);
  return std::nullopt;
} catch (const std::bad_alloc&) {
  OutOfMemory(kList, __LINE__, error);
  return std::nullopt;
}

}  // namespace quorvel
