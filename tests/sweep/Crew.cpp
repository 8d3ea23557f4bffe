// Processes that share the points of one sweep among them.
#include "tests/sweep/Crew.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>

namespace quorvel::sweep {

namespace {

using nlohmann::json;

std::string LineOf(const Finding& finding) {
  const json line = {
      {"point", finding.point},    {"fired", finding.fired}, {"third", finding.neededThirdRun},
      {"gaveUp", finding.gaveUp},  {"lost", finding.lost},   {"left", finding.left},
      {"allowed", finding.allowed}};
  // Names on the device need not be text.
  return line.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

Finding FindingOf(const json& line) {
  Finding finding;
  finding.point = line["point"];
  finding.fired = line["fired"];
  finding.neededThirdRun = line["third"];
  for (const json& kind : line["gaveUp"]) finding.gaveUp.push_back(kind);
  for (const json& text : line["lost"]) finding.lost.push_back(text);
  for (const json& text : line["left"]) finding.left.push_back(text);
  for (const json& text : line["allowed"]) finding.allowed.push_back(text);
  return finding;
}

std::vector<Finding> TryOne(Sweep& sweep, const std::string& point, const std::string& keep) {
  try {
    return sweep.tryPoint(point, keep);
  } catch (const std::exception& failure) {
    // What is read back is a damaged device's: not to be readable is a finding.
    Finding finding;
    finding.point = point;
    finding.fired = true;
    finding.lost.push_back(std::string("the device cannot be judged: ") + failure.what());
    return {finding};
  }
}

// Every `jobs`th point from `first` on; an empty line behind each.
void Work(Sweep& sweep, const std::vector<std::string>& points, std::size_t first, std::size_t jobs,
          const std::string& keep, std::FILE* out) {
  for (std::size_t at = first; at < points.size(); at += jobs) {
    for (const Finding& finding : TryOne(sweep, points[at], keep)) {
      std::fputs(LineOf(finding).c_str(), out);
    }
    std::fputs("\n", out);
    std::fflush(out);
  }
}

// The lines of all workers, each from a pipe of its own, in any order.
class Worker {
 public:
  Worker(Sweep& sweep, const std::vector<std::string>& points, std::size_t first, std::size_t jobs,
         const std::string& keep) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    child_ = ::fork();
    if (child_ == 0) {
      std::FILE* out = ::fdopen(ends[1], "w");
      Work(sweep, points, first, jobs, keep, out);
      sweep.~Sweep();  // takes this process's own trees and mounts away
      ::_exit(0);
    }
    ::close(ends[1]);
    in_ = ends[0];
  }

  int descriptor() const { return in_; }
  bool isThrough() const { return in_ < 0; }

  // Whole lines that have come; closes at the end.
  std::vector<std::string> lines() {
    char buffer[65536];
    const ssize_t count = ::read(in_, buffer, sizeof buffer);
    if (count <= 0) {
      ::close(in_);
      in_ = -1;
      return {};
    }
    text_.append(buffer, static_cast<std::size_t>(count));
    std::vector<std::string> lines;
    for (auto end = text_.find('\n'); end != std::string::npos; end = text_.find('\n')) {
      lines.push_back(text_.substr(0, end));
      text_.erase(0, end + 1);
    }
    return lines;
  }

  bool finish() const {
    int status = -1;
    return child_ > 0 && ::waitpid(child_, &status, 0) == child_ && status == 0;
  }

 private:
  pid_t child_ = -1;
  int in_ = -1;
  std::string text_;
};

std::vector<pollfd> WaitFor(const std::vector<Worker>& workers) {
  std::vector<pollfd> polled;
  for (const Worker& worker : workers) polled.push_back({worker.descriptor(), POLLIN, 0});
  ::poll(polled.data(), polled.size(), -1);
  return polled;
}

}  // namespace

bool TryPoints(Sweep& sweep, const std::vector<std::string>& points, long jobs,
               const std::string& keep, const std::function<void(const Finding&)>& found,
               const std::function<void(std::size_t)>& done) {
  std::fflush(nullptr);
  std::vector<Worker> workers;
  const auto count = static_cast<std::size_t>(jobs);
  for (std::size_t first = 0; first < count; ++first) {
    workers.emplace_back(sweep, points, first, count, keep);
  }
  std::size_t through = 0;
  const auto isWorking = [](const Worker& worker) { return !worker.isThrough(); };
  while (std::any_of(workers.begin(), workers.end(), isWorking)) {
    const std::vector<pollfd> polled = WaitFor(workers);
    for (std::size_t i = 0; i < count; ++i) {
      if (workers[i].isThrough() || polled[i].revents == 0) continue;
      for (const std::string& line : workers[i].lines()) {
        if (line.empty()) {
          done(++through);
        } else {
          found(FindingOf(json::parse(line)));
        }
      }
    }
  }
  bool good = through == points.size();
  for (const Worker& worker : workers) good = worker.finish() && good;
  return good;
}

}  // namespace quorvel::sweep
