// Written anew with every commit, and so alone in its file.
#include "shared/support/Version.h"

#include "QuorvelCommit.h"

namespace quorvel {

const char* QVLibraryVersion() { return kBuiltVersion; }

}  // namespace quorvel
