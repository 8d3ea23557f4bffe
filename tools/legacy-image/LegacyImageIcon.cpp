// Draws an icon in the app's colour.
#include "tools/legacy-image/LegacyImageIcon.h"

#include <png.h>

#include <vector>

namespace quorvel::tools {
namespace {

struct Form {
  std::uint32_t side;
  png_uint_32 format;
};

// Sides of the icon sizes that devices asked for, each with another layout of pixels.
Form DescribeForm(IconForm form) {
  switch (form) {
    case IconForm::rgb57:
      return {57, PNG_FORMAT_RGB};
    case IconForm::gray114:
      return {114, PNG_FORMAT_GRAY};
    case IconForm::palette180:
      return {180, PNG_FORMAT_RGB_COLORMAP};
    case IconForm::rgba512:
      return {512, PNG_FORMAT_RGBA};
    default:
      return {120, PNG_FORMAT_RGBA};
  }
}

// A disc of one colour on a gradient of another; all that a decoder has to get right is in it.
std::uint8_t Shade(const Form& form, std::uint32_t x, std::uint32_t y, unsigned channel,
                   std::uint64_t seed) {
  const auto dx = static_cast<std::int64_t>(x) * 2 - form.side;
  const auto dy = static_cast<std::int64_t>(y) * 2 - form.side;
  const auto tone = static_cast<std::uint32_t>((seed >> (channel * 8)) & 0xFFU);
  if (channel == 3) return 255;
  if (dx * dx + dy * dy < std::int64_t{form.side} * form.side / 3) {
    return static_cast<std::uint8_t>(255 - tone);
  }
  return static_cast<std::uint8_t>((tone + (channel == 1 ? x : y) * 128 / form.side) & 0xFFU);
}

// A palette's pixels are places in it, one byte each.
std::vector<std::uint8_t> Draw(const Form& form, std::uint64_t seed) {
  const bool isPalette = (form.format & PNG_FORMAT_FLAG_COLORMAP) != 0;
  const unsigned channels = isPalette ? 1 : PNG_IMAGE_SAMPLE_CHANNELS(form.format);
  std::vector<std::uint8_t> pixels;
  pixels.reserve(std::size_t{form.side} * form.side * channels);
  for (std::uint32_t y = 0; y < form.side; ++y) {
    for (std::uint32_t x = 0; x < form.side; ++x) {
      for (unsigned c = 0; c < channels; ++c) pixels.push_back(Shade(form, x, y, c, seed));
    }
  }
  return pixels;
}

}  // namespace

// The palette has three channels that run in different ways, so that a mix-up of any two shows. It
// is passed in any case and used for that one form only.
std::string DrawIcon(IconForm form, std::uint64_t seed) {
  const Form described = DescribeForm(form);
  const std::vector<std::uint8_t> pixels = Draw(described, seed);
  std::vector<std::uint8_t> palette;
  for (unsigned i = 0; i < 256; ++i) {
    for (const unsigned part : {i, 255 - i, i * 3 % 256}) {
      palette.push_back(static_cast<std::uint8_t>(part));
    }
  }
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = image.height = described.side;
  image.format = described.format;
  // Thousands of icons are drawn for a large device, and their size matters to nobody.
  image.flags = PNG_IMAGE_FLAG_FAST;
  image.colormap_entries = 256;
  std::string file(PNG_IMAGE_PNG_SIZE_MAX(image), '\0');
  png_alloc_size_t size = file.size();
  const int written =
      png_image_write_to_memory(&image, file.data(), &size, 0, pixels.data(), 0, palette.data());
  file.resize(written != 0 ? size : 0);
  return file;
}

}  // namespace quorvel::tools
