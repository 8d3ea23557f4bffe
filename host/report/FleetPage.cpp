// Puts the fleet's numbers into tables.
#include "host/report/FleetPage.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "host/report/Html.h"
#include "host/report/PageFrame.h"
#include "host/report/RunPage.h"

namespace quorvel::host {

namespace {

// What a browser shows at once, and twenty-four bounds in steps of 1, 2 and 5 span eight powers of
// ten.
constexpr std::size_t kMostDevices = 500;
constexpr std::size_t kMostFleetBars = 24;

// A number that is zero has no colour: nothing is wrong with it.
std::string Totals(const Fleet& fleet) {
  const auto toned = [](const char* key, const char* label, std::uint64_t count, const char* tone) {
    return Total(key, label, Grouped(count), count > 0 ? tone : "");
  };
  return "<dl class=\"totals\">\n" + Total("devices", "devices", Grouped(fleet.devices)) +
         Total("rate", "succeeded",
               Percentage(static_cast<double>(fleet.succeeded), static_cast<double>(fleet.devices),
                          1) +
                   "&nbsp;%",
               fleet.succeeded == fleet.devices ? "good" : "") +
         toned("failed", "failed", fleet.failed, "bad") +
         toned("interrupted", "interrupted", fleet.interrupted, "warn") +
         toned("notBegun", "not begun", fleet.notBegun, "warn") +
         toned("devicesThatLost", "lost something", fleet.devicesThatLost, "bad") +
         toned("devicesThatKept", "kept something", fleet.devicesThatKept, "warn") +
         Total("containers", "containers", Grouped(fleet.containers)) + "</dl>\n";
}

std::string Outcomes(const Fleet& fleet) {
  std::string text;
  for (std::size_t i = 0; i < fleet.counts.size(); ++i) {
    text += (i == 0 ? "" : ", ") + Grouped(fleet.counts[i]) + " " + MigrationOutcomeNames[i];
  }
  return "<p class=\"facts\">Containers: " + text + ".</p>\n";
}

// By the number of devices, since a cause that hits many devices matters more than one that hits
// one device's many containers.
std::string Causes(const Fleet& fleet) {
  using Cause = std::pair<const std::string, CauseTally>;
  std::vector<const Cause*> order;
  for (const Cause& cause : fleet.causes) order.push_back(&cause);
  std::stable_sort(order.begin(), order.end(), [](const Cause* a, const Cause* b) {
    return a->second.devices > b->second.devices;
  });
  std::string rows;
  for (const Cause* cause : order) {
    const CauseTally& tally = cause->second;
    std::string examples;
    for (const std::string& each : tally.examples)
      examples += "<small>" + Escaped(each) + "</small>";
    rows += "<tr>" + Cell(Escaped(cause->first)) +
            NumberCell(static_cast<double>(tally.devices), Grouped(tally.devices)) +
            NumberCell(static_cast<double>(tally.containers), Grouped(tally.containers)) +
            Cell(examples) + "</tr>\n";
  }
  return rows.empty() ? rows
                      : Table("causes", {"Reason", "#Devices", "#Containers", "Examples"}, rows);
}

// Bounds in steps of 1, 2 and 5: what people read at a glance.
// The small addend keeps a power of ten, whose logarithm may come out a little too small, from
// being taken for the one below.
double NextBound(double bound) {
  const double power = std::pow(10, std::floor(std::log10(bound) + 1e-9));
  const double first = bound / power;
  return first < 1.5 ? power * 2 : first < 3 ? power * 5 : power * 10;
}

// The largest such bound that is not above the shortest run; 1 ms for what took no time.
double FirstBound(double shortest) {
  double bound = 1e-3;
  while (NextBound(bound) <= shortest) bound = NextBound(bound);
  return bound;
}

// A round number needs no digits behind the point.
std::string Bound(double seconds) {
  return seconds < 1 ? Fixed(seconds * 1e3, 0) + " ms"
                     : Grouped(static_cast<std::uint64_t>(std::lround(seconds))) + " s";
}

std::string Bar(double share) {
  return "<svg width=\"100%\" height=\"12\" aria-hidden=\"true\"><rect class=\"s3\" width=\"" +
         Fixed(share * 100, 2) + "%\" height=\"100%\"/></svg>";
}

struct Bin {
  double from = 0;
  double to = 0;
  std::size_t count = 0;
};

// `sorted` is not empty. The last one also holds what is longer than all bounds.
// Each bin begins where the one before it ends, so that every run is in exactly one.
std::vector<Bin> BinsOf(const std::vector<double>& sorted) {
  std::vector<Bin> bins;
  double from = FirstBound(sorted.front());
  std::size_t below = 0;
  while (below < sorted.size()) {
    const double to = NextBound(from);
    const bool isLast = bins.size() + 1 == kMostFleetBars;
    const auto end = isLast ? sorted.end() : std::lower_bound(sorted.begin(), sorted.end(), to);
    const auto upTo = static_cast<std::size_t>(end - sorted.begin());
    bins.push_back({from, to, upTo - below});
    below = upTo;
    from = to;
  }
  return bins;
}

// The nearest rank: a duration that a run really took, rather than one between two.
double Quantile(const std::vector<double>& sorted, double part) {
  const auto at = static_cast<std::size_t>(std::ceil(part * static_cast<double>(sorted.size())));
  return sorted[std::min(at == 0 ? 0 : at - 1, sorted.size() - 1)];
}

std::string Durations(const Fleet& fleet) {
  if (fleet.durations.empty()) return {};
  std::vector<double> sorted = fleet.durations;
  std::sort(sorted.begin(), sorted.end());
  const std::vector<Bin> bins = BinsOf(sorted);
  const auto largest = std::max_element(
      bins.begin(), bins.end(), [](const Bin& a, const Bin& b) { return a.count < b.count; });
  std::string html = "<div class=\"bars\">\n";
  for (const Bin& bin : bins) {
    html += "<div class=\"run\" data-bin><span>" + Bound(bin.from) + " to " + Bound(bin.to) +
            "</span>" + Bar(static_cast<double>(bin.count) / static_cast<double>(largest->count)) +
            "<span class=\"n\">" + Grouped(bin.count) + "</span></div>\n";
  }
  html += "</div>\n<p class=\"facts\">Half of the runs took up to " +
          Duration(Quantile(sorted, 0.5)) + ", nine of ten up to " +
          Duration(Quantile(sorted, 0.9)) + ", 99 of 100 up to " +
          Duration(Quantile(sorted, 0.99)) + ", the longest " + Duration(sorted.back()) + ".</p>\n";
  return html;
}

std::string Slowest(const Fleet& fleet) {
  std::string rows;
  for (const SlowContainer& each : fleet.slowest) {
    rows += "<tr>" + Cell(Escaped(each.device)) + Cell(Escaped(each.app)) + Cell(each.slowestStep) +
            NumberCell(each.seconds, Duration(each.seconds)) + "</tr>\n";
  }
  return rows.empty() ? rows : Table("slowest", {"Device", "App", "Longest step", "#Time"}, rows);
}

// What was lost weighs most, then what did not go through, then what was kept.
bool IsGraver(const DeviceOfNote& a, const DeviceOfNote& b) {
  const auto weight = [](const DeviceOfNote& note) {
    return std::tuple(note.lost.bytes, note.lost.files, note.state != "succeeded", note.failed,
                      note.kept);
  };
  return weight(a) > weight(b);
}

std::string RowOf(const DeviceOfNote& note) {
  const bool isSound = note.state == "succeeded";
  return "<tr>" + Cell(Escaped(note.device) + "<small>" + Escaped(note.file) + "</small>") +
         "<td class=\"" + (isSound ? "good" : "bad") + "\">" + note.state + "</td>" +
         NumberCell(static_cast<double>(note.failed), Grouped(note.failed)) +
         NumberCell(static_cast<double>(note.kept), Grouped(note.kept)) +
         NumberCell(static_cast<double>(note.lost.bytes),
                    note.lost.files > 0 ? LossInWords(note.lost) : "") +
         NumberCell(note.seconds, Duration(note.seconds)) + "</tr>\n";
}

// Only those that are shown are put in order.
std::string DevicesOfNote(const Fleet& fleet) {
  std::vector<DeviceOfNote> order = fleet.ofNote;
  const std::size_t shown = std::min(order.size(), kMostDevices);
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(shown), order.end(),
                    IsGraver);
  std::string rows;
  for (std::size_t i = 0; i < shown; ++i) rows += RowOf(order[i]);
  if (rows.empty()) return {};
  std::string html;
  if (shown < order.size()) {
    html = Note("The " + Grouped(shown) + " gravest of " + Grouped(order.size()) + ".");
  }
  return html + Table("devices", {"Device", "Run", "#Failed containers", "#Kept", "#Lost", "#Time"},
                      rows, true);
}

std::string Versions(const Fleet& fleet) {
  std::string rows;
  for (const auto& [version, devices] : fleet.versions) {
    rows += "<tr>" + Cell(Escaped(version)) +
            NumberCell(static_cast<double>(devices), Grouped(devices)) + "</tr>\n";
  }
  return rows.empty() ? rows : Table("versions", {"Version", "#Devices"}, rows);
}

}  // namespace

