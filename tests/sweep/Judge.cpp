// Compares what a disturbed migration made with what an undisturbed one makes.
#include "tests/sweep/Judge.h"

#include <algorithm>
#include <set>

namespace quorvel::sweep {

namespace {

using testing::Facts;

constexpr std::size_t LongestShown = 160;

// Apps whose bundle is not there, although they were to get one.
std::set<std::string> RefusedBundles(const Facts& expected, const Facts& actual) {
  constexpr std::string_view begin = "<bundle ";
  std::set<std::string> refused;
  for (const auto& [name, text] : expected) {
    if (!name.starts_with(begin) || name.find('/') != std::string::npos) continue;
    const bool isThere = actual.contains(name);
    if (!isThere) refused.insert(name.substr(begin.size(), name.size() - begin.size() - 1));
  }
  return refused;
}

// What the sequence gives up when the registry refuses an app's bundle: the bundle is removed with
// its container, and the placeholder stays. Takes everything of such apps' bundles out of both.
bool ForgiveRefusedBundles(Facts* expected, Facts* actual) {
  const std::set<std::string> refused = RefusedBundles(*expected, *actual);
  for (const std::string& identifier : refused) {
    for (Facts* facts : {expected, actual}) {
      std::erase_if(*facts, [&identifier](const auto& fact) {
        return fact.first.starts_with("<bundle " + identifier + ">") ||
               fact.first.starts_with("<placeholder " + identifier + ">");
      });
    }
    // A plug-in that came to nothing with its app has no data container either; no data, too.
    if (!actual->contains("<data " + identifier + ">")) {
      expected->erase("<data " + identifier + ">");
    }
  }
  if (refused.empty()) return false;
  expected->erase("registry");
  actual->erase("registry");
  return true;
}

void ForgetLogs(Facts* facts) {
  std::erase_if(*facts, [](const auto& fact) {
    return fact.first.find("/Library/Logs") != std::string::npos;
  });
}

std::string Shown(const std::string& text) {
  return text.size() <= LongestShown ? text : text.substr(0, LongestShown) + "...";
}

// From a little before the first difference on.
std::string Difference(const std::string& actual, const std::string& expected) {
  const auto differs =
      std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  const auto at = static_cast<std::size_t>(differs.first - actual.begin());
  const std::size_t begin = at < LongestShown / 4 ? 0 : at - LongestShown / 4;
  return Shown(actual.substr(begin)) + " instead of " + Shown(expected.substr(begin));
}

// Killed between its last two steps a migration leaves the map of a directory that is gone. A
// legacy group's directory that could not be removed when it was empty is left alone.
bool MayBeLeft(const std::string& name, bool isAfterFailure) {
  return name == testing::InstallMap ||
         (isAfterFailure && name == std::string(testing::Mobile) + "/Groups/shared");
}

}  // namespace

bool Judge::compare(Facts actual, const Leniency& leniency, Finding* finding) const {
  Facts expected = expected_;
  if (leniency.logs) {
    ForgetLogs(&expected);
    ForgetLogs(&actual);
  }
  if (leniency.refusedBundles) finding->gaveUp |= ForgiveRefusedBundles(&expected, &actual);
  const std::size_t before = finding->lost.size();
  for (const auto& [name, text] : expected) {
    const auto at = actual.find(name);
    if (at == actual.end()) {
      finding->lost.push_back("missing: " + name);
    } else if (at->second != text) {
      finding->lost.push_back("differs: " + name + ": " + Difference(at->second, text));
    }
  }
  for (const auto& [name, text] : actual) {
    if (expected.contains(name)) continue;
    (MayBeLeft(name, leniency.refusedBundles) ? finding->allowed : finding->left).push_back(name);
  }
  return finding->lost.size() == before;
}

void Recover(const Judge& judge, const testing::Device& device, const testing::HostSetup& setup,
             const Leniency& leniency, Finding* finding) {
  for (int run = 2;; ++run) {
    Finding attempt;
    const testing::HostRun last = device.run({"migrate", "--quiet"}, setup);
    if (last.exitCode != 0) {
      attempt.lost.push_back("run " + std::to_string(run) + " ended with " +
                             std::to_string(last.exitCode) + ": " + Shown(last.err));
    }
    judge.compare(testing::Outcome(device, setup), leniency, &attempt);
    if (!attempt.lost.empty() && run == 2) continue;
    finding->neededThirdRun |= run == 3;
    finding->gaveUp |= attempt.gaveUp;
    for (auto list : {&Finding::lost, &Finding::left, &Finding::allowed}) {
      std::vector<std::string>& all = finding->*list;
      all.insert(all.end(), (attempt.*list).begin(), (attempt.*list).end());
    }
    return;
  }
}

}  // namespace quorvel::sweep
