// Made devices: always the same for one seed, and fit to be migrated.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/plist/PropertyList.h"
#include "tests/support/HostProcess.h"
#include "tests/support/TreeTools.h"

namespace quorvel {
namespace {

using testing::HostRun;
using testing::ReadFile;
using testing::RunShell;
using testing::ScratchTree;
using testing::Snapshot;
using testing::WriteFile;

// Both outputs of a shell's line are in the run's first.
HostRun Shell(const std::string& line) { return RunShell(line, "/"); }
HostRun Make(const std::string& arguments) { return Shell("legacy-image " + arguments); }
HostRun Migrate(const std::string& root) { return Shell("migration-host migrate --root " + root); }

std::set<std::string> NamesIn(const std::string& directory) {
  std::set<std::string> names;
  if (!std::filesystem::exists(directory)) return names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

constexpr const char* kApplications = "/private/var/mobile/Applications";

TEST(LegacyImage, TheSameArgumentsMakeTheSameTree) {
  const ScratchTree scratch;
  for (const char* options : {"--apps 17 --failing", "--plain --apps 3 --data-bytes 70000"}) {
    ASSERT_EQ(Make(scratch / "one " + options).exitCode, 0);
    ASSERT_EQ(Make("--seed 1 " + (scratch / "two ") + options).exitCode, 0);
    ASSERT_EQ(Make("--seed 2 " + (scratch / "three ") + options).exitCode, 0);
    const auto one = Snapshot(scratch / "one");
    EXPECT_GT(one.size(), 20U);
    EXPECT_TRUE(one == Snapshot(scratch / "two")) << options;
    EXPECT_FALSE(one == Snapshot(scratch / "three")) << options;
    for (const char* tree : {"one", "two", "three"}) testing::RemoveWithSystem(scratch / tree);
  }
}

TEST(LegacyImage, NothingIsWrittenIntoWhatExists) {
  const ScratchTree scratch;
  std::filesystem::create_directory(scratch / "full");
  WriteFile(scratch / "full/precious", "data");
  WriteFile(scratch / "file", "data");
  const auto before = Snapshot(scratch.path());
  for (const char* target : {"full", "file", "missing/below"}) {
    const HostRun run = Make((scratch / target) + " 2>&1");
    EXPECT_EQ(run.exitCode, 1) << target;
    EXPECT_NE(run.out.find(scratch / target), std::string::npos) << run.out;
  }
  const std::string target = scratch / "new";
  EXPECT_TRUE(Snapshot(scratch.path()) == before);
  std::filesystem::create_directory(target);
  EXPECT_EQ(Make(target + " --apps 0").exitCode, 0) << "an empty directory will do";
}

TEST(LegacyImage, AFullFileSystemIsReported) {
  const ScratchTree scratch;
  const HostRun run = Shell("ulimit -f 128; trap '' XFSZ; legacy-image " + (scratch / "new") +
                            " --plain --data-bytes 100000 2>&1");
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.out.find("data.bin: "), std::string::npos) << run.out;
}

TEST(LegacyImage, HoldsWhatItPromises) {
  const ScratchTree scratch;
  const HostRun made = Make(scratch / "device --registered-list " + (scratch / "list 2>/dev/null"));
  ASSERT_EQ(made.exitCode, 0);
  EXPECT_GE(NamesIn(scratch / "device" + kApplications).size(), 40U);
  std::size_t binary = 0;
  std::size_t xml = 0;
  std::size_t placeholders = 0;
  for (const auto& [path, text] : Snapshot(scratch / "device")) {
    placeholders += text.find("[user.com.velto.quorveld.placeholder=" +
                              std::string("\1\0\0\0]", 5)) != std::string::npos
                        ? 1U
                        : 0U;
    if (!path.ends_with("/Info.plist")) continue;
    const std::string bytes = ReadFile(scratch / "device/" + path);
    (bytes.starts_with("bplist00") ? binary : xml) += 1;
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    const auto info = onlinux::ParsePropertyList({data, bytes.size()}, nullptr);
    ASSERT_TRUE(info != nullptr && info->dictionary() != nullptr) << path;
    EXPECT_NE(info->dictionary()->findString("PKBundleIdentifier"), nullptr) << path;
  }
  EXPECT_GT(binary, 5U);
  EXPECT_GT(xml, 5U);
  if (testing::SetAttribute(scratch.path(), "user.probe", "")) {
    EXPECT_EQ(placeholders, 4U);
  }
  std::string listed;
  const std::string list = ReadFile(scratch / "list");
  for (std::size_t at = 0, end = 0; (end = list.find('\n', at)) != std::string::npos;
       at = end + 1) {
    listed += "migration-host register --root " + (scratch / "device") + " --identifier " +
              list.substr(at, end - at) + "\n";
  }
  EXPECT_FALSE(listed.empty());
  EXPECT_EQ(made.out, listed);
}

TEST(LegacyImage, ASoundDeviceMigratesAndEachFailingCaseIsLeft) {
  const ScratchTree scratch;
  ASSERT_EQ(Shell("legacy-image " + (scratch / "sound | sh -e")).exitCode, 0);
  const HostRun sound = Migrate(scratch / "sound");
  EXPECT_EQ(sound.exitCode, 0) << sound.out;
  EXPECT_FALSE(std::filesystem::exists(scratch / "sound" + kApplications));

  ASSERT_EQ(Shell("legacy-image " + (scratch / "failing --failing --apps 3 2>/dev/null | sh -e"))
                .exitCode,
            0);
  std::set<std::string> failing;
  for (const std::string& name : NamesIn(scratch / "failing" + kApplications)) {
    if (name.starts_with("failing-")) failing.insert(name);
  }
  EXPECT_EQ(failing.size(), 10U);
  EXPECT_EQ(Migrate(scratch / "failing").exitCode, 1);
  EXPECT_EQ(NamesIn(scratch / "failing" + kApplications), failing);
  EXPECT_TRUE(std::filesystem::exists(scratch / "failing/private/var/mobile/Library/Quorvel/"
                                                "SafeHarbor.plist"));
}

}  // namespace
}  // namespace quorvel
