// Why this machine gives an ordinary user no namespace of his own.
#pragma once

#include <string>

namespace quorvel::host {

// What to do about it, for the error number with which it was refused. Reads what the kernel says
// about itself; at most two lines.
std::string RemedyForRefusedNamespace(int error);

}  // namespace quorvel::host
