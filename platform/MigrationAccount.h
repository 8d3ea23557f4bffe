// What a migration tells its host while it runs: facts, where the log has lines for people.
//
// Why a service: whoever reports a migration, to a person or a program, needs to know what became
// of each container and why. A host that reports nothing installs none.
//
// What is told here is what results, event streams and previews are made of, so the names below are
// a format: programs compare them, and a name that was given once keeps its meaning. Paths are
// texts in the platform's file-system encoding (FileSystemRepresentation.h).
//
// The account is for reporting alone. No decision of a migration rests on it, and a migration whose
// host keeps none does the same things; only what costs time for the account's sake, such as
// counting what a removal takes with it, is left out then.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Error.h"

namespace quorvel {

// The steps of one container, in their order. Not every container comes to each: what fails ends
// it, and one whose bundle is itself a placeholder goes from its data to its removal. The
// enumerators and their names are numbered alike (MigrationStepNames).
enum class MigrationStep {
  introspect,   // what is it
  marker,       // its record is written into it
  placeholder,  // the registry gets to know the app, and tells its data container
  // The items of user data move into the data container, each with one rename where it can be.
  data,
  // The bundle and the store metadata are gathered in the directory that the registry is handed.
  stage,
  install,
  // What is in the legacy group directories moves into the group containers of the app.
  groups,
  // What no step has moved is looked for. Where something is found, or the container cannot be
  // listed, it stays.
  missedItems,
  removal,
  run,  // of no container: what comes before and after them
};

// What became of an entry of the legacy applications directory. Every entry that was found has
// exactly one in the end; one that a run was ended before counts as left.
enum class MigrationOutcome {
  migrated,  // all of it arrived, and the entry is gone
  resumed,   // the same, of a container whose kind is `marker`; told as either
  removed,   // nothing could be made of it, and it is gone
  left,      // it was not begun and stays as it is
  failed,    // it was begun; whether it stays is told with it
};

// Why something did not go as it should. Each code means one thing at whatever step it occurs; the
// errno or the registry's code is in the Error that comes with it. A reason is told with a problem,
// which says whether anything stopped on its account, with a group or harbor, and with what is left
// behind.
enum class MigrationReason {
  none,
  // Of the container itself.
  strayFile,         // no directory
  farewellFile,      // left by the former service
  vanished,          // gone before it was looked at
  link,              // a symbolic link where none is followed
  cannotBeListed,    // the container
  cannotBeExamined,  // one of its items
  // The next four come in pairs. Of the first of each pair nothing is certain, so that the
  // container stays unless a valid marker says what to do; the second is certain
  // (IsCertainlyUnusable()), and only on its account may anything be removed.
  bundleUnreadable,  // what is in the bundle is not known
  bundleUnusable,    // it is certain that the bundle has no identifier
  markerUnreadable,  // what is in the marker is not known
  markerDamaged,     // it is certain that the marker is no record
  noBundle,          // nothing that could be migrated
  markerNotWritten,  // the record is not in the container
  foreignMarker,     // its marker names another container
  // Of the app and its data.
  placeholderFailed,   // could not be put together
  placeholderRefused,  // by the registry
  iconFailed,
  metadataUnreadable,
  noRecord,  // the registry does not know the identifier
  noDataContainer,
  notMoved,  // an item, and where it should have gone
  notFlushed,
  stagingFailed,
  installRefused,
  newerBuiltIn,   // the system carries a newer copy: the bundle is obsolete
  groupsUnknown,  // the registry cannot tell the app's groups
  missedItems,    // items that no step moves
  notRemoved,
  // Of groups, harbors and the run.
  entryDamaged,  // of a map
  notThere,      // what a map names
  mapUnreadable,
  harborRefused,
  protectionRefused,  // the update of data protection
  unclaimed,          // a group of no migrated app
  inUse,              // a group's directory that is, holds or lies in what the system uses
  interrupted,        // the run was ended before its turn, or in the middle of it
  notChosen,          // the run was confined to others
  dataReplaced,       // an item went from the data container, since another came to its place
};

// The words for these in results, the same everywhere.
// In the order of the enumerators, as the next two: results and event streams hold them.
inline constexpr std::array<const char*, 10> MigrationStepNames = {
    "introspect", "marker", "placeholder",  "data",    "stage",
    "install",    "groups", "missed-items", "removal", "run"};
inline constexpr std::array<const char*, 5> MigrationOutcomeNames = {"migrated", "resumed",
                                                                     "removed", "left", "failed"};
inline constexpr std::array<const char*, 38> MigrationReasonNames = {"none",
                                                                     "stray-file",
                                                                     "farewell-file",
                                                                     "vanished",
                                                                     "link",
                                                                     "cannot-be-listed",
                                                                     "cannot-be-examined",
                                                                     "bundle-unreadable",
                                                                     "bundle-unusable",
                                                                     "marker-unreadable",
                                                                     "marker-damaged",
                                                                     "no-bundle",
                                                                     "marker-not-written",
                                                                     "foreign-marker",
                                                                     "placeholder-failed",
                                                                     "placeholder-refused",
                                                                     "icon-failed",
                                                                     "metadata-unreadable",
                                                                     "no-record",
                                                                     "no-data-container",
                                                                     "not-moved",
                                                                     "not-flushed",
                                                                     "staging-failed",
                                                                     "install-refused",
                                                                     "newer-built-in",
                                                                     "groups-unknown",
                                                                     "missed-items",
                                                                     "not-removed",
                                                                     "entry-damaged",
                                                                     "not-there",
                                                                     "map-unreadable",
                                                                     "harbor-refused",
                                                                     "protection-refused",
                                                                     "unclaimed",
                                                                     "in-use",
                                                                     "interrupted",
                                                                     "not-chosen",
                                                                     "data-replaced"};

// Static texts, never null. The argument is an enumerator: a number from elsewhere has no name and
// must be checked before.
constexpr const char* NameOf(MigrationStep step) {
  return MigrationStepNames[static_cast<std::size_t>(step)];
}
constexpr const char* NameOf(MigrationOutcome outcome) {
  return MigrationOutcomeNames[static_cast<std::size_t>(outcome)];
}
constexpr const char* NameOf(MigrationReason reason) {
  return MigrationReasonNames[static_cast<std::size_t>(reason)];
}

// What an entry of the legacy applications directory is. Decided from the directory's listing, its
// marker and its bundle, before any change. One with a valid marker is told as such, whatever its
// bundle: the marker's record says what to do.
enum class LegacyItemKind {
  unknown,    // it could not be listed, or not everything in it could be read
  app,        // a container with an app bundle
  vpnBundle,  // a container with a VPN plug-in bundle and no app
  marker,     // a container whose migration was begun
  empty,      // a container in which nothing can be migrated
  file,       // no directory
  link,
};
// In the order of the enumerators, as the names above.
inline constexpr std::array<const char*, 7> LegacyItemKindNames = {
    "unknown", "App", "VPNBundle", "marker", "empty", "file", "link"};
constexpr const char* NameOf(LegacyItemKind kind) {
  return LegacyItemKindNames[static_cast<std::size_t>(kind)];
}

// What is known of an entry once it was looked at.
// Told before anything is done with the container. A preview tells the same as a migration would.
// The identifier is the app's as its bundle or the marker has it, so that two containers may have
// the same one.
struct ClassifiedContainer {
  LegacyItemKind kind = LegacyItemKind::unknown;
  std::string identifier{};  // these two are empty unless there is something to migrate
  std::string bundle{};      // its path
};

// Something that did not go as it should.
// Its reason says what, its step where, its Error why. One that stops nothing is a note: the
// container goes on, and so does the run.
struct MigrationProblem {
  MigrationStep step = MigrationStep::introspect;
  MigrationReason reason = MigrationReason::none;
  std::string path{};                // what it is about; empty when that is no item on disk
  Error error{};                     // without a record where nothing more is known
  std::vector<std::string> items{};  // names, where the reason is about several
  bool stops = true;                 // the container goes no further, or the run fails
};

// What went with something that was removed although not all of it had arrived elsewhere.
// Counted before the removal: afterwards nobody could. The container's own marker does not count,
// nor do directories, which whoever needs them makes anew. A removal that failed halfway is told
// with what really went.
struct MigrationLoss {
  std::string path{};
  std::uint64_t files = 0;                   // links and special files included
  std::uint64_t bytes = 0;                   // of regular files
  std::vector<std::string> userDataItems{};  // those of the user data items that were in it
  bool complete = true;                      // false: the tree could not be counted whole
};

// What became of one group container or safe harbor. A group that several apps have is told at each
// attempt, and the last time counts.
struct MigratedDirectory {
  std::string identifier{};
  std::string path{};         // where it was; empty when its map does not say
  std::string destination{};  // where a group's items went; empty when that was not reached
  MigrationOutcome outcome = MigrationOutcome::migrated;  // migrated, left or failed
  MigrationReason reason = MigrationReason::none;
  Error error{};
};

// Something that stays on the device and that no later run takes care of by itself. Whoever reports
// a run shows these: a person has to look at them.
struct LeftBehind {
  std::string path{};
  MigrationReason why = MigrationReason::none;
};

// Told in the order in which things happen, on the thread that drives the plug-in. A container
// begins when it is looked at, and is classified. One that is to be migrated begins again when its
// turn comes; every other one ends at once. Everything told between its beginning and the next one
// or its end belongs to it, and everything else to the run. What an implementation does not care
// for it leaves out. Nothing is thrown; nothing here calls back into the plug-in. The object is the
// host's, which keeps it alive until the plug-in is destroyed. References are good for the call
// only. An implementation that another thread reads guards itself. It may keep the plug-in's thread
// waiting, since nothing is held across these calls that others wait for, and it may even keep it
// for good: the migration then stands between two steps, as survivable as a kill.
//
// Each operation does nothing by default, so that an implementation names those that it wants, and
// an operation that is added later breaks none.
class MigrationAccount {
 public:
  virtual ~MigrationAccount() = default;

