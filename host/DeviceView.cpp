// Puts a view together from overlayfs and a mount namespace.
#include "host/DeviceView.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>

#include "host/console/TerminalText.h"
#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/files/RemoveItem.h"

namespace quorvel::host {

namespace {

std::string DescriptorPath(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

std::string PathOf(int descriptor) {
  char path[PATH_MAX];
  const ssize_t length = ::readlink(DescriptorPath(descriptor).c_str(), path, sizeof path);
  return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

// mountinfo writes blanks and the like as \ooo.
std::string Unescaped(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 3 >= text.size()) {
      out += text[i];
      continue;
    }
    out += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
    i += 3;
  }
  return out;
}

// The first file system that is mounted below the directory; empty when there is none.
std::string MountBelow(const std::string& directory) {
  std::ifstream mounts("/proc/self/mountinfo");
  std::string field;
  for (std::string line; std::getline(mounts, line);) {
    std::size_t begin = 0;
    for (int skipped = 0; skipped < 4; ++skipped) begin = line.find(' ', begin) + 1;
    const std::string path = Unescaped(line.substr(begin, line.find(' ', begin) - begin));
    if (path.starts_with(directory + "/")) return path;
  }
  return {};
}

// Markers and placeholders carry attributes: a view that loses them would rehearse something else.
bool HoldsAttributes(const std::string& directory) {
  const std::string name = directory + "/probe";
  const bool holds =
      ::mkdir(name.c_str(), 0700) == 0 && ::setxattr(name.c_str(), "user.probe", "1", 1, 0) == 0;
  ::rmdir(name.c_str());
  return holds;
}

bool MakeTemporary(std::string& name) { return ::mkdtemp(name.data()) != nullptr; }

// The view's root is the upper directory, which has to look like the tree's.
bool MakeUpper(const DeviceRoot& root) {
  struct stat info {};
  if (::mkdir("upper", 0700) != 0 || ::mkdir("work", 0700) != 0 ||
      ::fstat(root.descriptor(), &info) != 0) {
    return false;
  }
  // Refused in a user namespace where the owner has no number; the mode alone does then.
  (void)::chown("upper", info.st_uid, info.st_gid);
  return ::chmod("upper", info.st_mode & 07777U) == 0;
}

// Reads through a read-only mount, so that not even access times change. False with errno.
bool CopyTree(const std::string& tree, const char* copy) {
  constexpr std::uint32_t whole = CLONETREE_DATA_STAT_XATTR_ACL | CLONETREE_RECURSIVE |
                                  CLONETREE_NOFOLLOW_SRC | CLONETREE_NOFOLLOW_DST;
  constexpr const char* source = "lower";
  if (::mkdir(source, 0700) != 0 || ::mount(tree.c_str(), source, nullptr, MS_BIND, nullptr) != 0) {
    return false;
  }
  // A bind mount takes its flags only when it is mounted anew.
  constexpr unsigned long readOnly = MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV;
  (void)::mount(nullptr, source, nullptr, readOnly, nullptr);
  onlinux::FileSystemLinux files;
  const bool copied = files.CopyTree(source, copy, whole, nullptr) == 0;
  const int number = errno;
  ::umount2(source, MNT_DETACH);
  ::rmdir(source);
  errno = number;
  return copied;
}

}  // namespace

DeviceView::~DeviceView() {
  uncover();
  if (directory_.empty() || keep_) return;
  (void)::chdir("/");
  if (isMemory_) {
    ::umount2(directory_.c_str(), MNT_DETACH);
    ::rmdir(directory_.c_str());
    return;
  }
  onlinux::FileSystemLinux files;
  (void)onlinux::RemoveItem(files, directory_);
}

bool DeviceView::prepare(DeviceRoot& root, const std::string& upper, bool keep, FatalError& error) {
  keep_ = keep;
  treePath_ = PathOf(root.descriptor());
  if (!treePath_.starts_with('/')) {
    return Fail(error, ExitRootUnusable, root.printable() + ": its path cannot be told",
                "Mount /proc");
  }
  const std::string mounted = MountBelow(treePath_);
  if (!mounted.empty()) {
    return Fail(error, ExitRootUnusable,
                Printable(mounted) + ": a file system of its own within the tree",
                "A view covers one file system: rehearse on a copy");
  }
  if (!upper.empty() && root.contains(upper)) {
    return Fail(error, ExitUsage, Printable(upper) + ": no directory outside the device tree",
                "Name a directory elsewhere with --upper");
  }
  if (!enterNamespace(error)) return false;
  if (!root.openAgain(treePath_)) {
    return Fail(error, ExitRootUnusable, root.printable() + ": " + ErrnoDescription(errno),
                "Nothing was changed");
  }
  if (!chooseDirectory(upper, keep, error)) return false;
  if (::chdir(directory_.c_str()) == 0 && MakeUpper(root)) return true;
  return Fail(error, ExitRootUnusable, Printable(directory_) + ": " + ErrnoDescription(errno),
              "Name a directory that you may write to with --upper");
}

bool DeviceView::enterNamespace(FatalError& error) {
  privileged_ = ::unshare(CLONE_NEWNS) == 0;
  if (!privileged_ && !EnterOwnNamespace()) {
    return Fail(error, ExitRootUnusable,
                "the kernel refuses a mount namespace: " + ErrnoDescription(errno),
                "Run the host as root, or allow user namespaces");
  }
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return true;
  return Fail(error, ExitRootUnusable,
              "the kernel refuses private mounts: " + ErrnoDescription(errno),
              "Run the host as root");
}

bool DeviceView::chooseDirectory(const std::string& upper, bool keep, FatalError& error) {
  if (upper.empty() && !keep && mountMemory()) return true;
  directory_ = upper.empty() ? treePath_ + ".rehearsal.XXXXXX" : upper + "/rehearsal.XXXXXX";
  if (!MakeTemporary(directory_)) {
    const int number = errno;
    const std::string place = upper.empty() ? ParentOf(treePath_) : upper;
    directory_.clear();
    return Fail(error, ExitRootUnusable, Printable(place) + ": " + ErrnoDescription(number),
                "Name a directory that you may write to with --upper");
  }
  // Its real path: the process changes to it and the tree's path will lead elsewhere.
  const UniqueDescriptor made(::open(directory_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  directory_ = PathOf(made.get());
  if (HoldsAttributes(directory_)) return true;
  return Fail(error, ExitRootUnusable, Printable(directory_) + ": no extended attributes there",
              "Name a directory of another file system with --upper");
}

bool DeviceView::mountMemory() {
  const char* parent = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): one thread
  std::string point = std::string(parent != nullptr ? parent : "/tmp") + "/rehearsal.XXXXXX";
  if (!MakeTemporary(point)) return false;
  if (::mount("rehearsal", point.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700") == 0) {
    // Older kernels keep no attributes of users there.
    // tmpfs has them since 6.6.
    if (HoldsAttributes(point)) {
      directory_ = point;
      isMemory_ = true;
      return true;
    }
    ::umount2(point.c_str(), MNT_DETACH);
  }
  ::rmdir(point.c_str());
  return false;
}

// False with errno.
bool DeviceView::mountView(const DeviceRoot& root) const {
  constexpr unsigned long flags = MS_NOSUID | MS_NODEV;
  const std::string tree = DescriptorPath(root.descriptor());
  if (privileged_) {
    const std::string options = "lowerdir=" + tree +
                                ",upperdir=upper,workdir=work,redirect_dir=on,metacopy=off,"
                                // Inode numbers as the tree has them, since manifests compare
                                // those. Without redirect_dir directories could not be renamed, and
                                // a migration does little else.
                                "xino=on,index=off";
    return ::mount("rehearsal", treePath_.c_str(), "overlay", flags, options.c_str()) == 0;
  }
  return CopyTree(treePath_, "upper") &&
         ::mount("upper", treePath_.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

bool DeviceView::cover(const DeviceRoot& root, FatalError& error) {
  if (!mountView(root)) {
    const std::string reason = ErrnoDescription(errno);
    if (privileged_) {
      return Fail(error, ExitRootUnusable, "the kernel refuses a copy-on-write view: " + reason,
                  "It needs overlayfs; another --upper may do");
    }
    return Fail(error, ExitRootUnusable, root.printable() + ": cannot be copied: " + reason,
                "Run the host as root, or name a directory with room for a copy with --upper");
  }
  isCovered_ = true;
  if (isInView(root)) return true;
  return Fail(error, ExitRootUnusable, root.printable() + ": the view does not cover the tree",
              "Nothing was changed");
}

void DeviceView::uncover() {
  // Lazily: a child that is just ending may still hold it.
  if (isCovered_) ::umount2(treePath_.c_str(), MNT_DETACH);
  isCovered_ = false;
}

// What a migration is about to be let loose on must not be the tree itself.
bool DeviceView::isInView(const DeviceRoot& root) const {
  struct stat tree {};
  struct stat view {};
  return ::fstat(root.descriptor(), &tree) == 0 && ::stat(treePath_.c_str(), &view) == 0 &&
         (tree.st_dev != view.st_dev || tree.st_ino != view.st_ino);
}

bool DeviceView::dropPrivileges() const { return privileged_ || KeepChangingRootOnly(); }

}  // namespace quorvel::host