std::string SentenceOf(const Fleet& fleet) {
  if (fleet.devices == 0) return "No result was found.";
  std::string text = "The migration succeeded on " + Grouped(fleet.succeeded) + " of " +
                     Counted(fleet.devices, "device", "devices");
  const std::uint64_t wrong = fleet.devices - fleet.succeeded;
  if (wrong == 0) return text + ".";
  const char* separator = "; ";
  for (const auto& [count, words] : {std::pair(fleet.failed, " failed"),
                                     {fleet.interrupted, " interrupted"},
                                     {fleet.notBegun, " not begun"}}) {
    if (count == 0) continue;
    text += separator + Grouped(count) + words;
    separator = ", ";
  }
  return text + ".";
}

std::string FleetPage(const Fleet& fleet) {
  std::string body =
      "<p class=\"over\">Migration of a fleet</p>\n<h1>" + SentenceOf(fleet) + "</h1>\n";
  if (fleet.lost.files > 0) {
    body += "<p>On " + Counted(fleet.devicesThatLost, "device", "devices") + " went " +
            LossInWords(fleet.lost) + ".</p>\n";
  }
  body +=
      Outcomes(fleet) + Totals(fleet) + UnusableFilesAsHtml(fleet.unusable, fleet.unusableCount);
  body += Section("Why containers and runs failed", Causes(fleet));
  body += Section("How long the runs took", Durations(fleet));
  body += Section("Where the time went", StepsAsHtml(fleet.steps));
  body += Section("Devices that failed, kept or lost something", DevicesOfNote(fleet));
  body += Section("Slowest containers", Slowest(fleet));
  body += Section("What ran", Versions(fleet));
  return PageAround("Migration of " + Counted(fleet.devices, "device", "devices"), body);
}

void AddFleet(const Fleet& fleet, Json& object) {
  object["devices"] = fleet.devices;
  object["succeeded"] = fleet.succeeded;
  object["failed"] = fleet.failed;
  object["interrupted"] = fleet.interrupted;
  object["notBegun"] = fleet.notBegun;
  object["containers"] = fleet.containers;
  for (std::size_t i = 0; i < fleet.counts.size(); ++i) {
    object["counts"][MigrationOutcomeNames[i]] = fleet.counts[i];
  }
  object["devicesThatLost"] = fleet.devicesThatLost;
  object["devicesThatKept"] = fleet.devicesThatKept;
  object["reasons"] = Json::array();
  for (const auto& [cause, tally] : fleet.causes) {
    object["reasons"].push_back(
        {{"reason", cause}, {"devices", tally.devices}, {"containers", tally.containers}});
  }
  object["unusable"] = fleet.unusableCount;
  object["unusableFiles"] = Json::array();
  for (const UnusableFile& file : fleet.unusable) {
    object["unusableFiles"].push_back({{"file", file.name}, {"why", file.why}});
  }
}

}  // namespace quorvel::host
