// Looks for an icon's file in a bundle and renders it by rows.
#include "platform/linux/icons/IconRendererLinux.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string>
#include <string_view>

#include "platform/DeviceNames.h"
#include "platform/Uninterrupted.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/icons/IconScaler.h"
#include "platform/linux/icons/PngCodec.h"

namespace quorvel::onlinux {
namespace {

constexpr const char* IconFileKey = "PKBundleIconFile";

// Splits a name into the components below the bundle; false when it leaves the bundle or names
// nothing. No link is followed later, so that ".." may be resolved in the text.
bool SplitInsideBundle(std::string_view name, std::vector<std::string>& components) {
  if (name.starts_with('/') || name.find('\0') != std::string_view::npos) return false;
  while (!name.empty()) {
    const std::size_t length = std::min(name.find('/'), name.size());
    const std::string_view component = name.substr(0, length);
    name.remove_prefix(std::min(length + 1, name.size()));
    if (component.empty() || component == ".") continue;
    if (component != "..") {
      components.emplace_back(component);
    } else if (components.empty()) {
      return false;
    } else {
      components.pop_back();
    }
  }
  return !components.empty();
}

// O_NONBLOCK: a FIFO of the icon's name must not stop the migration.
UniqueDescriptor OpenComponent(int directory, const std::string& name, int flags) {
  const FileSystemRepresentation bytes(name);
  return UniqueDescriptor(
      ::openat(directory, bytes.c_str(), flags | O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

// An open regular file, or none.
UniqueDescriptor OpenInsideBundle(int bundle, std::string_view name, std::size_t& size) {
  std::vector<std::string> components;
  if (!SplitInsideBundle(name, components)) return {};
  UniqueDescriptor directory;
  for (std::size_t i = 0; i + 1 < components.size(); ++i) {
    directory = OpenComponent(i == 0 ? bundle : directory.get(), components[i], O_DIRECTORY);
    if (!directory) return {};
  }
  UniqueDescriptor file = OpenComponent(directory ? directory.get() : bundle, components.back(), 0);
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  size = static_cast<std::size_t>(status.st_size);
  return file;
}

// Bundles name their icon with and without its extension. What opens as a regular file is the icon,
// whatever is in it.
UniqueDescriptor OpenIcon(int bundle, const PlistDictionary* info, std::size_t& size) {
  const std::string* name = info != nullptr ? info->findString(IconFileKey) : nullptr;
  if (name != nullptr) {
    UniqueDescriptor file = OpenInsideBundle(bundle, *name, size);
    if (!file) file = OpenInsideBundle(bundle, *name + ".png", size);
    if (file) return file;
  }
  return OpenInsideBundle(bundle, UsualIconName, size);
}

// Reads `size` bytes; false when the file cannot be read or is shorter by now.
bool ReadExactly(int file, std::size_t size, std::vector<std::uint8_t>& bytes) {
  bytes.resize(size);
  std::size_t got = 0;
  while (got < size) {
    const ssize_t count =
        Uninterrupted([&] { return ::read(file, bytes.data() + got, size - got); });
    if (count <= 0) return false;
    got += static_cast<std::size_t>(count);
  }
  return true;
}

// Nothing is encoded before the end, so that a refused image leaves no half a file.
class PngEncoderLinux final : public PngEncoder {
 public:
  explicit PngEncoderLinux(std::vector<std::uint8_t>& buffer) : buffer_(buffer) {}

  void addImage(const Image& image) override {
    // A PNG file holds one image: a second one makes the file impossible, not the first wrong.
    tooMany_ = image_ != nullptr;
    image_ = &image;
  }

  bool finalize() override {
    buffer_.clear();
    return image_ != nullptr && !tooMany_ && EncodePng(*image_, buffer_);
  }

 private:
  std::vector<std::uint8_t>& buffer_;
  const Image* image_ = nullptr;
  bool tooMany_ = false;
};

}  // namespace

std::unique_ptr<Image> RenderHomeScreenIcon(std::span<const std::uint8_t> pngFile) {
  IconScaler scaler(HomeScreenIconSide);
  if (!DecodePng(pngFile, scaler)) return nullptr;
  std::unique_ptr<Image> image = scaler.finish();
  ApplyHomeScreenMask(*image);
  return image;
}

std::unique_ptr<Image> IconRendererLinux::createHomeScreenIconImage(PKBundle& bundle) {
  // By path, since a bundle hands out no descriptor: one that was exchanged after it was opened
  // gets the icon of what is there now.
  const UniqueDescriptor directory(::open(bundle.path().fileSystemRepresentation().c_str(),
                                          O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) return nullptr;
  std::size_t size = 0;
  const UniqueDescriptor file = OpenIcon(directory.get(), bundle.infoDictionary(), size);
  std::vector<std::uint8_t> bytes;
  if (!file || size > MaximumIconFileBytes || !ReadExactly(file.get(), size, bytes)) return nullptr;
  return RenderHomeScreenIcon(bytes);
}

std::unique_ptr<PngEncoder> IconRendererLinux::createPngEncoder(std::vector<std::uint8_t>& buffer,
                                                                std::size_t imageCount) {
  if (imageCount != 1) return nullptr;
  return std::make_unique<PngEncoderLinux>(buffer);
}

}  // namespace quorvel::onlinux
