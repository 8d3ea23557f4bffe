// The platform's services that a migration stands on.
#pragma once

#include "platform/MigrationSelection.h"

namespace quorvel {

// What messages call the first one that the installed set lacks; null when all are there. Asked
// before a run: its steps reach for services without looking, and must not end the process in the
// middle of a container. The account and the logs may be missing.
const char* MissingService();

// The containers that the host has chosen; null when all of them are to be migrated.
const MigrationSelection* Selection();

}  // namespace quorvel
