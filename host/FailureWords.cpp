// One phrase for each reason, and what an Error knows beyond it.
#include "host/FailureWords.h"

#include <array>
#include <cstring>

namespace quorvel::host {

namespace {

// In the order of MigrationReason.
// Sentences without their beginnings: the name of what they are about stands before them.
constexpr std::array<const char*, MigrationReasonNames.size()> Words = {
    "no reason was given",
    "a stray file, not a container",
    "a note of the former service",
    "it was gone before it was looked at",
    "it is or holds a symbolic link, which is not followed",
    "it cannot be listed",
    "one of its items cannot be examined",
    "a bundle in it could not be read",
    "a bundle in it is damaged or has no identifier",
    "its marker could not be read",
    "its marker is damaged",
    "it holds no usable bundle",
    "its marker could not be written",
    "its marker names another container",
    "its placeholder could not be made",
    "the registry refused its placeholder",
    "no icon for its placeholder",
    "its store metadata could not be read",
    "the registry has no record of it (migration-host register adds one)",
    "the registry has no data container for it",
    "its data could not be moved",
    "its data could not be flushed",
    "its bundle could not be staged",
    "the registry refused its bundle",
    "the system carries a newer copy of it",
    "the registry cannot tell its group containers",
    "it holds items that no step moves",
    "it could not be removed",
    "its entry is damaged",
    "it is not there",
    "the map cannot be read",
    "the registry refused it",
    "data protection could not be updated",
    "no migrated app claims it",
    "the system uses it",
    "the run was interrupted before it was done",
    "not chosen",
    "its data replaced what the app had already",
};

}  // namespace

const char* WordsFor(MigrationReason reason) { return Words[static_cast<std::size_t>(reason)]; }

// The outermost one: a cause further down may be of a cleanup that failed as well.
int ErrorNumberOf(const Error& error) {
  for (Error cause = error; cause; cause = cause.underlying()) {
    if (cause.domain() == PosixErrorDomain) return static_cast<int>(cause.code());
  }
  return 0;
}

// A number that the C library has no name for is still told by its digits.
std::string ErrorNumberName(int number) {
  if (number == 0) return {};
  const char* name = ::strerrorname_np(number);
  return name != nullptr ? name : "E" + std::to_string(number);
}

// The first of several texts that says anything. Not printable yet: descriptions hold names.
std::string DetailOf(const Error& error) {
  if (!error) return {};
  const int number = ErrorNumberOf(error);
  std::string text = error.description();
  if (text.empty()) text = error.underlying().description();
  if (text.empty() && number != 0) text = ErrnoDescription(number);
  if (text.empty()) text = error.domain() + " " + std::to_string(error.code());
  return number != 0 ? ErrorNumberName(number) + ": " + text : text;
}

}  // namespace quorvel::host
