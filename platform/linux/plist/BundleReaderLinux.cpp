// Pins the bundle's directory and reads its dictionary when first asked.
#include "platform/linux/plist/BundleReaderLinux.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/DeviceNames.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/OpenBeneath.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/plist/PropertyListFiles.h"

namespace quorvel::onlinux {

namespace {

class BundleLinux : public PKBundle {
 public:
  BundleLinux(Path path, UniqueDescriptor directory)
      : path_(std::move(path)), directory_(std::move(directory)) {}

  const Path& path() const override { return path_; }

  const std::string* identifier(Error* error) override {
    const PlistDictionary* info = infoDictionary(error);
    if (info == nullptr) return nullptr;
    const std::string* identifier = info->findString(PKBundleIdentifierKey);
    if (identifier == nullptr) {
      SetError(error, PlatformFailure(PlatformPropertyListReadCorruptError,
                                      path_.child(InfoPlistName).string() + ": no string under " +
                                          PKBundleIdentifierKey));
    }
    return identifier;
  }

  const PlistDictionary* infoDictionary(Error* error) override {
    if (!wasRead_) read();
    if (info_ == nullptr) SetError(error, failure_);
    return info_.get();
  }

  // The location is not in the file, so that it cannot be asked for.
  std::unique_ptr<PlistValue> filteredInfo(const std::set<std::string>& keys,
                                           Error* error) override {
    const PlistDictionary* info = infoDictionary(error);
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
    const UniqueDescriptor opened = OpenBeneath(directory_.get(), InfoPlistName);
    if (opened) {
      info_ = ReadDictionaryFrom(opened.get(), file, &failure_);
    } else {
      failure_ = PosixFailure(errno, "Opening " + file.string());
    }
    // A plain path: a property list has no kind for locations.
    if (info_ != nullptr) info_->set(PKBundleInfoPlistURLKey, file.string());
    directory_.reset();
  }

  const Path path_;
  UniqueDescriptor directory_;
  bool wasRead_ = false;
  std::unique_ptr<PlistDictionary> info_;
  Error failure_;  // why there is no info_
};

// Opening a link as a directory that must be no link fails as if a file stood there, which would
// be certain to be no bundle.
int FailureOfOpening(const char* name, int failure) {
  struct stat found {};
  if (failure != ENOTDIR) return failure;
  if (::lstat(name, &found) != 0) return errno;
  return S_ISLNK(found.st_mode) ? ELOOP : failure;
}

}  // namespace

std::unique_ptr<PKBundle> BundleReaderLinux::open(const Path& directory, Error* error) {
  const FileSystemRepresentation name = directory.fileSystemRepresentation();
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  UniqueDescriptor descriptor(::open(name.c_str(), flags));
  while (!descriptor && errno == EINTR) descriptor.reset(::open(name.c_str(), flags));
  if (!descriptor) {
    const int failure = FailureOfOpening(name.c_str(), errno);
    SetError(error, PosixFailure(failure, "Opening the bundle " + directory.string()));
    return nullptr;
  }
  return std::make_unique<BundleLinux>(directory, std::move(descriptor));
}

}  // namespace quorvel::onlinux
