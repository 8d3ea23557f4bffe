// Icons from sound, broken and hostile PNG files.
#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <tuple>

#include "platform/linux/icons/IconRendererLinux.h"
#include "platform/linux/icons/PngCodec.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::onlinux {
namespace {

using testing::TemporaryTree;

using Bytes = std::vector<std::uint8_t>;

std::string_view AsText(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Keeps what DecodePng hands over.
class ImageSink final : public PngRowSink {
 public:
  bool begin(std::uint32_t width, std::uint32_t height) override {
    image.width = width;
    image.height = height;
    return true;
  }
  void row(const std::uint8_t* pixels) override {
    image.pixels.insert(image.pixels.end(), pixels, pixels + std::size_t{image.width} * 4);
  }
  Image image;
};

Image PlainImage(std::uint32_t width, std::uint32_t height, const Bytes& pixel) {
  Image image{width, height, {}};
  for (std::size_t i = 0; i < std::size_t{width} * height; ++i) {
    image.pixels.insert(image.pixels.end(), pixel.begin(), pixel.end());
  }
  return image;
}

Bytes Encoded(const Image& image) {
  Bytes file;
  EXPECT_TRUE(EncodePng(image, file));
  return file;
}

// One sample of the made files: the same for libpng's input and for the expectation.
unsigned SampleAt(unsigned x, unsigned y, unsigned channel, int depth) {
  const unsigned mixed = (x * 7 + y * 13 + channel * 5) * 2654435761U;
  return (mixed >> 8U) & ((1U << static_cast<unsigned>(depth)) - 1);
}

constexpr unsigned kMadeWidth = 11;  // no whole number of bytes at 1, 2 and 4 bits
constexpr unsigned kMadeHeight = 9;

int ChannelsOf(int colourType) {
  switch (colourType) {
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      return 2;
    case PNG_COLOR_TYPE_RGB:
      return 3;
    case PNG_COLOR_TYPE_RGB_ALPHA:
      return 4;
    default:
      return 1;
  }
}

Bytes PackedRow(unsigned y, int channels, int depth) {
  Bytes row((kMadeWidth * static_cast<unsigned>(channels * depth) + 7) / 8);
  std::size_t bit = 0;
  for (unsigned x = 0; x < kMadeWidth; ++x) {
    for (int c = 0; c < channels; ++c) {
      const unsigned sample = SampleAt(x, y, static_cast<unsigned>(c), depth);
      for (int i = depth - 1; i >= 0; --i, ++bit) {
        const unsigned value = (sample >> static_cast<unsigned>(i)) & 1U;
        row[bit / 8] = static_cast<std::uint8_t>(row[bit / 8] | (value << (7 - bit % 8)));
      }
    }
  }
  return row;
}

png_color PaletteColour(unsigned index) {
  return {static_cast<png_byte>(index * 31), static_cast<png_byte>(255 - index),
          static_cast<png_byte>(index * 7 + 3)};
}

// The transparency of the made files: the first palette entries, or one colour.
void SetTransparency(png_structp png, png_infop info, int colourType, int depth) {
  static png_byte alphas[] = {0, 128};
  png_color_16 colour = {};
  colour.gray = static_cast<png_uint_16>(SampleAt(1, 1, 0, depth));
  colour.red = static_cast<png_uint_16>(SampleAt(1, 1, 0, depth));
  colour.green = static_cast<png_uint_16>(SampleAt(1, 1, 1, depth));
  colour.blue = static_cast<png_uint_16>(SampleAt(1, 1, 2, depth));
  png_set_tRNS(png, info, alphas, colourType == PNG_COLOR_TYPE_PALETTE ? 2 : 0, &colour);
}

Bytes MakePng(int colourType, int depth, int interlace, bool transparent) {
  Bytes file;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  const auto append = [](png_structp writer, png_bytep bytes, std::size_t length) {
    auto* out = static_cast<Bytes*>(png_get_io_ptr(writer));
    out->insert(out->end(), bytes, bytes + length);
  };
  png_set_write_fn(png, &file, append, nullptr);
  png_set_IHDR(png, info, kMadeWidth, kMadeHeight, depth, colourType, interlace,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  std::vector<png_color> palette;
  if (colourType == PNG_COLOR_TYPE_PALETTE) {
    for (unsigned i = 0; i < 1U << static_cast<unsigned>(depth); ++i) {
      palette.push_back(PaletteColour(i));
    }
    png_set_PLTE(png, info, palette.data(), static_cast<int>(palette.size()));
  }
  if (transparent) SetTransparency(png, info, colourType, depth);
  png_set_gAMA(png, info, 0.3);  // must not change the pixels
  png_write_info(png, info);
  for (int pass = png_set_interlace_handling(png); pass > 0; --pass) {
    for (unsigned y = 0; y < kMadeHeight; ++y) {
      png_write_row(png, PackedRow(y, ChannelsOf(colourType), depth).data());
    }
  }
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return file;
}

std::uint8_t ToEightBits(unsigned sample, int depth) {
  const double top = std::pow(2, depth) - 1;
  return static_cast<std::uint8_t>(std::lround(sample * 255 / top));
}

// The RGBA pixel that a made file must decode to.
Bytes ExpectedPixel(unsigned x, unsigned y, int colourType, int depth, bool transparent) {
  const auto raw = [&](unsigned c) { return SampleAt(x, y, c, depth); };
  const auto value = [&](unsigned c) { return ToEightBits(raw(c), depth); };
  const auto keyed = [&](unsigned channels) -> std::uint8_t {
    bool same = transparent;
    for (unsigned c = 0; c < channels; ++c) same = same && raw(c) == SampleAt(1, 1, c, depth);
    return same ? 0 : 255;
  };
  switch (colourType) {
    case PNG_COLOR_TYPE_GRAY:
      return {value(0), value(0), value(0), keyed(1)};
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      return {value(0), value(0), value(0), value(1)};
    case PNG_COLOR_TYPE_RGB:
      return {value(0), value(1), value(2), keyed(3)};
    case PNG_COLOR_TYPE_RGB_ALPHA:
      return {value(0), value(1), value(2), value(3)};
    default:
      break;
  }
  const png_color colour = PaletteColour(raw(0));
  const std::uint8_t alphas[] = {0, 128};
  const std::uint8_t alpha = transparent && raw(0) < 2 ? alphas[raw(0)] : 255;
  return {colour.red, colour.green, colour.blue, alpha};
}

struct Form {
  int colourType;
  int depth;
};

std::vector<Form> AllForms() {
  std::vector<Form> forms;
  for (const int depth : {1, 2, 4, 8, 16}) forms.push_back({PNG_COLOR_TYPE_GRAY, depth});
  for (const int depth : {1, 2, 4, 8}) forms.push_back({PNG_COLOR_TYPE_PALETTE, depth});
  for (const int type : {PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA}) {
    for (const int depth : {8, 16}) forms.push_back({type, depth});
  }
  return forms;
}

TEST(PngDecoding, GivesTheSamePixelsForEveryColourTypeDepthAndInterlace) {
  for (const auto [type, depth] : AllForms()) {
    for (const int interlace : {PNG_INTERLACE_NONE, PNG_INTERLACE_ADAM7}) {
      for (const bool transparent : {false, true}) {
        if (transparent && (type & PNG_COLOR_MASK_ALPHA) != 0) continue;
        SCOPED_TRACE(::testing::Message() << "type " << type << " depth " << depth << " interlace "
                                          << interlace << " transparent " << transparent);
        ImageSink sink;
        ASSERT_TRUE(DecodePng(MakePng(type, depth, interlace, transparent), sink));
        Bytes expected;
        for (unsigned i = 0; i < kMadeWidth * kMadeHeight; ++i) {
          const Bytes pixel =
              ExpectedPixel(i % kMadeWidth, i / kMadeWidth, type, depth, transparent);
          expected.insert(expected.end(), pixel.begin(), pixel.end());
        }
        EXPECT_EQ(sink.image.pixels, expected);
      }
    }
  }
}

TEST(PngDecoding, RefusesAFileCutOffAnywhere) {
  for (const int interlace : {PNG_INTERLACE_NONE, PNG_INTERLACE_ADAM7}) {
    const Bytes file = MakePng(PNG_COLOR_TYPE_RGB_ALPHA, 8, interlace, false);
    ASSERT_NE(RenderHomeScreenIcon(file), nullptr);
    for (std::size_t length = 0; length < file.size(); ++length) {
      EXPECT_EQ(RenderHomeScreenIcon(std::span(file).first(length)), nullptr) << length;
    }
  }
}

TEST(PngDecoding, SurvivesEveryByteChanged) {
  const Bytes file = MakePng(PNG_COLOR_TYPE_PALETTE, 4, PNG_INTERLACE_ADAM7, true);
  std::size_t refused = 0;
  for (std::size_t at = 0; at < file.size(); ++at) {
    for (const int change : {0x01, 0x80, 0xFF}) {
      Bytes damaged = file;
      damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ change);
      refused += RenderHomeScreenIcon(damaged) == nullptr ? 1U : 0U;
    }
  }
  // Damage to chunks that are skipped goes unnoticed; all else is covered by check sums.
  EXPECT_GT(refused, file.size() * 2);
}

// A whole file whose header claims other sizes, with a right check sum.
Bytes WithHeader(Bytes file, std::uint32_t width, std::uint32_t height, std::uint8_t interlace) {
  const auto put = [&file](std::size_t at, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) {
      file[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
    }
  };
  put(16, width);
  put(20, height);
  file[28] = interlace;
  put(29, static_cast<std::uint32_t>(::crc32(0, file.data() + 12, 17)));
  return file;
}

TEST(PngDecoding, RefusesHostileDimensionsBeforeItAllocates) {
  const Bytes file = Encoded(PlainImage(2, 2, {1, 2, 3, 255}));
  const std::tuple<std::uint32_t, std::uint32_t, std::uint8_t> headers[] = {
      {0, 2, 0},
      {2, 0, 0},
      {4097, 1, 0},
      {1, 4097, 0},
      {0x7FFFFFFF, 0x7FFFFFFF, 0},
      {0xFFFFFFFF, 1, 0},
      {0x80000001, 2, 0},
      {4096, 4096, 1},
      {2, 2, 2}};
  for (const auto& [width, height, interlace] : headers) {
    ImageSink sink;
    EXPECT_FALSE(DecodePng(WithHeader(file, width, height, interlace), sink));
    EXPECT_EQ(sink.image.width, 0U) << width << " x " << height << ": asked for room";
  }
  ImageSink whole;
  EXPECT_TRUE(DecodePng(WithHeader(file, 2, 2, 0), whole)) << "the helper itself breaks files";
}

TEST(PngEncoding, ComesBackAsItWas) {
  for (const auto& [width, height] : {std::pair{1U, 1U}, {3U, 200U}, {120U, 120U}, {511U, 7U}}) {
    Image image{width, height, Bytes(std::size_t{width} * height * 4)};
    std::uint32_t state = width;
    for (auto& byte : image.pixels) byte = static_cast<std::uint8_t>((state *= 747796405U) >> 24U);
    ImageSink sink;
    ASSERT_TRUE(DecodePng(Encoded(image), sink));
    EXPECT_EQ(sink.image.pixels, image.pixels);
  }
}

TEST(PngEncoding, FinalizeFailsWithoutExactlyOneSoundImage) {
  IconRendererLinux renderer;
  Bytes buffer{1, 2, 3};
  EXPECT_EQ(renderer.createPngEncoder(buffer, 0), nullptr);
  EXPECT_EQ(renderer.createPngEncoder(buffer, 2), nullptr);
  EXPECT_FALSE(renderer.createPngEncoder(buffer, 1)->finalize());
  Image shortImage = PlainImage(4, 4, {0, 0, 0, 0});
  shortImage.pixels.pop_back();
  const Image sound = PlainImage(4, 4, {9, 9, 9, 9});
  for (const Image& image : {Image{}, shortImage, Image{4, 5, sound.pixels}, Image{4097, 0, {}}}) {
    const auto encoder = renderer.createPngEncoder(buffer, 1);
    encoder->addImage(image);
    EXPECT_FALSE(encoder->finalize());
    EXPECT_TRUE(buffer.empty());
  }
  const auto twice = renderer.createPngEncoder(buffer, 1);
  twice->addImage(sound);
  twice->addImage(sound);
  EXPECT_FALSE(twice->finalize());
  const auto once = renderer.createPngEncoder(buffer, 1);
  once->addImage(sound);
  EXPECT_TRUE(once->finalize());
  ImageSink sink;
  EXPECT_TRUE(DecodePng(buffer, sink));
}

Bytes PixelAt(const Image& image, std::uint32_t x, std::uint32_t y) {
  const auto at = image.pixels.begin() + (std::ptrdiff_t{y} * image.width + x) * 4;
  return {at, at + 4};
}

TEST(IconRendering, KeepsAPlainColourAtEverySizeAndRoundsTheCorners) {
  const Bytes colour{200, 100, 50, 255};
  for (const auto& [width, height] : {std::pair{1U, 1U},
                                      {57U, 57U},
                                      {119U, 121U},
                                      {120U, 120U},
                                      {300U, 10U},
                                      {512U, 512U},
                                      {1U, 4096U}}) {
    SCOPED_TRACE(::testing::Message() << width << " x " << height);
    const auto icon = RenderHomeScreenIcon(Encoded(PlainImage(width, height, colour)));
    ASSERT_NE(icon, nullptr);
    ASSERT_EQ(icon->width, HomeScreenIconSide);
    ASSERT_EQ(icon->height, HomeScreenIconSide);
    ASSERT_EQ(icon->pixels.size(), std::size_t{120} * 120 * 4);
    for (const auto& [x, y] :
         {std::pair{60U, 60U}, {0U, 60U}, {119U, 60U}, {60U, 0U}, {27U, 119U}}) {
      EXPECT_EQ(PixelAt(*icon, x, y), colour) << x << "," << y;
    }
    for (const auto& [x, y] : {std::pair{0U, 0U}, {119U, 0U}, {0U, 119U}, {119U, 119U}}) {
      EXPECT_EQ(PixelAt(*icon, x, y)[3], 0) << x << "," << y;
    }
    const int edge = PixelAt(*icon, 7, 7)[3];  // on the circle: neither in nor out
    EXPECT_TRUE(edge == PixelAt(*icon, 112, 112)[3] && edge > 0 && edge < 255) << edge;
  }
}

TEST(IconRendering, ShrinkingAveragesAndHiddenColoursDoNotBleed) {
  // Columns alternate between opaque white and transparent black: half opaque white, not grey.
  Image stripes = PlainImage(240, 240, {255, 255, 255, 255});
  for (std::size_t i = 0; i < stripes.pixels.size(); i += 8) {
    std::memset(stripes.pixels.data() + i, 0, 4);
  }
  const auto icon = RenderHomeScreenIcon(Encoded(stripes));
  ASSERT_NE(icon, nullptr);
  EXPECT_EQ(PixelAt(*icon, 60, 60), (Bytes{255, 255, 255, 128}));
  // A left half in black and a right half in white keep their border when they are enlarged.
  Image halves = PlainImage(2, 1, {0, 0, 0, 255});
  std::memset(halves.pixels.data() + 4, 255, 4);
  const auto wide = RenderHomeScreenIcon(Encoded(halves));
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(PixelAt(*wide, 1, 60)[0], 0);
  EXPECT_EQ(PixelAt(*wide, 118, 60)[0], 255);
  EXPECT_NEAR(PixelAt(*wide, 60, 60)[0], 128, 3);
}

// A bundle whose info dictionary is given.
class GivenBundle final : public PKBundle {
 public:
  GivenBundle(const std::string& directory, const char* iconName)
      : path_(Path::directory(directory)) {
    if (iconName != nullptr) info_.set("PKBundleIconFile", iconName);
  }
  const Path& path() const override { return path_; }
  const std::string* identifier(Error*) override { return nullptr; }
  const PlistDictionary* infoDictionary(Error*) override { return &info_; }
  std::unique_ptr<PlistValue> filteredInfo(const std::set<std::string>&, Error*) override {
    return nullptr;
  }

 private:
  Path path_;
  PlistDictionary info_;
};

class IconFileTest : public ::testing::Test {
 protected:
  static Bytes png(std::uint8_t red) { return Encoded(PlainImage(8, 8, {red, 0, 0, 255})); }
  void put(std::string_view name, std::uint8_t red) { tree_.write(name, AsText(png(red))); }

  // The red value that the icon was made with; -1 when there is no icon.
  int shown(const char* iconName) {
    GivenBundle bundle(tree_.at("A.app"), iconName);
    const auto icon = renderer_.createHomeScreenIconImage(bundle);
    return icon == nullptr ? -1 : icon->pixels[(std::size_t{60} * 120 + 60) * 4];
  }

  TemporaryTree tree_;
  IconRendererLinux renderer_;
};

TEST_F(IconFileTest, FindsTheNamedFileThenTheUsualOne) {
  put("A.app/Named.png", 10);
  put("A.app/bare", 20);
  put("A.app/Art/Deep icon.png", 30);
  EXPECT_EQ(shown("Named.png"), 10);
  EXPECT_EQ(shown("Named"), 10);
  EXPECT_EQ(shown("bare"), 20);
  EXPECT_EQ(shown("Art/Deep icon"), 30);
  EXPECT_EQ(shown("./Art/..//Art/Deep icon.png"), 30);
  EXPECT_EQ(shown("Missing"), -1);
  EXPECT_EQ(shown(nullptr), -1);
  put("A.app/Icon.png", 40);
  EXPECT_EQ(shown("Missing"), 40);
  EXPECT_EQ(shown(nullptr), 40);
  EXPECT_EQ(shown("Named"), 10);
}

TEST_F(IconFileTest, NothingOutsideTheBundleAndNoLinkIsRead) {
  put("outside.png", 10);
  put("A.app/Art/real.png", 20);
  std::filesystem::create_symlink("../outside.png", tree_.at("A.app/link.png"));
  std::filesystem::create_symlink("Art", tree_.at("A.app/LinkedArt"));
  const std::string absolute = tree_.at("outside.png");
  for (const char* name : {"../outside.png", "../outside", "Art/../../outside.png", "..", ".", "",
                           "/", "link", "link.png", "LinkedArt/real.png", absolute.c_str()}) {
    EXPECT_EQ(shown(name), -1) << name;
  }
  std::filesystem::create_symlink("../outside.png", tree_.at("A.app/Icon.png"));
  EXPECT_EQ(shown(nullptr), -1);
  std::filesystem::create_directory_symlink(tree_.at("A.app"), tree_.at("B.app"));
  GivenBundle linkedBundle(tree_.at("B.app"), "Art/real.png");
  EXPECT_EQ(renderer_.createHomeScreenIconImage(linkedBundle), nullptr);
}

TEST_F(IconFileTest, WhatIsNoIntactIconOfSensibleSizeYieldsNone) {
  put("A.app/Icon.png", 40);  // not a stand-in for a broken one
  tree_.write("A.app/empty.png", "");
  tree_.write("A.app/text.png", "this is no image");
  tree_.write("A.app/short.png", AsText(png(1)).substr(0, 60));
  tree_.write("A.app/huge.png", AsText(png(1)));
  std::filesystem::resize_file(tree_.at("A.app/huge.png"), MaximumIconFileBytes + 1);
  for (const char* name : {"empty", "text.png", "short", "huge"})
    EXPECT_EQ(shown(name), -1) << name;
  // What is no regular file is no icon file at all, and is never waited for.
  ASSERT_EQ(::mkfifo(tree_.at("A.app/pipe.png").c_str(), 0600), 0);
  std::filesystem::create_directory(tree_.at("A.app/directory.png"));
  for (const char* name : {"pipe", "directory"}) EXPECT_EQ(shown(name), 40) << name;
}

}  // namespace
}  // namespace quorvel::onlinux
