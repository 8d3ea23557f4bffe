// Runs the built migration host as a process.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/Refusals.h"

namespace quorvel::testing {

// The user that tests become when they need one without privileges.
inline constexpr uid_t NobodyUser = 65534;

struct HostSetup {
  std::map<std::string, std::string> environment{};  // beside PATH; TERM is "xterm"
  bool asNobody = false;
  bool onTerminal = false;       // standard output and error are one terminal
  unsigned short columns = 80;   // of it
  std::string standardOutput{};  // a file instead of a pipe; "-" closes it
  std::string program = HOST_BINARY;
};

struct HostRun {
  int exitCode = -1;  // -1 when a signal ended it
  std::string out;    // with a terminal: everything
  std::string err;
};

HostRun RunHost(const std::vector<std::string>& arguments, const HostSetup& setup = {});

// The same, not waited for. Output goes nowhere, or to the setup's file.
pid_t StartHost(const std::vector<std::string>& arguments, const HostSetup& setup = {});
// Waits for it: its exit code, or minus the signal's number.
int FinishHost(pid_t host);

// The program with all that it loads copied to a directory that everyone may read, since a build
// may lie where only its owner may look. The copied program's path.
std::string CopyHostTo(const std::string& directory);

// Runs lines of a shell in the directory, with the tested program's directory first on the path;
// both its outputs are in `out`.
HostRun RunShell(const std::string& lines, const std::string& directory);
// That each command of the file, run by a shell in the directory, ends and prints as it says:
//   $ COMMAND       the next lines of it begin with "> "
//   OUTPUT          with TREE for the directory
//   [EXIT CODE]     unless that is 0
void ExpectTranscript(const std::string& file, const std::string& directory);

// That each is an object as docs/SCHEMA.schema.json has it.
void ExpectDocumented(const std::vector<std::string>& printed,
                      const std::string& schema = "result");

// Every item below a directory, itself included. Looking changes the directories' access times.
std::vector<std::string> PathsBelow(const std::string& root);
// Sets access times so far back that the next access of any item shows.
void ForgetAccesses(const std::vector<std::string>& paths);
// Mode, owner, size, links and all three times of each, without looking into any.
std::map<std::string, std::string> FactsOf(const std::vector<std::string>& paths);

}  // namespace quorvel::testing
