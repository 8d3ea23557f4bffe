// Processes that share the points of one sweep among them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/sweep/Sweep.h"

namespace quorvel::sweep {

// Tries the points in `jobs` child processes and hands each finding on as it comes. `done` is
// called with the number of points that are through. A worker that dies takes the sweep down:
// false.
bool TryPoints(Sweep& sweep, const std::vector<std::string>& points, long jobs,
               const std::string& keep, const std::function<void(const Finding&)>& found,
               const std::function<void(std::size_t)>& done);

}  // namespace quorvel::sweep
