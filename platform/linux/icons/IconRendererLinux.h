// Home-screen icons from PNG files in bundles.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "platform/Icon.h"

namespace quorvel::onlinux {

// Side of a rendered icon, in pixels.
inline constexpr std::uint32_t HomeScreenIconSide = 120;
// Larger icon files are not read, in bytes.
inline constexpr std::size_t MaximumIconFileBytes = std::size_t{8} << 20U;

// The icon that a PNG file shows on the home screen: HomeScreenIconSide square with rounded
// corners. Null when the file is no intact PNG within the bounds of PngCodec.h.
std::unique_ptr<Image> RenderHomeScreenIcon(std::span<const std::uint8_t> pngFile);

// Keeps no state; any thread may call.
//
// A bundle's icon file is the one that "PKBundleIconFile" of its info dictionary names: the name
// as it is, else with ".png" added; where neither is a regular file, "Icon.png". The name may
// reach into directories of the bundle but not out of it, and no link is followed on the way. A
// file that is there but is no usable icon is not replaced by another one.
class IconRendererLinux final : public IconRenderer {
 public:
  std::unique_ptr<Image> createHomeScreenIconImage(PKBundle& bundle) override;
  std::unique_ptr<PngEncoder> createPngEncoder(std::vector<std::uint8_t>& buffer,
                                               std::size_t imageCount) override;
};

}  // namespace quorvel::onlinux
