// A file-system path that knows whether it names a directory.
//
// The text is UTF-8 in the platform's file-system encoding (FileSystemRepresentation.h), without
// a trailing slash ("/" alone and texts of links excepted). Nothing here looks at the disk.
//
// A value like a string: it owns its text, and any thread may use it under the usual rules for
// values. It is neither normalised nor made absolute: ".", ".." and doubled slashes inside stay as
// they are, and two texts for one item are two paths.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/FileSystemRepresentation.h"

namespace quorvel {

// The directory above an item, of a path as text or as bytes; "." for a plain name. "/" is above
// its own children and above itself. The path has no slash at its end, as Path keeps it; what
// stands before the last slash is taken as it is.
inline std::string ParentOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return std::string(path.substr(0, slash == 0 ? 1 : slash));
}

class Path {
 public:
  // Part of the value: a path to a file and one to a directory of the same text differ.
  enum class Kind { file, directory };

  // The empty path, which names nothing: the absent path.
  Path() = default;
  explicit Path(std::string text, Kind kind = Kind::file)
      : text_(std::move(text)), directory_(kind == Kind::directory) {
    while (text_.size() > 1 && text_.back() == '/') text_.pop_back();
  }
  // Makes a path of that kind, whatever the disk says.
  static Path directory(std::string text) { return Path(std::move(text), Kind::directory); }
  // What a symbolic link holds, unchanged. Its slashes at the end are kept, since a link that is
  // made from it must say the same.
  static Path linkText(std::string text) {
    Path path;
    path.text_ = std::move(text);
    return path;
  }
  static Path file(std::string text) { return Path(std::move(text), Kind::file); }

  // Whether this is the empty path; system calls refuse it with ENOENT.
  bool isAbsent() const { return text_.empty(); }
  // What the path says of itself; the disk may say otherwise.
  bool isDirectory() const { return directory_; }
  // The plain path, as messages print it when they print a path string.
  const std::string& string() const { return text_; }
  // For a system call; refers to this path, which must outlive the result. Cheap for usual names,
  // which are not copied.
  FileSystemRepresentation fileSystemRepresentation() const {
    return FileSystemRepresentation(text_);
  }

  // The path of a child, joined with exactly one slash. `component` may hold inner slashes. Below
  // the absent path there is nothing: a relative path would lead to wherever the process happens to
  // be.
  Path appending(std::string_view component, Kind kind) const {
    Path child;
    if (isAbsent()) return child;
    child.text_.reserve(text_.size() + 1 + component.size());
    child.text_ = text_;
    while (component.starts_with('/')) component.remove_prefix(1);
    if (child.text_.back() != '/') child.text_ += '/';
    child.text_ += component;
    while (child.text_.size() > 1 && child.text_.back() == '/') child.text_.pop_back();
    child.directory_ = kind == Kind::directory;
    return child;
  }
  // The usual cases of appending().
  Path child(std::string_view name) const { return appending(name, Kind::file); }
  Path childDirectory(std::string_view name) const { return appending(name, Kind::directory); }

  // The text after the last slash; "/" for the root.
  // These two refer to the path's own text.
  std::string_view lastPathComponent() const {
    const std::string_view text = text_;
    if (text.size() <= 1) return text;
    const auto slash = text.rfind('/');
    return slash == std::string_view::npos ? text : text.substr(slash + 1);
  }

  // The text after the last "." of the name, also when nothing stands before it; empty when
  // there is none.
  std::string_view pathExtension() const {
    const std::string_view name = lastPathComponent();
    const auto dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
  }

  // By text, then by kind: a path to a directory and one to a file of the same text are not equal,
  // though the disk may have one item for both.
  friend bool operator==(const Path&, const Path&) = default;
  friend auto operator<=>(const Path&, const Path&) = default;

 private:
  std::string text_;
  bool directory_ = false;
};

// As the above, as a path to a directory.
inline Path ParentOf(const Path& path) { return Path::directory(ParentOf(path.string())); }

}  // namespace quorvel
