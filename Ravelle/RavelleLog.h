// The plug-in's lines in the host's log.
#pragma once

#include "shared/support/Logging.h"

namespace quorvel {
inline constexpr const char* kLogCategory = "Corvennad";
}  // namespace quorvel

// `function` is the reporting operation's full name; what follows is a format that begins
// "QVRavelle: " and its arguments.
#define RAVELLE_LOG(level, function, ...) \
  ::quorvel::HostLog(__FILE__, (function), __LINE__, ::quorvel::kLogCategory, (level), __VA_ARGS__)
