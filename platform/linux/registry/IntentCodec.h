// How an intent is stored: as one value, in which every field has its length in front.
//
// What an earlier version wrote can be read: fields are only ever added at the end of a structure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/registry/InstallIntent.h"

namespace quorvel::onlinux {

// Any list of byte strings as one, and back; false when it is not what EncodeList wrote.
std::string EncodeList(const std::vector<std::string>& texts);
bool DecodeList(std::string_view encoded, std::vector<std::string>* texts);

// Steps and records of an intent. Decoding leaves id and committed alone; false, with the intent
// in any state, for what no version wrote.
std::string EncodeIntent(const InstallIntent& intent);
bool DecodeIntent(std::string_view encoded, InstallIntent* intent);

}  // namespace quorvel::onlinux
