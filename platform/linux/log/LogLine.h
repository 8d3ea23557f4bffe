// What the log sinks share: time stamps, numbers, and lines that reach a file whole.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {

// Appends "2026-11-22T20:38:06.123456Z" (ISO 8601, UTC, microseconds). The calendar is computed
// once per second. Belongs to one thread at a time. UTC, so that a log reads the same wherever the
// device was and no hour comes twice.
class TimestampFormatter {
 public:
  void appendNow(std::string& line);
  // The same for a given time.
  void append(std::string& line, const timespec& time);

 private:
  std::time_t second_ = 0;
  std::string upToSecond_;  // empty: nothing formatted yet
};

// In decimal, whatever the locale.
void AppendNumber(std::string& line, long long number);

// Appends the byte as a backslash and a letter where it has one (line feed, return, tab,
// backslash), else as `prefix` and two hexadecimal digits.
void AppendEscapedByte(std::string& line, char byte, std::string_view prefix);

// A file that lines are appended to. Belongs to one thread at a time. Whether a file is there is
// the conversion's answer; append() on none is false with nothing written.
class LineFile {
 public:
  LineFile() = default;
  // Open for appending (O_APPEND), so that lines of several processes do not overwrite each other.
  explicit LineFile(UniqueDescriptor file) : file_(std::move(file)) {}

  explicit operator bool() const { return static_cast<bool>(file_); }
  int descriptor() const { return file_.get(); }

  // Appends the line, which ends in a newline, in one call of write; the rest of a short write
  // follows in more. False when some of it could not be written: the next line then starts on a
  // line of its own. Leaves errno as it was.
  bool append(std::string_view line);

 private:
  bool writeAll(std::string_view bytes);

  UniqueDescriptor file_;
  bool torn_ = false;  // the file ends in the middle of a line
};

}  // namespace quorvel::onlinux
