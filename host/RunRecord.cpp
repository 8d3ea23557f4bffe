// The file is written beside its name and renamed, without a flush.
#include "host/RunRecord.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <system_error>

#include "host/AccountResult.h"
#include "host/HostServices.h"
#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/files/FileSystemLinux.h"

namespace quorvel::host {

namespace {

constexpr const char* kName = "runs.jsonl";
constexpr auto kInterval = std::chrono::seconds(2);
// Of one identifier, which may be as long as a property list allows.
constexpr std::size_t kLongestIdentifier = 256;
// Of all identifiers that a run was limited to, so that a line keeps below kLongestRun.
constexpr std::size_t kLongestChoice = 1500;

UniqueDescriptor OpenDirectory() {
  return UniqueDescriptor(
      ::open(kHostLogDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// 0, or an errno value: ENOENT when there is none yet.
int ReadFile(int directory, std::string& text) {
  std::vector<std::uint8_t> bytes;
  const int number =
      onlinux::ReadRegularFile(directory, kName, kMostRuns * kLongestRun, false, bytes);
  text.assign(bytes.begin(), bytes.end());
  return number;
}

// How many apps a run was limited to, and as many of them as a line has room for; null of none.
Json ChoiceAsJson(const std::vector<std::string>& only) {
  if (only.empty()) return nullptr;
  Json choice = {{"apps", only.size()}, {"identifiers", Json::array()}};
  std::size_t size = 0;
  for (const std::string& identifier : only) {
    size += JsonLine(identifier).size();
    if (size > kLongestChoice) break;
    choice["identifiers"].push_back(identifier);
  }
  return choice;
}

}  // namespace

// The file may be cut off or written by another version: a line that is no run is passed over, and
// one without a line feed at its end is none.
std::vector<Json> RunsIn(std::string_view bytes) {
  std::vector<Json> runs;
  for (std::size_t end; (end = bytes.find('\n')) != std::string_view::npos;) {
    Json run = Json::parse(bytes.substr(0, end), nullptr, false);
    bytes.remove_prefix(end + 1);
    if (!run.is_object() || !run.contains("started") || !run["started"].is_string()) continue;
    if (runs.size() < kMostRuns) runs.push_back(std::move(run));
  }
  return runs;
}

std::string ReadRuns() {
  std::string text;
  const UniqueDescriptor directory = OpenDirectory();
  if (!directory || ReadFile(directory.get(), text) != 0) text.clear();
  return text;
}

RunRecord::RunRecord(const MigrationResult& begun, const MigratorPlugin& plugin,
                     const RunAccount& account)
    : plugin_(plugin), account_(account) {
  if (!openDirectory()) return;
  // What could not be read is kept rather than replaced by what this run knows.
  std::string before;
  const int number = ReadFile(directory_.get(), before);
  if (number != 0 && number != ENOENT) directory_.reset();
  for (const Json& run : RunsIn(before)) {
    const std::string line = JsonLine(run);
    const bool isRoom = std::count(earlier_.begin(), earlier_.end(), '\n') + 1 <
                        static_cast<std::ptrdiff_t>(kMostRuns);
    if (isRoom && line.size() <= kLongestRun) earlier_ += line;
  }
  AddIdentity(begun.identity, begun_);
  begun_["process"] = ::getpid();
  begun_["items"] = account.items();
  begun_["only"] = ChoiceAsJson(begun.only);
  const std::scoped_lock lock(mutex_);
  write(progress());
}

// Made when it is missing; a link in its place is not followed, as the process may be privileged
// and the device anybody's.
bool RunRecord::openDirectory() {
  directory_ = OpenDirectory();
  if (directory_ || errno != ENOENT) return static_cast<bool>(directory_);
  onlinux::FileSystemLinux files;
  if (files.MakePath(kHostLogDirectory, 0755) == 0) directory_ = OpenDirectory();
  return static_cast<bool>(directory_);
}

void RunRecord::follow() {
  if (!directory_) return;
  try {
    thread_ = std::thread([this] { tick(); });
  } catch (const std::system_error&) {
    // No thread to be had: beginning and end are told all the same.
  }
}

void RunRecord::tick() {
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, kInterval, [this] { return stopping_; })) {
    // An account that was halted is never free again, and finish() must not wait for that.
    lock.unlock();
    const Json run = progress();
    lock.lock();
    if (!finished_) write(run);
  }
}

void RunRecord::stop() {
  if (!thread_.joinable()) return;
  {
    const std::scoped_lock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

Json RunRecord::progress() const {
  const float told = plugin_.migrationProgress();
  const float fraction = told >= 0.0F ? std::min(told, 1.0F) : 0.0F;  // also for a NaN
  Json run = begun_;
  run["outcome"] = "running";
  run["done"] = std::lround(fraction * static_cast<float>(account_.items()));
  run["current"] = account_.current().substr(0, kLongestIdentifier);
  run["told"] = static_cast<std::int64_t>(std::time(nullptr));
  return run;
}

// Under the lock and for good: a tick that was on its way must not write "running" over the end.
void RunRecord::finish(const MigrationResult& result, const RunAccount& account) {
  Json run = begun_;
  const char* ended = result.succeeded ? "succeeded" : "failed";
  run["outcome"] = result.interruptedBy != 0 ? "interrupted" : ended;
  run["seconds"] = result.seconds;
  run["counts"] = CountsAsJson(account);
  const std::scoped_lock lock(mutex_);
  finished_ = true;
  write(run);
}

// Replaced as a whole and without a flush: after a power loss an older state is as good, and the
// file is no part of what the migration rests on.
void RunRecord::write(const Json& run) {
  if (!directory_) return;
  const std::string text = JsonLine(run) + earlier_;
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  (void)onlinux::ReplaceFileAtomicallyAt(directory_.get(), kName, bytes, onlinux::Durability::none,
                                         Path(kName), nullptr);
}

}  // namespace quorvel::host
