// From errno to Error: the one place where platform implementations do it.
#pragma once

#include <cerrno>
#include <string>
#include <utility>

#include "platform/Error.h"

namespace quorvel::onlinux {

// A PosixErrorDomain record: "<what>: <description of number>".
// Of a failed system call; take errno first, since anything in between may change it. `what` says
// what was tried, as in "Reading /private/var/x", or names the item. The text is for people.
inline Error PosixFailure(int number, const std::string& what) {
  return Error(PosixErrorDomain, number,
               {{LocalizedDescriptionKey, PlistValue(what + ": " + ErrnoDescription(number))}});
}

// ENOMEM. To copy it takes no memory, and to make it little.
inline const Error& OutOfMemory() {
  static const Error error = PosixFailure(ENOMEM, "Reading");
  return error;
}

// A PlatformErrorDomain record. `code` is one of those in Error.h; the text is the caller's alone,
// as no system call failed.
inline Error PlatformFailure(std::int64_t code, std::string what) {
  return Error(PlatformErrorDomain, code, {{LocalizedDescriptionKey, PlistValue(std::move(what))}});
}

}  // namespace quorvel::onlinux
