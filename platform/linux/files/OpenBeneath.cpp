// Walks links by descriptors: works on every kernel, and the rare link is worth no special call.
#include "platform/linux/files/OpenBeneath.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvel::onlinux {

namespace {

constexpr int kMostLinks = 40;  // as many as the kernel follows

class Walk {
 public:
  Walk(int directory, std::string name) : directory_(directory) {
    ahead_.push_back(std::move(name));
  }

  // The file; none with errno.
  UniqueDescriptor run() {
    while (!ahead_.empty()) {
      const std::string part = std::move(ahead_.back());
      ahead_.pop_back();
      if (part.empty() || part == ".") continue;
      if (part == "..") {
        if (entered_.empty()) return failed(EXDEV);
        entered_.pop_back();
        continue;
      }
      UniqueDescriptor opened = open(part);
      if (opened && ahead_.empty()) return opened;
      if (opened) {
        entered_.push_back(std::move(opened));
      } else if (const int failure = follow(part, errno)) {
        return failed(failure);
      }
    }
    return failed(EISDIR);
  }

 private:
  int here() const { return entered_.empty() ? directory_ : entered_.back().get(); }

  // Not blocking: a FIFO without a writer would hold up the opening for ever.
  UniqueDescriptor open(const std::string& part) const {
    const int flags =
        O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | (ahead_.empty() ? 0 : O_DIRECTORY);
    for (;;) {
      UniqueDescriptor file(::openat(here(), part.c_str(), flags));
      if (file || errno != EINTR) return file;
    }
  }

  // Puts a link's parts ahead. When it was no link why opening failed: that failure.
  int follow(const std::string& part, int failure) {
    if (failure != ELOOP && failure != ENOTDIR) return failure;
    char target[PATH_MAX];
    const ssize_t length = ::readlinkat(here(), part.c_str(), target, sizeof target);
    if (length < 0) return errno == EINVAL ? failure : errno;
    if (++links_ > kMostLinks || length == static_cast<ssize_t>(sizeof target)) return ELOOP;
    std::string_view rest(target, static_cast<std::size_t>(length));
    if (rest.starts_with('/')) return EXDEV;
    // From the end, as the first part is to be taken first.
    while (!rest.empty()) {
      const std::size_t slash = rest.rfind('/');
      const std::size_t begin = slash == rest.npos ? 0 : slash + 1;
      ahead_.emplace_back(rest.substr(begin));
      rest = rest.substr(0, slash == rest.npos ? 0 : slash);
    }
    return 0;
  }

  // Behind a link nothing is said about the name that was asked for.
  UniqueDescriptor failed(int failure) const {
    const bool absent = failure == ENOENT || failure == ENOTDIR;
    errno = absent && links_ > 0 ? ELOOP : failure;
    return UniqueDescriptor();
  }

  const int directory_;
  std::vector<std::string> ahead_;         // the next part last
  std::vector<UniqueDescriptor> entered_;  // beneath directory_, the innermost last
  int links_ = 0;
};

}  // namespace

UniqueDescriptor OpenBeneath(int directory, const std::string& name) {
  return Walk(directory, name).run();
}

}  // namespace quorvel::onlinux
