// One run of one command: the platform's services, the tree that the command works in, and what
// is said about the outcome.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/console/ExitCode.h"
#include "platform/Error.h"
#include "platform/Path.h"
#include "tools/quorvelctl/CtlCommand.h"
#include "tools/quorvelctl/CtlErrorLines.h"
#include "tools/quorvelctl/CtlJson.h"

namespace quorvel::ctl {

// What every command is given.
struct CommonOptions {
  std::string command;
  bool json = false;
  std::string logFile;  // empty: none
  std::string root;     // empty: none; "/": this machine's own, as it stands
};

// Results go to standard output: with --json one object on one line, otherwise plain text in which
// names are raw bytes, or made harmless on a terminal. Errors go to standard error, and with
// --json, as the one object, to standard output. One thread; one per process.
class Session {
 public:
  explicit Session(CommonOptions options);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Before open(): digests will be computed. What computes them has to be loaded from outside.
  void prepareDigests();

  // Opens the log, confines the process to the tree and installs the services. On failure nothing
  // has been changed, and the command must end with failFatally().
  bool open(Access access, host::FatalError& error);

  // The path that an argument names: relative ones are below the directory that the command was
  // started in, or below the tree's root. Repeated slashes and inner "." go.
  Path path(const std::string& argument) const;

  bool json() const { return options_.json; }
  // A text of the system (names reversibly encoded) as standard output shows it.
  std::string shown(const std::string& text) const;
  // The same for a path of a long list, without a text of its own for each.
  void appendShown(std::string& line, const Path& item) const;
  // Whether standard output is read by a person at a terminal.
  bool toTerminal() const { return toTerminal_; }
  // Debug lines are written from here on; into the log file only with `toFile`.
  void writeDetails(bool toFile);
  const ErrorLines& lines() const { return errorLines_; }
  // Preferences files that could not be understood and got these names.
  // For the person to know that they were not lost.
  std::vector<std::string> preferencesSetAside();
  // Lines that the operations logged as errors so far, whether or not they failed for them.
  std::size_t errorLines() const { return errorLines_.count(); }

  // Each writes and returns the exit code. Output that cannot be written is a failure.
  int finish(const Json& object, std::string_view plain, int code = host::ExitSucceeded);
  // The same with plain text made from the object.
  int finish(const Json& object, int code = host::ExitSucceeded);
  // Bytes as they are, also with --json.
  int finishBytes(std::string_view bytes, int code = host::ExitSucceeded);
  // A change that was made. Silent but for {"succeeded": true, "errorLines": n}.
  int succeed();
  int fail(const Error& error);
  // A failure whose reason is the log's last line, or `otherwise` when nothing was logged.
  int failAsLogged(const std::string& otherwise);
  int failFatally(const host::FatalError& error);

  // For commands with several items, which go on: one failure, on standard error only.
  void note(const Error& error);
  // The reason for which an operation without an Error failed; see failAsLogged.
  std::string loggedReason(const std::string& otherwise);
  void note(const std::string& reason);

 private:
  // The platform's, made before the process is confined.
  struct Services;

  bool openLog(host::FatalError& error);
  // Enters the tree for good: read-only for commands that only look.
  bool confine(Access access, host::FatalError& error);
  // What relative arguments are below; asked before confinement makes it unreachable.
  bool findCurrentDirectory(host::FatalError& error);
  // An operation that logged the Error which it returned: once is enough.
  void dropLineOf(const Error& error);
  // Writes a failure in both forms. The exit code.
  int failWith(Json object, const std::string& lines);

  const CommonOptions options_;
  const bool toTerminal_;
  ErrorLines errorLines_;
  std::unique_ptr<Services> services_;
  std::string currentDirectory_;  // bytes
};

}  // namespace quorvel::ctl
