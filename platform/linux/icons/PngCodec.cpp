// Keeps libpng's long jumps away from everything that has a destructor.
#include "platform/linux/icons/PngCodec.h"

#include <png.h>
#include <zlib.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>

namespace quorvel::onlinux {
namespace {

// libpng reports an error by longjmp, which must pass over no C++ object with a destructor.
// So every group of libpng calls stands in a function of its own that sets the jump, has
// trivial locals only, and returns false after a jump; all state lives in the object around it.

void IgnoreWarning(png_structp /*png*/, png_const_charp /*text*/) {}

// The default error function prints to standard error before it jumps; a broken icon is no news.
[[noreturn]] void JumpBack(png_structp png, png_const_charp /*text*/) { png_longjmp(png, 1); }

// Chunks that an icon's pixels do not depend on. They are skipped unread: profiles and
// compressed texts are most of what has been wrong in decoders. (tRNS is not among them.)
constexpr png_byte kSkippedChunks[] =
    "bKGD\0cHRM\0eXIf\0gAMA\0hIST\0iCCP\0iTXt\0oFFs\0pCAL\0pHYs\0sBIT\0sCAL\0sPLT\0sRGB\0tEXt\0"
    "tIME\0zTXt";
constexpr int kSkippedChunkCount = sizeof kSkippedChunks / 5;

class PngReader {
 public:
  explicit PngReader(std::span<const std::uint8_t> file) : rest_(file) {
    png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, JumpBack, IgnoreWarning);
    if (png_ != nullptr) info_ = png_create_info_struct(png_);
  }
  PngReader(const PngReader&) = delete;
  PngReader& operator=(const PngReader&) = delete;
  ~PngReader() { png_destroy_read_struct(&png_, &info_, nullptr); }

  bool readInto(PngRowSink& sink) {
    if (info_ == nullptr || !start()) return false;
    const std::uint32_t width = png_get_image_width(png_, info_);
    const std::uint32_t height = png_get_image_height(png_, info_);
    // What the transformations make of every colour type; anything else would overrun the rows.
    if (png_get_rowbytes(png_, info_) != std::size_t{width} * 4) return false;
    const bool whole = passes_ > 1;
    if (whole && std::size_t{width} * height > MaximumInterlacedPixels) return false;
    if (!sink.begin(width, height)) return false;
    pixels_.resize(std::size_t{width} * 4 * (whole ? height : 1));
    return (whole ? readInterlaced(height, sink) : readRows(height, sink)) && finish();
  }

 private:
  static void Supply(png_structp png, png_bytep out, std::size_t length) {
    auto& rest = static_cast<PngReader*>(png_get_io_ptr(png))->rest_;
    if (length > rest.size()) png_error(png, "file ends early");
    std::memcpy(out, rest.data(), length);
    rest = rest.subspan(length);
  }

  // Reads the header and asks for RGBA with 8 bits per channel.
  bool start() {
    if (setjmp(png_jmpbuf(png_)) != 0) return false;
    png_set_read_fn(png_, this, Supply);
    png_set_user_limits(png_, MaximumPngSide, MaximumPngSide);
    png_set_chunk_malloc_max(png_, MaximumPngChunkBytes);
    png_set_keep_unknown_chunks(png_, PNG_HANDLE_CHUNK_NEVER, kSkippedChunks, kSkippedChunkCount);
    png_read_info(png_, info_);
    png_set_scale_16(png_);
    png_set_expand(png_);  // palettes, depths below 8, and transparent colours to alpha
    png_set_gray_to_rgb(png_);
    png_set_add_alpha(png_, 0xFF, PNG_FILLER_AFTER);
    passes_ = png_set_interlace_handling(png_);
    png_read_update_info(png_, info_);
    return true;
  }

  // Reads one row, or completes one row of an interlaced image by the current pass.
  bool readRow(std::uint8_t* row) {
    if (setjmp(png_jmpbuf(png_)) != 0) return false;
    png_read_row(png_, row, nullptr);
    return true;
  }

  bool readRows(std::uint32_t height, PngRowSink& sink) {
    for (std::uint32_t y = 0; y < height; ++y) {
      if (!readRow(pixels_.data())) return false;
      sink.row(pixels_.data());
    }
    return true;
  }

