// A plug-in that does what the environment variable SCRIPT says, for tests of the host. SCRIPT
// holds words separated by blanks:
//   refuse        creation yields no instance, as for a foreign interface version
//   init-fails    init() yields no instance
//   fail          the second app fails and the migration reports failure
//   touch         creates "/entered" by its absolute path
//   hold          performMigration() creates "/holding" and waits until "/release" exists
//   nasty         the second app's identifier tries to play with the terminal
//   many          there are 5000 apps; of those behind the third all but every tenth fail, for a
//                 few causes
// Three apps are "migrated": the log and the account hear what the real plug-in tells them.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

#include "platform/MigrationHost.h"
#include "shared/support/Logging.h"
#include "shared/support/Platform.h"

namespace {

using quorvel::QVHostLogV;

bool Scripted(std::string_view word) {
  const char* script = std::getenv("SCRIPT");
  const std::string words = " " + std::string(script != nullptr ? script : "") + " ";
  return words.find(" " + std::string(word) + " ") != std::string::npos;
}

void Touch(const char* path) { ::close(::open(path, O_CREAT | O_WRONLY | O_CLOEXEC, 0666)); }

void Log(const char* function, int level, const std::string& message) {
  QVHostLogV(__FILE__, function, __LINE__, "Corvennad", level, "QVRavelle: " + message);
}

quorvel::MigrationAccount& Account() { return *quorvel::QVPlatform().account; }

constexpr const char* Driver = "-[QVRavelle performMigration]";
int Items() { return Scripted("many") ? 5000 : 3; }

class ScriptedPlugin final : public quorvel::MigratorPlugin {
 public:
  MigratorPlugin* init() override {
    if (Scripted("init-fails")) {
      Log("-[QVRavelle init]", 3,
          "Failed to get items at file:///legacy/ : PosixErrorDomain 13 {}");
      Account().problem({.step = quorvel::MigrationStep::run,
                         .reason = quorvel::MigrationReason::cannotBeListed,
                         .path = "/legacy",
                         .error = {quorvel::PosixErrorDomain, 13, {}}});
      return nullptr;
    }
    Log("-[QVRavelle init]", 5, std::to_string(Items()) + " items to migrate");
    Account().itemsFound(static_cast<std::size_t>(Items()));
    return this;
  }
  const char* dataClassName() const override { return "QVRavelle"; }
  float estimatedDuration() const override { return 20.0F + 2.25F * static_cast<float>(Items()); }
  float migrationProgress() const override {
    return static_cast<float>(done_.load()) / static_cast<float>(Items());
  }

  bool performMigration() override {
    if (Scripted("touch")) Touch("/entered");
    bool succeeded = !Scripted("many");
    const std::array<std::string, 3> identifiers = {
        "com.example.one", Scripted("nasty") ? "com.example.\x1b[2J\xFF\ntwo" : "com.example.two",
        "com.example.three"};
    for (const std::string& identifier : identifiers) {
      const std::string container = "/private/var/mobile/Applications/" + identifier;
      const std::string bundle = container + "/A.app";
      Log(Driver, 5, "Migrating " + identifier + " at " + bundle);
      Account().containerBegan(static_cast<std::size_t>(done_), container);
      Account().containerClassified({quorvel::LegacyItemKind::app, identifier, bundle});
      const bool migrated = done_ != 1 || second(identifier, bundle);
      Account().containerEnded(
          migrated ? quorvel::MigrationOutcome::migrated : quorvel::MigrationOutcome::failed,
          !migrated);
      succeeded = succeeded && migrated;
      ++done_;
    }
    for (; done_ < Items(); ++done_) more(done_);
    if (!succeeded) Log(Driver, 3, "Returning migration failed.");
    return succeeded;
  }

 private:
  static bool second(const std::string& identifier, const std::string& bundle) {
    if (Scripted("hold")) {
      Touch("/holding");
      while (::access("/release", F_OK) != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
    if (!Scripted("fail")) return true;
    Log("-[QVRavelle _migrateContainerWithInfo:]", 3,
        "Failed to get bundle proxy for identifier " + identifier);
    Account().problem({.step = quorvel::MigrationStep::placeholder,
                       .reason = quorvel::MigrationReason::noRecord});
    Log(Driver, 3, "Migration of " + identifier + " at " + bundle + " failed");
    return false;
  }

  // Two steps fail for want of space, one for want of a record; some are left or removed.
  static void more(int index) {
    using quorvel::MigrationOutcome;
    using quorvel::MigrationReason;
    Account().containerBegan(static_cast<std::size_t>(index),
                             "/private/var/mobile/Applications/" + std::to_string(index));
    Account().containerClassified(
        {quorvel::LegacyItemKind::app, "com.example.many" + std::to_string(index), ""});
    const quorvel::Error full(quorvel::PosixErrorDomain, ENOSPC, {});
    if (index % 10 == 0) return Account().containerEnded(MigrationOutcome::migrated, false);
    if (index % 10 == 1) {
      Account().problem({.reason = MigrationReason::link});
      return Account().containerEnded(MigrationOutcome::left, true);
    }
    if (index % 3 == 0) {
      Account().problem({.reason = MigrationReason::noRecord});
    } else {
      Account().problem(
          {.reason = index % 3 == 1 ? MigrationReason::notMoved : MigrationReason::stagingFailed,
           .error = full});
    }
    Account().containerEnded(MigrationOutcome::failed, true);
  }

  std::atomic<int> done_ = 0;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) quorvel::MigratorPlugin* QVMigratorPluginCreate(
    std::uint32_t interfaceVersion) {
  if (Scripted("refuse") || interfaceVersion != quorvel::MigratorPluginInterfaceVersion) {
    return nullptr;
  }
  return new ScriptedPlugin;
}
