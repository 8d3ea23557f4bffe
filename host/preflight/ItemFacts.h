// What decides whether an item can be moved, without following links or changing anything.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/preflight/Finding.h"

namespace quorvel::host {

// As statx tells them.
// Of the item itself, never of what a link leads to. What the kernel or the file system does not
// tell keeps its default.
struct ItemFacts {
  mode_t mode = 0;
  uid_t owner = 0;
  dev_t device = 0;
  std::uint64_t mount = 0;  // items of one mount can be renamed into one another's directories
  bool fixed = false;       // immutable or append-only
  bool mountRoot = false;   // something is mounted on it
};

// The item `name` of the open directory, or the directory itself for "". Absent with errno.
std::optional<ItemFacts> FactsAt(int directory, const char* name);

// Why the process cannot rename the item out of its directory, and what to do about it.
struct Obstacle {
  std::string detail{};
  std::string remedy{};
};

// `holder` is the facts of the directory that holds the item. A read-only file system is no
// obstacle here: a tree is also looked at through a read-only view.
// Absent when nothing does. Judged by the rules that rename goes by: rights on the directory, the
// sticky bit, flags of either, and mount points.
std::optional<Obstacle> WhatKeeps(int directory, const char* name, const ItemFacts& item,
                                  const ItemFacts& holder);
// Why entries of the directory cannot be listed, taken out or put in.
// Absent when nothing does. About the directory's own rights and flags only: what holds it is not
// looked at.
std::optional<Obstacle> WhatSeals(int directory, const char* name, const ItemFacts& item);

}  // namespace quorvel::host
