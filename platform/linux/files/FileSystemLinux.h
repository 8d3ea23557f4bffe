// File-system operations beyond POSIX on Linux: choices that the interface leaves open.
//
// Removal. Trailing slashes are ignored: "link/" is the link. A path that is empty or ends in "."
// or ".." is EINVAL, "/" is EBUSY, a missing item -1 with ENOENT and no callback. Every item that
// cannot be removed is reported once, children before parents, a directory that still holds such
// items with ENOTEMPTY. Mount points are reported with EBUSY and nothing below them is touched;
// nothing is made writable or mutable. Items that vanish meanwhile are no failures: the first one
// is reported with ENOENT after everything else, so that it cannot hide a failure from a callback
// that keeps the first number. Without a callback the first failure ends the removal; it does so,
// too, when the callback answers anything but proceed: -1 with the item's number.
//
// Copy. FIFOs and devices are made anew (a device needs the privilege: EPERM), sockets are left
// out: without their process they are nothing. A non-directory replaces a non-directory after an
// unlink, a directory merges into a directory and gives it its own metadata; EISDIR and ENOTDIR
// where kinds differ; EINVAL for a copy into or onto itself. An owner or group that may not be
// set is passed over: setuid and setgid are then dropped, and a foreign group gets no more than
// others had. An extended attribute that the destination refuses fails the copy with its number;
// only those of namespaces other than "user.", "trusted." and "system." (so "security." ones)
// are passed over when refused with EPERM or ENOTSUP. Attributes of links, inode flags and birth
// times are not copied. Other mounts below the source are copied as ordinary directories. A
// regular file that fails midway is unlinked; directories made so far stay. Nothing is flushed.
//
// Protection classes are numbers from 0 up, kept as "user.com.velto.quorveld.protectionclass" (4
// bytes, little-endian, signed). Without extended attributes in the file system reading gives 0
// and setting ENOTSUP; a value of another shape gives EINVAL. The system's attribute names map to
// "user." + name, which Linux keeps on files and directories only (EPERM for others).
#pragma once

#include "platform/FileSystem.h"
#include "platform/linux/files/ModeChanger.h"

namespace quorvel::onlinux {

// What a file system here can do beyond the interface: flush what an open file or directory lies
// on, without another look at its path. 0, or -1 with errno. Any thread may call.
class DescriptorFlush {
 public:
  virtual ~DescriptorFlush() = default;
  virtual int SyncFileSystemOf(int descriptor) = 0;
};

// Make it before the process is confined: it opens a directory below /proc. Any thread may call.
class FileSystemLinux final : public FileSystem, public DescriptorFlush {
 public:
  FileSystemLinux() = default;

  std::unique_ptr<WipeTreeState> allocateWipeTreeState() override;
  int RemoveTree(const char* path, unsigned flags, WipeTreeState& state) override;
  int CopyTree(const char* source, const char* destination, std::uint32_t flags,
               const LeftOutCallback& leftOut) override;
  int MakePath(const char* path, mode_t mode) override;
  int GetProtectionClass(int descriptor) override;
  int SetProtectionClass(int descriptor, int protectionClass) override;
  ssize_t getxattr(const char* path, const char* name, void* value, std::size_t size,
                   std::uint32_t position, int options) override;
  int setxattr(const char* path, const char* name, const void* value, std::size_t size,
               std::uint32_t position, int options) override;
  int lchmod(int directory, const char* name, mode_t mode) override;
  bool LinksHaveModes() override { return false; }
  int SyncDirectory(const char* path) override;
  int SyncFileSystem(const char* path) override;
  int SyncFileSystemOf(int descriptor) override;

 private:
  ModeChanger modes_;
};

}  // namespace quorvel::onlinux
