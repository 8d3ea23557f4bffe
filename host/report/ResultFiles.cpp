// Cuts files into objects and reads these one by one.
#include "host/report/ResultFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "host/console/TerminalText.h"
#include "platform/Error.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/Uninterrupted.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

namespace {

// In bytes: larger than any run's result; a bound against what is none.
constexpr std::size_t kLargest = std::size_t{256} << 20U;
constexpr std::size_t kPiece = std::size_t{64} << 10U;

// Cuts without parsing: a brace at the beginning of a line begins an object, and inside an indented
// object no line begins with one. A text that breaks this is cut into pieces that are no JSON, and
// told as such.
class ObjectReader {
 public:
  explicit ObjectReader(UniqueDescriptor file) : file_(std::move(file)) {}

  // The next object's text, blank ones left out; false at the end and after a failure.
  bool next(std::string& text) {
    while (cut(text)) {
      if (text.find_first_not_of(" \t\r\n") != std::string::npos) return true;
    }
    return false;
  }
  // What ended the reading; 0: the file's end.
  int failure() const { return failure_; }

 private:
  bool cut(std::string& text) {
    std::size_t end = buffer_.find("\n{", searched_);
    while (end == std::string::npos && !ended_) {
      searched_ = buffer_.empty() ? 0 : buffer_.size() - 1;
      fill();
      end = buffer_.find("\n{", searched_);
    }
    if (failure_ != 0 || (end == std::string::npos && begin_ == buffer_.size())) return false;
    end = end == std::string::npos ? buffer_.size() : end + 1;
    text.assign(buffer_, begin_, end - begin_);
    begin_ = searched_ = end;
    return true;
  }

  // What was handed out is dropped first, so that the buffer holds one object and a piece.
  void fill() {
    buffer_.erase(0, begin_);
    searched_ -= std::min(searched_, begin_);
    begin_ = 0;
    const std::size_t size = buffer_.size();
    buffer_.resize(size + kPiece);
    const ssize_t count =
        Uninterrupted([&] { return ::read(file_.get(), buffer_.data() + size, kPiece); });
    if (count < 0) failure_ = errno;
    if (buffer_.size() > kLargest) failure_ = EFBIG;
    buffer_.resize(size + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    ended_ = count <= 0 || failure_ != 0;
  }

  UniqueDescriptor file_;
  std::string buffer_;
  std::size_t begin_ = 0;     // of the next object
  std::size_t searched_ = 0;  // up to there no object ends
  bool ended_ = false;
  int failure_ = 0;
};

std::string Text(const std::string& bytes) { return StringFromFileSystemRepresentation(bytes); }

// "ipad-12" for "results/ipad-12.json".
// A name that is nothing but its extension is kept whole, as a device has to be called something.
std::string Stem(const std::string& file) {
  const std::string name = file.substr(file.rfind('/') + 1);
  const std::size_t dot = name.rfind('.');
  return Text(dot == 0 ? name : name.substr(0, dot));
}

// Links are followed here, unlike on a device: the directory is the user's own, who may have
// collected links in it.
bool IsRegular(int directory, const char* name) {
  struct stat info {};
  return ::fstatat(directory, name, &info, 0) == 0 && S_ISREG(info.st_mode);
}

// False when it is no directory.
// Sorted, so that two reports of the same directory are the same.
bool ListResults(const std::string& path, std::vector<std::string>& files) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), &::closedir);
  if (!directory) return false;
  const std::size_t first = files.size();
  const std::string prefix = path.ends_with('/') ? path : path + "/";
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this function's own
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (!name.ends_with(".json") || !IsRegular(::dirfd(directory.get()), entry->d_name)) continue;
    files.push_back(prefix + name);
  }
  std::sort(files.begin() + static_cast<std::ptrdiff_t>(first), files.end());
  return true;
}

const char* WhatItIs(const Json& object) {
  if (object.is_discarded()) return "no JSON";
  return object.is_object() && object.contains("refused") ? "an inspection, not a migration"
                                                          : "no result of a migration";
}

}  // namespace

std::vector<std::string> ExpandDirectories(const std::vector<std::string>& arguments,
                                           const ResultSinks& sinks) {
  std::vector<std::string> files;
  for (const std::string& argument : arguments) {
    const std::size_t before = files.size();
    if (!ListResults(argument, files)) {
      files.push_back(argument);
    } else if (files.size() == before) {
      sinks.unusable({Text(argument), "no *.json in it"});
    }
  }
  return files;
}

void ReadResults(const std::string& file, const ResultSinks& sinks) {
  UniqueDescriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!descriptor) return sinks.unusable({Text(file), ErrnoDescription(errno)});
  ObjectReader reader(std::move(descriptor));
  std::string text;
  std::size_t number = 0;
  while (reader.next(text)) {
    ++number;
    const std::string name = Text(file) + (number > 1 ? ":" + std::to_string(number) : "");
    const Json object = Json::parse(text, nullptr, false);
    RunResult result = ReadRunResult(object);
    if (result.device.empty()) {
      result.device = Stem(file) + (number > 1 ? ":" + std::to_string(number) : "");
    }
    if (result.kind == ResultKind::none) {
      sinks.unusable({name, WhatItIs(object)});
    } else {
      sinks.result(name, result);
    }
  }
  if (reader.failure() != 0) {
    sinks.unusable({Text(file), ErrnoDescription(reader.failure())});
  } else if (number == 0) {
    sinks.unusable({Text(file), "empty"});
  }
}

}  // namespace quorvel::host
