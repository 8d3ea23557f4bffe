// Trees that a user may have and nobody expects, with few descriptors or little memory: each
// operation succeeds or fails as it says, throws nothing, and never leaves less than there was.
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>

#include "platform/Path.h"
#include "shared/filemanager/QVFileManager.h"
#include "tests/races/Rows.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/Refusals.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TreeTools.h"

namespace quorvel::races {

namespace {

using testing::ScratchTree;

constexpr rlim_t kDescriptors = 20;
constexpr rlim_t kMemory = 64U << 20U;  // above what the program has already
constexpr const char* kLevel = "d";

struct Shape {
  const char* name;
  int size;       // levels or entries
  int smallSize;  // where only seconds are to be spent
  void (*make)(const std::string& root, int size);
  int (*measure)(const std::string& root);  // `size` of a whole tree
};

// What limits the process that works.
struct Limit {
  const char* name;
  bool ofMemory;
  void (*apply)();
};

struct Operation {
  const char* name;
  bool isRemoval;  // the source goes on success
  bool makesCopy;
  bool (*operate)(const Path& from, const Path& to, Error* error);
};

void MakeDeepTree(const std::string& root, int levels) { testing::MakeDeep(root, levels, kLevel); }
int DepthBelow(const std::string& root) { return testing::DepthOf(root, kLevel); }

int CountBelow(const std::string& root) {
  int count = 0;
  std::error_code ignored;
  for (const auto& item : std::filesystem::directory_iterator(root, ignored)) {
    if (!item.path().empty()) ++count;
  }
  return count;
}

// Names of the greatest length, of every byte that a name can have.
void MakeNames(const std::string& root, int count) {
  for (int i = 0; i < count; ++i) {
    std::string name = std::to_string(i) + "-";
    for (int byte = i; name.size() < 255; ++byte) {
      const char character = static_cast<char>(byte % 256);
      if (character != '\0' && character != '/') name += character;
    }
    testing::WriteFile(root + "/" + name, "of " + std::to_string(i));
  }
}

const Shape kShapes[] = {
    {"deep", 40'000, 3'000, MakeDeepTree, DepthBelow},
    {"wide", 200'000, 5'000, testing::MakeWide, CountBelow},
    {"names", 256, 256, MakeNames, CountBelow},
};

void LimitDescriptors() { testing::LimitDescriptors(kDescriptors); }

// The pages that the program has, and so much more.
void LimitMemory() {
  std::ifstream sizes("/proc/self/statm");
  rlim_t pages = 0;
  sizes >> pages;
  const rlim_t bytes = pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + kMemory;
  const rlimit limit{bytes, bytes};
  ::setrlimit(RLIMIT_AS, &limit);
}

const Limit kLimits[] = {
    {"", false, [] {}},
    {", 20 descriptors", false, LimitDescriptors},
    {", 64 MiB", true, LimitMemory},
};

QVFileManager& Files() { return QVFileManager::defaultManager(); }

// Each on a tree of its own. A move goes to another file system.
const Operation kOperations[] = {
    {"walk", false, false,
     [](const Path& from, const Path&, Error* error) {
       return Files()._traverseDirectory(from, error,
                                         [](const TreeWalkEntry&, Error*) { return true; });
     }},
    {"list", false, false,
     [](const Path& from, const Path&, Error* error) {
       return Files().urlsForItemsInDirectoryAtURL(from, false, error).has_value();
     }},
    {"standardize", false, false,
     [](const Path& from, const Path&, Error* error) {
       return Files().standardizeOwnershipAtURL(from, {.uid = ::getuid(), .gid = ::getgid()},
                                                error);
     }},
    {"copy", false, true,
     [](const Path& from, const Path& to, Error* error) {
       return Files().copyItemAtURL(from, to, error);
     }},
    {"move", true, true,
     [](const Path& from, const Path& to, Error* error) {
       return Files().moveItemAtURL(from, to, error);
     }},
    {"remove", true, false,
     [](const Path& from, const Path&, Error* error) {
       return Files().removeItemAtURL(from, error);
     }},
};

// How the process that worked ends.
enum Ending { kSucceeded, kFailed, kThrew, kFailedSilently, kNotMounted };

Ending Work(const Operation& operation, const Limit& limit, const Path& from, const Path& to) {
  const tests::TestPlatform platform;
  limit.apply();
  try {
    Error error;
    if (operation.operate(from, to, &error)) return kSucceeded;
    return error.domain().empty() ? kFailedSilently : kFailed;
  } catch (...) {
    return kThrew;
  }
}

// With the new containers on another file system, in a process that has mounts of its own.
bool PutContainersOn(const std::string& other, const testing::Device& device) {
  const std::string containers = device.inside(std::string(testing::Mobile) + "/Containers");
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mkdir(containers.c_str(), 0755) == 0 &&
         ::mount(other.c_str(), containers.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// The host inherits the limit. Nothing is mounted where `other` is empty.
Ending Migrate(const testing::Device& device, const std::string& other, const Limit& limit) {
  if (!other.empty() && !PutContainersOn(other, device)) return kNotMounted;
  limit.apply();
  const int code = device.run({"migrate", "--quiet"}).exitCode;
  if (code < 0) return kThrew;
  return code == 0 ? kSucceeded : kFailed;
}

// In a process of its own, which may die of it.
std::string RunApart(const std::function<Ending()>& work, bool* succeeded) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(work());
  int status = -1;
  if (::waitpid(child, &status, 0) != child) return "there is no process to work";
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  *succeeded = WEXITSTATUS(status) == kSucceeded;
  if (WEXITSTATUS(status) == kThrew) return "something was thrown";
  if (WEXITSTATUS(status) == kNotMounted) return "the other file system could not be mounted";
  if (WEXITSTATUS(status) == kFailedSilently) return "a failure without an error";
  return {};
}

// One shape, operation and limit; what is wrong, or nothing.
std::string Try(const Shape& shape, const Operation& operation, const Limit& limit, int size) {
  const ScratchTree tree;
  const ScratchTree other(testing::OtherFileSystem());
  const std::string from = tree / "from";
  // A move within one file system would be a rename.
  const std::string to = (operation.isRemoval ? other : tree) / "to";
  testing::MakeDirectory(from);
  shape.make(from, size);
  bool succeeded = false;
  const std::string wrong =
      RunApart([&] { return Work(operation, limit, Path::directory(from), Path::directory(to)); },
               &succeeded);
  if (!wrong.empty()) return wrong;
  // Without limits every tree is within everybody's means.
  if (!succeeded && limit.name[0] == '\0') return "it failed without need";
  const bool isGone = operation.isRemoval && succeeded;
  const bool mayBePart = operation.isRemoval && !operation.makesCopy && !succeeded;
  if (isGone && testing::Exists(from)) return "the tree is there still";
  if (!isGone && !mayBePart && shape.measure(from) != size) return "the tree is not whole any more";
  if (operation.makesCopy && succeeded && shape.measure(to) != size) return "the copy is not whole";
  return {};
}

// Whether the app's documents are somewhere in their shape, below one of the roots.
bool HasWholeDocuments(const Shape& shape, int size, const std::vector<std::string>& roots) {
  for (const std::string& root : roots) {
    for (auto at = std::filesystem::recursive_directory_iterator(root);
         at != std::filesystem::end(at); ++at) {
      if (at->path().filename() != "Documents") continue;
      at.disable_recursion_pending();
      if (shape.measure(at->path()) == size) return true;
    }
  }
  return false;
}

// An app whose documents have the shape: they are whole in its old container or in its new one,
// which may be on another file system.
std::string TryMigration(const Shape& shape, const Limit& limit, int size, bool toOther) {
  const ScratchTree tree;
  const ScratchTree other(testing::OtherFileSystem());
  const testing::Device device(tree.path());
  testing::PutBundle(device.container("A/Foo.app"), "com.example.foo");
  testing::MakeDirectory(device.container("A/Documents"));
  shape.make(device.container("A/Documents"), size);
  bool succeeded = false;
  const std::string disk = toOther ? other.path() : std::string();
  const std::string wrong = RunApart([&] { return Migrate(device, disk, limit); }, &succeeded);
  if (!wrong.empty()) return wrong;
  if (!succeeded && limit.name[0] == '\0') return "it failed without need";
  if (succeeded && testing::Exists(device.container("A")))
    return "the old container is there still";
  if (HasWholeDocuments(shape, size, {device.root(), other.path()})) return {};
  return "the app's documents are nowhere whole";
}

}  // namespace

std::vector<Row> RunBadTrees(const Options& options, bool whole, bool canLimitMemory) {
  std::vector<Row> rows;
  for (const Shape& shape : kShapes) {
    for (const Limit& limit : kLimits) {
      Row row;
      row.name = std::string(shape.name) + " tree" + limit.name;
      if (!options.only.empty() && options.only != row.name) continue;
      if (limit.ofMemory && !canLimitMemory) row.skipped = "a sanitizer needs more addresses";
      for (const Operation& operation : kOperations) {
        if (!row.skipped.empty()) break;
        ++row.rounds;
        const std::string wrong =
            Try(shape, operation, limit, whole ? shape.size : shape.smallSize);
        if (!wrong.empty()) row.wrong.push_back(std::string(operation.name) + ": " + wrong);
      }
      const bool canMount = testing::NoMounts().empty();
      for (const bool toOther : {false, true}) {
        if (!row.skipped.empty() || (toOther && !canMount)) break;
        ++row.rounds;
        const std::string wrong =
            TryMigration(shape, limit, whole ? shape.size : shape.smallSize, toOther);
        const std::string what = toOther ? "migration to another file system: " : "migration: ";
        if (!wrong.empty()) row.wrong.push_back(what + wrong);
      }
      rows.push_back(std::move(row));
    }
  }
  return rows;
}

}  // namespace quorvel::races
