// What is found in a device tree before anything is changed, and the names of it.
#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "host/console/Json.h"

namespace quorvel::host {

// What it means for the run.
enum class Severity {
  warning,  // one container's own outcome is at stake: the run goes on
  refuse,   // something would be lost or stranded: the run does not begin
  forced,   // the same, and the user said to go on
};

// One thing that is wrong with the device, for a person and for a program alike.
// The texts are shown as "path: detail. remedy.", which is why neither ends with a period.
struct Finding {
  const char* name = "";  // one of the names below
  Severity severity = Severity::refuse;
  std::string path{};    // inside the device
  std::string detail{};  // what is wrong with it, without the path
  std::string remedy{};  // a sentence without its period
};

using Findings = std::vector<Finding>;

// Names are part of the interface: they are given on command lines and read by programs.
// Of the device as a whole: the directories that every container's migration writes in.
// They concern every container alike, so that they are told once and not for each.
inline constexpr const char* kReadOnly = "read-only";
inline constexpr const char* kNotPermitted = "not-permitted";
inline constexpr const char* kImmutable = "immutable";
// Of the registry and the two maps: "damaged" is certain, "unreadable" may pass.
// The difference matters for the remedy: a damaged file has to be replaced, an unreadable one may
// only want another user or another try.
inline constexpr const char* kRegistryDamaged = "registry-damaged";
inline constexpr const char* kRegistryUnreadable = "registry-unreadable";
inline constexpr const char* kInstallMapDamaged = "install-map-damaged";
inline constexpr const char* kInstallMapUnreadable = "install-map-unreadable";
inline constexpr const char* kHarborMapDamaged = "harbor-map-damaged";
inline constexpr const char* kHarborMapUnreadable = "harbor-map-unreadable";
// Of what is to be moved or copied.
// A group that cannot be moved is shared by apps that would go without it; two containers of one
// identifier would take each other's place; too little space or too few inodes end a copy midway.
inline constexpr const char* kGroupNotMovable = "group-not-movable";
inline constexpr const char* kDuplicateIdentifiers = "duplicate-identifiers";
inline constexpr const char* kNoSpace = "no-space";
inline constexpr const char* kNoInodes = "no-inodes";
// Always a warning.
// The container fails alone and keeps its data; the others do not depend on it.
inline constexpr const char* kContainerNotMovable = "container-not-movable";

// Those that refuse a run, which --force-preflight takes.
// The command line is checked against this list, so that a misspelt name is told rather than
// ignored.
inline constexpr std::array<const char*, 13> kRefusals = {kReadOnly,
                                                          kNotPermitted,
                                                          kImmutable,
                                                          kRegistryDamaged,
                                                          kRegistryUnreadable,
                                                          kInstallMapDamaged,
                                                          kInstallMapUnreadable,
                                                          kHarborMapDamaged,
                                                          kHarborMapUnreadable,
                                                          kGroupNotMovable,
                                                          kDuplicateIdentifiers,
                                                          kNoSpace,
                                                          kNoInodes};

// Whether the run must not begin. Those that the user forced do not count.
inline bool Refuses(const Findings& findings) {
  return std::any_of(findings.begin(), findings.end(),
                     [](const Finding& finding) { return finding.severity == Severity::refuse; });
}

// An array of objects, in the order found.
// Texts are the system's, names reversibly encoded.
Json FindingsAsJson(const Findings& findings);

// One line each, those that refuse first; a long list of warnings ends with their number.
// For standard error; printable whatever the names are.
std::string FindingsAsText(const Findings& findings);

}  // namespace quorvel::host
