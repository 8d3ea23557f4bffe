// The error lines of the service's log, for the person who ran the command.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Log.h"

namespace quorvel::ctl {

// Shows each line on standard error when the next one comes or at flush(): the last line of a
// failed operation often is the failure itself, which the command then takes and shows in its own
// way. One thread.
class ErrorLines final : public LogWriter {
 public:
  // `command` begins each line that is shown.
  explicit ErrorLines(std::string command) : command_(std::move(command)) {}

  void write(const LogHandle* handle, int level, const char* function,
             std::string_view message) override;
  void flush();
  // The line that was not shown yet, which then never is.
  std::optional<std::string> take();
  // Whether that line has the text in it.
  bool holds(std::string_view text) const {
    return held_ && held_->find(text) != std::string::npos;
  }
  // Lines so far, taken ones included.
  std::size_t count() const { return count_; }
  // Of those, the ones that say that a directory of bundles could not be listed.
  std::size_t unlistedDirectories() const { return unlisted_; }
  // What says why a bundle is in no catalog, each line once, debug lines included where they are
  // written.
  const std::set<std::string>& leftOutBundles() const { return leftOut_; }

 private:
  const std::string command_;
  // The last line, until it is shown or taken.
  std::optional<std::string> held_;
  std::size_t count_ = 0;
  // Counts by their words, since an empty catalog says nothing of its reason.
  std::size_t unlisted_ = 0;
  std::set<std::string> leftOut_;
};

}  // namespace quorvel::ctl