  bool readInterlaced(std::uint32_t height, PngRowSink& sink) {
    const std::size_t rowBytes = pixels_.size() / height;
    for (int pass = 0; pass < passes_; ++pass) {
      for (std::uint32_t y = 0; y < height; ++y) {
        if (!readRow(pixels_.data() + y * rowBytes)) return false;
      }
    }
    for (std::uint32_t y = 0; y < height; ++y) sink.row(pixels_.data() + y * rowBytes);
    return true;
  }

  // Without this a file cut off behind its pixels would pass for whole.
  bool finish() {
    if (setjmp(png_jmpbuf(png_)) != 0) return false;
    png_read_end(png_, nullptr);
    return true;
  }

  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
  std::span<const std::uint8_t> rest_;
  int passes_ = 1;
  std::vector<std::uint8_t> pixels_;  // one row, or the whole of an interlaced image
};

class PngWriter {
 public:
  // `file` has its final capacity: nothing is allocated below libpng's frames.
  explicit PngWriter(std::vector<std::uint8_t>& file) : file_(file) {
    png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, JumpBack, IgnoreWarning);
    if (png_ != nullptr) info_ = png_create_info_struct(png_);
  }
  PngWriter(const PngWriter&) = delete;
  PngWriter& operator=(const PngWriter&) = delete;
  ~PngWriter() { png_destroy_write_struct(&png_, &info_); }

  bool write(const Image& image) {
    if (info_ == nullptr || setjmp(png_jmpbuf(png_)) != 0) return false;
    png_set_write_fn(png_, this, Accept, nullptr);
    png_set_IHDR(png_, info_, image.width, image.height, 8, PNG_COLOR_TYPE_RGB_ALPHA,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    chooseSpeed();
    png_write_info(png_, info_);
    const std::size_t rowBytes = std::size_t{image.width} * 4;
    for (std::size_t y = 0; y < image.height; ++y) {
      png_write_row(png_, image.pixels.data() + y * rowBytes);
    }
    png_write_end(png_, info_);
    return true;
  }

 private:
  static void Accept(png_structp png, png_bytep bytes, std::size_t length) {
    auto& file = static_cast<PngWriter*>(png_get_io_ptr(png))->file_;
    if (file.capacity() - file.size() < length) png_error(png, "longer than its bound");
    file.insert(file.end(), bytes, bytes + length);
  }

  void chooseSpeed();

  std::vector<std::uint8_t>& file_;
  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
};

// Chosen by measurement (120 x 120, g++ -O2, one core of a 2-core server; drawn icon with a
// gradient / flat drawn icon / photograph): this takes 130 / 121 / 598 us for 2.2 / 1.7 / 26 kB.
// libpng's own choice (level 6, the best filter tried per row) takes 590 / 499 / 2,725 us for
// files that are no smaller where it matters; run-length coding helps photographs (392 us) but
// costs drawn icons 344 us; storing without compression takes 96 us but then 58 kB are written
// and flushed per app.
void PngWriter::chooseSpeed() {
  png_set_compression_level(png_, 1);
  png_set_filter(png_, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
}

bool IsEncodable(const Image& image) {
  return image.width != 0 && image.height != 0 && image.width <= MaximumPngSide &&
         image.height <= MaximumPngSide &&
         image.pixels.size() == std::size_t{image.width} * image.height * 4;
}

// Upper bound of a file's size: deflate's own bound for the rows and their filter bytes, the
// framing of each 8 KiB IDAT chunk, and the fixed chunks.
std::size_t EncodedBound(const Image& image) {
  const std::size_t raw = image.pixels.size() + image.height;
  const std::size_t deflated = ::compressBound(raw);
  return deflated + (deflated / 8192 + 1) * 12 + 256;
}

}  // namespace

bool DecodePng(std::span<const std::uint8_t> file, PngRowSink& sink) {
  return PngReader(file).readInto(sink);
}

bool EncodePng(const Image& image, std::vector<std::uint8_t>& file) {
  file.clear();
  if (!IsEncodable(image)) return false;
  file.reserve(EncodedBound(image));
  if (PngWriter(file).write(image)) return true;
  file.clear();
  return false;
}

}  // namespace quorvel::onlinux
