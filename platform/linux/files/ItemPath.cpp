// Splits a path once and opens the directory without following a last link.
#include "platform/linux/files/ItemPath.h"

#include <fcntl.h>

#include <cerrno>
#include <string_view>

#include "platform/Path.h"

namespace quorvel::onlinux {

int OpenItemPath(const char* path, ItemPath* item) {
  if (path == nullptr) return EFAULT;
  std::string_view text(path);
  if (text.empty()) return EINVAL;
  const std::size_t last = text.find_last_not_of('/');
  if (last == std::string_view::npos) return EBUSY;
  // A slash at the end would have the system calls follow a link of that name.
  text = text.substr(0, last + 1);

  const std::size_t slash = text.rfind('/');
  const std::string_view name = slash == std::string_view::npos ? text : text.substr(slash + 1);
  if (name == "." || name == "..") return EINVAL;

  item->parent.reset(::open(ParentOf(text).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!item->parent) return errno;
  item->name = name;
  item->path = text;
  return 0;
}

}  // namespace quorvel::onlinux
