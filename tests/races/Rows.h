// What the races and the bad trees are made of: rows of a table, each with what went wrong.
#pragma once

#include <string>
#include <vector>

namespace quorvel::races {

struct Options {
  long rounds = 300;
  unsigned seed = 1;
  std::string only;  // a row's name; all when empty
};

struct Row {
  std::string name;
  long rounds = 0;
  long exchanges = 0;  // that happened while the operation ran; of races only
  bool isControl = false;
  std::string skipped;             // why it was not tried
  std::vector<std::string> wrong;  // of a control: what was caught

  // A control must find something, and a race must have been one.
  bool isGood(bool isRace) const {
    if (!skipped.empty()) return true;
    if (isControl) return !wrong.empty();
    return wrong.empty() && rounds > 0 && (!isRace || exchanges > 0);
  }
};

// Directories and files change places with links to a canary while each operation is at work.
std::vector<Row> RunRaces(const Options& options);

// Trees that are deep, wide or oddly named, with few descriptors and little memory. `whole`: of the
// full size, which takes minutes; memory is only limited where `canLimitMemory`.
std::vector<Row> RunBadTrees(const Options& options, bool whole, bool canLimitMemory);

}  // namespace quorvel::races
