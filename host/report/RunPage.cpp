// Puts one result into tables.
#include "host/report/RunPage.h"

#include <algorithm>
#include <numeric>

#include "host/report/Html.h"
#include "host/report/PageFrame.h"
#include "host/report/Timeline.h"

namespace quorvel::host {

namespace {

// What a browser shows at once and a person still looks through.
constexpr std::size_t kMostBars = 200;
constexpr std::size_t kMostRows = 5000;
constexpr std::size_t kMostEntries = 1000;  // of each smaller table

std::string Small(const std::string& html) {
  return html.empty() ? html : "<small>" + html + "</small>";
}

// A container that was removed is only a warning: it went on purpose, and what went with it is told
// beside it.
const char* ToneOf(MigrationOutcome outcome) {
  switch (outcome) {
    case MigrationOutcome::failed:
    case MigrationOutcome::left:
      return "bad";
    case MigrationOutcome::removed:
      return "warn";
    default:
      return "good";
  }
}

// "51 arrived, 4 were removed and 1 failed", without what there is none of.
std::string CountsInWords(const RunResult& result) {
  std::vector<std::string> parts;
  const auto add = [&](std::uint64_t count, const std::string& words) {
    if (count > 0) parts.push_back(Grouped(count) + words);
  };
  add(result.count(MigrationOutcome::migrated) + result.count(MigrationOutcome::resumed),
      " arrived");
  const std::uint64_t removed = result.count(MigrationOutcome::removed);
  add(removed, removed == 1 ? " was removed" : " were removed");
  const std::uint64_t left = result.count(MigrationOutcome::left);
  add(left, left == 1 ? " was left as it was" : " were left as they were");
  add(result.count(MigrationOutcome::failed), " failed");
  std::string text;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) text += i + 1 == parts.size() ? " and " : ", ";
    text += parts[i];
  }
  return text;
}

// Those that did not arrive, the gravest first; then the slowest.
std::vector<std::size_t> ByWeight(const RunResult& result) {
  constexpr int kWeight[] = {0, 0, 1, 2, 3};  // in the order of MigrationOutcome
  std::vector<std::size_t> order(result.containers.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    const ResultContainer& first = result.containers[a];
    const ResultContainer& second = result.containers[b];
    const int weights[] = {kWeight[static_cast<std::size_t>(first.outcome)],
                           kWeight[static_cast<std::size_t>(second.outcome)]};
    return weights[0] != weights[1] ? weights[0] > weights[1] : first.seconds > second.seconds;
  });
  return order;
}

// The order is of all containers; what is cut off is what arrived fastest.
std::vector<std::size_t> First(std::vector<std::size_t> order, std::size_t count) {
  order.resize(std::min(order.size(), count));
  return order;
}

// Empty when all are shown.
std::string WhatIsShown(std::size_t shown, std::size_t all) {
  if (shown >= all) return {};
  return Note("The " + Grouped(shown) + " of " + Grouped(all) +
              " containers that did not arrive or took longest; the result itself has all.");
}

// Every text from a result is escaped where it enters the page, and never before or twice.
std::string Lines(const std::vector<std::string>& texts) {
  std::string html;
  for (const std::string& text : texts) html += (html.empty() ? "" : "<br>") + Escaped(text);
  return html;
}

std::string Listed(const std::vector<std::string>& texts) {
  std::string html;
  for (const std::string& text : texts) html += (html.empty() ? "" : ", ") + Escaped(text);
  return html;
}

// The words, what they are about, and what the system said.
std::string ProblemAsHtml(const ResultProblem& problem, const std::string& about) {
  return Escaped(InWords(problem)) + Small(about) + Small(Escaped(problem.detail));
}

// What stopped the container comes first, then notes, which explain without having stopped
// anything, then the log.
std::string WhyCell(const ResultContainer& container, const std::string& log) {
  std::string html;
  if (!container.stop.reason.empty()) {
    html = ProblemAsHtml(container.stop, Listed(container.items)) +
           Small("at " + Escaped(container.stop.step));
  }
  for (const ResultProblem& note : container.notes) {
    html += Small("note, at " + Escaped(note.step) + ": " + Escaped(InWords(note)) +
                  (note.path.empty() ? "" : ": " + Escaped(note.path)) +
                  (note.detail.empty() ? "" : ": " + Escaped(note.detail)));
  }
  return Cell(html + log);
}

