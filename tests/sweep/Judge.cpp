// Compares what a disturbed migration made with what an undisturbed one makes.
#include "tests/sweep/Judge.h"

#include <algorithm>
#include <set>

#include "platform/DeviceNames.h"

namespace quorvel::sweep {

namespace {

using testing::Facts;

constexpr std::size_t kLongestShown = 160;
constexpr const char* kLegacyGroup = "/private/var/mobile/Groups/shared";
constexpr const char* kPlaceOfPackages = "/private/var/tmp/com.velto.quorvel.migrator";

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

// A group that was of refused apps alone: its items stay in the legacy place, no app shows a
// container of it, and there may be none yet.
void ForgiveGroupsOfNobody(Facts* expected, const Facts& actual) {
  if (!actual.contains(kLegacyGroup)) return;
  const std::string place = std::string(testing::Mobile) + "/Containers/Group";
  std::erase_if(*expected, [&](const auto& fact) {
    const bool isContainer = fact.first.starts_with("<group ") && fact.first.ends_with('>');
    return (isContainer || fact.first == place) && !actual.contains(fact.first);
  });
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
  ForgiveGroupsOfNobody(expected, *actual);
  expected->erase("registry");
  actual->erase("registry");
  return true;
}

// What the sequence gives up when it cannot read the install map, or cannot move an item of a group
// to another disk: it stays in the legacy place, whole, and in the new one, where the removal of
// the beginning of a copy failed too, that beginning. The apps' containers have gone by then, so no
// later run comes back to the group.
bool ForgiveGroupItemsThatStayed(Facts* expected, Facts* actual, bool withBeginnings) {
  bool stayed = false;
  for (auto fact = expected->begin(); fact != expected->end();) {
    const auto end = fact->first.find(">/");
    const bool isOfGroup = fact->first.starts_with("<group ") && end != std::string::npos;
    const auto old =
        isOfGroup ? actual->find(kLegacyGroup + fact->first.substr(end + 1)) : actual->end();
    // Outside of containers only kind, mode and owner are told; that no bytes went is looked at
    // apart from this.
    const bool stays = old != actual->end() && fact->second.starts_with(old->second);
    stayed |= stays;
    if (stays) {
      actual->erase(old);
      if (withBeginnings) actual->erase(fact->first);
    }
    fact = stays ? expected->erase(fact) : std::next(fact);
  }
  return stayed;
}

// An app whose placeholder mark could not be read is taken for a whole one and installed as such.
bool ForgiveMarksNotRead(Facts* expected, Facts* actual) {
  std::set<std::string> identifiers;
  constexpr std::string_view begin = "<placeholder ";
  for (const auto& [name, text] : *expected) {
    if (!name.starts_with(begin) || !name.ends_with('>')) continue;
    const std::string rest = name.substr(begin.size());
    if (!actual->contains(name) && actual->contains("<bundle " + rest)) identifiers.insert(rest);
  }
  for (const std::string& rest : identifiers) {
    for (Facts* facts : {expected, actual}) {
      std::erase_if(*facts, [&rest](const auto& fact) {
        return fact.first == "registry" || fact.first.starts_with("<placeholder " + rest) ||
               fact.first.starts_with("<bundle " + rest);
      });
    }
  }
  return !identifiers.empty();
}

void ForgetHarbors(Facts* facts) {
  std::string& registry = (*facts)["registry"];
  const auto begin = registry.find("\"safeHarbors\":[");
  if (begin != std::string::npos) registry.erase(begin, registry.find(']', begin) - begin);
}

void ForgetLogs(Facts* facts) {
  std::erase_if(*facts, [](const auto& fact) {
    return fact.first.find("/Library/Logs") != std::string::npos;
  });
}

std::string Shown(const std::string& text) {
  return text.size() <= kLongestShown ? text : text.substr(0, kLongestShown) + "...";
}

// From a little before the first difference on.
std::string Difference(const std::string& actual, const std::string& expected) {
  const auto differs =
      std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  const auto at = static_cast<std::size_t>(differs.first - actual.begin());
  const std::size_t begin = at < kLongestShown / 4 ? 0 : at - kLongestShown / 4;
  return Shown(actual.substr(begin)) + " instead of " + Shown(expected.substr(begin));
}

// The container that the registry knows nothing of and that the item is in; empty for another item.
// Of a data or group container its directory alone: anything in it would be somebody's.
std::string UnknownContainer(const std::string& name) {
  constexpr std::size_t identifierLength = 36;
  for (const char* kind : {"Bundle", "Data", "Group"}) {
    const std::string place = std::string(testing::Mobile) + "/Containers/" + kind + "/";
    if (!name.starts_with(place) || name.size() < place.size() + identifierLength) continue;
    const bool isContainer = name.size() == place.size() + identifierLength;
    if (isContainer || kind[0] == 'B') return place + "(unknown)";
  }
  return {};
}

// What may be left, by the name under which it is counted; empty for what may not. Killed between
// its last two steps a migration leaves the map of a directory that is gone. A legacy group's
// directory that could not be removed when it held nothing but what was copied is left alone.
// Containers that the registry had begun without a flush, or could not remove, stay unknown.
std::string AllowedName(const std::string& name, const Leniency& leniency) {
  if (name == testing::InstallMap || (leniency.failures && name == kLegacyGroup)) return name;
  // What was set aside has arrived, whole.
  for (const std::string place : {kLegacyGroup, kPlaceOfPackages}) {
    const std::string aside = place + "/" + std::string(MoveRemainPrefix);
    if (leniency.failures && name.starts_with(aside)) return aside + "(any)";
  }
  // The mark of a move whose disk became read-only behind its last rename.
  const bool isMark = name.starts_with("<bundle ") && name.ends_with(MovePlacedSuffix);
  if (leniency.failures && isMark)
    return "(bundle container)/.(name)" + std::string(MovePlacedSuffix);
  return leniency.failures || leniency.unflushed ? UnknownContainer(name) : std::string();
}

}  // namespace

bool Judge::compare(Facts actual, const Leniency& leniency, Finding* finding) const {
  Facts expected = expected_;
  if (leniency.logs) {
    ForgetLogs(&expected);
    ForgetLogs(&actual);
  }
  if (leniency.reading) {
    ForgetHarbors(&expected);
    ForgetHarbors(&actual);
  }
  if (leniency.reading || leniency.failures) {
    if (ForgiveGroupItemsThatStayed(&expected, &actual, leniency.lasting)) {
      finding->gaveUp.emplace_back("items of a group stay in the legacy place, whole");
    }
    if (ForgiveMarksNotRead(&expected, &actual)) {
      finding->gaveUp.emplace_back("a placeholder's mark that could not be read is none");
    }
  }
  if (leniency.failures && ForgiveRefusedBundles(&expected, &actual)) {
    finding->gaveUp.emplace_back("a bundle whose installation was refused");
  }
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
    const std::string allowed = AllowedName(name, leniency);
    if (allowed.empty()) {
      finding->left.push_back(name);
    } else if (std::find(finding->allowed.begin(), finding->allowed.end(), allowed) ==
               finding->allowed.end()) {
      finding->allowed.push_back(allowed);
    }
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
    for (const std::string& path : judge.missingAnywhere(device.root())) {
      attempt.lost.push_back("not whole anywhere: " + path);
    }
    if (!attempt.lost.empty() && run == 2) continue;
    finding->neededThirdRun |= run == 3;
    for (auto list : {&Finding::gaveUp, &Finding::lost, &Finding::left, &Finding::allowed}) {
      std::vector<std::string>& all = finding->*list;
      all.insert(all.end(), (attempt.*list).begin(), (attempt.*list).end());
    }
    return;
  }
}

}  // namespace quorvel::sweep
