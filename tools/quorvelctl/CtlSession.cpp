// Enters the tree, installs the services and writes the result.
#include "tools/quorvelctl/CtlSession.h"

#include <unistd.h>

#include <filesystem>
#include <optional>
#include <vector>

#include "host/console/DeviceRoot.h"
#include "host/console/Output.h"
#include "host/console/Terminal.h"
#include "host/console/TerminalText.h"
#include "platform/Services.h"
#include "platform/linux/log/JsonLineLog.h"
#include "platform/linux/log/TeeLog.h"
#include "platform/linux/services/CoreServices.h"
#include "shared/support/Logging.h"
#include "shared/support/Platform.h"

namespace quorvel::ctl {

using host::ExitFailed;
using host::ExitSucceeded;
using host::ExitUsage;
using host::Fail;
using host::FatalError;
using host::Printable;

struct Session::Services {
  // What reaches the log file.
  struct UpToLevel final : LogWriter {
    LogWriter* file = nullptr;
    int highest = LogLevelNotice;
    void write(const LogHandle* handle, int level, const char* function,
               std::string_view message) override {
      if (level <= highest) file->write(handle, level, function, message);
    }
  };

  std::unique_ptr<onlinux::CoreServices> device;
  bool computesDigests = false;
  std::optional<onlinux::JsonLineLog> jsonLog;
  UpToLevel fileLog;
  std::optional<onlinux::TeeLog> log;
  PlatformServices set;

  // Before the process is confined.
  bool make(const std::string& root, FatalError& failure) {
    QVLinuxServicesOptions options;
    options.digests = computesDigests;
    options.processWillEnterRoot = true;
    Error error;
    device = onlinux::CoreServices::create(Path::directory(root), options, &error);
    return device != nullptr || Fail(failure, host::ExitRootUnusable, error.description(),
                                     "Name a directory that you may read with --root");
  }

