// What a sweep tells: a bar while it runs, what was found wrong and how to repeat it, a table.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "tests/sweep/Sweep.h"

namespace quorvel::sweep {

struct Row {
  std::string sweep;
  std::string variant;
  long points = 0;
  long fired = 0;
  long lost = 0;
  long left = 0;
  long gaveUp = 0;
  long thirdRun = 0;
  double seconds = 0;
  bool isControl = false;
  std::string skipped;                  // why it was not tried
  std::string broken;                   // why it says nothing
  std::map<std::string, long> allowed;  // left behind as documented, by name
  std::map<std::string, long> givenUp;  // points by what was given up

  bool isGood() const;
};

// Counts the findings of one sweep, and tells of the first that are wrong as they come.
class Account {
 public:
  Account(Row row, std::string repeat, std::size_t total);

  void add(const Finding& finding);
  void show(std::size_t done) const;  // the bar, on a terminal only
  Row close();

 private:
  void tell(const Finding& finding);
  void clearBar() const;

  Row row_;
  const std::string repeat_;  // the command, without the point
  const std::size_t total_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  long told_ = 0;
};

void PrintTable(const std::vector<Row>& rows);

}  // namespace quorvel::sweep
