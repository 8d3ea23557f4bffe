// Counts the letters to be added, taken away, exchanged or swapped.
#include "host/console/NearestName.h"

#include <algorithm>

namespace quorvel::host {

namespace {

// Words longer than any name are not compared: the cost is the product of the lengths.
constexpr std::size_t kLongestWord = 64;

std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before(b.size() + 1);
  std::vector<std::size_t> above(b.size() + 1);
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    before.swap(above);
    above = row;
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t exchanged = above[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, exchanged});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
  }
  return row[b.size()];
}

}  // namespace

std::string Suggestion(std::string_view word, const std::vector<std::string>& names) {
  if (word.size() > kLongestWord) return {};
  std::string nearest;
  // A third of a name may be wrong, and two letters of a short one.
  std::size_t best = std::max<std::size_t>(2, word.size() / 3) + 1;
  for (const std::string& name : names) {
    const bool begun = word.size() > 2 && name.starts_with(word);
    const std::size_t distance = begun ? 1 : Distance(word, name);
    if (distance >= best) continue;
    best = distance;
    nearest = name;
  }
  return nearest.empty() ? std::string() : ", did you mean " + nearest + "?";
}

}  // namespace quorvel::host
