// From what is quick and decides most to what takes longest.
#include "host/Preflight.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/console/ExitCode.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"
#include "host/preflight/ItemFacts.h"
#include "host/preflight/MoveChecks.h"
#include "host/preflight/SpaceNeeds.h"
#include "platform/DeviceNames.h"
#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/plist/PropertyListFiles.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::host {

namespace {

const std::string kHome = std::string("/") + MobileHomeDirectory;
const std::string kDaemon = std::string("/") + DaemonDirectory;
const std::string kRegistry = kDaemon + RegistryDirectoryPath;
const std::string kApplications = kHome + LegacyApplicationsName;
const std::string kInstallMap = kHome + LegacyInstallMapPath;
const std::string kHarborMap = kHome + "Library/Quorvel/" + HarborMapName;

// The registry is used by one process at a time; one that is in use now is in use by a stranger.
constexpr int kRegistryWaitMilliseconds = 1000;

// The directory, or the deepest one that is there of the way to it.
std::string NearestDirectory(std::string path) {
  struct stat info {};
  while (path.size() > 1 && (::stat(path.c_str(), &info) != 0 && errno == ENOENT)) {
    path = ParentOf(path);
  }
  return path;
}

// An item of the tree outside the process's own view of it, links meant as inside.
UniqueDescriptor OpenOriginal(int root, const std::string& path) {
  open_how how = {};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_IN_ROOT;
  // Relative, since the call without openat2 knows no other root.
  const std::string relative = path == "/" ? "." : path.substr(1);
  const long opened = ::syscall(SYS_openat2, root, relative.c_str(), &how, sizeof how);
  // Without openat2 (before 5.6) only a link at the end is refused.
  if (opened >= 0 || errno != ENOSYS) return UniqueDescriptor(static_cast<int>(opened));
  return UniqueDescriptor(::openat(root, relative.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

class Look {
 public:
  explicit Look(int originalRoot) : root_(originalRoot) {}

  Findings findings() {
    directories();
    registry();
    const auto map = readMap(kInstallMap, kInstallMapDamaged, kInstallMapUnreadable,
                             "without it no group container finds its app");
    (void)readMap(kHarborMap, kHarborMapDamaged, kHarborMapUnreadable,
                  "without it no data of an uninstalled app is kept track of");
    // The walk over what must be copied comes last: it is the only part that takes long.
    SpaceNeeds needs;
    MoveChecks checks(findings_, needs);
    const std::size_t containers = checks.containers(kApplications);
    if (map != nullptr) groupsOf(*map, checks);
    margins(needs, containers);
    needs.check(findings_);
    return std::move(findings_);
  }

 private:
  void add(const char* name, const std::string& path, std::string detail, std::string remedy) {
    findings_.push_back({name, Severity::refuse, StringFromFileSystemRepresentation(path),
                         std::move(detail), std::move(remedy)});
  }

  // The directories that the run as a whole writes in.
  void directories() {
    std::vector<std::string> all = {kHome + DataContainersPath, kHome + BundleContainersPath,
                                    kHome + GroupContainersPath, kRegistry};
    struct stat info {};
    const bool hasLegacy = ::lstat(kApplications.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    if (hasLegacy) all.push_back(kApplications);
    // Several may come down to one directory, which is looked at once.
    for (std::string& path : all) path = NearestDirectory(path);
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    for (const std::string& path : all) directory(path);
  }

  void directory(const std::string& path) {
    const UniqueDescriptor original = OpenOriginal(root_, path);
    struct statvfs file {};
    if (original && ::fstatvfs(original.get(), &file) == 0 && (file.f_flag & ST_RDONLY) != 0) {
      // Said once: what else is wrong is seen when it can be written.
      if (readOnly_) return;
      readOnly_ = true;
      return add(kReadOnly, path, "its file system is read-only",
                 "Mount it writable: mount -o remount,rw");
    }
    const auto facts = FactsAt(AT_FDCWD, path.c_str());
    if (!facts) return add(kNotPermitted, path, ErrnoDescription(errno), "Look as root");
    const auto sealed = WhatSeals(AT_FDCWD, path.c_str(), *facts);
    if (sealed) {
      add(facts->fixed ? kImmutable : kNotPermitted, path, sealed->detail, sealed->remedy);
    }
  }

  void registry() {
    onlinux::FileSystemLinux files;
    onlinux::BundleReaderLinux bundles;
    onlinux::RegistryOptions options;
    options.readOnly = true;
    options.busyTimeoutMilliseconds = kRegistryWaitMilliseconds;
    onlinux::ApplicationRegistryLinux registry(files, bundles, std::move(options));
    Error failure;
    if (registry.isSound(&failure)) return;
    // An errno says that it could not be read; anything else, that it was read and is not whole.
    const bool posix = failure.domain() == PosixErrorDomain;
    // Reading what an unclean end left needs a writer's locks.
    if (readOnly_ && posix) return;
    add(posix ? kRegistryUnreadable : kRegistryDamaged, kRegistry + "/" + RegistryFileName,
        Printable(failure.description()),
        posix ? "Let this user read and write it, and end what uses it"
              : "Restore it from a copy of the device; without it apps and data lose each other");
  }

  std::unique_ptr<PlistDictionary> readMap(const std::string& file, const char* damaged,
                                           const char* unreadable, const std::string& loss) {
    onlinux::PropertyListFiles lists;
    Error failure;
    auto map = lists.readDictionary(Path(file), &failure);
    if (map != nullptr || failure.is(PosixErrorDomain, ENOENT)) return map;
    // No directory on the way, no map.
    struct stat info {};
    if (failure.is(PosixErrorDomain, ENOTDIR) && ::lstat(file.c_str(), &info) != 0) return nullptr;
    // Only the reader's own verdict is certain; what could not be read may be sound.
    const bool known = failure.is(PlatformErrorDomain, PlatformPropertyListReadCorruptError);
    add(known ? damaged : unreadable, file,
        (known ? "it is damaged, and " : "it cannot be read (") +
            (known ? loss : Printable(failure.description()) + "), and " + loss),
        known ? "Restore it from a copy of the device, or move it away" : "Let this user read it");
    return nullptr;
  }

  void groupsOf(const PlistDictionary& map, MoveChecks& checks) {
    const PlistValue* section = map.find(InstallMapGroupsKey);
    if (section != nullptr && section->dictionary() == nullptr) {
      add(kInstallMapDamaged, kInstallMap,
          "its list of groups is none, and without it no group container finds its app",
          "Restore it from a copy of the device, or move it away");
    }
    checks.groups(map);
  }

  static void margins(SpaceNeeds& needs, std::size_t containers) {
    // Containers and registry often share a file system: its margin counts once.
    std::vector<dev_t> told;
    for (const std::string& path : {kHome + ContainersPath, kRegistry}) {
      const std::string directory = NearestDirectory(path);
      const auto facts = FactsAt(AT_FDCWD, directory.c_str());
      if (!facts || std::find(told.begin(), told.end(), facts->device) != told.end()) continue;
      told.push_back(facts->device);
      needs.addMargin(directory, *facts, containers);
    }
  }

  const int root_;
  bool readOnly_ = false;
  Findings findings_;
};

}  // namespace

void Force(const std::vector<std::string>& forced, Findings& findings) {
  for (Finding& finding : findings) {
    const bool goOn = std::find(forced.begin(), forced.end(), finding.name) != forced.end();
    if (goOn && finding.severity == Severity::refuse) finding.severity = Severity::forced;
  }
}

Findings RunPreflight(int originalRoot) { return Look(originalRoot).findings(); }

int ReportRefusal(const Findings& findings, bool json) {
  std::string text = FindingsAsText(findings);
  text += "Nothing was changed. --force-preflight NAME goes on past one of them.\n";
  // The exit code tells the same if nobody can be written to.
  (void)WriteWhole(STDERR_FILENO, text);
  if (json) {
    Json object;
    object["error"] = "The migration was refused before anything was changed";
    object["reason"] = "preflight";
    object["exitCode"] = ExitRefused;
    object["preflight"] = FindingsAsJson(findings);
    (void)WriteWhole(STDOUT_FILENO, JsonLine(object));
  }
  return ExitRefused;
}

}  // namespace quorvel::host
