// Icons for made apps.
#pragma once

#include <cstdint>
#include <string>

namespace quorvel::tools {

// The forms in which icons come: colour types and sizes.
enum class IconForm { rgba120, rgb57, gray114, palette180, rgba512 };
inline constexpr unsigned IconFormCount = 5;

// A PNG file with a drawing in colours of the seed's. Empty when libpng fails.
std::string DrawIcon(IconForm form, std::uint64_t seed);

}  // namespace quorvel::tools
