// What one operation of the registry sets out to do, as it is stored before anything is touched.
//
// Paths here are the texts of Path; who owns what is said by identifier.
//
// Plain data. InstallPlan makes intents, IntentCodec.h is their stored form, RegistryStore keeps
// them and InstallTransaction carries them out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quorvel::onlinux {

// One identifier. Containers are names (DeviceLayout.h), absent when there is none.
// What the registry stores of it; everything that a lookup tells comes from here and the disk. A
// record may have no bundle: that of an identifier that was only registered, or of a built-in app,
// whose bundle is elsewhere and whose data container is here.
struct AppRecord {
  std::string identifier;
  std::string type;
  std::string version;
  std::optional<std::string> bundleContainer;
  std::string bundleName;  // of the bundle's directory in its container; a path text
  std::optional<std::string> dataContainer;
  std::vector<std::string> groups;
  bool placeholder = false;
  // The request that was last satisfied for the identifier: its staging directory, and whether
  // the answer was that a newer copy is built in.
  std::string staging;
  bool obsolete = false;
};

// One step of an intent. Each may be repeated, whether or not it was done before.
// Done in order. A failure stops the intent, which a later call takes up again from its first step.
// The two lists of steps are one vector: those marked `cleanup` wait until the records are
// replaced, and are tried each for itself.
struct InstallStep {
  // A stored number that a version does not know makes the whole intent unreadable, so that kinds
  // are added at the end only, and the decoder is told of the new last one.
  enum class Kind {        // their numbers are stored
    makeDirectory,         // target
    moveBundle,            // source to target
    moveItem,              // the same for what may be missing
    writeFile,             // data to target
    markPlaceholder,       // target
    removeTree,            // target
    removeEmptyDirectory,  // target; one that is not empty stays
    removeStaging,         // target, when only "Payload" and remains of moves are in it
  };
  Kind kind = Kind::makeDirectory;
  bool cleanup = false;    // done after the records were replaced
  std::string identifier;  // whose record depends on it; empty: nobody's
  std::string source;
  std::string target;
  std::string data;  // of writeFile
};

// What an operation set out to do, whole: steps, then records, then clean-up steps.
// Stored before its first step, and forgotten after its last. The records are whole: each replaces
// what is stored under its identifier, or is new.
struct InstallIntent {
  std::int64_t id = 0;
  bool committed = false;  // the records are replaced; only clean-up steps are left
  std::vector<InstallStep> steps;
  std::vector<AppRecord> records;
};

}  // namespace quorvel::onlinux
