// What somebody meant who mistyped a name.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quorvel::host {

// ", did you mean NAME?" for the nearest one, empty when none is near enough to be meant.
std::string Suggestion(std::string_view word, const std::vector<std::string>& names);

}  // namespace quorvel::host
