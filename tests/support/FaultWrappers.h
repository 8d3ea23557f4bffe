// Services in which one call breaks: each forwards to the real one, but the n-th call of the
// operation that a Fault names fails as the Fault says, without reaching the real service.
//
//   Fault fault{"CopyTree", 2, ENOSPC};             // the second CopyTree finds no space
//   FaultyFileSystem broken(platform.fileSystem, fault);
//   platform.set.fileSystem = &broken;
//   ...
//   EXPECT_EQ(fault.calls("CopyTree"), 2);
//
// To break every call once, run with n = 1, 2, 3 ... until fault.fired() stays false.
#pragma once

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Services.h"
#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::tests {

// Which call fails, and with what. Counts all calls. Any thread may call.
class Fault {
 public:
  // Nothing fails; calls are counted.
  Fault() = default;
  // The call number `nth` (from 1) of the operation fails; "*" means any operation. With nth
  // 0 every call fails, with -n every one from the n-th on.
  Fault(std::string operation, int nth, int errorNumber)
      : operation_(std::move(operation)), nth_(nth), errorNumber_(errorNumber) {}

  // Counts a call; whether it has to fail. errno is set then.
  bool strikes(const std::string& operation) {
    const std::lock_guard guard(mutex_);
    ++calls_[operation];
    if (operation_ != operation && operation_ != "*") return false;
    ++matching_;
    if (nth_ > 0 ? matching_ != nth_ : matching_ < -nth_) return false;
    fired_ = true;
    errno = errorNumber_;
    return true;
  }
  int errorNumber() const { return errorNumber_; }
  bool fired() const { return fired_; }
  int calls(const std::string& operation) const {
    const std::lock_guard guard(mutex_);
    const auto at = calls_.find(operation);
    return at != calls_.end() ? at->second : 0;
  }

 private:
  const std::string operation_;
  const int nth_ = 1;
  const int errorNumber_ = 0;
  mutable std::mutex mutex_;
  int matching_ = 0;
  bool fired_ = false;
  std::map<std::string, int> calls_;
};

// A removal state of which either setting, or the reading of error numbers, can fail.
class FaultyWipeTreeState final : public WipeTreeState {
 public:
  FaultyWipeTreeState(std::unique_ptr<WipeTreeState> real, Fault& fault)
      : real_(std::move(real)), fault_(fault) {}
  WipeTreeState& real() { return *real_; }

  bool setErrorCallback(ErrorCallback callback) override {
    if (fault_.strikes("setErrorCallback")) return false;
    callback_ = callback;
    return real_->setErrorCallback(Forward) && real_->setErrorContext(this);
  }
  bool setErrorContext(void* context) override {
    if (fault_.strikes("setErrorContext")) return false;
    context_ = context;
    return true;
  }
  bool getErrorNumber(int* number) const override {
    return !fault_.strikes("getErrorNumber") && real_->getErrorNumber(number);
  }

 private:
  // Callbacks see this state, not the real one.
  static int Forward(WipeTreeState&, const char* path, void* self) {
    auto& state = *static_cast<FaultyWipeTreeState*>(self);
    return state.callback_(state, path, state.context_);
  }

  std::unique_ptr<WipeTreeState> real_;
  Fault& fault_;
  ErrorCallback callback_ = nullptr;
  void* context_ = nullptr;
};

class FaultyFileSystem : public FileSystem, public onlinux::DescriptorFlush {
 public:
  FaultyFileSystem(FileSystem& real, Fault& fault)
      : real_(real), flush_(dynamic_cast<onlinux::DescriptorFlush&>(real)), fault_(fault) {}

  std::unique_ptr<WipeTreeState> allocateWipeTreeState() override {
    if (fault_.strikes("allocateWipeTreeState")) return nullptr;
    return std::make_unique<FaultyWipeTreeState>(real_.allocateWipeTreeState(), fault_);
  }
  int RemoveTree(const char* path, unsigned flags, WipeTreeState& state) override {
    if (fault_.strikes("RemoveTree")) return -1;
    return real_.RemoveTree(path, flags, static_cast<FaultyWipeTreeState&>(state).real());
  }
  int CopyTree(const char* source, const char* destination, std::uint32_t flags,
               const LeftOutCallback& leftOut) override {
    return fault_.strikes("CopyTree") ? -1 : real_.CopyTree(source, destination, flags, leftOut);
  }
  int MakePath(const char* path, mode_t mode) override {
    return fault_.strikes("MakePath") ? fault_.errorNumber() : real_.MakePath(path, mode);
  }
  int GetProtectionClass(int descriptor) override {
    return fault_.strikes("GetProtectionClass") ? -1 : real_.GetProtectionClass(descriptor);
  }
  int SetProtectionClass(int descriptor, int protectionClass) override {
    if (fault_.strikes("SetProtectionClass")) return -1;
    return real_.SetProtectionClass(descriptor, protectionClass);
  }
  ssize_t getxattr(const char* path, const char* name, void* value, std::size_t size,
                   std::uint32_t position, int options) override {
    if (fault_.strikes("getxattr")) return -1;
    return real_.getxattr(path, name, value, size, position, options);
  }
  int setxattr(const char* path, const char* name, const void* value, std::size_t size,
               std::uint32_t position, int options) override {
    if (fault_.strikes("setxattr")) return -1;
    return real_.setxattr(path, name, value, size, position, options);
  }
  int lchmod(int directory, const char* name, mode_t mode) override {
    return fault_.strikes("lchmod") ? -1 : real_.lchmod(directory, name, mode);
  }
  bool LinksHaveModes() override { return real_.LinksHaveModes(); }
  int SyncDirectory(const char* path) override {
    return fault_.strikes("SyncDirectory") ? -1 : real_.SyncDirectory(path);
  }
  int SyncFileSystem(const char* path) override {
    return fault_.strikes("SyncFileSystem") ? -1 : real_.SyncFileSystem(path);
  }
  int SyncFileSystemOf(int descriptor) override {
    return fault_.strikes("SyncFileSystem") ? -1 : flush_.SyncFileSystemOf(descriptor);
  }

