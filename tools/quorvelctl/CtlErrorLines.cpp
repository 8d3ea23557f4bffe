// Collects lines and repeats them on standard error.
#include "tools/quorvelctl/CtlErrorLines.h"

#include <unistd.h>

#include <utility>

#include "host/console/Output.h"
#include "host/console/TerminalText.h"

namespace quorvel::ctl {

void ErrorLines::write(const LogHandle* /*handle*/, int level, const char* function,
                       std::string_view message) {
  const std::string_view reporter = function;
  const bool isScan = reporter.ends_with("_bundleIDMapForBundlesInDirectory:withExtension:]");
  if (isScan && level == LogLevelError) ++unlisted_;
  if (reporter == "QVLoadInfoPlist" || (isScan && level > LogLevelError)) {
    leftOut_.emplace(message);
  }
  if (level > LogLevelError) return;
  flush();
  held_ = std::string(message);
  ++count_;
}

void ErrorLines::flush() {
  const std::optional<std::string> line = take();
  if (line) {
    (void)WriteWhole(STDERR_FILENO,
                     "quorvelctl: " + command_ + ": " + host::Printable(*line) + "\n");
  }
}

std::optional<std::string> ErrorLines::take() { return std::exchange(held_, std::nullopt); }

}  // namespace quorvel::ctl
