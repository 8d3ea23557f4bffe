// The host's commands. Each but the last two enters the device tree, so that a process runs one of them
// once, and returns the process's exit code after everything has been said.
#pragma once

#include "host/CommandLine.h"

namespace quorvel::host {

// The run itself: refuses first what preflight finds, then migrates and reports.
int RunMigrate(const Options& options);
// What a migration would do, without changing anything.
int RunInspect(const Options& options);
// What runs are and were at work, and what is still to be done.
int RunStatus(const Options& options);
// What the registry holds, and one record more in it.
int RunRegistry(const Options& options);
int RunRegister(const Options& options);
// Proof of a migration: a list before, a comparison after, and both around one in a view.
int RunSnapshot(const Options& options);
int RunVerify(const Options& options);
int RunRehearse(const Options& options);
// Results of migrations as a page; enters no tree.
int RunReport(const Options& options);
// --version: the host's own line, and below it what a bug report needs besides.
int ShowVersion(const std::string& line);

}  // namespace quorvel::host
