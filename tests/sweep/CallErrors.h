// Which errors a system call on files can return on Linux.
#pragma once

#include <string>
#include <vector>

#include "tests/support/SystemCallTracer.h"

namespace quorvel::sweep {

// Those of the call's manual page and of the file systems, of the ones that are swept.
std::vector<int> ErrorsOf(const tests::TracedCall& call);

// "EIO" for EIO; 0 and an empty name for what is not swept.
std::string NameOfError(int number);
int ErrorOfName(const std::string& name);

// Whether the call needs room on the disk.
bool TakesRoom(const tests::TracedCall& call);

}  // namespace quorvel::sweep
