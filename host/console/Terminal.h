// What an output stream can show.
#pragma once

#include <cstddef>

namespace quorvel::host {

// One stream's abilities at the moment of asking.
struct Terminal {
  bool isTerminal = false;  // a person's, able to move its cursor
  bool colors = false;      // isTerminal, and NO_COLOR is not set
};

// A stream that is no terminal, or one whose TERM is empty or "dumb", is written to as to a file.
// Reads the environment, which nobody changes by then.
Terminal DescribeTerminal(int descriptor);

// Its width in columns now: people resize windows. 80 when it does not say.
std::size_t TerminalColumns(int descriptor);

}  // namespace quorvel::host
