// Findings as programs and people read them.
#include "host/preflight/Finding.h"

#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

// Of each kind, so that ten thousand of them do not hide the rest.
constexpr std::size_t kLongestList = 10;

// The words are part of the interface, like the findings' names.
const char* WordFor(Severity severity) {
  switch (severity) {
    case Severity::warning:
      return "warning";
    case Severity::refuse:
      return "refuse";
    case Severity::forced:
      return "forced";
  }
  return "";
}

// The count goes on past the last line that is shown, so that the number of the others is exact.
std::string LinesOf(const Findings& findings, Severity severity, const char* label) {
  std::string text;
  std::size_t count = 0;
  for (const Finding& finding : findings) {
    if (finding.severity != severity || ++count > kLongestList) continue;
    text += std::string(label) + " (" + finding.name + "): " + Printable(finding.path) + ": " +
            finding.detail + ". " + finding.remedy + ".\n";
  }
  if (count > kLongestList) {
    text += std::string(label) + ": " + std::to_string(count - kLongestList) +
            " more of this kind; --json lists all.\n";
  }
  return text;
}

}  // namespace

Json FindingsAsJson(const Findings& findings) {
  Json list = Json::array();
  for (const Finding& finding : findings) {
    Json object;
    object["name"] = finding.name;
    object["severity"] = WordFor(finding.severity);
    object["path"] = finding.path;
    object["detail"] = finding.detail;
    object["remedy"] = finding.remedy;
    list.push_back(std::move(object));
  }
  return list;
}

std::string FindingsAsText(const Findings& findings) {
  return LinesOf(findings, Severity::refuse, "refused") +
         LinesOf(findings, Severity::forced, "forced") +
         LinesOf(findings, Severity::warning, "warning");
}

}  // namespace quorvel::host
