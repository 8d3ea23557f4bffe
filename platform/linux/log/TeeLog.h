// One call to several log sinks.
//
// A migration writes one log for people and one for programs. Each sink judges for itself what it
// can store, so that one whose disk is full costs the others nothing.
#pragma once

#include <utility>
#include <vector>

#include "platform/Log.h"
#include "platform/MigrationHost.h"

namespace quorvel::onlinux {

// Each sink gets every call, in the order given. The sinks outlive the tee, which is as safe
// between threads as they are. Without a sink a call does nothing. The list is fixed when the tee
// is made, so that no lock is needed to walk it; of two threads' calls each sink may see another
// one first. No sink is null.
class TeeHostLog final : public HostLogWriter {
 public:
  explicit TeeHostLog(std::vector<HostLogWriter*> sinks) : sinks_(std::move(sinks)) {}
  void write(const char* sourceFile, const char* function, int line, const char* category,
             int level, std::string_view message) override {
    for (auto* sink : sinks_) sink->write(sourceFile, function, line, category, level, message);
  }

 private:
  std::vector<HostLogWriter*> sinks_;
};

// The same for the service's log.
class TeeLog final : public LogWriter {
 public:
  explicit TeeLog(std::vector<LogWriter*> sinks) : sinks_(std::move(sinks)) {}
  void write(const LogHandle* handle, int level, const char* function,
             std::string_view message) override {
    for (auto* sink : sinks_) sink->write(handle, level, function, message);
  }

 private:
  std::vector<LogWriter*> sinks_;
};

}  // namespace quorvel::onlinux
