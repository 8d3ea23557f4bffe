// The two logs: LogWrite for the shared code, HostLog for the plug-in class.
//
// When to use what: shared code writes with QV_LOG, which tests the level first; the plug-in
// class writes with HostLog and its own category. Operations return failures as Errors; a line is
// written only where the failure would otherwise be passed over.
#pragma once

#include <array>
#include <string_view>

#include "platform/Log.h"
#include "shared/support/Export.h"
#include "shared/support/Format.h"

namespace quorvel {

// The service's log handle. Null until the process that uses this code assigns it, if it does so
// at all, before any other thread calls in; nothing here ever does.
QV_EXPORT extern LogHandle* gLogHandle;

// The test before every line: without a handle errors and notices are written and debug lines are
// not; with one, what its level admits.
inline bool ShouldLog(int level) {
  return gLogHandle == nullptr ? level <= LogLevelNotice : gLogHandle->level >= level;
}

// Formats and hands the line to the installed log on the calling thread. Without an installed set
// or log the line is dropped, since errors may be built before a host has installed anything.
QV_EXPORT void QVLogWriteV(const LogHandle* handle, int level, const char* function,
                           std::string_view format, FormatArguments arguments);

// One line of the service's log. `function` is the reporting operation's full name, so that the
// message never repeats it.
template <class... Arguments>
void LogWrite(const LogHandle* handle, int level, const char* function, Format<Arguments...> format,
              const Arguments&... arguments) {
  const std::array<FormatArgument, sizeof...(Arguments)> packaged = {FormatArgument(arguments)...};
  QVLogWriteV(handle, level, function, format.get(), packaged);
}

// LogWrite behind the level test; when it fails the arguments are not even evaluated.
#define QV_LOG(level, function, ...)                                                \
  do {                                                                              \
    if (::quorvel::ShouldLog(level)) {                                              \
      ::quorvel::LogWrite(::quorvel::gLogHandle, (level), (function), __VA_ARGS__); \
    }                                                                               \
  } while (false)

// A finished message goes to the host's log as it is, with no test of the level: what is kept is
// for the host to decide. Dropped where the host has none.
QV_EXPORT void QVHostLogV(const char* sourceFile, const char* function, int line,
                          const char* category, int level, std::string_view message);

// One line of the host's log.
// The message is always formatted, unlike QV_LOG's: these lines are few.
template <class... Arguments>
void HostLog(const char* sourceFile, const char* function, int line, const char* category,
             int level, Format<Arguments...> format, const Arguments&... arguments) {
  QVHostLogV(sourceFile, function, line, category, level, FormatMessage(format, arguments...));
}

}  // namespace quorvel
