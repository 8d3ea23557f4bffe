// Parses the process's own mount table.
#include "platform/linux/system/MountTableLinux.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/Uninterrupted.h"

namespace quorvel::onlinux {
namespace {

// Fields are separated by exactly one blank: an empty field (a file system may be mounted from
// an empty device name) stands between two.
std::vector<std::string_view> SplitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  while (true) {
    const std::size_t blank = line.find(' ');
    fields.push_back(line.substr(0, blank));
    if (blank == std::string_view::npos) return fields;
    line.remove_prefix(blank + 1);
  }
}

bool IsOctal(char digit) { return digit >= '0' && digit <= '7'; }

// The kernel writes blanks, tabs, newlines, backslashes and "#" as a backslash and three octal
// digits.
std::string UndoEscapes(std::string_view field) {
  std::string text;
  for (std::size_t i = 0; i < field.size(); ++i) {
    const bool escape = field[i] == '\\' && i + 3 < field.size() && field[i + 1] <= '3' &&
                        IsOctal(field[i + 1]) && IsOctal(field[i + 2]) && IsOctal(field[i + 3]);
    if (!escape) {
      text += field[i];
      continue;
    }
    text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                              (field[i + 3] - '0'));
    i += 3;
  }
  return text;
}

bool IsNumber(std::string_view field) {
  return !field.empty() && field.find_first_not_of("0123456789") == std::string_view::npos;
}

// "36 35 98:0 /root /point options [optional fields] - type source options"; else
// "source /point type options 0 0". The second field tells them apart: a mount point is no number.
std::optional<MountedFileSystem> ParseLine(std::string_view line) {
  const std::vector<std::string_view> fields = SplitFields(line);
  if (fields.size() < 4) return std::nullopt;
  if (!IsNumber(fields[1])) {
    return MountedFileSystem{UndoEscapes(fields[0]), UndoEscapes(fields[1])};
  }
  const auto separator = std::find(fields.begin() + std::min<std::ptrdiff_t>(6, std::ssize(fields)),
                                   fields.end(), "-");
  if (fields.end() - separator < 3) return std::nullopt;
  // Where only a part of a file system is shown the point is not where its device is mounted.
  const bool isWhole = fields[3] == "/";
  return MountedFileSystem{isWhole ? UndoEscapes(separator[2]) : std::string(),
                           UndoEscapes(fields[4])};
}

// Reads at positions, not from the descriptor's own: several threads may read at once.
bool ReadWhole(int file, std::string& text) {
  // The kernel gives out whole lines that fit the buffer; a longer line makes it give out more.
  constexpr std::size_t step = std::size_t{64} << 10U;
  while (true) {
    const std::size_t size = text.size();
    text.resize(size + step);
    const ssize_t count = Uninterrupted(
        [&] { return ::pread(file, text.data() + size, step, static_cast<off_t>(size)); });
    text.resize(size + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count <= 0) return count == 0;
  }
}

}  // namespace

std::vector<MountedFileSystem> ParseMountTable(std::string_view text) {
  std::vector<MountedFileSystem> table;
  while (!text.empty()) {
    const std::size_t length = std::min(text.find('\n'), text.size());
    if (auto entry = ParseLine(text.substr(0, length))) table.push_back(std::move(*entry));
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return table;
}

MountTableLinux::MountTableLinux(const std::string& path)
    : table_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (!table_) openErrno_ = errno;
}

std::vector<MountedFileSystem> MountTableLinux::read() {
  if (!table_) {
    errno = openErrno_;
    return {};
  }
  std::string text;
  if (!ReadWhole(table_.get(), text)) return {};
  std::vector<MountedFileSystem> table = ParseMountTable(text);
  if (table.empty()) errno = ENODATA;
  return table;
}

}  // namespace quorvel::onlinux
