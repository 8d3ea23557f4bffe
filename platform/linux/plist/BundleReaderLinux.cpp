#include "platform/linux/plist/BundleReaderLinux.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "platform/DeviceNames.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/plist/PropertyListFiles.h"

namespace quorvel::onlinux {

namespace {

class BundleLinux : public PKBundle {
 public:
  BundleLinux(Path path, UniqueDescriptor directory)
      : path_(std::move(path)), directory_(std::move(directory)) {}

  const Path& path() const override { return path_; }

  // An empty identifier names nothing: it counts as none.
  const std::string* identifier() override {
    const PlistDictionary* info = infoDictionary();
    const std::string* identifier =
        info != nullptr ? info->findString(PKBundleIdentifierKey) : nullptr;
    return identifier != nullptr && !identifier->empty() ? identifier : nullptr;
  }

  const PlistDictionary* infoDictionary() override {
    if (!wasRead_) read();
    return info_.get();
  }

  // The location is not in the file, so that it cannot be asked for.
  std::unique_ptr<PlistValue> filteredInfo(const std::set<std::string>& keys) override {
    const PlistDictionary* info = infoDictionary();
    if (info == nullptr) return nullptr;
    PlistDictionary filtered;
    for (const std::string& key : keys) {
      const PlistValue* value = key != PKBundleInfoPlistURLKey ? info->find(key) : nullptr;
      if (value != nullptr) filtered.set(key, *value);
    }
    return std::make_unique<PlistValue>(std::move(filtered));
  }

 private:
  // Once only: a bundle does not change its mind between two questions.
  void read() {
    wasRead_ = true;
    const Path file = path_.child(InfoPlistName);
    info_ = ReadDictionaryAt(directory_.get(), InfoPlistName, file, ForeignKeys::refuse, nullptr);
    // A plain path: a property list has no kind for locations.
    if (info_ != nullptr) info_->set(PKBundleInfoPlistURLKey, file.string());
    directory_.reset();
  }

  const Path path_;
  UniqueDescriptor directory_;
  bool wasRead_ = false;
  std::unique_ptr<PlistDictionary> info_;
};

}  // namespace

std::unique_ptr<PKBundle> BundleReaderLinux::open(const Path& directory) {
  const FileSystemRepresentation name = directory.fileSystemRepresentation();
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  UniqueDescriptor descriptor(::open(name.c_str(), flags));
  while (!descriptor && errno == EINTR) descriptor.reset(::open(name.c_str(), flags));
  if (!descriptor) return nullptr;
  return std::make_unique<BundleLinux>(directory, std::move(descriptor));
}

}  // namespace quorvel::onlinux
