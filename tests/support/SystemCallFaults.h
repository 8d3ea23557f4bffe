// Runs work in a child process and disturbs it at one of its system calls that change something:
// kills it just before the call, or lets the call fail. The work may become another program.
#pragma once

#include "tests/support/SystemCallTracer.h"

namespace quorvel::tests {

// Which system calls are counted: those that change something, or those that look at files.
enum class CountedCalls { changing, looking };

struct SystemCallFault {
  long atCall = 0;      // counted from 1; 0 for none
  int errorNumber = 0;  // the call fails with it; 0 kills the process instead
  CountedCalls counted = CountedCalls::changing;
};

struct FaultedRun {
  bool wasTraced = false;  // false where processes may not be traced
  bool fired = false;
  bool wasKilled = false;
  int exitStatus = -1;    // of a child that ended by itself; -1 when a signal ended it
  long countedCalls = 0;  // begun, of the kind that the fault names
  long allCalls = 0;
};

inline FaultedRun RunWithFault(const std::function<int()>& work, SystemCallFault fault) {
  FaultedRun run;
  const TracedRun traced = RunTraced(work, [&](const TracedCall& call) -> Treatment {
    ++run.allCalls;
    const bool isCounted =
        fault.counted == CountedCalls::changing ? ChangesSomething(call) : LooksAtFiles(call);
    if (!isCounted || ++run.countedCalls != fault.atCall) return {};
    run.fired = true;
    if (fault.errorNumber == 0) return {Treatment::Kind::kill};
    return {Treatment::Kind::fail, fault.errorNumber};
  });
  run.wasTraced = traced.wasTraced;
  run.wasKilled = traced.signal == SIGKILL;
  run.exitStatus = traced.exitStatus;
  return run;
}

}  // namespace quorvel::tests
