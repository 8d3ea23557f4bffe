// A legacy device on a temporary root, with the plug-in on it: real files, real property lists,
// the real registry behind a script, and the host's log recorded.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Ravelle/Ravelle.h"
#include "shared/configuration/ConfigurationForRoot.h"
#include "tests/support/ScriptedRegistry.h"
#include "tests/support/TestPlatform.h"

namespace quorvel::tests {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// What the operations are called in the log.
inline constexpr const char* kIntrospect = "-[QVRavelle _introspectContainer:orderResultEarly:] ";
inline constexpr const char* kPlaceholder =
    "-[QVRavelle _stageAndInstallPlaceholderForBundleAtURL:withIdentifier:inContainerURL:] ";
inline constexpr const char* kIcon = "-[QVRavelle _writeIconForBundle:toURL:] ";

// The host's log as "<level> <function> <message>".
class HostLogTexts {
 public:
  explicit HostLogTexts(RecordingHostLog& log) : log_(log) {}
  // What came since it was asked last.
  std::vector<std::string> take() {
    std::vector<std::string> texts;
    for (const HostLogLine& line : log_.take()) {
      EXPECT_TRUE(line.line > 0 && line.category == "Corvennad");
      texts.push_back(std::to_string(line.level) + " " + line.function + " " + line.message);
    }
    return texts;
  }
  // Only the failures.
  std::vector<std::string> takeErrors() {
    std::vector<std::string> lines = take();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("3 "); });
    return lines;
  }

 private:
  RecordingHostLog& log_;
};

// Collects what the plug-in tells of containers and what remains, one text each.
class RecordingAccount : public MigrationAccount {
 public:
  void itemsFound(std::size_t count) override { add("items " + std::to_string(count)); }
  void containerBegan(std::size_t /*index*/, const std::string& path) override {
    add("began " + path.substr(path.rfind('/') + 1));
  }
  void containerClassified(const ClassifiedContainer& container) override {
    add(std::string("is ") + NameOf(container.kind) + " " + container.identifier);
  }
  void problem(const MigrationProblem& problem) override {
    std::string text = std::string(problem.stops ? "stops " : "notes ") + NameOf(problem.step) +
                       " " + NameOf(problem.reason) + " " +
                       problem.path.substr(problem.path.rfind('/') + 1);
    if (problem.error) text += " " + std::to_string(problem.error.code());
    for (const std::string& item : problem.items) text += " [" + item + "]";
    add(std::move(text));
  }
  void lost(const MigrationLoss& loss) override {
    std::string text = "lost " + std::to_string(loss.files) + " " + std::to_string(loss.bytes);
    for (const std::string& item : loss.userDataItems) text += " " + item;
    add(text + (loss.complete ? "" : " ?"));
  }
  void containerEnded(MigrationOutcome outcome, bool stays) override {
    add(std::string("ended ") + NameOf(outcome) + (stays ? " stays" : ""));
  }
  void groupEnded(const MigratedDirectory& group) override { directory("group ", group); }
  void harborEnded(const MigratedDirectory& harbor) override { directory("harbor ", harbor); }
  void leftBehind(const LeftBehind& item) override {
    add("left behind " + item.path.substr(item.path.rfind('/') + 1) + " " + NameOf(item.why));
  }
  std::vector<std::string> take() { return std::exchange(texts_, {}); }

 private:
  void add(std::string text) { texts_.push_back(std::move(text)); }
  void directory(const char* what, const MigratedDirectory& told) {
    add(what + told.identifier + " " + NameOf(told.outcome) + " " + NameOf(told.reason));
  }
  std::vector<std::string> texts_;
};

class RavelleFixture : public ::testing::Test {
 protected:
  RavelleFixture() {
    platform_.set.account = &account_;
    platform_.set.workspace = &workspace_;
    platform_.set.installationService = &service_;
    configuration_ = ConfigurationForRoot::make(Path::directory(root_));
  }

