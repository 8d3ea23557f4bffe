// report: results of migrations as one page for people.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "host/Commands.h"
#include "host/console/ExitCode.h"
#include "host/console/Json.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"
#include "host/report/FleetPage.h"
#include "host/report/RunPage.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/linux/files/AtomicFile.h"

namespace quorvel::host {

namespace {

constexpr const char* kDefaultOutput = "report.html";

// By what they are and not by their names: a link or another spelling is the same file. A file that
// is not there is none of those that are read.
bool SameFile(const std::string& one, const std::string& other) {
  struct stat first {};
  struct stat second {};
  return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// What can be refused by the names of the files is refused before any result is read, as there may
// be thousands of them.
class Report {
 public:
  explicit Report(const Options& options) : options_(options) {
    output_ = options.output.empty() ? kDefaultOutput : options.output;
  }

  int run() {
    const ResultSinks sinks = {
        [this](const std::string& name, const RunResult& result) { take(name, result); },
        [this](UnusableFile file) { fleet_.addUnusable(std::move(file)); }};
    files_ = ExpandDirectories(options_.files, sinks);
    if (!outputIsFree() || !openLog()) return ReportFatal(error_, options_.json);
    for (const std::string& file : files_) ReadResults(file, sinks);
    std::string page;
    if (!makePage(page) || !write(page)) return ReportFatal(error_, options_.json);
    return tell();
  }

 private:
  void take(const std::string& name, const RunResult& result) {
    // One run has a page of its own; any more make a fleet.
    if (fleet_.devices == 0) {
      only_ = result;
    } else {
      only_.reset();
    }
    fleet_.add(name, result);
  }

  // A result may be the only copy of what is known about a device.
  bool outputIsFree() {
    const auto isOutput = [this](const std::string& file) { return SameFile(file, output_); };
    const auto taken = std::find_if(files_.begin(), files_.end(), isOutput);
    if (taken != files_.end()) return outputIsTaken(*taken);
    return !isOutput(options_.logFile) || outputIsTaken(options_.logFile);
  }

  bool outputIsTaken(const std::string& file) {
    return Fail(error_, ExitUsage, Printable(output_) + ": is read as " + Printable(file),
                "Name another file with --output");
  }

  bool openLog() {
    if (options_.logFile.empty()) return true;
    log_.reset(::open(options_.logFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    return log_ || logFails(ErrnoDescription(errno));
  }

  bool logFails(const std::string& why) {
    return Fail(error_, ExitUsage, Printable(options_.logFile) + ": " + why,
                "Name the log that migrate --log wrote in the same run with --log");
  }

  // The log is read only for one run: its lines are told apart by the time of that run.
  bool makePage(std::string& page) {
    const bool isRun = only_ && only_->kind == ResultKind::run;
    if (log_ && !isRun) return logFails("a log goes with the result of one run");
    std::optional<RunLog> log;
    if (log_) {
      std::string why;
      log.emplace(*only_);
      if (!log->read(std::move(log_), why)) return logFails(why);
    }
    page = isRun ? RunPage(*only_, log ? &*log : nullptr, fleet_.unusable) : FleetPage(fleet_);
    return true;
  }

  // Through a temporary file beside it: a page that is being looked at is never half of one, and an
  // older one stays if the new one cannot be written.
  bool write(const std::string& page) {
    Error failure;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(page.data());
    return onlinux::ReplaceFileAtomically(Path(StringFromFileSystemRepresentation(output_)),
                                          {bytes, page.size()}, onlinux::Durability::contentFirst,
                                          &failure) ||
           Fail(error_, ExitUsage, Printable(output_) + ": " + Printable(failure.description()),
                "Name a file that can be written with --output");
  }

  // The page is written even when some files were no results; the exit code says that they were
  // not.
  int tell() {
    const int code = fleet_.unusableCount == 0 ? ExitSucceeded : ExitFailed;
    if (options_.json) {
      Json object;
      object["output"] = StringFromFileSystemRepresentation(output_);
      AddFleet(fleet_, object);
      return WriteResult(JsonLine(object), code);
    }
    std::string complaints;
    for (const UnusableFile& file : fleet_.unusable) {
      complaints += Printable(file.name) + ": " + file.why + "\n";
    }
    if (fleet_.unusableCount > 0) {
      complaints += std::to_string(fleet_.unusableCount) + " without a result of a migration.\n";
    }
    (void)WriteWhole(STDERR_FILENO, complaints);
    return WriteResult(SentenceOf(fleet_) + " See " + Printable(output_) + "\n", code);
  }

  const Options& options_;
  FatalError error_;
  std::string output_;
  std::vector<std::string> files_;
  UniqueDescriptor log_;
  Fleet fleet_;
  std::optional<RunResult> only_;
};

}  // namespace

int RunReport(const Options& options) { return Report(options).run(); }

}  // namespace quorvel::host
