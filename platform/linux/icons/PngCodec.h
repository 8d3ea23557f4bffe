// PNG files: libpng behind two calls that cannot leak, jump or trust their input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/Icon.h"

namespace quorvel::onlinux {

// Bounds that are handed to libpng before it decodes anything.
inline constexpr std::uint32_t MaximumPngSide = 4096;  // pixels
// An interlaced file is held whole while its passes arrive (4 bytes a pixel: 16 MiB); any other
// needs a single row.
inline constexpr std::size_t MaximumInterlacedPixels = std::size_t{2048} * 2048;
// Largest ancillary chunk that may be allocated, in bytes. Pixels are not counted.
inline constexpr std::size_t MaximumPngChunkBytes = std::size_t{1} << 20U;

// Takes the rows of one image while it is decoded.
class PngRowSink {
 public:
  virtual ~PngRowSink() = default;
  // Called once, before the rows. False refuses the image.
  virtual bool begin(std::uint32_t width, std::uint32_t height) = 0;
  // The next row from the top: `width` pixels of 8-bit RGBA, not premultiplied.
  virtual void row(const std::uint8_t* pixels) = 0;
};

// Decodes a whole file of any colour type, bit depth and interlace; gamma and colour profiles
// are not applied. True when every row was handed over and the file is intact to its last byte;
// on false the sink may have seen some rows, which mean nothing. Any thread may call.
bool DecodePng(std::span<const std::uint8_t> file, PngRowSink& sink);

// Replaces `file` by an 8-bit RGBA PNG of the image. False, with `file` left empty, when the
// image has no pixels, sizes that do not match its pixels, or a side above MaximumPngSide.
bool EncodePng(const Image& image, std::vector<std::uint8_t>& file);

}  // namespace quorvel::onlinux
