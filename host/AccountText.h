// An account for people: the same words for what a migration did and for what one would do.
#pragma once

#include <cstddef>
#include <string>

#include "host/RunAccount.h"
#include "host/console/Terminal.h"

namespace quorvel::host {

// How an account is to be shown.
struct AccountView {
  Terminal terminal{};
  bool all = false;         // what went well, too, and every row of a long list
  std::size_t columns = 0;  // of the terminal; 0: any number
};

// What the user has to look at: what failed, was left, or went with something in it. Each cause
// once, with how many it stopped and the first of them; a long list is cut so that all causes and
// what follows fit a screen. Ends with a line feed, unless there is nothing to say.
std::string FailuresAsText(const RunAccount& account, const AccountView& view);

// The rest: with `all` every item that is not among the failures; what stays behind, in any case.
std::string RestAsText(const RunAccount& account, const AccountView& view);

// "3 migrated, 0 resumed, 0 removed, 0 left, 1 failed".
std::string CountsAsText(const RunAccount& account);

// The failures, the counts on a line of their own, the rest, parted by empty lines.
std::string AccountAsText(const RunAccount& account, const AccountView& view);

}  // namespace quorvel::host
