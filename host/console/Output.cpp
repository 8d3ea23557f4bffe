// Writes to descriptors, where a stream would hide an error until too late.
#include "host/console/Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "host/console/Json.h"
#include "host/console/TerminalText.h"
#include "platform/Error.h"

namespace quorvel::host {

void PrepareStandardStreams() {
  std::signal(SIGPIPE, SIG_IGN);
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (::fcntl(stream, F_GETFD) < 0 && errno == EBADF) {
      // The lowest free number is the closed one. The wrong direction makes its use an error.
      (void)::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

UniqueDescriptor OpenLogFile(const std::string& file, FatalError& error) {
  // Not blocking, so that a pipe without a reader is refused at once.
  UniqueDescriptor log(::open(
      file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644));
  if (!log) {
    Fail(error, ExitUsage, Printable(file) + ": " + ErrnoDescription(errno),
         "Name a file that can be written with --log", "log-unwritable");
    return log;
  }
  (void)::fcntl(log.get(), F_SETFL, O_APPEND);
  return log;
}

int WriteResult(std::string_view text, int code, const std::string& complaint) {
  const int failure = WriteWhole(STDOUT_FILENO, text);
  if (failure == 0) return code;
  const std::string message = complaint + ": " + ErrnoDescription(failure) + "\n" +
                              (code == ExitSucceeded ? "The command itself succeeded.\n"
                                                     : "The command itself failed, too.\n");
  (void)WriteWhole(STDERR_FILENO, message);
  return ExitFailed;
}

int ReportFatal(const FatalError& error, bool json, const std::string& program) {
  std::string text = program + ": " + error.problem + "\n";
  if (!error.remedy.empty()) text += error.remedy + "\n";
  (void)WriteWhole(STDERR_FILENO, text);
  if (json) {
    Json object;
    object["error"] = error.remedy.empty() ? error.problem : error.problem + ". " + error.remedy;
    object["reason"] = error.reason.empty() ? ReasonOf(error.exitCode) : error.reason;
    object["exitCode"] = error.exitCode;
    (void)WriteWhole(STDOUT_FILENO, JsonLine(object));
  }
  return error.exitCode;
}

}  // namespace quorvel::host
