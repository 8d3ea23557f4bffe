// Makes its file at the first line and begins a new one at its limit.
#include "platform/linux/log/DeviceLog.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>

namespace quorvel::onlinux {
namespace {

// Which bytes stand for themselves in a line: a table, since every byte of every message is asked.
constexpr std::array<bool, 256> kStands = [] {
  std::array<bool, 256> stands{};
  for (std::size_t byte = 0x20; byte < stands.size(); ++byte) {
    stands[byte] = byte != 0x7F && byte != '\\';
  }
  return stands;
}();

// Plain stretches, which most messages are whole, are copied in one piece.
void AppendMessage(std::string& line, std::string_view message) {
  const auto stands = [](char byte) { return kStands[static_cast<unsigned char>(byte)]; };
  while (!message.empty()) {
    std::size_t plain = 0;
    while (plain < message.size() && stands(message[plain])) ++plain;
    line.append(message.data(), plain);
    if (plain < message.size()) AppendEscapedByte(line, message[plain++], "\\x");
    message.remove_prefix(plain);
  }
}

}  // namespace

DeviceLogFile::DeviceLogFile(std::string directory, std::string name, std::size_t sizeLimit)
    : directoryPath_(std::move(directory)), name_(std::move(name)), sizeLimit_(sizeLimit) {}

void DeviceLogFile::write(int level, const char* function, std::string_view message) {
  const std::lock_guard lock(mutex_);
  // Lines are often written between a failure and its report.
  const int savedErrno = errno;
  if (isReady()) {
    line_.clear();
    clock_.appendNow(line_);
    line_ += ' ';
    AppendNumber(line_, level);
    line_ += " [";
    line_ += function != nullptr ? function : "";
    line_ += "] ";
    AppendMessage(line_, message);
    line_ += '\n';
    // A line longer than the limit still gets a file of its own.
    if (size_ != 0 && size_ + line_.size() > sizeLimit_) rotate();
    if (file_ && file_.append(line_)) size_ += line_.size();
  }
  errno = savedErrno;
}

// Tried once: what stops it (a read-only device, a planted link) stays for the process's life,
// and trying again at every line would cost more than the log.
bool DeviceLogFile::isReady() {
  if (!tried_) {
    tried_ = true;
    if (openDirectory()) openFile();
  }
  return static_cast<bool>(file_);
}

// From the top down. Why a directory could not be made is of no interest here: whether there is one
// shows when it is opened.
bool DeviceLogFile::openDirectory() {
  for (std::size_t slash = 0; slash != std::string::npos;) {
    slash = directoryPath_.find('/', slash + 1);
    const std::string prefix = directoryPath_.substr(0, slash);
    if (::mkdir(prefix.c_str(), 0755) == 0) ::chmod(prefix.c_str(), 0755);  // whatever the umask
  }
  directory_ = UniqueDescriptor(
      ::open(directoryPath_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return static_cast<bool>(directory_);
}

// O_NONBLOCK: a FIFO in the file's place is refused rather than waited for.
bool DeviceLogFile::openFile() {
  UniqueDescriptor file(
      ::openat(directory_.get(), name_.c_str(),
               O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  size_ = static_cast<std::size_t>(status.st_size);
  file_ = LineFile(std::move(file));
  return true;
}

void DeviceLogFile::rotate() {
  const std::string older = name_ + ".1";
  if (::renameat(directory_.get(), name_.c_str(), directory_.get(), older.c_str()) != 0) return;
  // Closed even if the new one cannot be opened: lines are dropped rather than misplaced.
  file_ = LineFile();
  openFile();
}

void DeviceHostLog::write(const char* /*sourceFile*/, const char* function, int /*line*/,
                          const char* /*category*/, int level, std::string_view message) {
  file_.write(level, function, message);
}

void DeviceLog::write(const LogHandle* /*handle*/, int level, const char* function,
                      std::string_view message) {
  file_.write(level, function, message);
}

}  // namespace quorvel::onlinux
