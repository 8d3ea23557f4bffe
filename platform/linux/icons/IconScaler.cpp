// Weighs source samples by how much of the result's sample they cover.
#include "platform/linux/icons/IconScaler.h"

#include <algorithm>
#include <cmath>

namespace quorvel::onlinux {
namespace {

// Shrinking: the part of each source sample that the result sample covers.
SampleWeights AreaWeights(double from, double to, std::uint32_t sourceSize) {
  SampleWeights result;
  result.first = static_cast<std::uint32_t>(from);
  // Rounding may put the last border just beyond the source.
  const auto last = std::min(static_cast<std::uint32_t>(std::ceil(to)), sourceSize);
  for (std::uint32_t i = result.first; i < last; ++i) {
    const double covered = std::min(to, i + 1.0) - std::max(from, static_cast<double>(i));
    result.weights.push_back(static_cast<float>(covered / (to - from)));
  }
  return result;
}

// Enlarging: the two samples whose centres enclose the result sample's centre.
SampleWeights LinearWeights(double centre, std::uint32_t sourceSize) {
  const double position = std::clamp(centre - 0.5, 0.0, static_cast<double>(sourceSize - 1));
  SampleWeights result;
  result.first = static_cast<std::uint32_t>(position);
  const auto fraction = static_cast<float>(position - result.first);
  result.weights.push_back(1.0F - fraction);
  if (result.first + 1 < sourceSize) result.weights.push_back(fraction);
  return result;
}

std::vector<SampleWeights> WeightsFor(std::uint32_t sourceSize, std::uint32_t resultSize) {
  const double scale = static_cast<double>(sourceSize) / resultSize;
  std::vector<SampleWeights> all(resultSize);
  for (std::uint32_t i = 0; i < resultSize; ++i) {
    all[i] = scale >= 1 ? AreaWeights(i * scale, (i + 1) * scale, sourceSize)
                        : LinearWeights((i + 0.5) * scale, sourceSize);
  }
  return all;
}

// Weighted means of bytes are never below 0 and above 255 by rounding errors only.
std::uint8_t ToByte(float value) {
  // Not lround: it is a call per sample, and nothing here is negative.
  return static_cast<std::uint8_t>(std::min(static_cast<int>(value + 0.5F), 255));  // NOLINT
}

// The mask's corner radius as a share of the icon's side: 27 pixels of 120.
constexpr double kCornerRadiusShare = 0.225;

// Opacity, 0 to 255, of each pixel of the top left corner's square; the others mirror it.
// Counted over 16 x 16 points a pixel, in units of half a point's distance.
std::vector<std::uint8_t> MakeCorner(std::uint32_t radius) {
  constexpr int points = 16;
  const int reach = static_cast<int>(radius) * points * 2;
  std::vector<std::uint8_t> corner;
  corner.reserve(std::size_t{radius} * radius);
  for (std::uint32_t i = 0; i < radius * radius; ++i) {
    int inside = 0;
    for (int p = 0; p < points * points; ++p) {
      const int dx = reach - (static_cast<int>(i % radius) * points + p % points) * 2 - 1;
      const int dy = reach - (static_cast<int>(i / radius) * points + p / points) * 2 - 1;
      if (dx * dx + dy * dy <= reach * reach) ++inside;
    }
    corner.push_back(static_cast<std::uint8_t>(inside * 255 / (points * points)));
  }
  return corner;
}

}  // namespace

bool IconScaler::begin(std::uint32_t width, std::uint32_t height) {
  width_ = width;
  height_ = height;
  // Bit for bit, which floating point would not promise.
  if (width == side_ && height == side_) {
    copy_.reserve(std::size_t{side_} * side_ * 4);
    return true;
  }
  columns_ = WeightsFor(width, side_);
  rows_ = WeightsFor(height, side_);
  // Bounded by the result's size, whatever the source's is.
  narrowRow_.resize(std::size_t{side_} * 4);
  sums_.resize(std::size_t{side_} * side_ * 4);
  return true;
}

void IconScaler::row(const std::uint8_t* pixels) {
  if (columns_.empty()) {
    copy_.insert(copy_.end(), pixels, pixels + std::size_t{width_} * 4);
    return;
  }
  const std::uint32_t y = y_++;
  bool shrunk = false;
  for (std::uint32_t i = firstOpen_; i < side_ && rows_[i].first <= y; ++i) {
    const std::uint32_t at = y - rows_[i].first;
    if (at >= rows_[i].weights.size()) {
      firstOpen_ = i + 1;  // windows only move down: this row is complete
      continue;
    }
    if (!shrunk) shrinkRow(pixels);
    shrunk = true;
    addRowTo(i, rows_[i].weights[at]);
  }
}

void IconScaler::shrinkRow(const std::uint8_t* pixels) {
  float* out = narrowRow_.data();
  for (const SampleWeights& column : columns_) {
    const std::uint8_t* in = pixels + std::size_t{column.first} * 4;
    float red = 0;
    float green = 0;
    float blue = 0;
    float alpha = 0;
    for (const float weight : column.weights) {
      // Premultiplied: a transparent pixel adds neither colour nor opacity.
      const float opacity = weight * in[3];
      red += opacity * in[0];
      green += opacity * in[1];
      blue += opacity * in[2];
      alpha += opacity;
      in += 4;
    }
    out[0] = red;
    out[1] = green;
    out[2] = blue;
    out[3] = alpha;
    out += 4;
  }
}

void IconScaler::addRowTo(std::uint32_t resultRow, float weight) {
  float* sums = sums_.data() + std::size_t{resultRow} * side_ * 4;
  const float* in = narrowRow_.data();
  for (std::size_t i = 0; i < std::size_t{side_} * 4; ++i) sums[i] += weight * in[i];
}

std::unique_ptr<Image> IconScaler::finish() {
  auto image = std::make_unique<Image>();
  image->width = side_;
  image->height = side_;
  if (columns_.empty()) {
    image->pixels = std::move(copy_);
    return image;
  }
  image->pixels.resize(sums_.size());
  // Two passes, so that the compiler can turn the second, which is the longer, into vectors.
  for (std::size_t i = 0; i < sums_.size(); i += 4) {
    const float alpha = sums_[i + 3];
    // Back from premultiplied; where nothing was opaque there is no colour.
    const float scale = alpha > 0 ? 1.0F / alpha : 0.0F;
    for (std::size_t channel = 0; channel < 3; ++channel) sums_[i + channel] *= scale;
  }
  const float* in = sums_.data();
  std::uint8_t* out = image->pixels.data();
  for (std::size_t i = 0; i < sums_.size(); ++i) out[i] = ToByte(in[i]);
  return image;
}

void ApplyHomeScreenMask(Image& image) {
  // The home screen's size, whose corner is counted once a process.
  static constexpr std::uint32_t usualSide = 120;
  static constexpr auto usualRadius = static_cast<std::uint32_t>(usualSide * kCornerRadiusShare);
  static const std::vector<std::uint8_t> usualCorner = MakeCorner(usualRadius);
  const std::uint32_t side = image.width;
  const auto radius = static_cast<std::uint32_t>(side * kCornerRadiusShare);
  const auto corner = radius == usualRadius ? usualCorner : MakeCorner(radius);
  const auto fade = [&](std::uint32_t x, std::uint32_t y, unsigned opacity) {
    std::uint8_t& alpha = image.pixels[(std::size_t{y} * side + x) * 4 + 3];
    alpha = static_cast<std::uint8_t>((alpha * opacity + 127) / 255);
  };
  for (std::uint32_t i = 0; i < radius * radius; ++i) {
    const std::uint32_t x = i % radius;
    const std::uint32_t y = i / radius;
    for (const std::uint32_t column : {x, side - 1 - x}) {
      for (const std::uint32_t line : {y, side - 1 - y}) fade(column, line, corner[i]);
    }
  }
}

}  // namespace quorvel::onlinux
