// Confined resolution: where an untrusted path leads, on condition that it stays inside a base.
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "shared/support/Logging.h"
#include "shared/support/PathStrings.h"

namespace quorvel {

namespace {

constexpr const char* kResolve = "-[QVFileManager realPathForURL:ifChildOfURL:]";
constexpr const char* kRealPath =
    "-[QVFileManager _realPathForURL:allowNonExistentPathComponents:]";
constexpr const char* kWhatExists = "-[QVFileManager _realPathWhatExistsInPath:]";

// One place may be named with or without this in front.
constexpr std::string_view kPrivate = "/private";

// Only the texts are compared this way; the real paths are made by the kernel, and have it again.
Path WithoutPrivate(const Path& path) {
  const std::string& text = path.string();
  if (!text.starts_with("/private/")) return path;
  return Path(text.substr(kPrivate.size()),
              path.isDirectory() ? Path::Kind::directory : Path::Kind::file);
}

// What the child is, as far as its own name goes.
enum class ChildKind { plain, acceptedLink, rejected };

// A relative link is accepted when its text, walked from where the link lies, never climbs above
// the base.
ChildKind JudgeRelativeLink(QVFileManager& manager, const Path& child, const Path& base,
                            const std::string& target) {
  std::uint32_t baseDepth = 0;
  if (!manager._validateSymlink(base.string(), 0, &baseDepth)) {
    QV_LOG(LogLevelError, kResolve, "Failed to retrieve depth of %@", base.string());
    return ChildKind::rejected;
  }
  // The way from the base down to the link, without the link's own name.
  std::string joined = child.string().substr(base.string().size());
  const std::size_t slash = joined.rfind('/');
  joined.resize(slash == std::string::npos ? 0 : slash + 1);
  joined += target;
  if (!manager._validateSymlink(joined, baseDepth, nullptr)) {
    QV_LOG(LogLevelError, kResolve, "Rejecting %@ -> %@, as it is points outside or to the base %@",
           child.string(), joined, base.string());
    return ChildKind::rejected;
  }
  return ChildKind::acceptedLink;
}

// The child is the item `name` of `directory`, or AT_FDCWD and its whole path.
ChildKind JudgeChild(QVFileManager& manager, const Path& child, const Path& base, int directory,
                     const char* name) {
  // Room for the longest text that a link can hold: a cut text could hide where it climbs to.
  char text[PATH_MAX + 1] = "";
  const ssize_t length = ::readlinkat(directory, name, text, sizeof text - 1);
  if (length < 0) {
    const int number = errno;
    if (number == EINVAL || number == ENOENT) return ChildKind::plain;
    QV_LOG(LogLevelError, kResolve, "Readlink failed: %s", ErrnoDescription(number));
    return ChildKind::rejected;
  }
  if (text[0] == '/') {
    QV_LOG(LogLevelError, kResolve, "Rejecting %@ -> %s, as absolute symlinks are not allowed",
           child.string(), text);
    return ChildKind::rejected;
  }
  return JudgeRelativeLink(
      manager, child, base,
      QuorvelAdditions::stringWithFileSystemRepresentation(text, static_cast<std::size_t>(length)));
}

// Whether the input may be looked at at all.
bool CheckTexts(const Path& child, const Path& base) {
  if (!child.string().starts_with(base.string())) {
    QV_LOG(LogLevelError, kResolve, "supiscious path %@ does not contain base path %@ as a prefix",
           child.string(), base.string());
    return false;
  }
  if (QuorvelAdditions::containsDotDotPathComponents(child.string())) {
    QV_LOG(LogLevelError, kResolve, "The suspicious path %@ contains '..' paths, which are invalid",
           child.string());
    return false;
  }
  return true;
}

// The two paths as given and their real ones.
struct Resolution {
  const Path& child;
  const Path& base;
  Path realChild;
  Path realBase;
};

// Where the comparison of a real path's components starts: after the root, and after "private".
std::size_t FirstCompared(const std::vector<std::string_view>& parts) {
  return parts[1] == kPrivate.substr(1) ? 2 : 1;
}

// Component by component: as texts, "/baseX" would lie in "/base".
bool RealChildLiesInBase(const Resolution& paths) {
  const auto baseParts = QVPathComponents(paths.realBase.string());
  const auto childParts = QVPathComponents(paths.realChild.string());
  const std::string& child = paths.child.string();
  const std::string& base = paths.base.string();
  const std::string& realChild = paths.realChild.string();
  const std::string& realBase = paths.realBase.string();
  if (baseParts.size() < 2 || childParts.size() < 2) {
    QV_LOG(LogLevelError, kResolve,
           "Rejecting %@ with base %@ because real component counts don't make sense (reals %@ ; "
           "%@)",
           child, base, realChild, realBase);
    return false;
  }
  const std::size_t i = FirstCompared(baseParts);
  const std::size_t j = FirstCompared(childParts);
  if (baseParts.size() - i > childParts.size() - j) {
    QV_LOG(LogLevelError, kResolve,
           "Rejecting %@ with base %@ because base component count is greater than child component "
           "count (reals %@ ; %@)",
           child, base, realChild, realBase);
    return false;
  }
  for (std::size_t k = 0; i + k < baseParts.size(); ++k) {
    if (baseParts[i + k] == childParts[j + k]) continue;
    QV_LOG(LogLevelError, kResolve,
           "Rejecting %@ with base %@ (reals %@ ; %@) because components diverge at %@ != %@",
           child, base, realChild, realBase, baseParts[i + k], childParts[j + k]);
    return false;
  }
  return true;
}

std::string JoinComponents(const std::vector<std::string_view>& components, std::size_t from,
                           std::size_t to) {
  std::string joined;
  for (std::size_t i = from; i < to; ++i) {
    if (!joined.empty() && joined.back() != '/') joined += '/';
    joined += components[i];
  }
  return joined;
}

}  // namespace

std::optional<Path> QVFileManager::realPathForURL(const Path& givenChild,
                                                  const Path& givenBase) try {
  if (givenChild.isAbsent() || givenBase.isAbsent()) {
    QV_LOG(LogLevelError, kResolve, "The base path %@ and/or suspicious path %@ were nil",
           givenBase, givenChild);
    return std::nullopt;
  }
  const Path base = WithoutPrivate(givenBase);
  const Path child = WithoutPrivate(givenChild);
  if (!CheckTexts(child, base)) return std::nullopt;
  const FileSystemRepresentation representation = child.fileSystemRepresentation();
  const ChildKind kind = JudgeChild(*this, child, base, AT_FDCWD, representation.c_str());
  if (kind == ChildKind::rejected) return std::nullopt;
  const std::optional<Path> realBase = _realPathForURL(base, false);
  if (!realBase) {
    QV_LOG(LogLevelError, kResolve, "Failed to retrieve realpath for base path %@ ", base.string());
    return std::nullopt;
  }
  std::optional<Path> realChild = _realPathForURL(child, true);
  if (!realChild) {
    QV_LOG(LogLevelError, kResolve, "Failed to retrieve realpath for suspicious path %@",
           child.string());
    return std::nullopt;
  }
  // The containment of a link rests on the walk over its text.
  if (kind == ChildKind::acceptedLink) return realChild;
  if (!RealChildLiesInBase({child, base, *realChild, *realBase})) return std::nullopt;
  return realChild;
} catch (const std::bad_alloc&) {
  return std::nullopt;
}

bool QVFileManager::_linkStaysInside(const TreeWalkEntry& entry, const Path& givenBase) {
  const Path link(QuorvelAdditions::stringWithFileSystemRepresentation(entry.path));
  if (std::strlen(entry.path) < PATH_MAX) return realPathForURL(link, givenBase).has_value();
  const Path base = WithoutPrivate(givenBase);
  const Path child = WithoutPrivate(link);
  if (!CheckTexts(child, base) ||
      JudgeChild(*this, child, base, entry.parent, entry.name) != ChildKind::acceptedLink) {
    return false;
  }
  // Where it leads must be tellable, as it must be for a shorter path.
  struct stat info {};
  if (::fstatat(entry.parent, entry.name, &info, 0) == 0 || errno == ENOENT) return true;
  const int number = errno;
  QV_LOG(LogLevelError, kResolve, "Failed to retrieve realpath for suspicious path %@ : %s",
         child.string(), ErrnoDescription(number));
  return false;
}

std::optional<Path> QVFileManager::_realPathForURL(const Path& path,
                                                   bool allowNonExistentPathComponents) {
  char resolved[PATH_MAX] = "";
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  if (::realpath(representation.c_str(), resolved) != nullptr) {
    return Path(QuorvelAdditions::stringWithFileSystemRepresentation(resolved));
  }
  const int number = errno;
  if (number == ENOENT && allowNonExistentPathComponents) {
    return _realPathWhatExistsInPath(path.string());
  }
  QV_LOG(LogLevelError, kRealPath, "Failed to realpath %s : %s at %s", representation,
         ErrnoDescription(number), static_cast<const char*>(resolved));
  return std::nullopt;
}

// From the longest part that exists; behind it nothing can be a link. One system call a component
// at the most.
std::optional<Path> QVFileManager::_realPathWhatExistsInPath(const std::string& path) {
  const std::vector<std::string_view> components = QVPathComponents(path);
  for (std::size_t count = components.size(); count >= 2; --count) {
    const Path prefix(JoinComponents(components, 0, count));
    if (!itemExistsAtURL(prefix)) continue;
    const std::optional<Path> real = _realPathForURL(prefix, false);
    if (!real) continue;
    const std::string rest = JoinComponents(components, count, components.size());
    QV_LOG(LogLevelDebug, kWhatExists, "Realpathed %@ ; appending non-existing components %@",
           real->string(), rest);
    return rest.empty() ? *real : real->child(rest);
  }
  return std::nullopt;
}

// Counts how deep the walk is, and never asks the disk. Wider than the depth, so that no count
// wraps around.
bool QVFileManager::_validateSymlink(const std::optional<std::string>& path,
                                     std::uint32_t startingDepth, std::uint32_t* endingDepth) {
  if (!path) return false;
  std::int64_t depth = startingDepth;
  for (const std::string_view component : QVPathComponents(*path)) {
    if (component == "..") {
      --depth;
    } else if (component != "/" && component != ".") {
      ++depth;
    }
    if (depth < static_cast<std::int64_t>(startingDepth)) return false;
  }
  if (endingDepth != nullptr) *endingDepth = static_cast<std::uint32_t>(depth);
  return true;
}

}  // namespace quorvel
