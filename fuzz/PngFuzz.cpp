// PNG files as bytes and as chunks with right sums: an icon of its one size or none; what is
// encoded decodes to the same pixels.
#include <zlib.h>

#include "fuzz/Fuzzing.h"
#include "platform/linux/icons/IconRendererLinux.h"
#include "platform/linux/icons/PngCodec.h"

namespace quorvel::fuzzing {
namespace {

std::string BigEndian(std::uint32_t number) {
  std::string bytes;
  for (unsigned shift = 32; shift != 0; shift -= 8) {
    bytes += static_cast<char>(number >> (shift - 8) & 0xFFU);
  }
  return bytes;
}

std::string Chunk(const std::string& kind, const std::string& content) {
  const std::string summed = kind + content;
  const auto sum = ::crc32(0, BytesOf(summed).data(), static_cast<uInt>(summed.size()));
  return BigEndian(static_cast<std::uint32_t>(content.size())) + summed +
         BigEndian(static_cast<std::uint32_t>(sum));
}

std::string Compressed(const std::string& content) {
  uLongf size = ::compressBound(content.size());
  std::string bytes(size, '\0');
  ::compress2(reinterpret_cast<Bytef*>(bytes.data()), &size, BytesOf(content).data(),
              content.size(), 1);
  bytes.resize(size);
  return bytes;
}

// A file whose sums are right, whatever else is wrong with it.
std::string File(Input& input) {
  static constexpr std::uint32_t kSides[] = {0, 1, 2, 7, 120, 121, 2049, 4096, 4097, 0x80000000};
  static constexpr const char* kKinds[] = {"PLTE", "tRNS", "gAMA", "iCCP", "tEXt", "zTXt",
                                           "IDAT", "IEND", "sBIT", "acTL", "ABCD", "bKGD"};
  std::string header;
  for (int i = 0; i < 2; ++i) header += BigEndian(kSides[input.number(std::size(kSides))]);
  header += input.take(5);
  std::string file = "\x89PNG\r\n\x1A\n" + Chunk("IHDR", header);
  for (std::size_t left = input.number(6); left > 0; --left) {
    const std::string kind = input.oneOf(kKinds);
    file += Chunk(kind, input.text());
  }
  const std::size_t repeats = 1 + input.number(64);
  const std::string some = input.all();
  std::string rows;
  for (std::size_t i = 0; i < repeats; ++i) rows += some;
  return file + Chunk("IDAT", Compressed(rows)) + Chunk("IEND", "");
}

class Collector final : public onlinux::PngRowSink {
 public:
  bool begin(std::uint32_t width, std::uint32_t height) override {
    image.width = width;
    image.height = height;
    return true;
  }
  void row(const std::uint8_t* pixels) override {
    image.pixels.insert(image.pixels.end(), pixels, pixels + std::size_t{4} * image.width);
  }
  Image image;
};

void RequireRoundTrip(const Image& image) {
  std::vector<std::uint8_t> file;
  Require(onlinux::EncodePng(image, file));
  Collector again;
  Require(onlinux::DecodePng(file, again));
  Require(again.image.width == image.width && again.image.height == image.height);
  Require(again.image.pixels == image.pixels);
}

void RequireIcon(const std::string& file) {
  const auto icon = onlinux::RenderHomeScreenIcon(BytesOf(file));
  if (icon == nullptr) return;
  const std::size_t side = onlinux::HomeScreenIconSide;
  Require(icon->width == side && icon->height == side && icon->pixels.size() == side * side * 4);
  RequireRoundTrip(*icon);
}

}  // namespace
}  // namespace quorvel::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;           // NOLINT
  using namespace quorvel::fuzzing;  // NOLINT
  Input input(data, size);
  const std::size_t form = input.number(3);
  if (form == 0) RequireIcon(input.all());
  if (form == 1) RequireIcon(File(input));
  if (form == 2) {
    Image image{.width = static_cast<std::uint32_t>(1 + input.number(40)),
                .height = static_cast<std::uint32_t>(1 + input.number(40)),
                .pixels = {}};
    image.pixels.resize(std::size_t{4} * image.width * image.height);
    for (auto& pixel : image.pixels) pixel = static_cast<std::uint8_t>(input.number(256));
    RequireRoundTrip(image);
  }
  return 0;
}
