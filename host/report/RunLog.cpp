// Reads a log line by line and keeps what a page has room for.
#include "host/report/RunLog.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "host/console/Json.h"
#include "host/report/Html.h"
#include "platform/Error.h"
#include "platform/Uninterrupted.h"

namespace quorvel::host {

namespace {

// What a browser opens at once: lines of one container, bytes of all, bytes of one line.
constexpr std::uint64_t kMostLines = 200;
constexpr std::size_t kMostBytes = std::size_t{8} << 20U;
constexpr std::size_t kLongestLine = std::size_t{1} << 20U;
// A log's times are cut off at microseconds, a result's offsets are rounded to them.
constexpr double kTolerance = 2e-6;

// Seconds since 1970 of "2026-11-22T20:38:06.123456Z"; below 0 when it is none.
// The fraction is summed digit by digit: strptime knows none, and a locale's decimal point must not
// matter.
double TimeOf(const std::string& text) {
  std::tm parts{};
  const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) return -1;
  double fraction = 0;
  double weight = 0.1;
  if (*rest == '.') ++rest;
  for (; *rest >= '0' && *rest <= '9'; ++rest, weight /= 10) fraction += (*rest - '0') * weight;
  return static_cast<double>(::timegm(&parts)) + fraction;
}

// Its own turn is what is left of a container's time once the look at it is taken off.
double EndOfTurn(const ResultContainer& container, double start) {
  double before = 0;
  for (const StepSpan& step : container.steps) {
    if (step.start < start) before += step.seconds;
  }
  return start + std::max(0.0, container.seconds - before);
}

}  // namespace

RunLog::RunLog(const RunResult& result) : result_(result) {
  for (std::size_t i = 0; i < result.containers.size(); ++i) {
    const ResultContainer& container = result.containers[i];
    if (!container.start) continue;
    turns_.push_back({*container.start, EndOfTurn(container, *container.start), i});
    for (const StepSpan& step : container.steps) {
      if (step.start < *container.start) {
        turns_.push_back({step.start, step.start + step.seconds, i});
      }
    }
  }
  std::sort(turns_.begin(), turns_.end(),
            [](const Turn& a, const Turn& b) { return a.start < b.start; });
}

// The turn that began last before the line. Turns do not overlap, as a run works on one container
// at a time; in a made-up result they may, and then the later one has the line.
RunLog::Lines& RunLog::linesAt(double time) {
  auto after = std::upper_bound(turns_.begin(), turns_.end(), time + kTolerance,
                                [](double when, const Turn& turn) { return when < turn.start; });
  if (after == turns_.begin() || time > (--after)->end + kTolerance) return run_;
  return lines_[after->index];
}

void RunLog::addLine(const std::string& text) {
  const Json object = Json::parse(text, nullptr, false);
  const double written = object.is_object() ? TimeOf(TextAt(object, "time")) : -1;
  if (written < 0) {
    ++unreadable_;
    return;
  }
  const double time = written - result_.startedAt.value_or(0);
  // Of another run.
  if (time < -kTolerance || time > result_.seconds + kTolerance) return;
  Lines& lines = linesAt(time);
  ++lines.count;
  if (lines.count - lines.leftOut > kMostLines || bytes_ > kMostBytes) {
    ++lines.leftOut;
    return;
  }
  // Levels are those of the system's log, where 3 is an error and lower numbers are graver.
  const auto level = object.find("level");
  const bool isError = level != object.end() && level->is_number() && level->get<double>() <= 3;
  std::string html = Fixed(std::max(0.0, time), 6) + "  " + Escaped(TextAt(object, "message"));
  if (isError) html = "<b class=\"bad\">" + html + "</b>";
  bytes_ += html.size();
  lines.html += html + "\n";
}

bool RunLog::read(UniqueDescriptor file, std::string& why) {
  if (!result_.startedAt) {
    why = "the result does not say when its run began";
    return false;
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> stream(::fdopen(file.get(), "r"), &std::fclose);
  if (stream == nullptr) {
    why = ErrnoDescription(errno);
    return false;
  }
  // Only now: until the stream exists the descriptor is the only thing that closes the file.
  (void)file.release();
  std::string line;
  for (int byte; (byte = ::getc_unlocked(stream.get())) != EOF;) {
    // What is too long for a line of a log is no line, and is not kept in memory either.
    if (byte != '\n') {
      if (line.size() < kLongestLine) line += static_cast<char>(byte);
      continue;
    }
    addLine(line);
    line.clear();
  }
  if (!line.empty()) addLine(line);
  if (std::ferror(stream.get()) == 0) return true;
  why = "it cannot be read";
  return false;
}

std::string RunLog::Shown(const Lines& lines) {
  if (lines.count == 0) return {};
  std::string html = "<details><summary>Log, " + Counted(lines.count, "line", "lines") +
                     "</summary><pre>" + lines.html + "</pre>";
  if (lines.leftOut > 0) html += Grouped(lines.leftOut) + " more are in the log itself.";
  return html + "</details>";
}

std::string RunLog::linesOf(std::size_t index) const {
  const auto at = lines_.find(index);
  return at == lines_.end() ? std::string() : Shown(at->second);
}

}  // namespace quorvel::host
