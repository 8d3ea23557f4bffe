// What a container is and what becomes of it is the plug-in's to say; here its account is read.
#include "host/SharedIdentifiers.h"

#include <set>
#include <string_view>

#include "host/console/TerminalText.h"
#include "platform/DeviceNames.h"

namespace quorvel::host {

namespace {

// The legacy container that the path lies in; empty when it lies elsewhere.
std::string LegacyContainerOf(const std::string& path) {
  static const std::string kLegacy =
      std::string("/") + MobileHomeDirectory + LegacyApplicationsName + "/";
  if (!path.starts_with(kLegacy)) return {};
  return path.substr(0, path.find('/', kLegacy.size()));
}

bool AnyTwoClaimOne(const RunAccount& classified) {
  std::set<std::string_view> seen;
  for (const ContainerResult& container : classified.containers()) {
    const std::string& identifier = container.is.identifier;
    if (!identifier.empty() && !seen.insert(identifier).second) return true;
  }
  return false;
}

}  // namespace

void FindReplacedData(const RunAccount& foreseen, Findings& findings) {
  for (const ContainerResult& container : foreseen.containers()) {
    std::set<std::string> others;
    for (const MigrationProblem& problem : container.problems) {
      if (problem.reason != MigrationReason::dataReplaced) continue;
      const std::string other = LegacyContainerOf(problem.path);
      // What is in the data container already is replaced as ever, and told.
      if (other.empty() || !others.insert(other).second) continue;
      findings.push_back({kDuplicateIdentifiers, Severity::refuse, container.path,
                          "its data would replace that of " + Printable(other) +
                              ", which claims the same app, " + Printable(container.is.identifier),
                          "Move one of the two away, or let that data go with --force-preflight "
                          "duplicate-identifiers"});
    }
  }
}

void SharedIdentifiers::find(const PluginBundle& bundle, Findings& findings) {
  FatalError error;
  looking_->install();
  const std::unique_ptr<MigrationPreview> preview = bundle.createPreview(error);
  RunAccount classified;
  RunAccount foreseen;
  const bool isLookedAt = preview != nullptr && preview->classify(classified, nullptr) &&
                          AnyTwoClaimOne(classified) && preview->preview(foreseen, nullptr);
  // Gone before the run's own services come.
  looking_.reset();
  if (isLookedAt) FindReplacedData(foreseen, findings);
}

}  // namespace quorvel::host