  std::unique_ptr<QVRavelle> makePlugin() { return std::make_unique<QVRavelle>(*configuration_); }
  // init and performMigration of a fresh instance.
  bool migrate() {
    const auto plugin = makePlugin();
    return plugin->init() != nullptr && plugin->performMigration();
  }

  // Introspects and migrates one container, and forgets what introspection said.
  bool migrateContainer(const std::string& name) {
    const auto plugin = makePlugin();
    bool early = false;
    const auto record = plugin->_introspectContainer(legacyPath(name), &early);
    log_.take();
    return record && plugin->_migrateContainerWithInfo(*record);
  }
  void markAsPlaceholder(const std::string& bundle) {
    ASSERT_TRUE(QVFileManager::defaultManager().markBundleAsPlaceholder(Path::directory(bundle)));
  }

  std::string legacy(const std::string& name = "") const {
    return root_ + "/private/var/mobile/Applications" + (name.empty() ? "" : "/" + name);
  }
  Path legacyPath(const std::string& name) const { return Path::directory(legacy(name)); }
  std::string marker(const std::string& name) { return legacy(name) + "/" + MigrationMarkerName; }

  void writePlist(const std::string& file, const PlistDictionary& dictionary,
                  PropertyListFormat format = PropertyListFormat::xml) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    Error error;
    ASSERT_TRUE(
        platform_.propertyLists.writeDictionary(dictionary, Path::file(file), format, &error))
        << error.description();
  }
  void writeFile(const std::string& file, std::string_view bytes) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
  }
  static std::string readFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static bool exists(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
  }

  // A bundle without an icon, with the given further keys.
  std::string makeBundle(const std::string& container, const std::string& name,
                         const std::string& identifier, PlistDictionary info = {}) {
    const std::string bundle = legacy(container) + "/" + name;
    info.set("PKBundleIdentifier", identifier);
    if (info.find("PKBundleVersion") == nullptr) info.set("PKBundleVersion", "1.0");
    writePlist(bundle + "/Info.plist", info);
    writeFile(bundle + "/executable", "code of " + identifier);
    return bundle;
  }
  // An app container with all kinds of data.
  void makeApp(const std::string& container, const std::string& identifier,
               PlistDictionary info = {}) {
    makeBundle(container, "Foo.app", identifier, std::move(info));
    writeFile(legacy(container) + "/Documents/letter", "letter of " + identifier);
    writeFile(legacy(container) + "/Library/Preferences/p", "preferences");
    std::filesystem::create_directories(legacy(container) + "/tmp");
  }

  std::string dataOf(const std::string& identifier) {
    const auto proxy = workspace_.bundleProxyForIdentifier(identifier);
    return proxy && proxy->dataContainerPath ? proxy->dataContainerPath->string() : "(none)";
  }
  std::vector<onlinux::SafeHarborRecord> harbors() {
    onlinux::RegistrySnapshot known;
    EXPECT_TRUE(registry_.snapshot(&known, nullptr));
    return known.safeHarbors;
  }
  std::string groupOf(const std::string& identifier, const std::string& group) {
    return workspace_.bundleProxyForIdentifier(identifier)->groupContainerPaths->at(group).string();
  }

  // What a line says about an absent icon comes with every placeholder here; tests of other
  // things leave it out.
  static std::vector<std::string> withoutIconLines(std::vector<std::string> lines) {
    std::erase_if(lines,
                  [](const std::string& line) { return line.find("icon") != std::string::npos; });
    return lines;
  }

  TestPlatform platform_;
  const std::string root_ = platform_.tree.path() + "/device";
  HostLogTexts log_{platform_.hostLog};
  RecordingAccount account_;
  onlinux::ApplicationRegistryLinux registry_{
      platform_.fileSystem, platform_.bundles, {.deviceRoot = root_}};
  ScriptedWorkspace workspace_{registry_.workspace()};
  ScriptedInstallationService service_{registry_.installationService()};
  std::unique_ptr<QVGlobalConfiguration> configuration_;
};

using Lines = std::vector<std::string>;

}  // namespace quorvel::tests
