// The plug-in's error messages, in words for the person who ran the migration.
#pragma once

#include <string>
#include <string_view>

namespace quorvel::host {

struct FailureWords {
  std::string text;    // printable
  bool minor = false;  // nothing of the user's is affected: not worth a line of its own
};

// `message` is a line of the plug-in's log without its leading "QVRavelle: ". One that is not
// known is shown as it stands.
FailureWords InWords(std::string_view message);

}  // namespace quorvel::host
