// What a container is and what becomes of it is the plug-in's to say; here its account is read.
#include "host/SharedIdentifiers.h"

#include <set>
#include <string>
#include <unordered_set>

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

// Hears which apps the containers claim, and keeps no more of ten thousand containers than that.
class ClaimedApps final : public MigrationAccount {
 public:
  bool anyTwice() const { return anyTwice_; }

  void containerClassified(const ClassifiedContainer& container) override {
    const std::string& identifier = container.identifier;
    if (!identifier.empty() && !seen_.insert(identifier).second) anyTwice_ = true;
  }

 private:
  std::unordered_set<std::string> seen_;
  bool anyTwice_ = false;
};

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
  ClaimedApps claimed;
  RunAccount foreseen;
  const bool isLookedAt = preview != nullptr && preview->classify(claimed, nullptr) &&
                          claimed.anyTwice() && preview->preview(foreseen, nullptr);
  // Gone before the run's own services come.
  looking_.reset();
  if (isLookedAt) FindReplacedData(foreseen, findings);
}

}  // namespace quorvel::host
