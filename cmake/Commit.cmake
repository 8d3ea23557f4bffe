# Writes the version and the commit that is built into HEADER, and touches it only when they change:
#   cmake -DSOURCE=DIR -DVERSION=X -DBUILT_WITH=Y -DHEADER=FILE -P Commit.cmake
execute_process(COMMAND git -C ${SOURCE} describe --always --dirty --abbrev=12 --exclude=*
  OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failure)
if(failure)
  set(commit "unknown")
endif()
file(CONFIGURE OUTPUT ${HEADER} CONTENT [[
// Written by the build.
#pragma once

namespace quorvel {

inline constexpr const char* kBuiltVersion = "@VERSION@ (@commit@)";
// The configuration and what compiled it.
inline constexpr const char* kBuiltWith = "@BUILT_WITH@";

}  // namespace quorvel
]] @ONLY)
