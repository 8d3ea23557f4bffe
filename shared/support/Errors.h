// The constructors of failure records, and what stands in them.
//
//   return SetError(error, _CreateError("-[QVFileManager removeItemAtURL:error:]", __LINE__,
//                                       PosixErrorDomain, errno, "mkdir of %@ failed: %s",
//                                       path.string(), ErrnoDescription(errno)));
//
// Any thread may call; no state is kept.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/Error.h"
#include "shared/support/Export.h"
#include "shared/support/Format.h"

namespace quorvel {

// The service's own codes.
QV_EXPORT extern const char* const QVInstallerErrorDomain;
// Keys of userInfo: who built the record, and where (number).
QV_EXPORT extern const char* const QVFunctionNameErrorKey;
QV_EXPORT extern const char* const QVSourceFileLineErrorKey;
// The path that the failed operation received (string).
QV_EXPORT extern const char* const QVPathArgumentErrorKey;
// An error number of the code-signature validation library.
QV_EXPORT extern const char* const QVLibTRZErrorNumberKey;
// The name under which the former service reported the failure.
inline constexpr const char* QVLegacyErrorStringKey = "LegacyErrorString";

// Codes of QVInstallerErrorDomain that this code raises.
inline constexpr std::int64_t QVFileOperationFailed = 4;  // cause: the POSIX failure
inline constexpr std::int64_t QVMetadataCaptureFailed = 24;
inline constexpr std::int64_t QVInvalidSymbolicLink = 70;

// Who reports: the operation's full name and the source line. Made at the reporting site.
struct ErrorSite {
  const char* function;
  std::int32_t line;
};

// What a logged record holds besides its description.
// Moved into the record: a context is made for one call.
struct ErrorContext {
  Error underlying{};          // one without a record is absent
  Error::UserInfo userInfo{};  // extra entries
};

// The part that is compiled once. Callers use the templates, which check the format.
QV_EXPORT Error _CreateErrorV(ErrorSite site, const char* domain, std::int64_t code,
                              std::string_view format, FormatArguments arguments);

// A record with exactly three entries: description, function and line. Nothing is logged.
template <class... Arguments>
Error _CreateError(const char* function, std::int32_t line, const char* domain, std::int64_t code,
                   Format<Arguments...> format, const Arguments&... arguments) {
  const std::array<FormatArgument, sizeof...(Arguments)> packaged = {FormatArgument(arguments)...};
  return _CreateErrorV({function, line}, domain, code, format.get(), packaged);
}

// Ends an operation that failed with an errno value: false, with a PosixErrorDomain record. The
// value comes first, so that nothing changes it before it is read; its description is the last
// thing that the format asks for.
template <class... Arguments>
bool FailWithErrno(int number, ErrorSite site, Error* error,
                   Format<Arguments..., std::string> format, const Arguments&... arguments) {
  if (error == nullptr) return false;
  return SetError(error, _CreateError(site.function, site.line, PosixErrorDomain, number, format,
                                      arguments..., ErrnoDescription(number)));
}

// Builds the record with cause and extra entries and, when there is a format, writes its
// description to the log as an error. The constructor's own entries win over extra ones of the
// same keys; a description or cause among the extra ones survives only where none is given.
QV_EXPORT Error _CreateAndLogErrorV(ErrorSite site, const char* domain, std::int64_t code,
                                    ErrorContext context, std::optional<std::string_view> format,
                                    FormatArguments arguments);

template <class... Arguments>
Error _CreateAndLogError(ErrorSite site, const char* domain, std::int64_t code,
                         ErrorContext context, Format<Arguments...> format,
                         const Arguments&... arguments) {
  const std::array<FormatArgument, sizeof...(Arguments)> packaged = {FormatArgument(arguments)...};
  return _CreateAndLogErrorV(site, domain, code, std::move(context), format.get(), packaged);
}

// The same without a description: nothing is logged.
inline Error _CreateAndLogError(ErrorSite site, const char* domain, std::int64_t code,
                                ErrorContext context, std::nullopt_t) {
  return _CreateAndLogErrorV(site, domain, code, std::move(context), std::nullopt, {});
}

// For operations that throw nothing, where memory has run out: false, with ENOMEM in `error`. When
// there is not even memory for that record, one made in time, without function and line.
QV_EXPORT bool OutOfMemory(const char* function, std::int32_t line, Error* error);

// The record of one errno value with no further information: the usual cause.
// Its domain is the POSIX one and the number its code.
QV_EXPORT Error QVPosixCause(int number);

}  // namespace quorvel
