// The migration host as a process under the tracer. Calls count from the moment at which the host
// has entered the device: what it does before concerns the machine.
#pragma once

#include <functional>
#include <string>

#include "tests/support/SystemCallTracer.h"

namespace quorvel::sweep {

using tests::TracedCall;
using tests::TracedRun;
using tests::Treatment;

struct HostProgram {
  std::string path;
  std::string preload;  // a library, or empty
};

// What a run may take before it counts as hanging.
inline constexpr unsigned LongestRunSeconds = 120;

// Asks `treat` at each call behind the entry into the device.
TracedRun MigrateTraced(const HostProgram& host, const std::string& root,
                        const std::function<Treatment(const TracedCall&)>& treat);

// The same with a count of calls that change something, from 1.
TracedRun MigrateTracedByChange(const HostProgram& host, const std::string& root,
                                const std::function<Treatment(const TracedCall&, long)>& treat);

// Of a process's descriptor, or empty: the path that it is open at, as the process sees it.
std::string PathOfDescriptor(pid_t process, std::uint64_t descriptor);

// How the run ended, in words, when it did so in a way that no run may; else empty.
std::string WrongEnd(const TracedRun& run);

}  // namespace quorvel::sweep
