// Looks at a device tree before a migration changes anything in it.
//
// Why: a migration that meets a full disk, a damaged registry or an unreadable map half-way has
// by then begun every container; and what nobody knows to be there is left behind for good.
#pragma once

#include <string>
#include <vector>

#include "host/preflight/Finding.h"

namespace quorvel::host {

// Marks those that refuse a run and whose name is among `forced` as only told.
void Force(const std::vector<std::string>& forced, Findings& findings);

// In the device tree that the process is confined to; `originalRoot` is the tree's directory as it
// was opened before, since the process's own view of it may be read-only. Changes nothing. Takes
// time in the number of containers, plus that in the number of items that lie on another file
// system than they must come to.
Findings RunPreflight(int originalRoot);

// Ends the command: the findings go to standard error and, with `json`, in one object to standard
// output. The exit code.
int ReportRefusal(const Findings& findings, bool json);

}  // namespace quorvel::host
