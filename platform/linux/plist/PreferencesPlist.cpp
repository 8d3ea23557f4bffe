// Changes one file per domain under a lock of its own.
#include "platform/linux/plist/PreferencesPlist.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "platform/Uninterrupted.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/plist/PropertyList.h"
#include "platform/linux/plist/PropertyListFiles.h"

namespace quorvel::onlinux {

namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirectoryMode = 0755;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// Leaves room in a name of 255 bytes for the suffixes of lock and damaged files.
constexpr std::size_t kLongestDomain = 230;
constexpr int kMostDamagedFiles = 1000;

// The file's name as a system call takes it; empty when the domain is no plain file name. The
// bytes are judged, not the text: an escape could stand for a slash.
std::string FileNameOf(const std::string& domain) {
  const std::string bytes = BytesOfFileSystemRepresentation(domain);
  if (bytes.empty() || bytes == "." || bytes == ".." || bytes.size() > kLongestDomain ||
      bytes.find('/') != std::string::npos || bytes.find('\0') != std::string::npos) {
    return {};
  }
  return bytes + ".plist";
}

int OpenAt(int directory, const char* name, int flags, mode_t mode = 0) {
  return Uninterrupted([&] { return ::openat(directory, name, flags, mode); });
}

// Gives what was made in a directory to whom the directory belongs, and the mode that the umask may
// have narrowed. Who may not give anything away keeps it.
bool GiveTo(int directory, int made, mode_t mode) {
  struct stat owner {};
  if (::fstat(directory, &owner) != 0) return false;
  if (::fchown(made, owner.st_uid, owner.st_gid) != 0 && errno != EPERM) return false;
  return ::fchmod(made, mode) == 0;
}

// Opens a child directory, creating it when it is missing.
UniqueDescriptor EnterDirectory(int parent, const char* name) {
  UniqueDescriptor child(OpenAt(parent, name, kDirectoryFlags));
  if (child || errno != ENOENT) return child;
  const bool created = ::mkdirat(parent, name, kDirectoryMode) == 0;
  if (!created && errno != EEXIST) return child;
  child.reset(OpenAt(parent, name, kDirectoryFlags));
  // What is in a directory that a power cut takes away is lost with it, so that a failure of this
  // flush fails the whole change.
  if (child && created && (!GiveTo(parent, child.get(), kDirectoryMode) || ::fsync(parent) != 0)) {
    return UniqueDescriptor();
  }
  return child;
}

UniqueDescriptor OpenOrCreateDirectory(const Path& directory) {
  const std::string text = BytesOfFileSystemRepresentation(directory.string());
  UniqueDescriptor at(OpenAt(AT_FDCWD, text.c_str(), kDirectoryFlags));
  if (at || errno != ENOENT) return at;
  at.reset(OpenAt(AT_FDCWD, text.starts_with('/') ? "/" : ".", kDirectoryFlags));
  std::size_t begin = 0;
  while (at && begin < text.size()) {
    const std::size_t end = std::min(text.find('/', begin), text.size());
    const std::string name = text.substr(begin, end - begin);
    if (!name.empty()) at = EnterDirectory(at.get(), name.c_str());
    begin = end + 1;
  }
  return at;
}

// The lock file, locked; the lock goes with the descriptor. The file is never removed: who waits
// for its lock would then hold one on a file that others no longer see.
UniqueDescriptor LockFor(int directory, const std::string& fileName) {
  const std::string name = "." + fileName + ".lock";
  UniqueDescriptor lock(OpenAt(directory, name.c_str(),
                               O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                               kFileMode));
  if (!lock) return lock;
  struct stat info {};
  // Every user of the directory must be able to open it.
  if (::fstat(lock.get(), &info) == 0 && info.st_uid == ::geteuid() &&
      (info.st_mode & 07777U) != kFileMode && !GiveTo(directory, lock.get(), kFileMode)) {
    return UniqueDescriptor();
  }
  if (Uninterrupted([&] { return ::flock(lock.get(), LOCK_EX); }) != 0) lock.reset();
  return lock;
}

// Gives a file that was not understood a name that is free, which is told.
bool SetAside(int directory, const std::string& fileName, std::string* newName) {
  for (int number = 1; number <= kMostDamagedFiles; ++number) {
    const std::string name =
        fileName + ".damaged" + (number > 1 ? "." + std::to_string(number) : std::string());
    // A second name: what replaces the file takes over whose it is. Where the file system has no
    // second names the file gets the new one alone.
    if (::linkat(directory, fileName.c_str(), directory, name.c_str(), 0) == 0 ||
        (errno == EPERM && ::renameat2(directory, fileName.c_str(), directory, name.c_str(),
                                       RENAME_NOREPLACE) == 0)) {
      *newName = name;
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

// What the file holds now: empty when it is missing, or damaged and now set aside. Null when it
// cannot be read or be set aside.
std::unique_ptr<PlistDictionary> ReadToChange(int directory, const std::string& fileName,
                                              const Path& file, std::string* setAside) {
  Error error;
  bool isExact = true;
  auto stored = ReadDictionaryAt(directory, fileName.c_str(), file, &error, &isExact);
  // What the reader could not take over is in the old file only.
  if (stored != nullptr && (isExact || SetAside(directory, fileName, setAside))) return stored;
  if (stored != nullptr) return nullptr;
  const bool missing = error.is(PosixErrorDomain, ENOENT);
  const bool damaged = error.is(PlatformErrorDomain, PlatformPropertyListReadCorruptError) ||
                       error.is(PosixErrorDomain, ENOTSUP);
  if (!missing && !(damaged && SetAside(directory, fileName, setAside))) return nullptr;
  return std::make_unique<PlistDictionary>();
}

}  // namespace

Path PreferencesPlist::directoryFor(PreferencesScope scope) const {
  const bool currentHost = scope == PreferencesScope::currentUserCurrentHost;
  return currentHost ? directory_.childDirectory("ByHost") : directory_;
}

std::optional<PlistValue> PreferencesPlist::copyValue(const std::string& key,
                                                      const std::string& domain,
                                                      PreferencesScope scope) {
  if (FileNameOf(domain).empty()) return std::nullopt;
  {
    const std::lock_guard guard(mutex_);
    if (const auto changes = pending_.find({domain, scope}); changes != pending_.end()) {
      const auto change = changes->second.find(key);
      if (change != changes->second.end()) return change->second.value;
    }
  }
  const Path file = directoryFor(scope).child(domain + ".plist");
  const auto stored =
      ReadDictionaryAt(AT_FDCWD, file.fileSystemRepresentation().c_str(), file, nullptr);
  const PlistValue* value = stored != nullptr ? stored->find(key) : nullptr;
  return value != nullptr ? std::optional<PlistValue>(*value) : std::nullopt;
}

void PreferencesPlist::setValue(const std::string& key, const PlistValue& value,
                                const std::string& domain, PreferencesScope scope) {
  const std::lock_guard guard(mutex_);
  pending_[{domain, scope}][key] = {value, ++serial_};
}

bool PreferencesPlist::synchronize(const std::string& domain, PreferencesScope scope) {
  const std::string fileName = FileNameOf(domain);
  if (fileName.empty()) return false;
  if (pendingChanges({domain, scope}).empty()) return true;
  if (readOnly_) return false;
  const Path directoryPath = directoryFor(scope);
  const UniqueDescriptor directory = OpenOrCreateDirectory(directoryPath);
  if (!directory) return false;
  const UniqueDescriptor lock = LockFor(directory.get(), fileName);
  if (!lock) return false;
  // Only under the lock: another thread may have stored newer changes while this one waited.
  const Changes changes = pendingChanges({domain, scope});
  if (changes.empty()) return true;
  const Path file = directoryPath.child(domain + ".plist");
  std::string setAside;
  const auto stored = ReadToChange(directory.get(), fileName, file, &setAside);
  if (!setAside.empty()) {
    const std::lock_guard guard(mutex_);
    setAside_.push_back(directoryPath.child(StringFromFileSystemRepresentation(setAside)).string());
  }
  if (stored == nullptr) return false;
  for (const auto& [key, change] : changes) stored->set(key, change.value);
  std::vector<std::uint8_t> bytes;
  if (!SerializePropertyList(PlistValue(std::move(*stored)), PropertyListFormat::binary, bytes,
                             nullptr) ||
      !ReplaceFileAtomicallyAt(directory.get(), fileName, bytes, Durability::contentFirst, file,
                               nullptr, Ownership::taken) ||
      !FlushDirectory(directory.get())) {
    return false;
  }
  forget({domain, scope}, changes);
  return true;
}

std::optional<std::string> PreferencesPlist::stringFromUserDefaults(const std::string& key,
                                                                    const std::string& domain) {
  for (const PreferencesScope scope :
       {PreferencesScope::currentUserCurrentHost, PreferencesScope::currentUserAnyHost}) {
    const std::optional<PlistValue> value = copyValue(key, domain, scope);
    if (!value) continue;
    // The first value found is the value, also when it is of another kind.
    if (const std::string* text = value->string()) return *text;
    return std::nullopt;
  }
  return std::nullopt;
}

std::vector<std::string> PreferencesPlist::filesSetAside() {
  const std::lock_guard guard(mutex_);
  return setAside_;
}

PreferencesPlist::Changes PreferencesPlist::pendingChanges(const Domain& domain) {
  const std::lock_guard guard(mutex_);
  const auto changes = pending_.find(domain);
  return changes != pending_.end() ? changes->second : Changes();
}

// Changes made again since they were taken stay pending.
void PreferencesPlist::forget(const Domain& domain, const Changes& stored) {
  const std::lock_guard guard(mutex_);
  const auto pending = pending_.find(domain);
  if (pending == pending_.end()) return;
  for (const auto& [key, change] : stored) {
    const auto at = pending->second.find(key);
    if (at != pending->second.end() && at->second.serial == change.serial) {
      pending->second.erase(at);
    }
  }
  if (pending->second.empty()) pending_.erase(pending);
}

}  // namespace quorvel::onlinux
