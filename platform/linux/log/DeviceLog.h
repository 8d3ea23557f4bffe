// The log files that stay on the device, as text for people.
//
// One call is one line, "<time> <level> [<function>] <message>". In the message a backslash, a
// newline, a carriage return and a tab are written as \\ \n \r \t and other control characters as
// \xNN, so that a line is never broken and never drives a terminal; other bytes stand as they are.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/Log.h"
#include "platform/MigrationHost.h"
#include "platform/linux/log/LogLine.h"

namespace quorvel::onlinux {

// Size at which a device log file is set aside, in bytes. One older file is kept beside it.
inline constexpr std::size_t DeviceLogSizeLimit = std::size_t{4} << 20U;

// A log file in a directory; both are made (0755, and 0644 less the umask) at the first line, so
// that merely constructing it changes nothing on the device. A last path component that is a link,
// and a file that is no regular file, are not written to. Where the file cannot be opened all
// lines are dropped silently: a log must not fail a migration. A file that has reached the
// limit is renamed to "<name>.1", replacing that one. Any thread may call. Where that rename fails
// the file goes on growing: too much of a log is better than none. Lines are not flushed; those of
// a process that is killed are in the file, a power cut may take the last ones.
class DeviceLogFile {
 public:
  DeviceLogFile(std::string directory, std::string name, std::size_t sizeLimit);
  // Leaves errno as it was. `function` may be null. The level stands as its number.
  void write(int level, const char* function, std::string_view message);

 private:
  // Whether there is a file to write to; tried once. With mutex_ held, as everything below.
  bool isReady();
  // Makes it and what is missing above it.
  bool openDirectory();
  bool openFile();
  // Sets the full file aside and begins a new one.
  void rotate();

  const std::string directoryPath_;
  const std::string name_;
  // In bytes, of the file that is being written.
  const std::size_t sizeLimit_;
  // Guards what follows.
  std::mutex mutex_;
  std::string line_;
  TimestampFormatter clock_;
  UniqueDescriptor directory_;
  LineFile file_;
  std::size_t size_ = 0;
  bool tried_ = false;
};

// HostLog's file on the device. `directory` is a path as the confined process sees it.
// Both leave out what only a developer wants: file, line and category.
class DeviceHostLog final : public HostLogWriter {
 public:
  explicit DeviceHostLog(std::string directory, std::string name = "migration.log",
                         std::size_t sizeLimit = DeviceLogSizeLimit)
      : file_(std::move(directory), std::move(name), sizeLimit) {}
  void write(const char* sourceFile, const char* function, int line, const char* category,
             int level, std::string_view message) override;

 private:
  DeviceLogFile file_;
};

// LogWrite's file on the device.
class DeviceLog final : public LogWriter {
 public:
  explicit DeviceLog(std::string directory, std::string name = "quorvel.log",
                     std::size_t sizeLimit = DeviceLogSizeLimit)
      : file_(std::move(directory), std::move(name), sizeLimit) {}
  void write(const LogHandle* handle, int level, const char* function,
             std::string_view message) override;

 private:
  DeviceLogFile file_;
};

}  // namespace quorvel::onlinux
