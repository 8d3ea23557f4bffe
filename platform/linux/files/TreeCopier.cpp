// Walks the source with an explicit stack and makes each item private first.
#include "platform/linux/files/TreeCopier.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quorvel::onlinux {
namespace {

// How often an item that comes back is cleared out of the way.
constexpr int kMostAttempts = 16;
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int kMakeFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr int kPinFlags = O_PATH | O_NOFOLLOW | O_CLOEXEC;

bool Fail(int number) {
  errno = number;
  return false;
}

Owners OwnershipOf(const struct stat& info) { return {info.st_uid, info.st_gid}; }

// The file type bits that a directory entry's type stands for; 0 when it is unknown.
mode_t KindOf(unsigned char type) { return static_cast<mode_t>(DTTOIF(type)); }

bool Look(int directory, const char* name, struct stat* info) {
  return ::fstatat(directory, name, info, AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace

TreeCopier::TreeCopier(ItemPath source, ItemPath destination, const ModeChanger& modes,
                       bool recursive, const LeftOutCallback& leftOut)
    : sourceItem_(std::move(source)),
      targetItem_(std::move(destination)),
      recursive_(recursive),
      leftOut_(leftOut),
      source_(sourceItem_.parent.get(), sourceItem_.name, sourceItem_.path),
      target_(targetItem_.parent.get(), targetItem_.name, targetItem_.name),
      metadata_(modes) {
  source_.shareDescriptorsWith(&target_);
  target_.shareDescriptorsWith(&source_);
}

int TreeCopier::run() {
  struct stat info;
  if (!checkRoots(&info)) return errno;
  // Reading an attribute needs more than a pin.
  const UniqueDescriptor parent(
      ::openat(targetItem_.parent.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // One that may not be read is taken to hand down lists; removing none costs a call a piece.
  baseHandsDown_ = !parent || MetadataCopier::HandsDownAccess(parent.get());
  if (!copyItem(sourceItem_.name.c_str(), info.st_mode & S_IFMT)) return errno;
  return walk() ? 0 : errno;
}

// Refuses what would copy into or onto itself before anything is made.
bool TreeCopier::checkRoots(struct stat* info) {
  if (!Look(sourceItem_.parent.get(), sourceItem_.name.c_str(), info)) return false;
  struct stat there;
  const bool exists = Look(targetItem_.parent.get(), targetItem_.name.c_str(), &there);
  // A destination that cannot be looked at must not pass for one that is free.
  if (!exists && errno != ENOENT) return false;
  if (exists && IdentityOf(there) == IdentityOf(*info)) return Fail(EINVAL);
  if (!S_ISDIR(info->st_mode)) return true;
  if (!recursive_) return Fail(EISDIR);
  return !liesWithin(IdentityOf(*info)) || Fail(EINVAL);
}

// Whether the destination is somewhere below the directory.
bool TreeCopier::liesWithin(const DirectoryIdentity& directory) {
  UniqueDescriptor above;
  DirectoryIdentity below;
  for (int at = targetItem_.parent.get();;) {
    struct stat info;
    if (::fstat(at, &info) != 0) return true;  // cannot be ruled out
    const DirectoryIdentity here = IdentityOf(info);
    if (here == directory) return true;
    if (here == below) return false;  // the root directory is its own parent
    below = here;
    UniqueDescriptor next(::openat(at, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!next) return false;
    above = std::move(next);
    at = above.get();
  }
}

bool TreeCopier::walk() {
  while (source_.depth() > 0) {
    const DirectoryEntry* entry = source_.reader().next(source_.descriptor());
    if (entry == nullptr && errno != 0) return false;
    if (entry != nullptr ? !copyEntry(entry->name, entry->type) : !finishDirectory()) return false;
  }
  return true;
}

int TreeCopier::from() const {
  return source_.depth() > 0 ? source_.descriptor() : sourceItem_.parent.get();
}

int TreeCopier::into() const {
  return target_.depth() > 0 ? target_.descriptor() : targetItem_.parent.get();
}

const char* TreeCopier::targetName(const char* name) const {
  return target_.depth() > 0 ? name : targetItem_.name.c_str();
}

bool TreeCopier::copyEntry(const char* name, unsigned char type) {
  mode_t kind = KindOf(type);
  struct stat info;
  if (kind == 0) {
    if (!Look(from(), name, &info)) return false;
    kind = info.st_mode & S_IFMT;
  }
  return copyItem(name, kind);
}

// `kind` may be out of date: each copy looks for itself at what it opened.
bool TreeCopier::copyItem(const char* name, mode_t kind) {
  // The two usual kinds look at what they open; the others are looked at by name.
  if (S_ISREG(kind)) return copyFile(name);
  if (S_ISDIR(kind)) return enterDirectory(name);
  struct stat info;
  if (!Look(from(), name, &info)) return false;
  if (S_ISSOCK(info.st_mode)) return leaveOut(name);
  // Before anything is made: a second name needs no data.
  bool failed = false;
  if (linkInstead(name, info, &failed)) return true;
  if (failed) return false;
  if (S_ISLNK(info.st_mode)) return copyLink(name, info);
  const bool special = S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode);
  return special ? copySpecial(name, info) : Fail(ESTALE);  // exchanged meanwhile
}

bool TreeCopier::leaveOut(const char* name) {
  if (source_.depth() == 0) return Fail(EOPNOTSUPP);
  if (leftOut_) leftOut_(source_.pathOf(name).c_str());
  return true;
}

template <class Make>
bool TreeCopier::makeInPlace(const char* name, const Make& make) {
  for (int attempt = 0; attempt <= kMostAttempts; ++attempt) {
    if (make() == 0) return true;
    if (errno != EEXIST || attempt == kMostAttempts || !clear(name)) return false;
  }
  return false;
}

bool TreeCopier::copyFile(const char* name) {
  const UniqueDescriptor input = source_.openAt(from(), name, kReadFlags);
  struct stat info;
  if (!input || ::fstat(input.get(), &info) != 0) return false;
  if (!S_ISREG(info.st_mode)) return Fail(ESTALE);
  bool failed = false;
  if (linkInstead(name, info, &failed)) return true;
  if (failed) return false;

  const char* made = targetName(name);
  UniqueDescriptor output;
  const bool opened = makeInPlace(made, [&] {
    output = target_.openAt(into(), made, kMakeFlags, S_IRUSR | S_IWUSR);
    return output ? 0 : -1;
  });
  if (!opened) return false;
  if (fillFile(input.get(), output.get(), made, info)) return true;
  // Half a file is no use, and its space may be what the next attempt lacks.
  const int number = errno;
  ::unlinkat(into(), made, 0);
  return Fail(number);
}

bool TreeCopier::fillFile(int input, int output, const char* name, const struct stat& info) {
  Owners owners;
  return data_.copy(input, output, info) && ownersIn(output, &owners) &&
         metadata_.copy(input, output, ItemStatus(info), owners, handsDown()) &&
         rememberLink(name, info);
}

// The owner and group that new files get are those of the process, or the group of the directory;
// asked once for each directory.
bool TreeCopier::ownersIn(int made, Owners* owners) {
  if (!levels_.empty() && levels_.back().ownersKnown) {
    *owners = levels_.back().owners;
    return true;
  }
  struct stat info;
  if (::fstat(made, &info) != 0) return false;
  *owners = OwnershipOf(info);
  if (levels_.empty()) return true;
  levels_.back().owners = *owners;
  levels_.back().ownersKnown = true;
  return true;
}

bool TreeCopier::linkInstead(const char* name, const struct stat& info, bool* failed) {
  *failed = false;
  if (info.st_nlink < 2 || levels_.empty()) return false;
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    switch (links_.link(info, target_, targetItem_.parent.get(), into(), name)) {
      case HardLinks::Outcome::linked:
        return true;
      case HardLinks::Outcome::copyAnew:
        return false;
      // Something has the name already: cleared like anything else in the way.
      case HardLinks::Outcome::failed:
        *failed = true;
        if (errno != EEXIST || !clear(name)) return false;
        *failed = false;
    }
  }
  *failed = true;
  return Fail(EEXIST);
}

bool TreeCopier::rememberLink(const char* name, const struct stat& info) {
  if (info.st_nlink < 2 || levels_.empty()) return true;
  return links_.remember(info, target_, into(), name);
}

bool TreeCopier::clear(const char* name) {
  return ::unlinkat(into(), name, 0) == 0 || errno == ENOENT;
}

bool TreeCopier::copyLink(const char* name, const struct stat& info) {
  char text[PATH_MAX + 1];
  const ssize_t length = ::readlinkat(from(), name, text, sizeof text);
  if (length < 0) return false;
  // A text that fills the buffer may be longer.
  if (static_cast<std::size_t>(length) == sizeof text) return Fail(ENAMETOOLONG);
  text[length] = '\0';
  const char* made = targetName(name);
  return makeInPlace(made, [&] { return ::symlinkat(text, into(), made); }) &&
         finishPinned(name, info);
}

bool TreeCopier::copySpecial(const char* name, const struct stat& info) {
  const mode_t kind = info.st_mode & S_IFMT;
  const char* made = targetName(name);
  return makeInPlace(
             made,
             [&] { return ::mknodat(into(), made, kind | S_IRUSR | S_IWUSR, info.st_rdev); }) &&
         finishPinned(name, info);
}

// Attributes, owner, mode and times go to what is pinned, and only if it still is what was made: a
// name in a directory of somebody else may have been given to a file of a third person.
bool TreeCopier::finishPinned(const char* entry, const struct stat& info) {
  const char* name = targetName(entry);
  // Pinned, since the name may be somebody else's by the time its attributes are read.
  const UniqueDescriptor original = source_.openAt(from(), entry, kPinFlags);
  struct stat still;
  if (!original || ::fstat(original.get(), &still) != 0) return false;
  if (IdentityOf(still) != IdentityOf(info)) return Fail(ESTALE);
  const UniqueDescriptor made = target_.openAt(into(), name, kPinFlags);
  struct stat now;
  if (!made || ::fstat(made.get(), &now) != 0) return false;
  if ((now.st_mode & S_IFMT) != (info.st_mode & S_IFMT) || now.st_nlink != 1) return Fail(ESTALE);
  return metadata_.copyPinned({original.get(), from(), entry}, {made.get(), into(), name},
                              ItemStatus(info), OwnershipOf(now)) &&
         rememberLink(name, info);
}

bool TreeCopier::enterDirectory(const char* name) {
  UniqueDescriptor input = source_.openDirectoryAt(from(), name);
  struct stat source;
  if (!input || ::fstat(input.get(), &source) != 0) return false;
  const char* targetEntry = targetName(name);
  UniqueDescriptor output;
  bool merged = false;
  if (!makeDirectory(targetEntry, &output, &merged)) return false;
  struct stat target;
  if (::fstat(output.get(), &target) != 0) return false;

  const DirectoryIdentity sourceIs = IdentityOf(source);
  if (levels_.empty()) targetRoot_ = IdentityOf(target);
  // A mount can show the destination, or the source itself, where no path says so.
  if (sourceIs == targetRoot_ || sourceIs == IdentityOf(target)) return Fail(EINVAL);
  if (merged && !makePrivate(output.get(), target, source.st_mode)) return false;

  // A directory that was there may have lists of its own, whatever is above it.
  const bool inherits = merged || handsDown();
  Level level{ItemStatus(source), OwnershipOf(target), inherits};
  level.handsDown = inherits && MetadataCopier::HandsDownAccess(output.get());
  source_.enter(std::move(input), sourceIs, name);
  target_.enter(std::move(output), IdentityOf(target), targetEntry);
  levels_.push_back(level);
  return true;
}

bool TreeCopier::makeDirectory(const char* name, UniqueDescriptor* made, bool* merged) {
  // For the owner alone until it is finished.
  *merged = ::mkdirat(into(), name, S_IRWXU) != 0;
  if (*merged && errno != EEXIST) return false;
  *made = target_.openDirectoryAt(into(), name);
  return static_cast<bool>(*made);
}

// A directory that was there must not show others what the source's does not show them.
bool TreeCopier::makePrivate(int directory, const struct stat& found, mode_t sourceMode) {
  constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
  if ((found.st_mode & ~sourceMode & kOthers) == 0) return true;
  return ::fchmod(directory, S_IRWXU) == 0;
}

bool TreeCopier::finishDirectory() {
  // First the way back: the directory's own mode may bar it.
  if (!source_.openParent() || !target_.openParent()) return false;
  const Level& level = levels_.back();
  if (!metadata_.copy(source_.descriptor(), target_.descriptor(), level.source, level.target,
                      level.inherits)) {
    return false;
  }
  source_.leave();
  target_.leave();
  levels_.pop_back();
  return true;
}

}  // namespace quorvel::onlinux
