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

namespace quorvel::onlinux {
namespace {

constexpr int kMostLinks = 40;  // as the kernel
// The kernel gives up, to be asked again, when something moves while it looks at "..".
constexpr int kMostAttempts = 64;
constexpr int kPin = O_PATH | O_NOFOLLOW | O_CLOEXEC;

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

}  // namespace

int ReachBeneath(int base, std::string_view relative, UniqueDescriptor* item) {
  const std::string path(relative.empty() ? "." : relative);
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    const long opened = ::syscall(SYS_openat2, base, path.c_str(), &how, sizeof how);
    if (opened >= 0) {
      item->reset(static_cast<int>(opened));
      return 0;
    }
    if (errno == ENOSYS || errno == EPERM) return WalkBeneath(base, relative, item);
    if (errno != EAGAIN && errno != EINTR) return errno;
  }
  return EAGAIN;
}

int WalkBeneath(int base, std::string_view relative, UniqueDescriptor* item) {
  if (relative.starts_with('/')) return EXDEV;
  Components rest;
  Prepend(relative, rest);
  // The way from the base down to where the walk is: going up is going back on it.
  std::vector<UniqueDescriptor> way;
  way.emplace_back(::openat(base, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!way.back()) return errno;
  for (int links = 0; !rest.empty();) {
    const std::string name = std::move(rest.back());
    rest.pop_back();
    struct stat here;
    if (::fstat(way.back().get(), &here) != 0) return errno;
    if (!S_ISDIR(here.st_mode)) return ENOTDIR;
    if (name == ".") continue;
    if (name == "..") {
      if (way.size() == 1) return EXDEV;
      way.pop_back();
      continue;
    }
    UniqueDescriptor next(::openat(way.back().get(), name.c_str(), kPin));
    struct stat info;
    if (!next || ::fstat(next.get(), &info) != 0) return errno;
    if (!S_ISLNK(info.st_mode)) {
      way.push_back(std::move(next));
      continue;
    }
    std::string text;
    const int number = ReadLinkAt(next.get(), &text);
    if (number != 0) return number;
    if (++links > kMostLinks) return ELOOP;
    if (text.starts_with('/')) return EXDEV;
    Prepend(text, rest);
  }
  *item = std::move(way.back());
  return 0;
}

}  // namespace quorvel::onlinux
