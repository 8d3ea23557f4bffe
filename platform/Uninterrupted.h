// System calls that a signal may interrupt, made again.
#pragma once

#include <cerrno>

namespace quorvel {

// What the call answers once no signal interrupts it; errno is the call's. Any thread. `call`
// returns a negative number on failure, and can be made again as it is: not for close, whose
// descriptor is gone even when it was interrupted.
template <class Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace quorvel
