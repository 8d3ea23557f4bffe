// How an intent is stored: as one value, fields with their lengths in front.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/registry/RegistryStore.h"

namespace quorvel::onlinux {

// Any list of byte strings as one, and back; false when it is not what EncodeFields wrote.
std::string EncodeFields(const std::vector<std::string>& fields);
bool DecodeFields(std::string_view encoded, std::vector<std::string>* fields);

// Steps and records of an intent. Decoding leaves id and committed alone.
std::string EncodeIntent(const InstallIntent& intent);
bool DecodeIntent(std::string_view encoded, InstallIntent* intent);

}  // namespace quorvel::onlinux
