// Memory that runs out, at every allocation of every operation that promises to throw nothing.
#include <cstdlib>
#include <functional>
#include <new>

#include "platform/linux/system/Sha256Linux.h"
#include "shared/configuration/InfoPlist.h"
#include "shared/support/Digest.h"
#include "tests/shared/FileManagerFixture.h"

namespace {
// How many more allocations of this thread succeed; below 0 all do.
thread_local long allocationsLeft = -1;
}  // namespace

// Not inlined: the compiler would take malloc and delete for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (allocationsLeft == 0) throw std::bad_alloc();
  if (allocationsLeft > 0) --allocationsLeft;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace quorvel::tests {
namespace {

// Runs it with that many allocations left, and fails the test if it throws.
bool Attempt(long allocations, const std::function<bool(Error*)>& run, Error* error) {
  allocationsLeft = allocations;
  bool done = false;
  bool threw = false;
  try {
    done = run(error);
  } catch (const std::bad_alloc&) {
    threw = true;
  }
  allocationsLeft = -1;
  EXPECT_FALSE(threw) << "after " << allocations;
  return done;
}

// With no allocation left, with one, and so on, until it succeeds.
void ExpectErrorsUntilDone(const std::function<bool(Error*)>& run) {
  bool done = false;
  for (long allocations = 0; !done && allocations < 2000; ++allocations) {
    Error error;
    done = Attempt(allocations, run, &error);
    EXPECT_TRUE(done || error) << "after " << allocations;
    if (::testing::Test::HasFailure()) return;
  }
  EXPECT_TRUE(done);
}

TEST_F(FileManager, MemoryThatRunsOutIsAFailureLikeAnyOther) {
  MakeDirectory(at("d"));
  WriteFile(at("d/f"), "x");
  MakeLink("f", at("d/l"));
  const Path d = directory("d"), f = file("d/f"), link = file("d/l");
  const Path none = file("none"), copy = file("copy");
  std::int32_t number = 0;
  QVFileManager& m = manager_;
  using E = Error*;
  // Each is false as a failure.
  const std::pair<const char*, std::function<bool(E)>> operations[] = {
      {"remove", [&](E e) { return m.removeItemAtURL(copy, e); }},
      {"create",
       [&](E e) {
         return m.createDirectoryAtURL(d, {true, 0755, 4}, e);
       }},
      {"copy", [&](E e) { return m.copyItemAtURL(d, copy, e); }},
      {"move", [&](E e) { return m.moveItemIfExistsAtURL(none, copy, e); }},
      {"mktemp", [&](E e) { return m.createTemporaryDirectoryInDirectoryURL(d, e).has_value(); }},
      {"sync", [&](E e) { return m.syncDirectoryAtURL(d, e); }},
      {"sync all", [&](E e) { return m.syncFileSystemsOfItems({}, e); }},
      {"list", [&](E e) { return m.urlsForItemsInDirectoryAtURL(d, false, e).has_value(); }},
      {"standardize",
       [&](E e) {
         return m.standardizeOwnershipAtURL(d, {0, 0, true}, e);
       }},
      {"capture",
       [&](E e) {
         return m.captureStoreDataFromDirectory(d, d, {true, true}, e);
       }},
      {"readlink", [&](E e) { return m.destinationOfSymbolicLinkAtURL(link, e).has_value(); }},
      {"class", [&](E e) { return m.dataProtectionClassOfItemAtURL(f, &number, e); }},
      {"type", [&](E e) { return m.installTypeForBundle(d, e).has_value(); }},
      {"failure", [&](E e) { return !m.moveItemAtURL(none, copy, e); }},
  };
  for (const auto& [name, run] : operations) {
    SCOPED_TRACE(name);
    ExpectErrorsUntilDone(run);
  }
}

TEST_F(FileManager, WithoutAnErrorToGiveMemoryThatRunsOutIsNoAnswer) {
  onlinux::Sha256ProviderLinux sha256;
  platform_.set.sha256 = &sha256;
  WriteFile(at("Info.plist"), "<plist><dict><key>k</key><string>v</string></dict></plist>");
  MakeLink("Info.plist", at("l"));
  const Path d = Path::directory(tree_.path());
  const Path link = file("l");
  const std::string name = file("Info.plist").string();
  const std::function<bool(Error*)> operations[] = {
      [&](Error*) { return manager_.realPathForURL(link, d).has_value(); },
      [&](Error*) { return manager_.itemExistsAtURL(link); },
      [&](Error*) { return manager_.bundleAtURLIsPlaceholder(d); },
      [&](Error*) { return QVCreateSHA256Digest(name).has_value(); },
      [&](Error*) { return QVLoadInfoPlist(d, std::nullopt) != nullptr; },
  };
  for (long allocations = 0; allocations < 60; ++allocations) {
    for (const auto& operation : operations) Attempt(allocations, operation, nullptr);
  }
}

}  // namespace
}  // namespace quorvel::tests
