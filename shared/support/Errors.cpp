// Builds records and logs those that are to be logged.
#include "shared/support/Errors.h"

#include <cerrno>
#include <new>

#include "shared/support/Logging.h"

namespace quorvel {

namespace {

// Made when the library is loaded, and never destroyed: a thread may still need it at exit.
const Error& kOutOfMemory =
    *new Error(PosixErrorDomain, ENOMEM, {{LocalizedDescriptionKey, PlistValue("out of memory")}});

}  // namespace

const char* const QVInstallerErrorDomain = "QVInstallerErrorDomain";
const char* const QVFunctionNameErrorKey = "FunctionName";
const char* const QVSourceFileLineErrorKey = "SourceFileLine";
const char* const QVPathArgumentErrorKey = "PathArgument";
const char* const QVLibTRZErrorNumberKey = "LibTRZErrorNumber";

namespace {

void AddSite(Error::UserInfo& info, ErrorSite site) {
  info.insert_or_assign(QVFunctionNameErrorKey, PlistValue(site.function));
  info.insert_or_assign(QVSourceFileLineErrorKey, PlistValue(site.line));
}

}  // namespace

Error _CreateErrorV(ErrorSite site, const char* domain, std::int64_t code, std::string_view format,
                    FormatArguments arguments) {
  Error::UserInfo info;
  info.insert_or_assign(LocalizedDescriptionKey, PlistValue(QVFormatMessageV(format, arguments)));
  AddSite(info, site);
  return Error(domain, code, std::move(info));
}

// The constructor's own entries win over those that a caller brings: who reports, where, and what.
Error _CreateAndLogErrorV(ErrorSite site, const char* domain, std::int64_t code,
                          ErrorContext context, std::optional<std::string_view> format,
                          FormatArguments arguments) {
  Error::UserInfo& info = context.userInfo;
  if (format) {
    const std::string description = QVFormatMessageV(*format, arguments);
    if (context.underlying) {
      QV_LOG(LogLevelError, site.function, "%d: %@ (%@)", site.line, description,
             context.underlying);
    } else {
      QV_LOG(LogLevelError, site.function, "%d: %@", site.line, description);
    }
    info.insert_or_assign(LocalizedDescriptionKey, PlistValue(description));
  }
  if (context.underlying) info.insert_or_assign(UnderlyingErrorKey, context.underlying);
  AddSite(info, site);
  return Error(domain, code, std::move(info));
}

Error QVPosixCause(int number) { return Error(PosixErrorDomain, number, {}); }

// A record that says where, as long as there is memory for one; the prepared one otherwise.
bool OutOfMemory(const char* function, std::int32_t line, Error* error) {
  if (error == nullptr) return false;
  try {
    return SetError(error, _CreateError(function, line, PosixErrorDomain, ENOMEM, "%s failed: %s",
                                        function, ErrnoDescription(ENOMEM)));
  } catch (const std::bad_alloc&) {
    *error = kOutOfMemory;
    return false;
  }
}

}  // namespace quorvel
