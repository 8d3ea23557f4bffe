#include "host/RunAccount.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/Log.h"

namespace quorvel::host {

namespace {

constexpr std::string_view CommonBeginning = "QVRavelle: ";
// A container may fail once per item; a person reads a few of these, --log has them all.
constexpr std::size_t MostReasons = 8;

bool TakePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

std::string ParentOf(std::string_view path) {
  const auto slash = path.rfind('/');
  return std::string(path.substr(0, slash == std::string_view::npos ? 0 : slash));
}

void AddCapped(std::vector<std::string>& reasons, std::string_view message) {
  if (reasons.size() < MostReasons) reasons.emplace_back(message);
}

}  // namespace

void RunAccount::write(const char* /*sourceFile*/, const char* function, int /*line*/,
                       const char* /*category*/, int level, std::string_view message) {
  const std::scoped_lock lock(mutex_);
  TakePrefix(message, CommonBeginning);
  const std::string_view caller = function;
  if (caller == "-[QVRavelle init]") {
    std::string_view rest = message;
    if (level == LogLevelError) return AddCapped(general_, message);
    std::from_chars(rest.data(), rest.data() + rest.size(), items_);
  } else if (caller == "-[QVRavelle performMigration]") {
    driverLine(level, message);
  } else if (caller == "-[QVRavelle _migrateSafeHarbors]") {
    close();
    if (level == LogLevelError) AddCapped(general_, message);
  } else if (level == LogLevelError) {
    addReason(message);
  } else {
    noteDataContainer(message);
  }
}

void RunAccount::driverLine(int level, std::string_view message) {
  if (level != LogLevelError) {
    if (TakePrefix(message, "Introspecting ")) {
      begin({.container = std::string(message)});
    } else if (TakePrefix(message, "Migrating ")) {
      // "<identifier> at <bundle path>": the path is absolute.
      const auto at = message.find(" at /");
      if (at == std::string_view::npos) return;
      begin({.kind = ContainerOutcome::Kind::migrated,
             .identifier = std::string(message.substr(0, at)),
             .container = ParentOf(message.substr(at + 4))});
    }
  } else if (open_ && message.starts_with("Migration of ") && message.ends_with(" failed")) {
    pending_.kind = ContainerOutcome::Kind::failed;
    close();
  } else {
    close();
    AddCapped(general_, message);
  }
}

void RunAccount::begin(ContainerOutcome outcome) {
  close();
  pending_ = std::move(outcome);
  open_ = true;
}

// A container's account ends where the next one's begins, or with its failure.
void RunAccount::close() {
  if (!std::exchange(open_, false)) return;
  const bool taken = pending_.kind != ContainerOutcome::Kind::notTaken;
  if (!taken && pending_.reasons.empty()) return;
  if (pending_.kind == ContainerOutcome::Kind::migrated) ++migrated_;
  if (pending_.kind == ContainerOutcome::Kind::failed) ++failed_;
  const auto earlier = complaints_.find(pending_.container);
  if (earlier != complaints_.end()) {
    ContainerOutcome& outcome = outcomes_[earlier->second];
    pending_.reasons.insert(pending_.reasons.begin(), outcome.reasons.begin(),
                            outcome.reasons.end());
    outcome = std::move(pending_);
    return;
  }
  if (taken && !keepAll_ && pending_.reasons.empty()) return;
  if (!taken) complaints_.emplace(pending_.container, outcomes_.size());
  outcomes_.push_back(std::move(pending_));
}

void RunAccount::addReason(std::string_view message) {
  AddCapped(open_ ? pending_.reasons : general_, message);
}

void RunAccount::noteDataContainer(std::string_view message) {
  if (!open_ || !TakePrefix(message, "Moving data from container ")) return;
  if (TakePrefix(message, pending_.container + " to ")) {
    pending_.dataContainer = message;
  } else if (const auto at = message.find(" to /"); at != std::string_view::npos) {
    // A marker may name a container other than the directory that its bundle is in.
    pending_.container = message.substr(0, at);
    pending_.dataContainer = message.substr(at + 4);
  }
}

std::string RunAccount::current() const {
  const std::scoped_lock lock(mutex_);
  return open_ ? pending_.identifier : std::string();
}

std::int64_t RunAccount::items() const {
  const std::scoped_lock lock(mutex_);
  return items_;
}

void RunAccount::finish() {
  const std::scoped_lock lock(mutex_);
  close();
}

}  // namespace quorvel::host
