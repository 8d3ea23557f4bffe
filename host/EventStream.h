// What happens during a migration, as lines of JSON for other tools to follow.
#pragma once

#include <chrono>

#include "host/console/Json.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

// A reader that goes away does not stop the migration: lines that cannot be written are dropped.
// One thread at a time.
class EventStream {
 public:
  // A file open for appending, a pipe, or standard output.
  // Closed with the stream. Writing to a pipe whose reader is gone must not end the process: the
  // host ignores that signal before.
  explicit EventStream(UniqueDescriptor file) : file_(std::move(file)) {}

  // Adds "seconds" since the stream began, and ends the line.
  // Each line is written whole, so that a reader may take the end of a line as the end of an
  // object.
  void tell(const char* event, Json fields);

 private:
  const UniqueDescriptor file_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace quorvel::host