 private:
  FileSystem& real_;
  onlinux::DescriptorFlush& flush_;
  Fault& fault_;
};

// Operations: "open"; "read", which ends the walk; "entry", which turns an entry into one of kind
// `error`; "close".
class FaultyTreeWalker final : public TreeWalker {
 public:
  FaultyTreeWalker(TreeWalker& real, Fault& fault) : real_(real), fault_(fault) {}
  std::unique_ptr<TreeWalk> open(const char* root, int options) override {
    if (fault_.strikes("open")) return nullptr;
    auto walk = real_.open(root, options);
    return walk ? std::make_unique<Walk>(std::move(walk), fault_) : nullptr;
  }

 private:
  class Walk final : public TreeWalk {
   public:
    Walk(std::unique_ptr<TreeWalk> real, Fault& fault) : real_(std::move(real)), fault_(fault) {}
    const TreeWalkEntry* read() override {
      if (fault_.strikes("read")) return nullptr;
      const TreeWalkEntry* entry = real_->read();
      if (entry == nullptr || !fault_.strikes("entry")) return entry;
      broken_ = *entry;
      broken_.kind = TreeWalkKind::error;
      broken_.errorNumber = fault_.errorNumber();
      return &broken_;
    }
    bool close() override {
      const bool closed = real_->close();
      return !fault_.strikes("close") && closed;
    }

   private:
    std::unique_ptr<TreeWalk> real_;
    Fault& fault_;
    TreeWalkEntry broken_;
  };

  TreeWalker& real_;
  Fault& fault_;
};

// Failures are PosixErrorDomain records of the fault's number.
class FaultyPropertyListStore final : public PropertyListStore {
 public:
  FaultyPropertyListStore(PropertyListStore& real, Fault& fault) : real_(real), fault_(fault) {}
  std::unique_ptr<PlistDictionary> readDictionary(const Path& file, Error* error) override {
    if (!fault_.strikes("readDictionary")) return real_.readDictionary(file, error);
    SetError(error, onlinux::PosixFailure(fault_.errorNumber(), file.string()));
    return nullptr;
  }
  bool writeDictionary(const PlistDictionary& dictionary, const Path& file,
                       PropertyListFormat format, Error* error) override {
    return mayWrite(file, error) && real_.writeDictionary(dictionary, file, format, error);
  }
  bool writeDictionaryBeforeFlush(const PlistDictionary& dictionary, const Path& file,
                                  PropertyListFormat format, Error* error) override {
    return mayWrite(file, error) &&
           real_.writeDictionaryBeforeFlush(dictionary, file, format, error);
  }

 private:
  bool mayWrite(const Path& file, Error* error) {
    return !fault_.strikes("writeDictionary") ||
           SetError(error, onlinux::PosixFailure(fault_.errorNumber(), file.string()));
  }
  PropertyListStore& real_;
  Fault& fault_;
};

// Operations: "open", "identifier", "infoDictionary", "filteredInfo" (no value, and a
// PosixErrorDomain record of the fault's number), and "filteredInfo type" (a value that is no
// dictionary).
class FaultyBundleReader final : public BundleReader {
 public:
  FaultyBundleReader(BundleReader& real, Fault& fault) : real_(real), fault_(fault) {}
  std::unique_ptr<PKBundle> open(const Path& directory, Error* error) override {
    if (strikes(fault_, "open", error)) return nullptr;
    auto bundle = real_.open(directory, error);
    return bundle ? std::make_unique<Bundle>(std::move(bundle), fault_) : nullptr;
  }

 private:
  class Bundle final : public PKBundle {
   public:
    Bundle(std::unique_ptr<PKBundle> real, Fault& fault) : real_(std::move(real)), fault_(fault) {}
    const Path& path() const override { return real_->path(); }
    const std::string* identifier(Error* error) override {
      return strikes(fault_, "identifier", error) ? nullptr : real_->identifier(error);
    }
    const PlistDictionary* infoDictionary(Error* error) override {
      return strikes(fault_, "infoDictionary", error) ? nullptr : real_->infoDictionary(error);
    }
    std::unique_ptr<PlistValue> filteredInfo(const std::set<std::string>& keys,
                                             Error* error) override {
      if (strikes(fault_, "filteredInfo", error)) return nullptr;
      if (fault_.strikes("filteredInfo type")) return std::make_unique<PlistValue>("no dictionary");
      return real_->filteredInfo(keys, error);
    }

   private:
    std::unique_ptr<PKBundle> real_;
    Fault& fault_;
  };

  static bool strikes(Fault& fault, const char* operation, Error* error) {
    if (!fault.strikes(operation)) return false;
    SetError(error, onlinux::PosixFailure(fault.errorNumber(), operation));
    return true;
  }

  BundleReader& real_;
  Fault& fault_;
};

}  // namespace quorvel::tests
