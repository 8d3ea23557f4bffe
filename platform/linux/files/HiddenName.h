// Names of temporary items beside the item that they are for.
#pragma once

#include <string>
#include <string_view>

namespace quorvel::onlinux {

// "." + name + suffix, or when that would be longer than 255 bytes "." + 16 hexadecimal digits +
// suffix with a hash of the name. The same in every version: what one leaves the next one finds.
std::string HiddenNameFor(std::string_view name, std::string_view suffix);

}  // namespace quorvel::onlinux
