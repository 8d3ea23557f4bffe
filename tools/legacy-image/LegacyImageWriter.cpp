// Writes items and sets their times last.
#include "tools/legacy-image/LegacyImageWriter.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "platform/Error.h"
#include "platform/WriteWhole.h"

namespace quorvel::tools {
namespace {

// 2014-05-13 16:53:20 UTC: the last days of the legacy layout.
constexpr std::int64_t kFirstTime = 1400000000;

}  // namespace

// Called at once after the failing call, while errno is its own.
bool LegacyImageWriter::fail(const std::string& path) {
  if (problem_.empty()) {
    problem_ = root_ + (path.empty() ? "" : "/") + path + ": " + ErrnoDescription(errno);
  }
  return false;
}

bool LegacyImageWriter::open(const std::string& directory) {
  root_ = directory;
  if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) return fail("");
  directory_ = UniqueDescriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory_) return fail("");
  std::error_code problem;
  if (!std::filesystem::is_empty(directory, problem) || problem) {
    problem_ = directory + ": is not an empty directory; name one that is new or empty";
    return false;
  }
  // The root itself is finished like the others.
  directories_.push_back({".", 0755, nextTime()});
  return true;
}

// The factor moves both the milliseconds and the last digit from one item to the next, so that a
// copy that keeps only the coarser part of a time shows.
timespec LegacyImageWriter::nextTime() {
  const std::int64_t item = items_++;
  timespec time = {};
  time.tv_sec = kFirstTime + item;
  time.tv_nsec = item * 1000003 % 1000000000;  // nanoseconds, to see that they survive
  return time;
}

void LegacyImageWriter::setTime(const std::string& path) {
  const timespec time = nextTime();
  const timespec both[] = {time, time};
  if (::utimensat(directory_.get(), path.c_str(), both, AT_SYMLINK_NOFOLLOW) != 0) fail(path);
}

void LegacyImageWriter::makeParents(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos) directory(path.substr(0, slash));
}

// Open for writing until finish(): an unprivileged user fills directories that end up read-only.
void LegacyImageWriter::directory(const std::string& path, mode_t mode) {
  // Parents are asked for once per item: looked up, not tried.
  if (!problem_.empty() || made_.contains(path)) return;
  makeParents(path);
  if (!problem_.empty()) return;
  if (::mkdirat(directory_.get(), path.c_str(), 0755) != 0) {
    fail(path);
    return;
  }
  made_.insert(path);
  directories_.push_back({path, mode, nextTime()});
}

void LegacyImageWriter::file(const std::string& path, std::string_view bytes, mode_t mode) {
  makeParents(path);
  if (!problem_.empty()) return;
  const UniqueDescriptor file(::openat(directory_.get(), path.c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  const timespec time = nextTime();
  const timespec both[] = {time, time};
  const bool done = file && WriteWhole(file.get(), bytes) == 0 && ::fchmod(file.get(), mode) == 0 &&
                    ::futimens(file.get(), both) == 0;
  if (!done) fail(path);
}

// The hole comes from seeking over it: writing only at the end allocates nothing before that.
void LegacyImageWriter::sparseFile(const std::string& path, std::uint64_t size,
                                   std::string_view tail) {
  makeParents(path);
  if (!problem_.empty()) return;
  const UniqueDescriptor file(::openat(directory_.get(), path.c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  const auto begin = static_cast<off_t>(size - tail.size());
  const bool done =
      file && ::lseek(file.get(), begin, SEEK_SET) == begin && WriteWhole(file.get(), tail) == 0;
  if (!done) fail(path);
  if (problem_.empty()) setTime(path);
}

void LegacyImageWriter::symbolicLink(const std::string& path, const std::string& target) {
  makeParents(path);
  if (!problem_.empty()) return;
  if (::symlinkat(target.c_str(), directory_.get(), path.c_str()) != 0) fail(path);
  if (problem_.empty()) setTime(path);
}

void LegacyImageWriter::hardLink(const std::string& path, const std::string& existing) {
  makeParents(path);
  if (!problem_.empty()) return;
  if (::linkat(directory_.get(), existing.c_str(), directory_.get(), path.c_str(), 0) != 0) {
    fail(path);
  }
}

void LegacyImageWriter::fifo(const std::string& path) {
  makeParents(path);
  if (!problem_.empty()) return;
  if (::mkfifoat(directory_.get(), path.c_str(), 0600) != 0) fail(path);
  if (problem_.empty()) setTime(path);
}

bool LegacyImageWriter::attribute(const std::string& path, const char* name,
                                  std::string_view value) {
  if (!problem_.empty()) return true;
  // The C library has no call for this that takes a directory and a name.
  const std::string whole = "/proc/self/fd/" + std::to_string(directory_.get()) + "/" + path;
  if (::lsetxattr(whole.c_str(), name, value.data(), value.size(), 0) == 0) return true;
  // EPERM: on links, pipes and devices users have no attributes.
  if (errno == ENOTSUP || errno == EPERM) return false;
  fail(path);
  return true;
}

bool LegacyImageWriter::finish() {
  // The last made first: a child's mode and time before its parent loses its permissions.
  for (auto at = directories_.rbegin(); at != directories_.rend() && problem_.empty(); ++at) {
    const timespec both[] = {at->time, at->time};
    const bool done = ::fchmodat(directory_.get(), at->path.c_str(), at->mode, 0) == 0 &&
                      ::utimensat(directory_.get(), at->path.c_str(), both, 0) == 0;
    if (!done) fail(at->path);
  }
  return problem_.empty();
}

}  // namespace quorvel::tools
