// The registry's own errors: one list for Errors handed back and for progress reports.
//
// Two audiences: a caller acts on the domain and code of an Error, a progress report is read by the
// installation service's clients, which know names alone. A cause that comes from elsewhere keeps
// its own domain and code, so that "no space left" is not hidden behind "install failed".
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>

#include "platform/ApplicationRegistry.h"
#include "platform/Error.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::onlinux {

// Beside the errno values that come from the disk under PosixErrorDomain.
inline constexpr const char* RXErrorDomain = "RXErrorDomain";

// The numbers are part of Errors and logs: new ones go before the last, which is none of an
// Error's. The first three speak of the registry, all others of one request. A refused request
// leaves the registry and the staging directory as they were, except for one that is
// alreadyInstalled: its package is gone, and the record remembers the answer.
enum class RegistryErrorCode : std::int64_t {
  damagedStore = 1,       // the database is truncated, foreign or inconsistent
  newerStore,             // the database is of a version that this program does not know
  readOnlyStore,          // the registry was opened for lookups only
  invalidOptions,         // the request's options are missing or of the wrong kind
  noBundle,               // the package holds no bundle
  identifierMismatch,     // a bundle has an identifier that it may not have here
  unreadableInfo,         // a bundle's info dictionary cannot be read
  blacklistedIdentifier,  // the service never installs this identifier
  alreadyInstalled,       // a newer copy is built into the system
  fullBundleInstalled,    // a placeholder may not replace a full bundle
  installFailed,          // anything else, in reports only: the Error is the cause's own
};

// The error's name in a progress report. In the order of the codes, from 1. Never null; the text is
// static.
inline const char* RegistryErrorName(RegistryErrorCode code) {
  static constexpr const char* names[] = {
      "RegistryDamaged",          "RegistryTooNew",        "RegistryReadOnly",
      "InvalidOptions",           "NoBundleInPackage",     "BundleIdentifierMismatch",
      "UnreadableInfoDictionary", "BlacklistedIdentifier", RXErrorApplicationAlreadyInstalled,
      "FullBundleInstalled",      "InstallFailed"};
  return names[static_cast<std::int64_t>(code) - 1];
}

// A record of the registry's own domain; `text` is for people.
inline Error RegistryFailure(RegistryErrorCode code, std::string text) {
  return Error(RXErrorDomain, static_cast<std::int64_t>(code),
               {{LocalizedDescriptionKey, PlistValue(std::move(text))}});
}

// How an operation here ends that failed: with the Error, and false. From errno, with what the
// call worked on; or with a refusal of the registry's own. `what` is a path or a noun, to which the
// description of the number is added.
inline bool Fail(const std::string& what, Error* error) {
  const int number = errno;  // before anything else may change it
  return SetError(error, PosixFailure(number, what));
}
inline bool Fail(RegistryErrorCode code, std::string text, Error* error) {
  return SetError(error, RegistryFailure(code, std::move(text)));
}

// What a progress report says about a failure. An Error of another domain goes under the name
// "InstallFailed", with its own domain and code as the detail.
inline PlistDictionary RegistryReport(const Error& error) {
  const auto code = error.domain() == RXErrorDomain ? static_cast<RegistryErrorCode>(error.code())
                                                    : RegistryErrorCode::installFailed;
  return {{"Error", PlistValue(RegistryErrorName(code))},
          {"ErrorDescription", PlistValue(error.description())},
          {"ErrorDetail", PlistValue(error.domain() + " " + std::to_string(error.code()))}};
}

}  // namespace quorvel::onlinux
