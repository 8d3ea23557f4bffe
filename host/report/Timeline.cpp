// Draws bars as small drawings whose parts are shares of the width.
#include "host/report/Timeline.h"

#include <algorithm>
#include <numeric>

#include "host/report/Html.h"

namespace quorvel::host {

namespace {

// Behind the last step: what went by between them.
constexpr std::size_t kBetween = MigrationStepNames.size();
// What one can still see, in percent of the width.
constexpr double kThinnest = 0.25;

const char* NameOfPart(std::size_t part) {
  return part == kBetween ? "between steps" : MigrationStepNames[part];
}

std::string ClassOfPart(std::size_t part) {
  // No container has a step "run": its color is the one for what lies between.
  return "s" + std::to_string(std::min(part, MigrationStepNames.size() - 1));
}

// `from` and `width` in percent.
std::string Rectangle(const std::string& name, double from, double width,
                      const std::string& title = {}) {
  std::string html = "<rect class=\"" + name + "\" x=\"" + Fixed(from, 2) + "%\" width=\"" +
                     Fixed(width, 2) + "%\" height=\"100%\"";
  return html + (title.empty() ? "/>" : "><title>" + title + "</title></rect>");
}

std::string Drawing(int height, const std::string& parts) {
  return "<svg width=\"100%\" height=\"" + std::to_string(height) + "\" aria-hidden=\"true\">" +
         parts + "</svg>";
}

double Share(double part, double whole) { return whole > 0 ? part / whole * 100 : 0; }

// What a container took by step. A span may be told more than once.
StepTotals TotalsOf(const ResultContainer& container) {
  StepTotals totals;
  totals.add(container);
  return totals;
}

std::string StepsBar(const ResultContainer& container, double longest) {
  std::string parts;
  double from = 0;
  const StepTotals totals = TotalsOf(container);
  for (std::size_t part = 0; part <= kBetween; ++part) {
    const double seconds = totals.seconds[part];
    if (seconds <= 0) continue;
    const double width = Share(seconds, longest);
    parts +=
        Rectangle(ClassOfPart(part), from, width, NameOfPart(part) + (" " + Duration(seconds)));
    from += width;
  }
  if (!container.arrived() && !container.stop.reason.empty()) {
    // Its last step, or the first when it stopped at once.
    parts += Rectangle("stop", std::min(from, 99.2), 0.8, Escaped(InWords(container.stop)));
  }
  return Drawing(12, parts);
}

std::string WhenBar(const ResultContainer& container, double whole) {
  const double from = std::min(Share(container.start.value_or(0), whole), 100 - kThinnest);
  double seconds = container.seconds;
  // The look at it was long before its turn.
  for (const StepSpan& step : container.steps) {
    if (step.start < container.start.value_or(0)) seconds -= step.seconds;
  }
  const double width = std::clamp(Share(seconds, whole), 1.2, std::max(1.2, 100 - from));
  return Drawing(12, Rectangle("rail", 0, 100) + Rectangle("at", std::min(from, 98.8), width));
}

std::string RowOf(const ResultContainer& container, std::size_t index, double whole,
                  double longest) {
  const std::string name = Escaped(container.name());
  const char* tone = container.outcome == MigrationOutcome::failed ? " class=\"bad\"" : "";
  return "<div class=\"run\" data-c=\"" + std::to_string(index) + "\"><a href=\"#c" +
         std::to_string(index) + "\"" + tone + " title=\"" + name + "\">" + name + "</a>" +
         WhenBar(container, whole) + StepsBar(container, longest) + "<span class=\"n\">" +
         Duration(container.seconds) + "</span></div>\n";
}

}  // namespace

void StepTotals::add(const ResultContainer& container) {
  double inSteps = 0;
  for (const StepSpan& step : container.steps) {
    seconds[step.step] += step.seconds;
    inSteps += step.seconds;
  }
  // Results of hosts that did not measure steps have nothing but the whole.
  seconds.back() += std::max(0.0, container.seconds - inSteps);
}

double StepTotals::sum() const { return std::accumulate(seconds.begin(), seconds.end(), 0.0); }

std::string StepsAsHtml(const StepTotals& totals) {
  const double sum = totals.sum();
  if (sum <= 0) return {};
  std::string parts;
  std::string legend;
  double from = 0;
  for (std::size_t part = 0; part <= kBetween; ++part) {
    const double seconds = totals.seconds[part];
    if (seconds <= 0) continue;
    parts += Rectangle(ClassOfPart(part), from, Share(seconds, sum));
    from += Share(seconds, sum);
    legend += "<li data-step=\"" + std::string(NameOfPart(part)) +
              "\"><svg width=\"10\" height=\"10\" aria-hidden=\"true\">" +
              Rectangle(ClassOfPart(part), 0, 100) + "</svg><b>" + NameOfPart(part) + "</b> " +
              Duration(seconds) + ", " + Percentage(seconds, sum, 1) + "&nbsp;%</li>\n";
  }
  return Drawing(22, parts) + "<ul class=\"legend\">\n" + legend + "</ul>\n";
}

std::string TimelineAsHtml(const RunResult& result, std::vector<std::size_t> shown) {
  const auto& containers = result.containers;
  std::erase_if(shown, [&](std::size_t index) { return !containers[index].start; });
  if (shown.empty()) return {};
  std::stable_sort(shown.begin(), shown.end(), [&](std::size_t a, std::size_t b) {
    return containers[a].start < containers[b].start;
  });
  double longest = 0;
  for (const std::size_t index : shown) longest = std::max(longest, containers[index].seconds);
  std::string html = "<div class=\"run head\"><span>Container</span><span>When, of " +
                     Duration(result.seconds) + "</span><span>By step, to " + Duration(longest) +
                     "</span><span class=\"n\">Time</span></div>\n";
  for (const std::size_t index : shown) {
    html += RowOf(containers[index], index, result.seconds, longest);
  }
  return html;
}

}  // namespace quorvel::host
