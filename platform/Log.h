// LogWrite's destination: the service's own log, used by the shared code.
//
// Why a service: where lines are kept and how they look is the platform's business, and a test
// wants to see the exact calls.
#pragma once

#include <string_view>

namespace quorvel {

// Levels are the syslog severities; the system uses these three.
enum LogLevel : int { LogLevelError = 3, LogLevelNotice = 5, LogLevelDebug = 7 };

// Opaque but for one field.
struct LogHandle {
  int level = LogLevelNotice;  // the highest level that this handle writes
};

class LogWriter {
 public:
  virtual ~LogWriter() = default;
  // Writes one line. `handle` may be null. `function` names the reporting operation; `message` is
  // fully formatted and may hold any bytes, newlines included. Never fails towards the caller.
  // Any thread may call; lines of one thread keep their order.
  virtual void write(const LogHandle* handle, int level, const char* function,
                     std::string_view message) = 0;
};

}  // namespace quorvel
