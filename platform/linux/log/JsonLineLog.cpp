// Builds each line by hand in one buffer that is kept.
#include "platform/linux/log/JsonLineLog.h"

#include <array>

#include "platform/FileSystemRepresentation.h"

namespace quorvel::onlinux {
namespace {

// A buffer that one long message blew up is not kept, in bytes.
constexpr std::size_t kKeptLineCapacity = std::size_t{64} << 10U;

// Whether the byte stands for itself in a JSON string and needs no look at its neighbours. DEL may
// stand in JSON as it is.
constexpr std::array<bool, 256> PlainBytes = [] {
  std::array<bool, 256> plain = {};
  for (std::size_t i = 0x20; i < 0x80; ++i) plain[i] = i != '"' && i != '\\';
  return plain;
}();

void AppendEscapedAscii(std::string& line, char byte) {
  if (byte == '"') {
    line += "\\\"";
  } else {
    AppendEscapedByte(line, byte, "\\u00");
  }
}

// Appends the character or byte at the front of `rest`, which is no plain byte.
void AppendSpecial(std::string& line, std::string_view& rest) {
  const std::size_t length = encoding_detail::Utf8SequenceLength(rest);
  if (length == 1) {
    AppendEscapedAscii(line, rest[0]);
  } else if (length == 0 || encoding_detail::IsEscapeCharacter(rest)) {
    // Of a real character of the range only the first byte goes here; what is left of it is no
    // valid sequence and follows byte by byte.
    encoding_detail::AppendEscaped(line, rest[0]);
    rest.remove_prefix(1);
    return;
  } else {
    line += rest.substr(0, length);
  }
  rest.remove_prefix(length);
}

std::string_view TextOf(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

void AppendJsonString(std::string& line, std::string_view bytes) {
  line += '"';
  while (!bytes.empty()) {
    std::size_t plain = 0;
    while (plain < bytes.size() && PlainBytes[static_cast<unsigned char>(bytes[plain])]) ++plain;
    line.append(bytes.data(), plain);
    bytes.remove_prefix(plain);
    if (!bytes.empty()) AppendSpecial(line, bytes);
  }
  line += '"';
}

void JsonLineLog::write(const char* sourceFile, const char* function, int line,
                        const char* category, int level, std::string_view message) {
  const std::lock_guard lock(mutex_);
  appendCommon("HostLog", level, function, message);
  line_ += ",\"category\":";
  AppendJsonString(line_, TextOf(category));
  line_ += ",\"file\":";
  AppendJsonString(line_, TextOf(sourceFile));
  line_ += ",\"line\":";
  AppendNumber(line_, line);
  finishLine();
}

void JsonLineLog::write(const LogHandle* /*handle*/, int level, const char* function,
                        std::string_view message) {
  const std::lock_guard lock(mutex_);
  appendCommon("LogWrite", level, function, message);
  finishLine();
}

// Assigning to the line keeps its memory. The time is taken with the lock held, hence the order of
// the times is that of the lines.
void JsonLineLog::appendCommon(std::string_view facility, int level, const char* function,
                               std::string_view message) {
  line_ = "{\"facility\":\"";
  line_ += facility;
  line_ += "\",\"level\":";
  AppendNumber(line_, level);
  line_ += ",\"function\":";
  AppendJsonString(line_, TextOf(function));
  line_ += ",\"message\":";
  AppendJsonString(line_, message);
  line_ += ",\"time\":\"";
  clock_.appendNow(line_);
  line_ += '"';
}

void JsonLineLog::finishLine() {
  line_ += "}\n";
  // Never set back: a log with a gap stays one, however well the rest of it was written.
  if (!file_.append(line_)) whole_ = false;
  if (line_.capacity() > kKeptLineCapacity) std::string().swap(line_);
}

}  // namespace quorvel::onlinux
