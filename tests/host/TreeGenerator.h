// Makes device trees at random: sound containers, what ails them, group and harbor maps.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "tests/support/MigrationDevice.h"

namespace quorvel::testing {

inline const std::string LegacyDirectory = std::string(Mobile) + "/Applications/";

// One container of a made tree, as its ills see it.
struct Made {
  const Device& device;
  std::string name{};
  std::string identifier{};
  std::string bundle{};  // its name; empty when there is none
  std::string other{};   // the name of another container

  std::string at(const std::string& item) const { return device.container(name + "/" + item); }
  std::string inside(const std::string& item) const { return LegacyDirectory + name + "/" + item; }
  void marker(const std::string& container, const std::string& bundlePath,
              const std::string& app) const;
};

// The same seed makes the same tree.
class TreeGenerator {
 public:
  TreeGenerator(const Device& device, unsigned seed, bool asUser, bool isOnTwoDisks)
      : device_(device), asUser_(asUser), isOnTwoDisks_(isOnTwoDisks), random_(seed) {}

  // Sound ones, whose names begin with the prefix, for ills() to fall on.
  void containers(const std::string& prefix);
  void ills();
  // Groups of migrated apps and of none, there and gone, and harbors of both kinds.
  void maps();
  void groupIlls();
  // Apps that the system carries, older than the users', of the same version or newer.
  void builtInApps();

  std::string told;  // what was made, for a failure

 private:
  int below(std::size_t bound) { return static_cast<int>(random_() % bound); }
  int below(int bound) { return below(static_cast<std::size_t>(bound)); }
  bool oneIn(int count) { return below(count) == 0; }

  Made sound(const std::string& name, const std::string& identifier);

  const Device& device_;
  const bool asUser_;
  const bool isOnTwoDisks_;
  std::mt19937 random_;
  std::vector<Made> made_;
};

// Takes the flags away that keep the tree from being removed.
void Loosen(const std::string& root);

}  // namespace quorvel::testing
