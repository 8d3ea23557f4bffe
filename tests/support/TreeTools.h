// Trees for tests, made and looked at with plain calls that share nothing with the code they test.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/UniqueDescriptor.h"
#include "tests/support/Refusals.h"
#include "tests/support/TemporaryTree.h"

namespace quorvel::testing {

// In memory unless said otherwise.
class ScratchTree : public TemporaryTree {
 public:
  explicit ScratchTree(const std::string& base = "/dev/shm") : TemporaryTree(base.c_str()) {}
};

// A second file system to /dev/shm: TMPDIR, mostly a disk.
inline std::string OtherFileSystem() {
  const char* directory = std::getenv("TMPDIR");
  return directory != nullptr ? directory : "/tmp";
}

inline void WriteFile(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary) << bytes;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void MakeDirectory(const std::string& path, mode_t mode = 0755) {
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0) << path;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

inline void MakeLink(const std::string& text, const std::string& path) {
  ASSERT_EQ(::symlink(text.c_str(), path.c_str()), 0) << path;
}

inline bool Exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

inline struct stat StatOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info;
}

// `levels` directories in each other, all called `name`, in the directory `root`; with a file in
// each when asked for.
inline void MakeDeep(const std::string& root, int levels, const std::string& name,
                     bool files = false) {
  UniqueDescriptor at(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < levels; ++i) {
    ASSERT_EQ(::mkdirat(at.get(), name.c_str(), 0755), 0);
    if (files) {
      ASSERT_EQ(::mknodat(at.get(), "f", S_IFREG | 0644, 0), 0);
    }
    at.reset(::openat(at.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(static_cast<bool>(at));
  }
}

// How many directories called `name` are in each other below `root`.
inline int DepthOf(const std::string& root, const std::string& name) {
  UniqueDescriptor at(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int depth = 0;; ++depth) {
    UniqueDescriptor next(::openat(at.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!next) return depth;
    at = std::move(next);
  }
}

inline void MakeWide(const std::string& directory, int files) {
  const UniqueDescriptor at(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < files; ++i) {
    ASSERT_EQ(::mknodat(at.get(), ("file-" + std::to_string(i)).c_str(), S_IFREG | 0644, 0), 0);
  }
}

inline std::map<std::string, std::string> AttributesOf(const std::string& path) {
  std::vector<char> names(65536);
  std::vector<char> value(65536);
  std::map<std::string, std::string> result;
  const ssize_t length = ::llistxattr(path.c_str(), names.data(), names.size());
  for (ssize_t at = 0; at < length;) {
    const std::string name(&names[static_cast<std::size_t>(at)]);
    const ssize_t size = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (size >= 0) result[name] = std::string(value.data(), static_cast<std::size_t>(size));
    at += static_cast<ssize_t>(name.size()) + 1;
  }
  return result;
}

// Everything about one item that a whole copy has, too. Bytes of files are included, so compare
// small trees.
inline std::string Describe(const std::string& path,
                            std::map<ino_t, std::string>* firstNames = nullptr) {
  const struct stat info = StatOf(path);
  std::ostringstream text;
  text << std::oct << info.st_mode << std::dec << " owner " << info.st_uid << ':' << info.st_gid
       << " mtime " << info.st_mtim.tv_sec << '.' << info.st_mtim.tv_nsec;
  if (S_ISREG(info.st_mode)) text << " size " << info.st_size << " data " << ReadFile(path);
  if (S_ISLNK(info.st_mode)) text << " -> " << std::filesystem::read_symlink(path).string();
  if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) text << " device " << info.st_rdev;
  if (!S_ISDIR(info.st_mode) && info.st_nlink > 1 && firstNames != nullptr) {
    text << " same as " << firstNames->try_emplace(info.st_ino, path).first->second;
  }
  for (const auto& [name, value] : AttributesOf(path)) text << " [" << name << '=' << value << ']';
  return text.str();
}

// The whole tree by relative path; the root is ".".
inline std::map<std::string, std::string> Snapshot(const std::string& root) {
  std::map<std::string, std::string> result;
  std::vector<std::string> paths;
  if (std::filesystem::is_directory(std::filesystem::symlink_status(root))) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      paths.push_back(entry.path().string().substr(root.size() + 1));
    }
  }
  std::sort(paths.begin(), paths.end());
  result["."] = Describe(root);
  std::map<ino_t, std::string> firstNames;
  for (const std::string& path : paths) {
    std::string text = Describe(root + "/" + path, &firstNames);
    // Names of hard-linked siblings are full paths: make them relative, too.
    const std::size_t at = text.find(" same as " + root);
    if (at != std::string::npos) text.erase(at + 9, root.size());
    result[path] = text;
  }
  return result;
}

// Runs the body in a child process, where it may give up privileges and limits; true when it
// returned without a failed expectation.
inline bool InChild(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    body();
    std::fflush(nullptr);
    ::_exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The same, with mounts of its own, where NoMounts() is empty.
inline bool WithMounts(const std::function<void()>& body) {
  return InChild([&body] {
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    body();
  });
}

inline void BecomeNobody() {
  if (::geteuid() != 0) return;
  ASSERT_EQ(::setgroups(0, nullptr), 0);
  ASSERT_EQ(::setgid(kNobody), 0);
  ASSERT_EQ(::setuid(kNobody), 0);
}

inline void LimitDescriptors(rlim_t count) {
  const rlimit limit{count, count};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// From now on this process's calls of the number fail with `error`.
inline void FailSystemCall(long number, int error) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
  ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

// Makes an item immutable while it lives; `works()` is false where that cannot be had.
class Immutable {
 public:
  explicit Immutable(const std::string& path) : item_(::open(path.c_str(), O_RDONLY)) {
    works_ = set(FS_IMMUTABLE_FL);
  }
  Immutable(const Immutable&) = delete;
  Immutable& operator=(const Immutable&) = delete;
  ~Immutable() { set(0); }
  bool works() const { return works_; }

 private:
  bool set(int flags) { return ::ioctl(item_.get(), FS_IOC_SETFLAGS, &flags) == 0; }

  UniqueDescriptor item_;
  bool works_ = false;
};

// The bytes of a POSIX access-control list with one named user.
inline std::string AccessListFor(unsigned user, unsigned permissions, unsigned groupPermissions) {
  struct Entry {
    unsigned short tag, permissions;
    unsigned id;
  };
  const unsigned none = ~0U;
  const auto bits = [](unsigned value) { return static_cast<unsigned short>(value); };
  const Entry entries[] = {{0x01, 6, none},
                           {0x02, bits(permissions), user},
                           {0x04, bits(groupPermissions), none},
                           {0x10, 6, none},
                           {0x20, 0, none}};
  const unsigned version = 2;
  std::string bytes(reinterpret_cast<const char*>(&version), sizeof version);
  return bytes.append(reinterpret_cast<const char*>(entries), sizeof entries);
}

inline bool SetAttribute(const std::string& path, const std::string& name,
                         const std::string& value) {
  return ::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) == 0;
}

}  // namespace quorvel::testing
