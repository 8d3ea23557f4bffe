// The page of many runs, and the same for programs.
#pragma once

#include <string>

#include "host/report/Fleet.h"

namespace quorvel::host {

// A whole page. Of the devices that need a look it shows the gravest when there are very many.
std::string FleetPage(const Fleet& fleet);

// The fleet's sentence, as text.
std::string SentenceOf(const Fleet& fleet);

// Adds the numbers that the page shows to what report --json prints.
void AddFleet(const Fleet& fleet, Json& object);

}  // namespace quorvel::host
