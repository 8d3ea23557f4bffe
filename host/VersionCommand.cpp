// --version: which host, plug-in and library would work together here, and how they were built.
#include "QuorvelCommit.h"
#include "host/Commands.h"
#include "host/PluginBundle.h"
#include "host/console/ExitCode.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"
#include "shared/support/Version.h"

namespace quorvel::host {

int ShowVersion(const std::string& line) {
  // Only loaded, which no version may fail for: whoever reports a broken installation asks for it.
  PluginBundle bundle;
  FatalError error;
  std::string plugin;
  if (!bundle.load("", error)) {
    plugin = "none that can be used: " + error.problem;
  } else {
    plugin = bundle.version().empty() ? "tells no version" : Printable(bundle.version());
  }
  return WriteResult(line + "plug-in: " + plugin + "\nlibrary: " + QVLibraryVersion() +
                         "\nbuild: " + kBuiltWith + "\n",
                     ExitSucceeded);
}

}  // namespace quorvel::host