  // Once, by the plug-in's initialisation, when there is anything: entries found, links left out.
  virtual void itemsFound(std::size_t /*count*/) {}

  // `index` counts the entries from 0, in the order in which they were found; `path` is the
  // entry's own, whatever its marker says.
  virtual void containerBegan(std::size_t /*index*/, const std::string& /*path*/) {}
  // Once for each container that began, before any of its problems. A container that begins again
  // for its turn is not classified again.
  virtual void containerClassified(const ClassifiedContainer& /*container*/) {}
  // Also around what a step does not get to do: a step that was begun ends. Steps of one container
  // do not overlap; an end names the step that began last. A step that succeeded may still have
  // told notes.
  virtual void stepBegan(MigrationStep /*step*/) {}
  virtual void stepEnded(MigrationStep /*step*/, bool /*succeeded*/) {}
  // Where the container's data goes.
  // At the latest before the first item is moved there.
  virtual void dataContainerFound(const std::string& /*path*/) {}
  // When it is met. One that stops the container comes before the container's end.
  virtual void problem(const MigrationProblem& /*problem*/) {}
  // Before the end of the container whose removal, or whose data's move, it is: once for each.
  virtual void lost(const MigrationLoss& /*loss*/) {}
  // `stays`: the entry is still there.
  // Once for each container, unless the run was ended before.
  virtual void containerEnded(MigrationOutcome /*outcome*/, bool /*stays*/) {}

  // Each once for every attempt to move a group, and for every entry of the harbor map.
  virtual void groupEnded(const MigratedDirectory& /*group*/) {}
  virtual void harborEnded(const MigratedDirectory& /*harbor*/) {}
  // At the end of the run, each item once.
  virtual void leftBehind(const LeftBehind& /*item*/) {}
};

}  // namespace quorvel