  // The writers are members of the session, which takes the set away again before they go.
  void install(LogWriter& errorLines) {
    // The person's lines always; the file where one was named.
    std::vector<LogWriter*> sinks = {&errorLines};
    if (jsonLog) {
      fileLog.file = &*jsonLog;
      sinks.push_back(&fileLog);
    }
    log.emplace(std::move(sinks));
    // A copy: only the log is this program's own.
    set = device->set;
    set.log = &*log;
    QVInstallPlatformServices(&set);
  }
};

namespace {

// "a//./b" as "a/b". A "." at the end stays: what it says about a link is meant.
std::string WithoutEmptySteps(std::string_view path) {
  std::string result;
  while (!path.empty()) {
    const auto slash = path.find('/');
    const std::string_view step = path.substr(0, slash);
    const bool isLast = slash == std::string_view::npos;
    path.remove_prefix(isLast ? path.size() : slash + 1);
    if (step.empty() || (step == "." && !isLast)) continue;
    result += '/';
    result += step;
  }
  return result;
}

std::string ErrorLine(const Json& error) {
  return error["domain"].get<std::string>() + " " + std::to_string(error["code"].get<long>()) +
         ": " + Printable(error["message"].get<std::string>()) + "\n";
}

std::string ErrorText(const std::string& command, const Error& error) {
  std::string text = "quorvelctl: " + command + ": " + ErrorLine(ErrorAsJson(error));
  for (Error cause = error.underlying(); cause; cause = cause.underlying()) {
    text += "  caused by " + ErrorLine(ErrorAsJson(cause));
  }
  return text;
}

std::string ReasonText(const std::string& command, const std::string& reason) {
  return "quorvelctl: " + command + ": " + Printable(reason) + "\n";
}

}  // namespace

Session::Session(CommonOptions options)
    : options_(std::move(options)),
      toTerminal_(host::DescribeTerminal(STDOUT_FILENO).isTerminal),
      errorLines_(options_.command),
      services_(std::make_unique<Services>()) {}

// Nothing may reach the services after this: the set refers to members of this object.
Session::~Session() { QVInstallPlatformServices(nullptr); }

void Session::writeDetails(bool toFile) {
  static LogHandle everything{LogLevelDebug};
  gLogHandle = &everything;
  if (toFile) services_->fileLog.highest = LogLevelDebug;
}

std::vector<std::string> Session::preferencesSetAside() {
  return services_->device->preferences.filesSetAside();
}

void Session::prepareDigests() { services_->computesDigests = true; }

bool Session::open(Access access, FatalError& error) {
  // The log is last to be opened: it is made when it is missing, which a command that cannot
  // begin must not do.
  if (options_.root.empty() && !findCurrentDirectory(error)) return false;
  const bool isConfined = !options_.root.empty() && options_.root != "/";
  const bool isReady =
      isConfined ? confine(access, error) : services_->make("/", error) && openLog(error);
  if (!isReady) return false;
  services_->install(errorLines_);
  return true;
}

// Before the process is confined, like the services: the log's path is one outside the tree.
bool Session::openLog(FatalError& error) {
  if (options_.logFile.empty()) return true;
  UniqueDescriptor file = host::OpenLogFile(options_.logFile, error);
  if (!file) return false;
  services_->jsonLog.emplace(std::move(file));
  return true;
}

// The tree is entered last. From then on paths mean what they mean inside the device, and nothing
// outside of it can be opened any more.
bool Session::confine(Access access, FatalError& error) {
  host::DeviceRoot root;
  if (!root.open(options_.root, error)) return false;
  using View = host::DeviceRoot::View;
  return services_->make(StringFromFileSystemRepresentation(options_.root), error) &&
         openLog(error) &&
         root.enter(access == Access::look ? View::readOnly : View::writable, error);
}

bool Session::findCurrentDirectory(FatalError& error) {
  std::error_code failure;
  currentDirectory_ = std::filesystem::current_path(failure).string();
  return !failure || Fail(error, ExitFailed, "the current directory: " + failure.message(),
                          "Change to a directory that exists");
}

Path Session::path(const std::string& argument) const {
  std::string bytes = argument;
  if (!argument.starts_with('/')) {
    // "." alone is the directory itself, under its name.
    bytes = currentDirectory_ + "/" + (argument == "." || argument == "./" ? "" : argument);
  }
  const std::string clean = WithoutEmptySteps(bytes);
  return Path(StringFromFileSystemRepresentation(clean.empty() ? "/" : clean));
}

std::string Session::shown(const std::string& text) const {
  return toTerminal_ ? Printable(text) : BytesOfFileSystemRepresentation(text);
}

void Session::appendShown(std::string& line, const Path& item) const {
  if (toTerminal_) {
    line += Printable(item.string());
  } else {
    line += item.fileSystemRepresentation().c_str();
  }
}

int Session::finish(const Json& object, std::string_view plain, int code) {
  return finishBytes(options_.json ? host::JsonLine(object) : plain, code);
}

int Session::finish(const Json& object, int code) {
  const auto show = [this](const std::string& text) { return shown(text); };
  return finish(object, options_.json ? std::string() : JsonAsText(object, show), code);
}

// Lines held back come first, so that the result is the last thing that a terminal shows.
int Session::finishBytes(std::string_view bytes, int code) {
  errorLines_.flush();
  return host::WriteResult(bytes, code, "quorvelctl: " + options_.command + ": standard output");
}

int Session::succeed() {
  Json object;
  object["succeeded"] = true;
  object["errorLines"] = errorLines();
  return finish(object, "");
}

// Standard output gets an object only where one was asked for: without --json a script that
// captures it finds nothing after a failure.
int Session::failWith(Json object, const std::string& lines) {
  (void)WriteWhole(STDERR_FILENO, lines);
  if (options_.json) (void)WriteWhole(STDOUT_FILENO, host::JsonLine(object));
  return object["exitCode"].get<int>();
}

int Session::fail(const Error& error) {
  const Json record = ErrorAsJson(error);
  Json object;
  object["error"] = record["message"];
  object["reason"] = ReasonOf(error);
  object["exitCode"] = static_cast<int>(ExitFailed);
  object["domain"] = record["domain"];
  object["code"] = record["code"];
  if (record.contains("underlying")) object["underlying"] = record["underlying"];
  dropLineOf(error);
  return failWith(std::move(object), ErrorText(options_.command, error));
}

int Session::failAsLogged(const std::string& otherwise) {
  const std::string reason = loggedReason(otherwise);
  Json object;
  object["error"] = reason;
  object["reason"] = host::ReasonOf(ExitFailed);
  object["exitCode"] = static_cast<int>(ExitFailed);
  return failWith(std::move(object), ReasonText(options_.command, reason));
}

int Session::failFatally(const FatalError& error) {
  return host::ReportFatal(error, options_.json, "quorvelctl");
}

// The error is shown in full by the caller; its own line from the log would say it twice. A line
// that says something else is shown.
void Session::dropLineOf(const Error& error) {
  if (!errorLines_.holds(error.description())) errorLines_.flush();
  (void)errorLines_.take();
}

void Session::note(const Error& error) {
  dropLineOf(error);
  (void)WriteWhole(STDERR_FILENO, ErrorText(options_.command, error));
}

void Session::note(const std::string& reason) {
  (void)WriteWhole(STDERR_FILENO, ReasonText(options_.command, reason));
}

std::string Session::loggedReason(const std::string& otherwise) {
  return errorLines_.take().value_or(otherwise);
}

}  // namespace quorvel::ctl
