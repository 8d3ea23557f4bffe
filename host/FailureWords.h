// The reasons that a plug-in gives, in words for the person who ran the migration.
#pragma once

#include <string>

#include "platform/Error.h"
#include "platform/MigrationAccount.h"

namespace quorvel::host {

// Begins in the middle of a sentence; printable.
const char* WordsFor(MigrationReason reason);

// The number that the failure came from, through all its causes; 0 when there is none.
int ErrorNumberOf(const Error& error);

// "ENOSPC", or "E<number>" for a number without a name; empty for 0.
std::string ErrorNumberName(int number);

// What the record says of the failure, with the number's name in front; empty without a record.
std::string DetailOf(const Error& error);

}  // namespace quorvel::host
