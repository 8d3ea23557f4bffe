// A file system in a file, through a loop device: what the file holds is what a disk would hold.
#include "tests/sweep/LoopImage.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>
#include <vector>

#include "tests/sweep/MemoryDevice.h"

namespace quorvel::sweep {

struct FileSystemKind {
  const char* name;
  off_t size;  // of the image
  std::vector<std::string> make;
  const char* mountOptions;
  const char* package;
};

namespace {

// Nothing is initialised later, behind the sweep's back.
const FileSystemKind kExt4 = {"ext4",
                              off_t{24} << 20,
                              {"mkfs.ext4", "-q", "-F", "-b", "4096", "-I", "256", "-m", "0", "-E",
                               "lazy_itable_init=0,lazy_journal_init=0"},
                              "commit=3000,noauto_da_alloc",
                              "e2fsprogs"};
// The smallest that its maker makes. Several copies of one image are mounted at a time.
const FileSystemKind kXfs = {
    "xfs", off_t{300} << 20, {"mkfs.xfs", "-q", "-f"}, "nouuid", "xfsprogs"};

constexpr int kLoopAttempts = 50;  // others may take the device that was free a moment ago

bool RunSilently(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
    ::dup2(nowhere, STDERR_FILENO);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
  }
  int status = -1;
  return ::waitpid(child, &status, 0) == child && status == 0;
}

// A loop device over the file that goes with its last user. Empty with a failure.
std::string AttachLoop(const std::string& file, UniqueDescriptor* device) {
  const UniqueDescriptor backing(::open(file.c_str(), O_RDWR | O_CLOEXEC));
  const UniqueDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  for (int attempt = 0; backing && control && attempt < kLoopAttempts; ++attempt) {
    const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (number < 0) return {};
    const std::string name = "/dev/loop" + std::to_string(number);
    device->reset(::open(name.c_str(), O_RDWR | O_CLOEXEC));
    if (!*device) return {};
    loop_config configuration{};
    configuration.fd = static_cast<__u32>(backing.get());
    configuration.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (::ioctl(device->get(), LOOP_CONFIGURE, &configuration) == 0) return name;
    if (errno != EBUSY) return {};
  }
  return {};
}

bool CopyRange(int from, int to, off_t begin, off_t end) {
  std::vector<char> buffer(1 << 18);
  while (begin < end) {
    const auto size = std::min(buffer.size(), static_cast<std::size_t>(end - begin));
    const ssize_t count = ::pread(from, buffer.data(), size, begin);
    if (count <= 0 || ::pwrite(to, buffer.data(), static_cast<std::size_t>(count), begin) != count)
      return false;
    begin += count;
  }
  return true;
}

}  // namespace

const FileSystemKind& FileSystemOfName(const std::string& name) {
  return name == kXfs.name ? kXfs : kExt4;
}

std::string WhyNoLoopImages(const FileSystemKind& kind) {
  if (!HaveOwnMounts()) return "mounting an image needs to be root";
  if (::access("/dev/loop-control", R_OK | W_OK) != 0) return "there are no loop devices";
  if (RunSilently({kind.make.front(), "-V"})) return {};
  return "there is no " + kind.make.front() + " (package " + kind.package + ")";
}

bool MakeLoopImage(const FileSystemKind& kind, const std::string& file) {
  const UniqueDescriptor image(::open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!image || ::ftruncate(image.get(), kind.size) != 0) return false;
  std::vector<std::string> make = kind.make;
  make.push_back(file);
  // An empty journal is not copied for every point.
  if (!RunSilently(make) || !RunSilently({"fallocate", "--dig-holes", file})) return false;
  const std::string mountPoint = file + ".mounted";
  std::filesystem::create_directories(mountPoint);
  const MountedImage mounted(kind, file, mountPoint);
  const int removed = ::rmdir((mountPoint + "/lost+found").c_str());
  return mounted.works() && (removed == 0 || errno == ENOENT);
}

bool CopyImage(const std::string& from, const std::string& to) {
  ::unlink(to.c_str());
  const UniqueDescriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const UniqueDescriptor out(::open(to.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  struct stat info {};
  if (!in || !out || ::fstat(in.get(), &info) != 0) return false;
  if (::ftruncate(out.get(), info.st_size) != 0) return false;
  off_t data = ::lseek(in.get(), 0, SEEK_DATA);
  while (data >= 0) {
    const off_t hole = ::lseek(in.get(), data, SEEK_HOLE);
    if (!CopyRange(in.get(), out.get(), data, hole)) return false;
    data = ::lseek(in.get(), hole, SEEK_DATA);
  }
  return errno == ENXIO;
}

MountedImage::MountedImage(const FileSystemKind& kind, const std::string& file,
                           std::string mountPoint)
    : mountPoint_(std::move(mountPoint)) {
  UniqueDescriptor loop;
  const std::string device = AttachLoop(file, &loop);
  works_ = !device.empty() &&
           ::mount(device.c_str(), mountPoint_.c_str(), kind.name, 0, kind.mountOptions) == 0;
}

MountedImage::MountedImage(MountedImage&& other) noexcept
    : mountPoint_(std::move(other.mountPoint_)), works_(std::exchange(other.works_, false)) {}

MountedImage::~MountedImage() {
  if (works_ && ::umount2(mountPoint_.c_str(), 0) != 0) {
    ::umount2(mountPoint_.c_str(), MNT_DETACH);
  }
}

}  // namespace quorvel::sweep
