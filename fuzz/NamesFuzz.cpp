// Arbitrary bytes as a name: it comes back from its text, its URL form and both forms of a log
// line.
#include <nlohmann/json.hpp>

#include "fuzz/Fuzzing.h"
#include "platform/linux/log/DeviceLog.h"
#include "platform/linux/log/JsonLineLog.h"
#include "shared/support/PathStrings.h"

namespace quorvel::fuzzing {
namespace {

int HexadecimalValue(char digit) {
  return static_cast<int>(std::string_view("0123456789ABCDEF").find(digit));
}

std::string WithoutPercents(std::string_view url) {
  std::string text;
  for (std::size_t i = 0; i < url.size(); ++i) {
    Require(url[i] > ' ' && url[i] < '\x7F');
    if (url[i] != '%') {
      text += url[i];
      continue;
    }
    Require(i + 2 < url.size());
    const int high = HexadecimalValue(url[i + 1]), low = HexadecimalValue(url[i + 2]);
    Require(high >= 0 && low >= 0);
    text += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return text;
}

void RequireUrl(const std::string& text, Path::Kind kind) {
  const Path path("/" + text, kind);
  const std::string url = QVURLForm(path);
  Require(url.starts_with("file:///"));
  std::string decoded = WithoutPercents(std::string_view(url).substr(7));
  if (kind == Path::Kind::directory) Require(decoded.ends_with('/'));
  if (kind == Path::Kind::directory && decoded.size() > 1) decoded.pop_back();
  Require(decoded == BytesOfFileSystemRepresentation(path.string()));
}

std::string WithoutEscapes(std::string_view line) {
  std::string text;
  for (std::size_t i = 0; i < line.size(); ++i) {
    Require(static_cast<unsigned char>(line[i]) >= 0x20 && line[i] != '\x7F');
    if (line[i] != '\\') {
      text += line[i];
      continue;
    }
    Require(++i < line.size());
    const std::size_t known = std::string_view("\\nrt").find(line[i]);
    if (known != std::string_view::npos) {
      text += "\\\n\r\t"[known];
      continue;
    }
    Require(line[i] == 'x' && i + 2 < line.size());
    text += static_cast<char>(std::stoi(std::string(line.substr(i + 1, 2)), nullptr, 16));
    i += 2;
  }
  return text;
}

void RequireLogLines(const std::string& bytes) {
  std::string json;
  onlinux::AppendJsonString(json, bytes);
  Require(json.find('\n') == json.npos);
  Require(BytesOfFileSystemRepresentation(nlohmann::json::parse(json).get<std::string>()) == bytes);

  const std::string& directory = Scratch::fresh();
  onlinux::DeviceLogFile(directory, "log", onlinux::DeviceLogSizeLimit).write(5, "f", bytes);
  const std::string line = Get(directory + "/log");
  Require(line.ends_with('\n') && line.find('\n') == line.size() - 1);
  const std::size_t start = line.find("[f] ");
  Require(start != line.npos);
  Require(WithoutEscapes(std::string_view(line).substr(start + 4, line.size() - start - 5)) ==
          bytes);
}

}  // namespace
}  // namespace quorvel::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;           // NOLINT
  using namespace quorvel::fuzzing;  // NOLINT
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string text = StringFromFileSystemRepresentation(bytes);
  Require(BytesOfFileSystemRepresentation(text) == bytes);
  Require(StringFromFileSystemRepresentation(BytesOfFileSystemRepresentation(text)) == text);
  if (bytes.find('\0') == bytes.npos) {  // which no name on disk has
    RequireUrl(text, Path::Kind::file);
    RequireUrl(text, Path::Kind::directory);
  }
  RequireLogLines(bytes);
  return 0;
}
