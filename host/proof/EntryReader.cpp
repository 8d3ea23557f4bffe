// Reads items with what a walk leaves out.
#include "host/proof/EntryReader.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "host/proof/LeavingAccessTime.h"
#include "platform/Error.h"
#include "platform/Uninterrupted.h"

namespace quorvel::host {

namespace {

// More would only seek: one disk is what the files are on.
constexpr int kThreads = 2;
constexpr std::size_t kPieceSize = 256 * 1024;
// The kernel's own limits.
constexpr std::size_t kLargestNameList = 64 * 1024;
constexpr std::size_t kLargestValue = 64 * 1024;
// Longer values appear as their digest.
constexpr std::size_t kLongestShownValue = 256;

std::int64_t Nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

EntryType TypeOf(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return EntryType::directory;
    case S_IFLNK:
      return EntryType::link;
    case S_IFIFO:
      return EntryType::pipe;
    case S_IFSOCK:
      return EntryType::socket;
    case S_IFBLK:
      return EntryType::blockDevice;
    case S_IFCHR:
      return EntryType::characterDevice;
    default:
      return EntryType::file;
  }
}

// One thread's: calls that take names are made in the item's own directory, because attributes of
// links and of unreadable files cannot be reached through a descriptor without /proc.
class ItemReader {
 public:
  ItemReader(Sha256Provider* digests, const std::string& root) : digests_(digests), root_(root) {}

  ManifestEntry read(const WalkedItem& item) {
    ManifestEntry entry = Described(item);
    if (item.problem != 0) complain(entry, item.problem);
    // The walk could not examine it: there is nothing to be read by name either.
    if (item.info.st_mode == 0) return entry;
    const bool isRoot = !*item.parent;
    // Items of one directory come together: one change for all of them.
    if (!isRoot && item.parent != directory_) {
      if (::fchdir(item.parent->get()) != 0) {
        complain(entry, errno);
        return entry;
      }
      directory_ = item.parent;
    }
    name_ = isRoot ? root_.c_str() : item.name.c_str();
    readAttributes(entry);
    if (entry.type == EntryType::link) readTarget(entry);
    if (entry.type == EntryType::file && digests_ != nullptr) readContents(entry, item.info);
    return entry;
  }

 private:
  static ManifestEntry Described(const WalkedItem& item) {
    ManifestEntry entry;
    const struct stat& info = item.info;
    entry.depth = item.depth;
    entry.name = item.name;
    entry.type = TypeOf(info.st_mode);
    entry.mode = info.st_mode & 07777U;
    entry.user = info.st_uid;
    entry.group = info.st_gid;
    if (entry.type == EntryType::file) entry.size = static_cast<std::uint64_t>(info.st_size);
    if (S_ISBLK(info.st_mode) || S_ISCHR(info.st_mode)) entry.special = info.st_rdev;
    entry.modified = Nanoseconds(info.st_mtim);
    entry.accessed = Nanoseconds(info.st_atim);
    entry.identity = {info.st_dev, info.st_ino};
    // A directory's count is its subdirectories'.
    if (entry.type != EntryType::directory) entry.links = info.st_nlink;
    return entry;
  }

  static void complain(ManifestEntry& entry, int number) {
    if (entry.unreadable.empty()) entry.unreadable = ErrnoDescription(number);
  }

  void readTarget(ManifestEntry& entry) {
    const ssize_t length = ::readlink(name_, buffer(), kPieceSize);
    if (length < 0) return complain(entry, errno);
    entry.target.assign(buffer(), static_cast<std::size_t>(length));
  }

