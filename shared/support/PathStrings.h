// Path texts: their components, their URL form, and their bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Path.h"
#include "shared/support/Export.h"

namespace quorvel {

// String operations for paths. They keep no state; any thread may call.
struct QV_EXPORT QuorvelAdditions {
  // The text of exactly `length` bytes of a FileSystemRepresentation, which need not end in NUL.
  // Bytes that are no UTF-8 are kept reversibly (platform/FileSystemRepresentation.h).
  static std::string stringWithFileSystemRepresentation(const char* bytes, std::size_t length);
  // The same for NUL-terminated bytes.
  static std::string stringWithFileSystemRepresentation(const char* bytes);
  // Whether one of the path's components is exactly "..".
  static bool containsDotDotPathComponents(std::string_view path);
};

// The components of a path text, split on "/"; a leading "/" is a component of its own, further
// and trailing slashes separate but add nothing. They refer to `path`.
QV_EXPORT std::vector<std::string_view> QVPathComponents(std::string_view path);

// The path as a URL: "file://", the absolute path with every byte outside the unreserved and
// sub-delimiter characters, and ";", percent-escaped, and a final slash for a directory.
QV_EXPORT std::string QVURLForm(const Path& path);

// Not installed: what others cannot link.
void AppendURL(std::string& out, const Path& path);
// Installed again.

}  // namespace quorvel
