// Asks the kernel for a confined resolution, or walks component by component.
#include "platform/linux/files/ReachBeneath.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "platform/Uninterrupted.h"

namespace quorvel::onlinux {
namespace {

constexpr int kMostLinks = 40;  // as the kernel
// The kernel gives up, to be asked again, when something moves while it looks at "..".
constexpr int kMostAttempts = 64;
constexpr int kPinAny = O_PATH | O_CLOEXEC;
// Not blocking: a FIFO without a writer would hold up the opening for ever.
constexpr int kRead = O_RDONLY | O_NONBLOCK | O_CLOEXEC;

// What is left of the way, the next component last.
using Components = std::vector<std::string>;

void Prepend(std::string_view path, Components& rest) {
  // A slash at the end asks for a directory.
  if (path.ends_with('/')) rest.emplace_back(".");
  while (!path.empty()) {
    const std::size_t slash = path.rfind('/');
    const std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
    if (begin < path.size()) rest.emplace_back(path.substr(begin));
    path = path.substr(0, slash == std::string_view::npos ? 0 : slash);
  }
}

int ReadLinkAt(int link, std::string* text) {
  char buffer[PATH_MAX + 1];
  const ssize_t length = ::readlinkat(link, "", buffer, sizeof buffer);
  if (length < 0) return errno;
  text->assign(buffer, static_cast<std::size_t>(length));
  return 0;
}

UniqueDescriptor OpenAt(int directory, const char* name, int flags) {
  return UniqueDescriptor(Uninterrupted([&] { return ::openat(directory, name, flags); }));
}

// Component by component: `flags` are for the last, which the walk opens when it is no link.
class Walk {
 public:
  Walk(std::string_view relative, int flags) : flags_(flags) { Prepend(relative, rest_); }

  int run(int base, UniqueDescriptor* item) {
    way_.push_back(OpenAt(base, ".", flags_ | O_DIRECTORY));
    if (!way_.back()) return errno;
    while (!rest_.empty()) {
      const std::string name = std::move(rest_.back());
      rest_.pop_back();
      const int number = step(name);
      if (number != 0) return number;
    }
    *item = std::move(way_.back());
    return 0;
  }

 private:
  int step(const std::string& name) {
    struct stat here;
    if (::fstat(way_.back().get(), &here) != 0) return errno;
    if (!S_ISDIR(here.st_mode)) return ENOTDIR;
    if (name == ".") return 0;
    if (name == "..") {
      if (way_.size() == 1) return EXDEV;
      // Back on the way that was come, never by opening "..": a directory that was moved meanwhile
      // has another one above it.
      way_.pop_back();
      return 0;
    }
    UniqueDescriptor next = OpenAt(way_.back().get(), name.c_str(), kPinAny | O_NOFOLLOW);
    struct stat info;
    if (!next || ::fstat(next.get(), &info) != 0) return errno;
    if (S_ISLNK(info.st_mode)) return follow(next.get());
    // A pin cannot be read from. By the time of this second opening the name may lead to something
    // else, but not through a link.
    if (rest_.empty() && flags_ != kPinAny) {
      next = OpenAt(way_.back().get(), name.c_str(), flags_ | O_NOFOLLOW);
      if (!next) return errno;
    }
    way_.push_back(std::move(next));
    return 0;
  }

  int follow(int link) {
    std::string text;
    const int number = ReadLinkAt(link, &text);
    if (number != 0) return number;
    if (++links_ > kMostLinks) return ELOOP;
    if (text.starts_with('/')) return EXDEV;
    Prepend(text, rest_);
    return 0;
  }

  const int flags_;
  Components rest_;
  // The way from the base down to where the walk is: going up is going back on it.
  std::vector<UniqueDescriptor> way_;
  int links_ = 0;
};

int WalkWith(int flags, int base, std::string_view relative, UniqueDescriptor* item) {
  return relative.starts_with('/') ? EXDEV : Walk(relative, flags).run(base, item);
}

int ReachWith(int flags, int base, std::string_view relative, UniqueDescriptor* item) {
  const std::string path(relative.empty() ? "." : relative);
  open_how how{};
  how.flags = static_cast<unsigned>(flags);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    const long opened = ::syscall(SYS_openat2, base, path.c_str(), &how, sizeof how);
    if (opened >= 0) {
      item->reset(static_cast<int>(opened));
      return 0;
    }
    // Early kernels do not know the question, and some filters refuse it.
    if (errno == ENOSYS || errno == EPERM) return WalkWith(flags, base, relative, item);
    if (errno != EAGAIN && errno != EINTR) return errno;
  }
  return EAGAIN;
}

}  // namespace

int ReachBeneath(int base, std::string_view relative, UniqueDescriptor* item) {
  return ReachWith(kPinAny, base, relative, item);
}

int WalkBeneath(int base, std::string_view relative, UniqueDescriptor* item) {
  return WalkWith(kPinAny, base, relative, item);
}

UniqueDescriptor OpenWithoutLinks(const char* path) {
  open_how how{};
  how.flags = static_cast<unsigned>(kRead | O_NOFOLLOW);
  how.resolve = RESOLVE_NO_SYMLINKS;
  return UniqueDescriptor(
      static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how)));
}

UniqueDescriptor OpenBeneath(int directory, const std::string& name) {
  // Nearly always no link, and then one call.
  UniqueDescriptor file = OpenAt(directory, name.c_str(), kRead | O_NOFOLLOW);
  if (file || errno != ELOOP) return file;
  const int number = ReachWith(kRead, directory, name, &file);
  // Behind a link nothing is said about the name that was asked for.
  if (number != 0) errno = number == ENOENT || number == ENOTDIR ? ELOOP : number;
  return file;
}

}  // namespace quorvel::onlinux