std::string KeptCell(const ResultContainer& container) {
  std::string html = Lines(container.kept);
  if (!container.dataContainer.empty()) {
    html += Small("data in " + Escaped(container.dataContainer));
  }
  return Cell(html);
}

// The row's id is what the timeline's bars lead to; its outcome is what the page's script filters
// by.
std::string RowOf(const ResultContainer& container, std::size_t index, const std::string& log) {
  const std::string name = Escaped(container.directoryName());
  const std::string outcome = NameOf(container.outcome);
  std::string html = "<tr id=\"c" + std::to_string(index) + "\" data-o=\"" + outcome + "\">";
  html += Cell(container.identifier.empty() ? name : Escaped(container.identifier) + Small(name));
  html += "<td class=\"" + std::string(ToneOf(container.outcome)) + "\">" + outcome + "</td>";
  html += WhyCell(container, log) + KeptCell(container);
  html += Cell(container.lost ? LossInWords(*container.lost) : std::string());
  return html + NumberCell(container.seconds, Duration(container.seconds)) + "</tr>\n";
}

std::string Containers(const RunResult& result, const std::vector<std::size_t>& order,
                       const RunLog* log) {
  std::string rows;
  const std::vector<std::size_t> shown = First(order, kMostRows);
  for (const std::size_t index : shown) {
    rows += RowOf(result.containers[index], index,
                  log != nullptr ? log->linesOf(index) : std::string());
  }
  if (rows.empty()) return {};
  return WhatIsShown(shown.size(), order.size()) +
         Table("containers", {"App", "Outcome", "Why", "Kept", "Went", "#Time"}, rows, true);
}

// A table of what there is one row each of, as many as a page has room for.
template <class Entry, class Row>
std::string Entries(const char* id, const std::vector<std::string>& headings,
                    const std::vector<Entry>& entries, Row row) {
  if (entries.empty()) return {};
  std::string rows;
  const std::size_t shown = std::min(entries.size(), kMostEntries);
  for (std::size_t i = 0; i < shown; ++i) rows += "<tr>" + row(entries[i]) + "</tr>\n";
  std::string html = Table(id, headings, rows);
  if (shown < entries.size()) {
    html += Note("The first " + Grouped(shown) + " of " + Grouped(entries.size()) + ".");
  }
  return html;
}

std::string DirectoryRow(const ResultDirectory& directory) {
  const bool isSound = directory.problem.reason.empty();
  return Cell(Escaped(directory.identifier)) + "<td class=\"" + (isSound ? "good" : "bad") + "\">" +
         Escaped(directory.outcome) + "</td>" +
         Cell(isSound ? "" : ProblemAsHtml(directory.problem, "")) + Cell(Escaped(directory.path)) +
         Cell(Escaped(directory.destination));
}

std::string ProblemRow(const ResultProblem& problem) {
  return Cell(Escaped(InWords(problem))) + Cell(Escaped(problem.path)) +
         Cell(Escaped(problem.detail));
}

// Every outcome has a number, also one of zero: a reader looks for "failed" and wants to see that
// it is none.
std::string Totals(const RunResult& result) {
  std::string html = "<dl class=\"totals\">\n" + Total("items", "items", Grouped(result.items));
  for (std::size_t i = 0; i < result.counts.size(); ++i) {
    const auto outcome = static_cast<MigrationOutcome>(i);
    const char* tone = result.counts[i] == 0 ? "" : ToneOf(outcome);
    html += Total(NameOf(outcome), NameOf(outcome), Grouped(result.counts[i]), tone);
  }
  html += Total("seconds", "taken", Duration(result.seconds));
  return html + Total("installedBefore", "installed before", Grouped(result.installedBefore)) +
         "</dl>\n";
}

// Summed over containers, since a result has no total of its own.
std::string WhatWasLost(const RunResult& result) {
  ResultLoss all;
  std::uint64_t containers = 0;
  for (const ResultContainer& container : result.containers) {
    if (!container.lost) continue;
    ++containers;
    all.files += container.lost->files;
    all.bytes += container.lost->bytes;
    all.complete = all.complete && container.lost->complete;
  }
  if (containers == 0) return {};
  return "<p>With " + Counted(containers, "container", "containers") + " went " + LossInWords(all) +
         ".</p>\n";
}

