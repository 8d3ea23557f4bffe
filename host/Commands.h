// The host's commands. Each enters the device tree, so that a process runs one of them once, and
// returns the process's exit code after everything has been said.
#pragma once

#include "host/CommandLine.h"

namespace quorvel::host {

int RunMigrate(const Options& options);
int RunInspect(const Options& options);
int RunRegistry(const Options& options);
int RunRegister(const Options& options);
int RunSnapshot(const Options& options);
int RunVerify(const Options& options);
int RunRehearse(const Options& options);

}  // namespace quorvel::host
