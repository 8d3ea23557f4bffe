// A file system in a file, through a loop device: what the file holds is what a disk would hold.
#pragma once

#include <string>
#include <vector>

#include "platform/UniqueDescriptor.h"

namespace quorvel::sweep {

// A journalling file system that can be tried: "ext4" or "xfs".
struct FileSystemKind;
const FileSystemKind& FileSystemOfName(const std::string& name);

// Why images cannot be made and mounted here, or empty.
std::string WhyNoLoopImages(const FileSystemKind& kind);

// An empty file system, without a lost+found. False with a failure.
bool MakeLoopImage(const FileSystemKind& kind, const std::string& file);

// As it is at this moment, holes kept. A new file each time: an old one may still be in use.
bool CopyImage(const std::string& from, const std::string& to);

// Mounted while it lives, so that nothing but a flush brings anything onto the disk: the journal
// is committed once in 50 minutes (XFS: every half minute, many times what a point takes), and a
// rename writes no contents.
class MountedImage {
 public:
  MountedImage(const FileSystemKind& kind, const std::string& file, std::string mountPoint);
  MountedImage(MountedImage&& other) noexcept;
  MountedImage& operator=(MountedImage&&) = delete;
  ~MountedImage();

  bool works() const { return works_; }

 private:
  std::string mountPoint_;
  bool works_ = false;
};

// Images mounted one inside the other; what was added last goes first.
class MountedImages {
 public:
  explicit MountedImages(const FileSystemKind& kind) : kind_(&kind) {}
  MountedImages(MountedImages&&) = default;
  MountedImages& operator=(MountedImages&&) = delete;
  ~MountedImages() {
    while (!images_.empty()) images_.pop_back();
  }

  bool add(const std::string& file, const std::string& mountPoint) {
    images_.emplace_back(*kind_, file, mountPoint);
    works_ = works_ && images_.back().works();
    return works_;
  }
  void fail() { works_ = false; }
  bool works() const { return works_; }

 private:
  const FileSystemKind* kind_;
  std::vector<MountedImage> images_;
  bool works_ = true;
};

}  // namespace quorvel::sweep
