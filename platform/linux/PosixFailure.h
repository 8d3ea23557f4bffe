// From errno to Error and to text: the one place where platform implementations do it.
#pragma once

#include <cstring>
#include <string>
#include <utility>

#include "platform/Error.h"

namespace quorvel::onlinux {

// The description of an error number, from the thread-safe form of strerror.
inline std::string DescribeErrno(int number) {
  char buffer[256];
  return ::strerror_r(number, buffer, sizeof buffer) == 0 ? buffer : "unknown error";
}

// A PosixErrorDomain record: "<what>: <description of number>".
inline Error PosixFailure(int number, const std::string& what) {
  return Error(PosixErrorDomain, number,
               {{LocalizedDescriptionKey, PlistValue(what + ": " + DescribeErrno(number))}});
}

// A PlatformErrorDomain record.
inline Error PlatformFailure(std::int64_t code, std::string what) {
  return Error(PlatformErrorDomain, code,
               {{LocalizedDescriptionKey, PlistValue(std::move(what))}});
}

}  // namespace quorvel::onlinux
