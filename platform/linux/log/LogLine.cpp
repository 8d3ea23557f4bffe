// Formats time stamps once a second and appends whole lines.
#include "platform/linux/log/LogLine.h"

#include <cerrno>
#include <charconv>

namespace quorvel::onlinux {
namespace {

// `width` digits with leading zeros, for numbers that fit.
void AppendPadded(std::string& line, long number, int width) {
  char digits[20];
  for (int i = width - 1; i >= 0; --i) {
    digits[i] = static_cast<char>('0' + number % 10);
    number /= 10;
  }
  line.append(digits, static_cast<std::size_t>(width));
}

}  // namespace

void TimestampFormatter::appendNow(std::string& line) {
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  append(line, now);
}

// Lines come many to a second, and the calendar is the same for all of them: what changes are six
// digits.
void TimestampFormatter::append(std::string& line, const timespec& time) {
  if (upToSecond_.empty() || time.tv_sec != second_) {
    second_ = time.tv_sec;
    std::tm calendar = {};
    ::gmtime_r(&second_, &calendar);
    char text[64];
    upToSecond_.assign(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.", &calendar));
  }
  line += upToSecond_;
  AppendPadded(line, time.tv_nsec / 1000, 6);
  line += 'Z';
}

void AppendEscapedByte(std::string& line, char byte, std::string_view prefix) {
  switch (byte) {
    case '\\':
      line += "\\\\";
      return;
    case '\n':
      line += "\\n";
      return;
    case '\r':
      line += "\\r";
      return;
    case '\t':
      line += "\\t";
      return;
    default:
      break;
  }
  constexpr const char* digits = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  line += prefix;
  line += digits[value >> 4U];
  line += digits[value & 0xFU];
}

void AppendNumber(std::string& line, long long number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  line.append(digits, end);
}

bool LineFile::append(std::string_view line) {
  // Callers log between a failure and the use of its errno.
  const int savedErrno = errno;
  // After a line that was cut off, by a full disk for one, a newline first: otherwise this line
  // would be lost with the one before it.
  const bool done = (!torn_ || writeAll("\n")) && writeAll(line);
  errno = savedErrno;
  return done;
}

bool LineFile::writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    // With O_APPEND one call is one piece of the file, so that lines of several processes do not
    // mix as long as none is cut short.
    const ssize_t count = ::write(file_.get(), bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
    torn_ = !bytes.empty();
  }
  return true;
}

}  // namespace quorvel::onlinux
