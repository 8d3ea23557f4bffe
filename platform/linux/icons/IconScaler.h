// Scales an image to a square while its rows arrive, and rounds the square's corners.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/linux/icons/PngCodec.h"

namespace quorvel::onlinux {

// Which source samples make one sample of the result, and how much each weighs (sum 1). A window of
// neighbours: the weights are those of first, first + 1 and so on.
struct SampleWeights {
  std::uint32_t first = 0;
  std::vector<float> weights;
};

// Memory: one row of the source (owned by the decoder) and one image of the result. Shrinking
// averages over the area that a result pixel covers, enlarging interpolates linearly; colours
// count by their opacity, so that what a transparent pixel hides does not bleed into its
// neighbours. An image that is not square is stretched. Belongs to one thread.
class IconScaler final : public PngRowSink {
 public:
  explicit IconScaler(std::uint32_t side) : side_(side) {}
  // Never refuses. An image that has the size already is copied byte for byte.
  bool begin(std::uint32_t width, std::uint32_t height) override;
  void row(const std::uint8_t* pixels) override;

  // The result, once every row has been given; called once. Not premultiplied, as every Image.
  // Where nothing of a pixel was opaque its colour is black.
  std::unique_ptr<Image> finish();

 private:
  // The source row at the result's width into narrowRow_; or enlarged, by the same weights.
  void shrinkRow(const std::uint8_t* pixels);
  // Adds narrowRow_ to one row of the result.
  void addRowTo(std::uint32_t resultRow, float weight);

  std::uint32_t side_;
  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::uint32_t y_ = 0;          // next source row
  std::uint32_t firstOpen_ = 0;  // first result row that still takes source rows
  std::vector<SampleWeights> columns_;
  std::vector<SampleWeights> rows_;
  std::vector<float> narrowRow_;    // the current row at its final width: premultiplied RGBA
  std::vector<float> sums_;         // the result so far, in the same form
  std::vector<std::uint8_t> copy_;  // the result, when the source has its size already
};

// Makes the corners of the square image transparent, anti-aliased, as the home screen shows icons.
// The radius is a fixed share of the side. What was transparent there stays so: the mask only takes
// away.
void ApplyHomeScreenMask(Image& image);

}  // namespace quorvel::onlinux
