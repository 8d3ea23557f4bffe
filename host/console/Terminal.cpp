// Asks the terminal for its width and the environment for its wishes.
#include "host/console/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace quorvel::host {

Terminal DescribeTerminal(int descriptor) {
  Terminal terminal;
  const char* kind = std::getenv("TERM");         // NOLINT(concurrency-mt-unsafe)
  const char* noColor = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  terminal.isTerminal = ::isatty(descriptor) != 0 && kind != nullptr && *kind != '\0' &&
                        std::string_view(kind) != "dumb";
  terminal.colors = terminal.isTerminal && (noColor == nullptr || *noColor == '\0');
  return terminal;
}

std::size_t TerminalColumns(int descriptor) {
  winsize size = {};
  const bool known = ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return known ? size.ws_col : 80;
}

}  // namespace quorvel::host
