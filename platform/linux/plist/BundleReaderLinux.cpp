// Pins the bundle's dictionary, or its directory, and reads the dictionary when first asked.
#include "platform/linux/plist/BundleReaderLinux.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/DeviceNames.h"
#include "platform/Uninterrupted.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/files/ReachBeneath.h"
#include "platform/linux/plist/PropertyList.h"
#include "platform/linux/plist/PropertyListFiles.h"

namespace quorvel::onlinux {

namespace {

class BundleLinux : public PKBundle {
 public:
  // One of the two: the open dictionary, or the directory to look for it in.
  BundleLinux(Path path, UniqueDescriptor dictionary, UniqueDescriptor directory,
              std::shared_ptr<ParsedDictionaries> parsed)
      : path_(std::move(path)),
        dictionary_(std::move(dictionary)),
        directory_(std::move(directory)),
        parsed_(std::move(parsed)) {}

  const Path& path() const override { return path_; }

  const std::string* identifier(Error* error) override {
    const PlistDictionary* stored = storedDictionary(error);
    if (stored == nullptr) return nullptr;
    const std::string* identifier = stored->findString(PKBundleIdentifierKey);
    if (identifier == nullptr) {
      SetError(error, PlatformFailure(PlatformPropertyListReadCorruptError,
                                      path_.child(InfoPlistName).string() + ": no string under " +
                                          PKBundleIdentifierKey));
    }
    return identifier;
  }

  // A copy, made for those who ask for all of it: what was parsed is shared, and does not say
  // where it lies.
  const PlistDictionary* infoDictionary(Error* error) override {
    const PlistDictionary* stored = storedDictionary(error);
    if (stored == nullptr || info_ != nullptr) return info_.get();
    info_ = std::make_unique<PlistDictionary>(*stored);
    // A plain path: a property list has no kind for locations.
    info_->set(PKBundleInfoPlistURLKey, path_.child(InfoPlistName).string());
    return info_.get();
  }

  // The location is not in the file, so that it cannot be asked for.
  std::unique_ptr<PlistValue> filteredInfo(const std::set<std::string>& keys,
                                           Error* error) override {
    const PlistDictionary* stored = storedDictionary(error);
    if (stored == nullptr) return nullptr;
    PlistDictionary filtered;
    for (const std::string& key : keys) {
      const PlistValue* value = key != PKBundleInfoPlistURLKey ? stored->find(key) : nullptr;
      if (value != nullptr) filtered.set(key, *value);
    }
    return std::make_unique<PlistValue>(std::move(filtered));
  }

 private:
  const PlistDictionary* storedDictionary(Error* error) {
    if (!wasRead_) read();
    if (stored_ == nullptr) SetError(error, failure_);
    return stored_.get();
  }

  // Once only: a bundle does not change its mind between two questions.
  void read() {
    wasRead_ = true;
    const UniqueDescriptor opened =
        dictionary_ ? std::move(dictionary_) : OpenBeneath(directory_.get(), InfoPlistName);
    const int failure = opened ? 0 : errno;
    // Many bundles may be open at once: none keeps a descriptor longer than it needs it. The number
    // of the failure was taken before.
    directory_.reset();
    const Path file = path_.child(InfoPlistName);
    if (failure != 0) {
      failure_ = PosixFailure(failure, "Opening " + file.string());
    } else {
      parse(opened.get(), file);
    }
  }

  void parse(int opened, const Path& file) {
    std::vector<std::uint8_t> bytes;
    if (const int failure = ReadRegularFile(opened, PropertyListSizeLimit, false, bytes)) {
      failure_ = PosixFailure(failure, "Reading " + file.string());
      return;
    }
    stored_ = parsed_->find(bytes);
    if (stored_ != nullptr) return;
    stored_ = DictionaryOf(bytes, file, &failure_);
    if (stored_ != nullptr) parsed_->keep(std::move(bytes), stored_);
  }

  const Path path_;
  UniqueDescriptor dictionary_;
  UniqueDescriptor directory_;
  const std::shared_ptr<ParsedDictionaries> parsed_;
  bool wasRead_ = false;
  std::shared_ptr<const PlistDictionary> stored_;  // as in the file
  std::unique_ptr<PlistDictionary> info_;          // with its location, once it was asked for
  Error failure_;                                  // why there is no stored_
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
  // Nearly always there is no link anywhere, and the dictionary's own name tells at once that there
  // is a bundle.
  UniqueDescriptor dictionary =
      OpenWithoutLinks((std::string(name.c_str()) + "/" + InfoPlistName).c_str());
  if (dictionary) {
    return std::make_unique<BundleLinux>(directory, std::move(dictionary), UniqueDescriptor(),
                                         parsed_);
  }
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  UniqueDescriptor descriptor(Uninterrupted([&] { return ::open(name.c_str(), flags); }));
  if (!descriptor) {
    const int failure = FailureOfOpening(name.c_str(), errno);
    SetError(error, PosixFailure(failure, "Opening the bundle " + directory.string()));
    return nullptr;
  }
  return std::make_unique<BundleLinux>(directory, UniqueDescriptor(), std::move(descriptor),
                                       parsed_);
}

}  // namespace quorvel::onlinux
