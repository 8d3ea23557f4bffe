// Compares what a disturbed migration made with what an undisturbed one makes.
#pragma once

#include <string>
#include <vector>

#include "tests/support/MigrationDevice.h"
#include "tests/sweep/ReferenceDevice.h"
#include "tests/sweep/Sweep.h"

namespace quorvel::sweep {

// What is overlooked in a comparison, since it is documented that it may be so.
struct Leniency {
  bool refusedBundles = false;  // a failed call: a bundle is given up with its container
  bool logs = false;            // the service logs what it has no need to log otherwise
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