std::string Head(const RunResult& result) {
  std::string facts;
  for (const std::string& fact :
       {result.started, result.versions.empty() ? "" : "versions: " + result.versions}) {
    if (!fact.empty()) facts += (facts.empty() ? "" : " · ") + Escaped(fact);
  }
  return "<p class=\"over\">Migration of " + Escaped(result.device) + "</p>\n<h1>" +
         SentenceOf(result) + "</h1>\n" + WhatWasLost(result) + "<p class=\"facts\">" + facts +
         "</p>\n" + Totals(result);
}

std::string Steps(const RunResult& result) {
  StepTotals totals;
  for (const ResultContainer& container : result.containers) totals.add(container);
  return StepsAsHtml(totals);
}

std::string Timeline(const RunResult& result, const std::vector<std::size_t>& order) {
  const std::vector<std::size_t> shown = First(order, kMostBars);
  const std::string bars = TimelineAsHtml(result, shown);
  return bars.empty() ? bars : WhatIsShown(shown.size(), order.size()) + bars;
}

// That a log has nothing to say is said, so that nobody takes it for one that was not given.
std::string LogOfRun(const RunLog* log) {
  if (log == nullptr) return {};
  std::string html = log->linesOfRun();
  if (log->unreadable() > 0) {
    html += Note(Counted(log->unreadable(), "line", "lines") + " of the log could not be read.");
  }
  return html.empty() ? Note("No other line of the log was written during this run.") : html;
}

}  // namespace

std::string LossInWords(const ResultLoss& loss) {
  std::string html = Counted(loss.files, "file", "files") + ", " + ByteSize(loss.bytes);
  if (!loss.complete) html += " or more";
  const std::string items = Listed(loss.userDataItems);
  return items.empty() ? html : html + Small("of the user's data: " + items);
}

// The sentence is HTML already: it is the heading of the page.
std::string SentenceOf(const RunResult& result) {
  if (result.kind == ResultKind::refused) return "Nothing was begun: " + Escaped(result.refusal);
  std::string text = "The migration failed";
  if (!result.interruptedBy.empty()) {
    text = "The migration was interrupted by " + Escaped(result.interruptedBy);
  } else if (result.succeeded) {
    text = result.items == 0 ? "There was nothing to migrate" : "The migration succeeded";
  }
  if (!result.interruptedBy.empty() || result.items > 0)
    text += " after " + Duration(result.seconds);
  if (result.items == 0) return text + ".";
  return text + ": of " + Counted(result.items, "container ", "containers ") +
         CountsInWords(result) + ".";
}

// In front of everything else: a number of devices means little as long as some are not among them.
std::string UnusableFilesAsHtml(const std::vector<UnusableFile>& files, std::uint64_t count) {
  if (count == 0) return {};
  std::string rows;
  for (const UnusableFile& file : files) {
    rows += "<tr>" + Cell(Escaped(file.name)) + Cell(Escaped(file.why)) + "</tr>\n";
  }
  std::string html = Note("No result of a migration is in " + Counted(count, "file", "files") +
                          ": what became of these devices is not known.") +
                     Table("unusable", {"File", "Why"}, rows);
  if (files.size() < count) {
    html += Note("The first " + Grouped(files.size()) + " of " + Grouped(count) + ".");
  }
  return Section("Files without a result", html);
}

std::string RunPage(const RunResult& result, const RunLog* log,
                    const std::vector<UnusableFile>& unusable) {
  const std::vector<std::size_t> order = ByWeight(result);
  const std::vector<std::string> headings = {"Identifier", "Outcome", "Why", "Was in", "Is in"};
  const std::vector<std::string> problem = {"What", "Path", "Detail"};
  std::string body = Head(result) + UnusableFilesAsHtml(unusable, unusable.size());
  body += Section("Problems of the run", Entries("problems", problem, result.problems, ProblemRow));
  body += Section("Before the run", Entries("findings", problem, result.findings, ProblemRow));
  body += Section("Where the time went", Steps(result));
  body += Section("Timeline", Timeline(result, order));
  body += Section("Containers", Containers(result, order, log));
  body += Section("Groups", Entries("groups", headings, result.groups, DirectoryRow));
  body += Section("Safe harbors", Entries("harbors", headings, result.harbors, DirectoryRow));
  body += Section(
      "Left behind",
      Entries("left-behind", {"Path", "Why"}, result.leftBehind, [](const ResultProblem& item) {
        return Cell(Escaped(item.path)) + Cell(Escaped(InWords(item)));
      }));
  body += Section("Log of the run itself", LogOfRun(log));
  return PageAround("Migration of " + Escaped(result.device), body);
}

}  // namespace quorvel::host
