// Home-screen icons: rendering one from a bundle, and encoding images as PNG.
//
// Why a service: choosing, scaling and masking an icon is the platform's business, and image
// codecs are a dependency that the plug-in does not carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/BundleReader.h"

namespace quorvel {

// An image in memory: 8 bits per channel, RGBA, not premultiplied, rows from the top.
struct Image {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint8_t> pixels;  // width * height * 4 bytes
};

// Writes one image as a PNG file into the buffer that it was created over. Used once: one image,
// then finalize(). Belongs to one thread.
class PngEncoder {
 public:
  virtual ~PngEncoder() = default;
  virtual void addImage(const Image& image) = 0;  // `image` must outlive finalize()
  // Whether the buffer now holds the whole file.
  virtual bool finalize() = 0;
};

// Any thread may call; nothing is kept between calls.
class IconRenderer {
 public:
  virtual ~IconRenderer() = default;
  // The app's icon as the home screen shows it; null when the bundle has none that can be used. Why
  // there is none is not told: an app without an icon is migrated all the same.
  virtual std::unique_ptr<Image> createHomeScreenIconImage(PKBundle& bundle) = 0;
  // An encoder over an empty buffer, which must outlive it, for `imageCount` images (PNG holds
  // one); null when it cannot be made.
  virtual std::unique_ptr<PngEncoder> createPngEncoder(std::vector<std::uint8_t>& buffer,
                                                       std::size_t imageCount) = 0;
};

}  // namespace quorvel
