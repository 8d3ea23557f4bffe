// rehearse: the real migration on a view of the tree, and what it would need.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <functional>
#include <utility>
#include <vector>

#include "host/Commands.h"
#include "host/DeviceView.h"
#include "host/ProofCommands.h"
#include "host/console/Json.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"
#include "host/proof/ManifestFile.h"
#include "host/proof/SortedWalk.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/linux/system/Sha256Linux.h"

namespace quorvel::host {

namespace {

using Clock = std::chrono::steady_clock;

// 20 ms: often enough for a peak, and no load.
constexpr useconds_t kSampleInterval = 20'000;

// What is used of a file system, or free of it.
struct RoomInUpper {
  std::uint64_t bytes = 0;
  std::uint64_t inodes = 0;
};

// Zeros where it cannot be told; a difference of two such values is no need.
RoomInUpper UsedAt(const char* path) {
  struct statvfs info {};
  if (::statvfs(path, &info) != 0) return {};
  return {(info.f_blocks - info.f_bfree) * info.f_frsize, info.f_files - info.f_ffree};
}

RoomInUpper FreeAt(int descriptor) {
  struct statvfs info {};
  if (::fstatvfs(descriptor, &info) != 0) return {};
  return {info.f_bavail * info.f_frsize, info.f_favail};
}

// Everything that the kernel knows of every item of a tree: any change shows, were it only in a
// change time. What may not be looked into counts with why that is so, which is no proof of what
// lies there: the manifests list it as unreadable. Empty when the walk itself fails.
std::string FingerprintOf(const DeviceRoot& root) {
  onlinux::Sha256ProviderLinux provider;
  const auto digest = provider.start();
  // Through the descriptor: the tree's path leads into the view by then.
  SortedWalk walk("/proc/self/fd/" + std::to_string(root.descriptor()) + "/.");
  WalkedItem item;
  int failure = 0;
  while (walk.next(item, failure)) {
    const struct stat& info = item.info;
    std::string facts = item.name + '\0' + std::to_string(item.problem) + ' ';
    for (const std::uint64_t fact :
         {static_cast<std::uint64_t>(item.depth), static_cast<std::uint64_t>(info.st_dev),
          static_cast<std::uint64_t>(info.st_ino), static_cast<std::uint64_t>(info.st_mode),
          static_cast<std::uint64_t>(info.st_nlink), static_cast<std::uint64_t>(info.st_uid),
          static_cast<std::uint64_t>(info.st_gid), static_cast<std::uint64_t>(info.st_size),
          static_cast<std::uint64_t>(info.st_mtim.tv_sec),
          static_cast<std::uint64_t>(info.st_mtim.tv_nsec),
          static_cast<std::uint64_t>(info.st_ctim.tv_sec),
          static_cast<std::uint64_t>(info.st_ctim.tv_nsec)}) {
      facts += std::to_string(fact) + ' ';
    }
    digest->update({reinterpret_cast<const std::uint8_t*>(facts.data()), facts.size()});
  }
  Sha256Digest bytes{};
  if (failure != 0 || !digest->finish(bytes)) return {};
  return HexText({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

// Whether two manifests say the same but for access times.
bool SameManifests(int before, int after) {
  ::lseek(before, 0, SEEK_SET);
  ::lseek(after, 0, SEEK_SET);
  ManifestReader first(UniqueDescriptor(::fcntl(before, F_DUPFD_CLOEXEC, 3)));
  ManifestReader second(UniqueDescriptor(::fcntl(after, F_DUPFD_CLOEXEC, 3)));
  if (!first.readHeader() || !second.readHeader()) return false;
  for (;;) {
    auto a = first.next();
    auto b = second.next();
    if (!a || !b) return !a && !b && first.problem().empty() && second.problem().empty();
    // The first listing itself may have set them.
    a->accessed = b->accessed = 0;
    if (first.section() != second.section() || EntryLine(*a) != EntryLine(*b)) return false;
  }
}

// Another descriptor of the same file, from its beginning: a child consumes what it is given.
UniqueDescriptor Again(const UniqueDescriptor& file) {
  (void)::lseek(file.get(), 0, SEEK_SET);
  return UniqueDescriptor(::fcntl(file.get(), F_DUPFD_CLOEXEC, 3));
}

std::string WhatIsIn(const UniqueDescriptor& file) {
  std::string text;
  char piece[64 * 1024];
  (void)::lseek(file.get(), 0, SEEK_SET);
  for (ssize_t count; (count = ::read(file.get(), piece, sizeof piece)) > 0;) {
    text.append(piece, static_cast<std::size_t>(count));
  }
  return text;
}

// The process itself never enters the tree and covers it with a view; every command runs in a child
// that does enter, since that cannot be undone. The current directory is the one that takes the
// view's changes.
class Rehearsal {
 public:
  explicit Rehearsal(Options options) : options_(std::move(options)) {}

  int run() {
    keepPluginPath();
    if (!root_.openDevice(options_.root, error_) || !bundle_.load(options_.plugin, error_) ||
        !root_.lock(error_) || !view_.prepare(root_, options_.upper, options_.keep, error_)) {
      return ReportFatal(error_, options_.json);
    }
    if (!openFiles()) return ReportFatal(error_, options_.json);
    // The proof that the tree was not touched is taken before anything is done to it.
    const std::string before = FingerprintOf(root_);
    const int listed = list(before_);
    if (listed != ExitSucceeded) return std::max<int>(listed, ExitFailed);
    if (!view_.cover(root_, error_)) return ReportFatal(error_, options_.json);
    migrate();
    verify();
    view_.uncover();
    untouched_ = !before.empty() && FingerprintOf(root_) == before &&
                 list(after_) == ExitSucceeded && SameManifests(before_.get(), after_.get());
    return report();
  }

 private:
  // The migration loads it again, from the view's directory.
  void keepPluginPath() {
    char directory[PATH_MAX];
    if (options_.plugin.empty() || options_.plugin.starts_with('/')) return;
    if (::getcwd(directory, sizeof directory) != nullptr) {
      options_.plugin = std::string(directory) + "/" + options_.plugin;
    }
  }

  // The manifests are kept for whoever asks with --keep to look at them; what the children print is
  // needed only until the report.
  bool openFiles() {
    constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC;
    before_.reset(::open("manifest.jsonl", flags, 0600));
    after_.reset(::open("manifest-after.jsonl", flags, 0600));
    migrated_.reset(::memfd_create("migration", MFD_CLOEXEC));
    verified_.reset(::memfd_create("verification", MFD_CLOEXEC));
    if (before_ && after_ && migrated_ && verified_) return true;
    return Fail(error_, ExitFailed, Printable(view_.directory()) + ": " + ErrnoDescription(errno),
                "Nothing was changed");
  }

  // A command enters the tree, which a process does once. Its standard output goes to `output`,
  // unless that is none. The exit code; -1 when a signal ended it.
  int inChild(const UniqueDescriptor* output, const std::function<int()>& command) {
    const pid_t child = ::fork();
    if (child == 0) {
      for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_DFL);
      if (output != nullptr) ::dup2(output->get(), STDOUT_FILENO);
      ::_exit(command());
    }
    // A person who ends it ends the child; what was made for it is cleared away here.
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_IGN);
    int status = 0;
    while (child > 0) {
      const pid_t ended = ::waitpid(child, &status, WNOHANG);
      if (ended == child || (ended < 0 && errno != EINTR)) break;
      sample();
      ::usleep(kSampleInterval);
    }
    sample();
    return child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  int list(const UniqueDescriptor& file) {
    Options options = options_;
    options.quiet = true;
    return inChild(nullptr, [&] { return SnapshotInto(root_, bundle_, Again(file), options); });
  }

  // The use of the view's file system is sampled while the child works: what counts is the peak,
  // since a copy and its original exist side by side for a while.
  void migrate() {
    // "." is the directory that takes the view's changes.
    used_ = peak_ = UsedAt(".");
    measuring_ = true;
    const auto start = Clock::now();
    Options options = options_;
    options.root = view_.treePath();
    migrateCode_ = inChild(options.json ? &migrated_ : nullptr, [&] {
      // In a child, with the rights that a real run would have.
      return view_.dropPrivileges() ? RunMigrate(options) : static_cast<int>(ExitRootUnusable);
    });
    seconds_ = std::chrono::duration<double>(Clock::now() - start).count();
    measuring_ = false;
  }

  void verify() {
    Options options = options_;
    options.root = view_.treePath();
    options.manifest = "manifest.jsonl";
    verifyCode_ = inChild(options.json ? &verified_ : nullptr, [&] {
      DeviceRoot root;
      FatalError error;
      if (!root.open(options.root, error)) return ReportFatal(error, options.json);
      return VerifyAgainst(root, Again(before_),
                           options.json ? Again(migrated_) : UniqueDescriptor(), options);
    });
  }

  void sample() {
    if (!measuring_) return;
    const RoomInUpper now = UsedAt(".");
    peak_.bytes = std::max(peak_.bytes, now.bytes);
    peak_.inodes = std::max(peak_.inodes, now.inodes);
  }

  int exitCode() const {
    // Nothing was rehearsed then.
    if (migrateCode_ == ExitPluginUnusable || migrateCode_ == ExitRootUnusable) return migrateCode_;
    const bool well = migrateCode_ == ExitSucceeded && verifyCode_ == ExitSucceeded && untouched_;
    return well ? ExitSucceeded : ExitFailed;
  }

  std::vector<std::string> warnings(const RoomInUpper& needed, const RoomInUpper& free) const {
    std::vector<std::string> warnings;
    if (!untouched_) warnings.emplace_back("the tree is not as it was before the rehearsal");
    if (needed.bytes > free.bytes) warnings.emplace_back("a run may need more bytes than are free");
    // Some file systems have no fixed number of inodes and say 0.
    if (needed.inodes > free.inodes && free.inodes != 0) {
      warnings.emplace_back("a run may need more inodes than are free");
    }
    return warnings;
  }

  int report() {
    const RoomInUpper needed = {peak_.bytes - used_.bytes, peak_.inodes - used_.inodes};
    const RoomInUpper free = FreeAt(root_.descriptor());
    if (options_.json) return reportJson(needed, free);
    std::string text = "\nRehearsed in " + std::to_string(seconds_) + " s; at most " +
                       std::to_string(needed.bytes) + " bytes and " +
                       std::to_string(needed.inodes) + " inodes were written; " +
                       std::to_string(free.bytes) + " bytes and " + std::to_string(free.inodes) +
                       " inodes are free on the tree's file system.\n";
    for (const std::string& warning : warnings(needed, free)) text += "Note: " + warning + ".\n";
    if (untouched_) text += "The tree itself is untouched.\n";
    if (view_.isCopy()) text += "The view was a copy of the tree: there are no privileges.\n";
    if (options_.keep) text += "Kept in " + Printable(view_.directory()) + "\n";
    return WriteResult(text, exitCode());
  }

  // What a child printed is parsed and set in as an object; one that was killed printed nothing
  // whole, and is null.
  int reportJson(const RoomInUpper& needed, const RoomInUpper& free) {
    const auto parsed = [](const UniqueDescriptor& file) {
      Json object = Json::parse(WhatIsIn(file), nullptr, false);
      return object.is_discarded() ? Json(nullptr) : object;
    };
    Json object;
    object["succeeded"] = exitCode() == ExitSucceeded;
    object["migration"] = parsed(migrated_);
    object["verification"] = parsed(verified_);
    object["untouched"] = untouched_;
    object["seconds"] = seconds_;
    object["bytesNeeded"] = needed.bytes;
    object["inodesNeeded"] = needed.inodes;
    object["bytesFree"] = free.bytes;
    object["inodesFree"] = free.inodes;
    object["copied"] = view_.isCopy();
    object["warnings"] = warnings(needed, free);
    object["kept"] =
        options_.keep ? Json(StringFromFileSystemRepresentation(view_.directory())) : Json(nullptr);
    return WriteResult(JsonLine(object), exitCode());
  }

  Options options_;
  FatalError error_;
  DeviceRoot root_;
  PluginBundle bundle_;
  DeviceView view_;
  UniqueDescriptor before_;
  UniqueDescriptor after_;
  UniqueDescriptor migrated_;
  UniqueDescriptor verified_;
  int migrateCode_ = -1;
  int verifyCode_ = -1;
  bool untouched_ = false;
  bool measuring_ = false;
  double seconds_ = 0;
  RoomInUpper used_;
  RoomInUpper peak_;
};

}  // namespace

int RunRehearse(const Options& options) { return Rehearsal(options).run(); }

}  // namespace quorvel::host
