// Compares what a disturbed migration made with what an undisturbed one makes.
#pragma once

#include <string>
#include <vector>

#include "tests/support/MigrationDevice.h"
#include "tests/sweep/ReferenceDevice.h"
#include "tests/sweep/Sweep.h"

namespace quorvel::sweep {

// What a comparison overlooks, since it is documented that it may be so.
struct Leniency {
  // A call failed: a bundle that the registry refused is given up with its container, groups of an
  // install map that could not be read stay where they are, a mark that could not be read is none,
  // and what could not be removed stays.
  bool failures = false;
  // The service logs what it has no need to log otherwise, or its log was not flushed.
  bool logs = false;
  // What is not a failure of the run although something could not be read: the maps, a mark.
  bool reading = false;
  // What the registry had begun without a flush, a placeholder's containers, may stay.
  bool unflushed = false;
  // The failure lasted, so the beginning of a failed copy could not be removed again.
  bool lasting = false;
};

class Judge {
 public:
  // Of the device before it is migrated.
  void learn(const std::string& root) { items_ = UserItemsOf(root); }
  // Of the device behind an undisturbed migration.
  void expect(const testing::Facts& outcome) { expected_ = outcome; }

  std::vector<std::string> missingAnywhere(const std::string& root) const {
    return MissingAnywhere(items_, root);
  }
  std::size_t userItems() const { return items_.size(); }

  // Adds to the finding what is missing, different or left behind. True when nothing is missing.
  bool compare(testing::Facts actual, const Leniency& leniency, Finding* finding) const;

 private:
  std::vector<UserItem> items_;
  testing::Facts expected_;
};

// Runs an undisturbed migration on a device that was disturbed, and a third one when the second did
// not complete it, and adds what came of it.
void Recover(const Judge& judge, const testing::Device& device, const testing::HostSetup& setup,
             const Leniency& leniency, Finding* finding);

}  // namespace quorvel::sweep