  // A value that vanished between the listing and its reading is none; one that cannot be read
  // leaves the entry in part unknown.
  void readAttributes(ManifestEntry& entry) {
    std::array<char, kLargestNameList> names;
    const ssize_t length = ::llistxattr(name_, names.data(), names.size());
    // A file system without attributes has none to lose.
    if (length < 0 && errno != ENOTSUP) complain(entry, errno);
    for (const char* name = names.data(); name < names.data() + length;
         name += std::strlen(name) + 1) {
      const ssize_t size = ::lgetxattr(name_, name, buffer(), kLargestValue);
      if (size >= 0) {
        entry.attributes[name] = attributeText({buffer(), static_cast<std::size_t>(size)});
      } else if (errno != ENODATA) {
        complain(entry, errno);
      }
    }
  }

  std::string attributeText(std::string_view value) {
    if (value.size() <= kLongestShownValue || digests_ == nullptr) return "hex:" + HexText(value);
    const auto digest = digests_->start();
    digest->update({reinterpret_cast<const std::uint8_t*>(value.data()), value.size()});
    return "sha256:" + finished(*digest);
  }

  // Reading is checked against what the walk saw: an item that was exchanged in between is told as
  // such, and its bytes are not taken for the other's.
  void readContents(ManifestEntry& entry, const struct stat& expected) {
    // By then the name may stand for a FIFO or a terminal: neither is waited for or taken over.
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const UniqueDescriptor file =
        LeavingAccessTime(flags, [this](int how) { return UniqueDescriptor(::open(name_, how)); });
    struct stat info {};
    if (!file || ::fstat(file.get(), &info) != 0) return complain(entry, errno);
    if (info.st_dev != expected.st_dev || info.st_ino != expected.st_ino) {
      return complain(entry, ESTALE);
    }
    const auto digest = digests_->start();
    std::uint64_t total = 0;
    for (;;) {
      const ssize_t count = Uninterrupted([&] { return ::read(file.get(), buffer(), kPieceSize); });
      if (count < 0) return complain(entry, errno);
      if (count == 0) break;
      total += static_cast<std::uint64_t>(count);
      digest->update(
          {reinterpret_cast<const std::uint8_t*>(buffer()), static_cast<std::size_t>(count)});
    }
    // The digest is still written: a comparison shows at least that it is another.
    if (total != entry.size) entry.unreadable = "it changed while it was read";
    entry.sha256 = finished(*digest);
    if (entry.sha256.empty()) complain(entry, ENOMEM);
  }

  static std::string finished(Sha256& digest) {
    Sha256Digest bytes{};
    if (!digest.finish(bytes)) return {};
    return HexText({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  }

  char* buffer() {
    if (buffer_ == nullptr) buffer_ = std::make_unique_for_overwrite<char[]>(kPieceSize);
    return buffer_.get();
  }

  Sha256Provider* const digests_;
  const std::string& root_;
  std::shared_ptr<const UniqueDescriptor> directory_;
  const char* name_ = nullptr;
  std::unique_ptr<char[]> buffer_;
};

}  // namespace

// Tasks that wait are still done: somebody may hold their futures.
EntryReader::~EntryReader() {
  {
    const std::scoped_lock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

std::future<std::vector<ManifestEntry>> EntryReader::read(std::vector<WalkedItem> items,
                                                          const std::string& root) {
  // The items keep their directories open until they are read.
  Task task([this, items = std::move(items), root] {
    ItemReader reader(digests_, root);
    std::vector<ManifestEntry> entries;
    entries.reserve(items.size());
    for (const WalkedItem& item : items) entries.push_back(reader.read(item));
    return entries;
  });
  auto result = task.get_future();
  {
    const std::scoped_lock lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  if (threads_.empty()) start();
  wake_.notify_one();
  return result;
}

void EntryReader::start() {
  for (int i = 0; i < kThreads; ++i) threads_.emplace_back([this] { run(); });
}

void EntryReader::run() {
  // A current directory of its own. Without it the process's moves, which nobody else uses while
  // trees are read; but then only one thread may.
  const bool own = ::unshare(CLONE_FS) == 0;
  static std::mutex shared;
  for (;;) {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    if (own) {
      task();
    } else {
      const std::scoped_lock one(shared);
      task();
    }
  }
}

}  // namespace quorvel::host
