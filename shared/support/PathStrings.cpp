// Splits, escapes and decodes path texts.
#include "shared/support/PathStrings.h"

#include <cstring>

namespace quorvel {

namespace {

// What may stand unescaped in the path of a URL.
bool StandsInURL(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("-._~/!$&'()*+,=:@", c) != nullptr);
}

}  // namespace

std::string QuorvelAdditions::stringWithFileSystemRepresentation(const char* bytes,
                                                                 std::size_t length) {
  return StringFromFileSystemRepresentation({bytes, length});
}

std::string QuorvelAdditions::stringWithFileSystemRepresentation(const char* bytes) {
  return stringWithFileSystemRepresentation(bytes, std::strlen(bytes));
}

bool QuorvelAdditions::containsDotDotPathComponents(std::string_view path) {
  for (const std::string_view component : QVPathComponents(path)) {
    if (component == "..") return true;
  }
  return false;
}

// As the platform counts them: the root is a component, and empty ones between slashes are not.
std::vector<std::string_view> QVPathComponents(std::string_view path) {
  std::vector<std::string_view> components;
  if (path.starts_with('/')) components.push_back(path.substr(0, 1));
  while (!path.empty()) {
    const std::size_t slash = std::min(path.find('/'), path.size());
    if (slash != 0) components.push_back(path.substr(0, slash));
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return components;
}

// Of the bytes on disk, not of their text: two names that differ must look different in a log.
void AppendURL(std::string& out, const Path& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out += "file://";
  const FileSystemRepresentation representation = path.fileSystemRepresentation();
  for (const char* at = representation.c_str(); *at != '\0'; ++at) {
    if (StandsInURL(*at)) {
      out += *at;
    } else {
      out += '%';
      out += kHex[static_cast<unsigned char>(*at) >> 4U];
      out += kHex[static_cast<unsigned char>(*at) & 0xFU];
    }
  }
  if (path.isDirectory() && out.back() != '/') out += '/';
}

std::string QVURLForm(const Path& path) {
  std::string url;
  AppendURL(url, path);
  return url;
}

}  // namespace quorvel
