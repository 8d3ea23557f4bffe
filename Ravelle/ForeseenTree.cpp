// Keeps what would be elsewhere and what would be gone, and asks the disk about the rest.
#include "Ravelle/ForeseenTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <string_view>

#include "platform/DeviceNames.h"
#include "platform/FileSystemRepresentation.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Platform.h"

namespace quorvel {

namespace {

bool Look(const Path& path, struct stat& info) {
  return ::lstat(path.fileSystemRepresentation().c_str(), &info) == 0;
}

// 0 when the process has the rights, also where only its view of the tree is read-only.
int WhyDenied(const char* path, int wanted) {
  if (::faccessat(AT_FDCWD, path, wanted, AT_EACCESS | AT_SYMLINK_NOFOLLOW) == 0) return 0;
  return errno == EROFS ? 0 : errno;
}

// Whether entries of the directory can be taken out of it or put into it.
int WhyNotChanged(const char* directory) { return WhyDenied(directory, W_OK | X_OK); }

// Whether a flag keeps the item where it is, which the kernel tells by a number of its own.
bool IsFixed(const char* item) { return WhyDenied(item, W_OK) == EPERM; }

// Why the item cannot leave its directory. A directory that gets another parent is itself written;
// of anything else only a flag is in the way, which the kernel tells by another number.
int WhyNotTakenOut(const Path& item) {
  struct stat info {};
  struct stat holder {};
  const Path parent = ParentOf(item);
  if (!Look(item, info) || !Look(parent, holder)) return errno;
  if (const int denied = WhyNotChanged(parent.fileSystemRepresentation().c_str())) return denied;
  // A mount point, which is busy for as long as it is mounted.
  if (info.st_dev != holder.st_dev) return EBUSY;
  const uid_t user = ::geteuid();
  // Only owners take things out of a sticky directory; root may all the same.
  const bool isSticky = (holder.st_mode & S_ISVTX) != 0 && user != 0;
  if (isSticky && user != info.st_uid && user != holder.st_uid) return EPERM;
  const int denied = WhyDenied(item.fileSystemRepresentation().c_str(), W_OK);
  return S_ISDIR(info.st_mode) || denied == EPERM ? denied : 0;
}

}  // namespace

// Adds up what goes while a walk passes it; what stays keeps every directory above it.
class ForeseenTree::Count {
 public:
  // `isCopy`: of a copy, which has the modes but not the owner and the flags.
  Count(bool changeable, bool isCopy) : isCopy_(isCopy) { levels_.push_back({changeable, false}); }

  bool anythingStays() const { return levels_.front().stays; }

  void pass(const TreeWalkEntry& entry) {
    switch (entry.kind) {
      case TreeWalkKind::directoryBefore:
        levels_.push_back({isChangeable(entry), false});
        break;
      case TreeWalkKind::directoryAfter:
        leave(entry.path, false);
        break;
      case TreeWalkKind::unreadableDirectory:
        // What is in it is not known, and it cannot go without being emptied.
        loss.complete = false;
        leave(entry.path, true);
        break;
      case TreeWalkKind::noStat:
      case TreeWalkKind::error:
        loss.complete = false;
        levels_.back().stays = true;
        break;
      case TreeWalkKind::file:
      case TreeWalkKind::symbolicLink:
      case TreeWalkKind::other:
        passFile(entry);
        break;
    }
  }

  // Paths as the walk has them, of what goes.
  const std::vector<std::string>& went() const { return went_; }

  MigrationLoss loss{};

 private:
  struct Level {
    bool changeable = true;
    bool stays = false;
  };

  bool isChangeable(const TreeWalkEntry& entry) const {
    constexpr mode_t needed = S_IWUSR | S_IXUSR;
    if (!isCopy_) return WhyNotChanged(entry.path) == 0;
    return ::geteuid() == 0 || (entry.info.mode & needed) == needed;
  }

