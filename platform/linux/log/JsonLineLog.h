// The log of both facilities as JSON lines, for programs to read.
//
// One call is one line, one object:
//   {"facility":"HostLog","level":5,"function":"-[QVRavelle init]","message":"...",
//    "time":"2026-11-22T20:38:06.123456Z","category":"Corvennad","file":"...","line":97}
// with category, file and line for HostLog only.
//
// Every text is JSON with nothing lost: control characters are \u00XX, and a byte that is not
// part of valid UTF-8 is one character of U+10FE00..U+10FEFF (U+10FE00 + byte), as in path texts
// (platform/FileSystemRepresentation.h); a character of that range that the text really holds has
// each of its four bytes written so. BytesOfFileSystemRepresentation() of the string that a JSON
// reader returns is therefore the exact bytes of the call.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "platform/Log.h"
#include "platform/MigrationHost.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/log/LogLine.h"

namespace quorvel::onlinux {

// Any thread may call: lines stand in the order of the calls, in which their times never run
// backwards unless the clock does. A line that cannot be written is dropped, which isWhole() tells.
// errno is kept.
class JsonLineLog final : public HostLogWriter, public LogWriter {
 public:
  // A file open for appending, at whatever place it was opened.
  explicit JsonLineLog(UniqueDescriptor file) : file_(std::move(file)) {}

  void write(const char* sourceFile, const char* function, int line, const char* category,
             int level, std::string_view message) override;
  void write(const LogHandle* handle, int level, const char* function,
             std::string_view message) override;

  // Whether every line so far was written.
  bool isWhole() const {
    const std::lock_guard lock(mutex_);
    return whole_;
  }

 private:
  void appendCommon(std::string_view facility, int level, const char* function,
                    std::string_view message);
  void finishLine();

  mutable std::mutex mutex_;
  std::string line_;  // kept, so that a line usually allocates nothing
  TimestampFormatter clock_;
  LineFile file_;
  bool whole_ = true;
};

// Appends the bytes as a JSON string, quotes included, in the form described above.
void AppendJsonString(std::string& line, std::string_view bytes);

}  // namespace quorvel::onlinux
