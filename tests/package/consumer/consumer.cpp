// Uses something of every installed header; returns 0 when all of it answered as it should.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <quorvel/configuration/InfoPlist.h>
#include <quorvel/configuration/QVGlobalConfiguration.h>
#include <quorvel/filemanager/QVFileManager.h>
#include <quorvel/support/Digest.h>
#include <quorvel/support/Errors.h>
#include <quorvel/support/Format.h>
#include <quorvel/support/Logging.h>
#include <quorvel/support/PathStrings.h>
#include <quorvel/support/Platform.h>
#include <quorvel/support/ProcessSupport.h>
#include <quorvel/support/Values.h>

using namespace quorvel;

namespace {

int failures = 0;

void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "failed: %s\n", what);
  ++failures;
}

class CountingLog final : public LogWriter {
 public:
  void write(const LogHandle*, int level, const char* function, std::string_view message) override {
    ++lines;
    std::printf("%d %s: %.*s\n", level, function, static_cast<int>(message.size()), message.data());
  }
  int lines = 0;
};

class Monitor final : public CpuUsageMonitor {
 public:
  void switchOff(pid_t) override { ++calls; }
  void restoreDefaults(pid_t) override { ++calls; }
  int calls = 0;
};

void UseFiles(const Path& directory) {
  QVFileManager& manager = QVFileManager::defaultManager();
  Error error;
  const Path made = directory.childDirectory("made");
  Check(manager.createDirectoryAtURL(made, {}, &error), "createDirectoryAtURL");
  Check(manager.createSymbolicLinkAtURL(made.child("link"), Path("."), &error), "create link");
  Check(manager.moveItemAtURL(made.child("link"), directory.child("link"), &error), "move");
  Check(manager.itemExistsAtURL(directory.child("link")), "itemExistsAtURL");
  const auto items = manager.urlsForItemsInDirectoryAtURL(directory, true);
  Check(items && items->size() == 1 && items->front() == made, "listing");
  Check(manager.realPathForURL(directory.child("link"), directory).has_value(), "realPathForURL");
  Check(!manager.moveItemAtURL(directory.child("no"), made.child("x"), &error), "failing move");
  Check(error.is(PosixErrorDomain, ENOENT), "its error");
  Check(QVLoadInfoPlist(made, std::nullopt) == nullptr, "no info dictionary");
}

void UseSupport() {
  const PlistValue five(5);
  Check(QVStringifyObject(&five) == "5", "QVStringifyObject");
  Check(QVBooleanValue(&five, false), "QVBooleanValue");
  Check(QVURLForm(Path::directory("/a b")) == "file:///a%20b/", "QVURLForm");
  Check(QuorvelAdditions::containsDotDotPathComponents("a/../b"), "dot dot");
  const Error error = _CreateAndLogError({"consumer", __LINE__}, QVInstallerErrorDomain, 4,
                                         {QVPosixCause(ENOENT)}, "no %@ in %d", "luck", 3);
  Check(error.description() == "no luck in 3", "_CreateAndLogError");
  Check(FormatMessage("%@", error).find("FunctionName") != std::string::npos, "FormatMessage");
}

}  // namespace

int main() {
  CountingLog log;
  Monitor monitor;
  PlatformServices services;
  services.log = &log;
  services.cpuMonitor = &monitor;
  QVInstallPlatformServices(&services);

  UseSupport();
  Check(log.lines == 1, "one line of the log");
  QVAssertHighResourceUsage();
  QVClearResourceAssertion();
  Check(monitor.calls == 2, "resource assertions");
  Check(QVGlobalConfiguration::sharedInstance().oldContainerPath().string() ==
            "/private/var/mobile/Applications",
        "configuration");
  std::string name = "/tmp/quorvel-consumer.XXXXXX";
  Check(::mkdtemp(name.data()) != nullptr, "a directory to work in");
  UseFiles(Path::directory(name));
  std::printf("%d failure(s)\n", failures);
  return failures == 0 ? 0 : 1;
}