  void leave(const char* path, bool unreadable) {
    const bool stays = levels_.back().stays || unreadable || (!isCopy_ && IsFixed(path));
    levels_.pop_back();
    if (stays || !levels_.back().changeable) {
      levels_.back().stays = true;
    } else {
      went_.emplace_back(path);
    }
  }

  void passFile(const TreeWalkEntry& entry) {
    if (!levels_.back().changeable || (!isCopy_ && IsFixed(entry.path))) {
      levels_.back().stays = true;
      return;
    }
    went_.emplace_back(entry.path);
    ++loss.files;
    if (entry.kind == TreeWalkKind::file) {
      loss.bytes += entry.info.size;
    }
  }

  const bool isCopy_;
  std::vector<std::string> went_;
  std::vector<Level> levels_;  // the directory that holds the item, and those of the walk
};

std::optional<Path> ForeseenTree::now(const Path& path) const {
  const std::string& text = path.string();
  // From the item up: the nearest change above it decides where it is.
  for (std::size_t end = text.size(); end > 0 && end != std::string::npos;
       end = text.rfind('/', end - 1)) {
    const std::string above = text.substr(0, end);
    const auto placed = placed_.find(above);
    if (placed != placed_.end()) return Path(placed->second + text.substr(end));
    if (gone_.contains(above)) return std::nullopt;
  }
  return path;
}

bool ForeseenTree::exists(const Path& path) const {
  struct stat info {};
  const auto at = now(path);
  return at && Look(*at, info);
}

bool ForeseenTree::isDirectory(const Path& path) const {
  struct stat info {};
  const auto at = now(path);
  return at && Look(*at, info) && S_ISDIR(info.st_mode);
}

int ForeseenTree::whyUnknown(const Path& path) const {
  struct stat info {};
  const auto at = now(path);
  return !at || Look(*at, info) || errno == ENOENT ? 0 : errno;
}

std::optional<std::vector<std::string>> ForeseenTree::names(const Path& directory) const {
  // What lies there now and would still, then what would have come.
  std::set<std::string> found;
  if (const auto at = now(directory)) {
    Error error;
    const auto listed =
        QVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(*at, false, &error);
    if (!listed && !error.is(PosixErrorDomain, ENOENT)) return std::nullopt;
    for (const Path& item : listed.value_or(std::vector<Path>())) {
      const std::string name(item.lastPathComponent());
      if (now(directory.child(name))) found.insert(name);
    }
  }
  const std::string prefix = directory.string() + "/";
  for (auto at = placed_.lower_bound(prefix); at != placed_.end() && at->first.starts_with(prefix);
       ++at) {
    // Or the directory that would be made for it.
    found.insert(
        at->first.substr(prefix.size(), at->first.find('/', prefix.size()) - prefix.size()));
  }
  return std::vector<std::string>(found.begin(), found.end());
}

int ForeseenTree::whyNotPutInto(const Path& directory) const {
  const auto at = now(directory);
  return at ? WhyNotChanged(at->fileSystemRepresentation().c_str()) : ENOENT;
}

int ForeseenTree::whyNotMade(const Path& directory) const {
  if (exists(directory)) return isDirectory(directory) ? 0 : ENOTDIR;
  // Missing parents are made in the deepest directory that would be there.
  Path above = ParentOf(directory);
  while (!exists(above) && above.string() != "/") above = ParentOf(above);
  return isDirectory(above) ? whyNotPutInto(above) : ENOTDIR;
}

bool ForeseenTree::isOnAnotherFileSystem(const Path& from, const Path& to) const {
  struct stat source {};
  struct stat destination {};
  const auto at = now(from);
  Path above = ParentOf(to);
  while (!exists(above) && above.string() != "/") above = ParentOf(above);
  // A mount point belongs to the directory that it is in.
  return at && Look(ParentOf(*at), source) && Look(*now(above), destination) &&
         source.st_dev != destination.st_dev;
}

int ForeseenTree::whyNotCopied(const Path& source, const Path& from) const {
  int why = 0;
  const bool ended = walk(source, from, [&](const TreeWalkEntry& entry) {
    if (why != 0) return;
    why = entry.errorNumber;
    if (entry.kind == TreeWalkKind::file) why = WhyDenied(entry.path, R_OK);
    if (entry.kind == TreeWalkKind::directoryBefore) why = WhyDenied(entry.path, R_OK | X_OK);
  });
  return why != 0 || ended ? why : EIO;
}

int ForeseenTree::whyNotMoved(const Path& from, const Path& to) const {
  const auto source = now(from);
  if (const int unknown = whyUnknown(from)) return unknown;
  if (!exists(from) || from.string() == to.string()) return 0;
  if (to.string().starts_with(from.string() + "/")) return EINVAL;
  const bool isCopied = isOnAnotherFileSystem(from, to);
  if (const int failure = isCopied ? whyNotCopied(*source, from) : WhyNotTakenOut(*source)) {
    return failure;
  }
  const Path parent = ParentOf(to);
  if (exists(parent)) {
    if (const int failure = whyNotPutInto(parent)) return failure;
  }
  if (!exists(to)) return 0;
  // rename replaces an empty directory by a directory, and nothing else here.
  const auto inTheWay = isDirectory(to) ? names(to) : std::vector<std::string>();
  if (isDirectory(to) != isDirectory(from)) return isDirectory(to) ? EISDIR : ENOTDIR;
  return inTheWay && inTheWay->empty() ? 0 : ENOTEMPTY;
}

bool ForeseenTree::hasChangesBelow(const std::string& path) const {
  const std::string prefix = path + "/";
  const auto gone = gone_.lower_bound(prefix);
  const auto placed = placed_.lower_bound(prefix);
  return (gone != gone_.end() && gone->starts_with(prefix)) ||
         (placed != placed_.end() && placed->first.starts_with(prefix));
}

bool ForeseenTree::walk(const Path& item, const Path& at, const Visit& visit) const {
  const FileSystemRepresentation root = item.fileSystemRepresentation();
  const std::size_t length = std::string_view(root.c_str()).size();
  const bool isChanged = hasChangesBelow(at.string());
  const std::unique_ptr<TreeWalk> walk =
      QVPlatform().treeWalker->open(root.c_str(), FTS_PHYSICAL_OPTION | FTS_NOCHDIR_OPTION);
  while (const TreeWalkEntry* entry = walk != nullptr ? walk->read() : nullptr) {
    const std::string below =
        isChanged ? StringFromFileSystemRepresentation(entry->path + length) : std::string();
    if (!isChanged || now(Path(at.string() + below))) visit(*entry);
  }
  return walk != nullptr && errno == 0;
}

bool ForeseenTree::isCopied(const Path& path) const {
  for (std::string above = path.string(); above.size() > 1; above = ParentOf(above)) {
    if (copied_.contains(above)) return true;
    if (placed_.contains(above)) return false;
  }
  return false;
}

// Whether nothing of the item would stay.
bool ForeseenTree::count(const Path& item, const Path& at, bool changeable,
                         Removal& removal) const {
  Count count(changeable, isCopied(at));
  const bool ended = walk(item, at, [&](const TreeWalkEntry& entry) { count.pass(entry); });
  if (!ended) count.loss.complete = false;
  const std::size_t length = std::string_view(item.fileSystemRepresentation().c_str()).size();
  MigrationLoss& loss = removal.loss;
  loss.complete = loss.complete && count.loss.complete;
  if (at.lastPathComponent() != MigrationMarkerName) {
    loss.files += count.loss.files;
    loss.bytes += count.loss.bytes;
  }
  for (const std::string& path : count.went()) {
    removal.went.push_back(at.string() + StringFromFileSystemRepresentation(path.substr(length)));
  }
  return !count.anythingStays();
}

ForeseenTree::Removal ForeseenTree::removal(const Path& item) const {
  Removal removal;
  removal.loss.path = item.string();
  const auto at = now(item);
  struct stat info {};
  if (!at || !Look(*at, info)) return removal;
  // The item goes from its directory, its entries from itself: two different rights.
  const bool isCopy = isCopied(item);
  const bool isFree =
      isCopy || WhyNotChanged(ParentOf(*at).fileSystemRepresentation().c_str()) == 0;
  if (!S_ISDIR(info.st_mode)) {
    removal.whole = count(*at, item, isFree, removal);
    return removal;
  }
  const bool changeable = isCopy ? ::geteuid() == 0 || (info.st_mode & S_IWUSR) != 0
                                 : WhyNotChanged(at->fileSystemRepresentation().c_str()) == 0;
  const auto listed = names(item);
  removal.whole = isFree && listed;
  removal.loss.complete = listed.has_value();
  std::set<std::string, std::less<>> went;
  for (const std::string& name : listed.value_or(std::vector<std::string>())) {
    const Path child = item.child(name);
    // What was placed here is counted below, where it is now.
    if (placed_.contains(child.string()) || !exists(child)) continue;
    const bool goes = count(*now(child), child, changeable, removal);
    removal.whole = removal.whole && goes;
    if (goes) went.insert(name);
  }
  for (const char* name : UserDataItemNames) {
    if (went.contains(std::string_view(name))) removal.loss.userDataItems.emplace_back(name);
  }
  // Nothing is found below what cannot be listed.
  if (!listed) return removal;
  const std::string prefix = item.string() + "/";
  for (auto moved = placed_.lower_bound(prefix);
       moved != placed_.end() && moved->first.starts_with(prefix); ++moved) {
    removal.whole = count(Path(moved->second), Path(moved->first), true, removal) && removal.whole;
  }
  return removal;
}

void ForeseenTree::move(const Path& from, const Path& to) {
  const auto source = now(from);
  struct stat info {};
  if (!source || from.string() == to.string() || !Look(*source, info)) return;
  const bool takesCopy = isOnAnotherFileSystem(from, to);
  // A source that cannot leave its directory stays as it is, beside its copy.
  const bool stays = takesCopy && WhyNotTakenOut(*source) != 0;
  Removal removal;
  if (takesCopy && !stays) removal.whole = count(*source, from, true, removal);
  if (!stays) remove(from);
  remove(to);
  // In this order: a removal of what was at `to` must not hide what comes there.
  gone_.erase(to.string());
  placed_[to.string()] = source->string();
  if (takesCopy) copied_.insert(to.string());
  if (!removal.whole) placeRest(from, *source, removal);
}

void ForeseenTree::placeRest(const Path& from, const Path& source, const Removal& removal) {
  const Path parent = ParentOf(from);
  const auto taken = names(parent).value_or(std::vector<std::string>());
  std::string remain;
  for (int number = 1; remain.empty() || std::count(taken.begin(), taken.end(), remain) != 0;
       ++number) {
    remain = std::string(MoveRemainPrefix) + std::to_string(number);
  }
  const std::string place = parent.childDirectory(remain).child(from.lastPathComponent()).string();
  placed_[place] = source.string();
  for (const std::string& path : removal.went) {
    gone_.insert(place + path.substr(from.string().size()));
  }
}

void ForeseenTree::remove(const Path& item, const Removal& removal) {
  if (removal.whole) return remove(item);
  for (const std::string& path : removal.went) remove(Path(path));
}

void ForeseenTree::remove(const Path& path) {
  const std::string prefix = path.string() + "/";
  placed_.erase(path.string());
  copied_.erase(path.string());
  for (auto at = placed_.lower_bound(prefix);
       at != placed_.end() && at->first.starts_with(prefix);) {
    at = placed_.erase(at);
  }
  for (auto at = gone_.lower_bound(prefix); at != gone_.end() && at->starts_with(prefix);) {
    at = gone_.erase(at);
  }
  gone_.insert(path.string());
}

}  // namespace quorvel
