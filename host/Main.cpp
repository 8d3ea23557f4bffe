// The program: standard streams made safe, then one command.
#include <unistd.h>

#include <clocale>

#include "host/CommandLine.h"
#include "host/Commands.h"
#include "host/console/ExitCode.h"
#include "host/console/Output.h"

namespace {

using namespace quorvel::host;

int RunCommand(const Options& options) {
  switch (options.command) {
    case Command::migrate:
      return RunMigrate(options);
    case Command::inspect:
      return RunInspect(options);
    case Command::status:
      return RunStatus(options);
    case Command::registry:
      return RunRegistry(options);
    case Command::registerIdentifier:
      return RunRegister(options);
    case Command::snapshot:
      return RunSnapshot(options);
    case Command::verify:
      return RunVerify(options);
    case Command::rehearse:
      return RunRehearse(options);
    case Command::report:
      return RunReport(options);
  }
  return ExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  PrepareStandardStreams();
  // Part of the C library itself, so that it is there in every environment.
  (void)std::setlocale(LC_CTYPE, "C.UTF-8");  // NOLINT(concurrency-mt-unsafe): one thread
  const ParsedCommandLine parsed = ParseCommandLine(argc, argv);
  if (parsed.options) return RunCommand(*parsed.options);
  if (parsed.isVersion) return ShowVersion(parsed.text);
  if (parsed.exitCode == ExitSucceeded) return WriteResult(parsed.text, ExitSucceeded);
  return ReportFatal({parsed.exitCode, parsed.text, "See migration-host --help"}, parsed.json);
}
