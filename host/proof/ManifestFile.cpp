// Writes manifests, and reads them without trust.
#include "host/proof/ManifestFile.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "platform/Error.h"

namespace quorvel::host {

namespace {

constexpr const char* kFormat = "quorvel-device";
constexpr int kVersion = 1;
constexpr unsigned kBufferSize = 256 * 1024;
// A section with a hundred thousand direct children still fits.
constexpr std::size_t kLongestLine = 64 * 1024 * 1024;

gzFile Open(UniqueDescriptor file, const char* mode) {
  // zlib reads plain files as they are, so that one reader does for both.
  gzFile opened = file ? ::gzdopen(file.get(), mode) : nullptr;
  if (opened == nullptr) return nullptr;
  // gzclose closes it.
  (void)file.release();
  ::gzbuffer(opened, kBufferSize);
  return opened;
}

}  // namespace

// The first failure; every later write is left out, since a gap in a manifest cannot be told from
// an item that was never there.
struct ManifestWriter::File {
  gzFile stream = nullptr;
  int failure = 0;
};

ManifestWriter::ManifestWriter(UniqueDescriptor file, bool compressed)
    : file_(std::make_unique<File>()) {
  // "T" writes without compression and without a gzip header.
  file_->stream = Open(std::move(file), compressed ? "wb" : "wbT");
  if (file_->stream == nullptr) file_->failure = errno != 0 ? errno : ENOMEM;
}

ManifestWriter::~ManifestWriter() {
  if (file_->stream != nullptr) ::gzclose(file_->stream);
}

void ManifestWriter::write(std::string_view text) {
  while (file_->failure == 0 && !text.empty()) {
    const auto piece = static_cast<unsigned>(std::min<std::size_t>(text.size(), INT_MAX));
    errno = 0;
    if (::gzwrite(file_->stream, text.data(), piece) == 0) {
      file_->failure = errno != 0 ? errno : EIO;
    }
    text.remove_prefix(piece);
  }
}

void ManifestWriter::header(const ManifestHeader& header) {
  Json first;
  first["manifest"] = kFormat;
  first["version"] = kVersion;
  first["contents"] = header.contents;
  first["sections"] = header.sections.size();
  write(JsonLine(first));
  for (std::size_t i = 0; i < header.sections.size(); ++i) {
    write(SectionLine(i, header.sections[i]));
  }
  for (const Json& record : header.records) write(JsonLine({{"record", record}}));
  for (const Json& harbor : header.harbors) write(JsonLine({{"safeHarbor", harbor}}));
}

void ManifestWriter::begin(std::size_t section) { write(JsonLine({{"begin", section}})); }

void ManifestWriter::entry(const ManifestEntry& entry) {
  ++entries_;
  write(EntryLine(entry));
}

// The end has the number of entries, by which a reader sees that none are missing. Closing writes
// what was still held back, and may fail as any write does.
bool ManifestWriter::finish() {
  write(JsonLine({{"end", true}, {"entries", entries_}}));
  if (file_->stream != nullptr) {
    errno = 0;
    const int closed = ::gzclose(std::exchange(file_->stream, nullptr));
    if (closed != Z_OK && file_->failure == 0) file_->failure = errno != 0 ? errno : EIO;
  }
  errno = file_->failure;
  return file_->failure == 0;
}

struct ManifestReader::File {
  gzFile stream = nullptr;
  std::string text;
  std::optional<Json> pending;  // a line that was looked at and belongs to next()
};

ManifestReader::ManifestReader(UniqueDescriptor file) : file_(std::make_unique<File>()) {
  file_->stream = Open(std::move(file), "rb");
}

ManifestReader::~ManifestReader() {
  if (file_->stream != nullptr) ::gzclose(file_->stream);
}

std::nullopt_t ManifestReader::complain(const std::string& what) {
  if (problem_.empty()) problem_ = "line " + std::to_string(lines_) + ": " + what;
  return std::nullopt;
}

// A line that has no end is the last one of a manifest that was cut off.
bool ManifestReader::line(Json& object) {
  if (file_->pending) {
    object = *std::exchange(file_->pending, std::nullopt);
    return true;
  }
  ++lines_;
  std::string& text = file_->text;
  text.clear();
  // gzgets stops at a line feed or at the buffer's end; long lines come in pieces.
  char piece[16 * 1024];
  while (file_->stream != nullptr && ::gzgets(file_->stream, piece, sizeof piece) != nullptr) {
    text += piece;
    if (text.ends_with('\n') || text.size() > kLongestLine) break;
    // Short without a line feed: the end, or a null byte, behind which the next line may stand.
    if (std::strlen(piece) + 1 < sizeof piece) break;
  }
  if (!text.ends_with('\n')) {
    complain(text.size() > kLongestLine ? "it is too long" : "the manifest is cut off here");
    return false;
  }
  object = Json::parse(text, nullptr, false);
  if (object.is_object()) return true;
  complain("it is no JSON object");
  return false;
}

bool ManifestReader::readHeader() {
  Json object;
  if (!line(object)) return false;
  if (!object.contains("manifest") || object["manifest"] != kFormat) {
    complain("this is no manifest of a device");
    return false;
  }
  // Guessing at a later format could prove what is not so.
  if (!object.contains("version") || object["version"] != kVersion) {
    complain("the manifest is of another version");
    return false;
  }
  header_.contents = object.contains("contents") && object["contents"] == true;
  while (line(object)) {
    // Sections are numbered without a gap, which shows a missing line.
    if (object.contains("section") && object["section"] == header_.sections.size()) {
      auto section = SectionFromJson(object);
      if (!section) break;
      header_.sections.push_back(*std::move(section));
    } else if (object.contains("record") && object["record"].is_object()) {
      header_.records.push_back(object["record"]);
    } else if (object.contains("safeHarbor") && object["safeHarbor"].is_object()) {
      header_.harbors.push_back(object["safeHarbor"]);
    } else if (object.contains("begin") || object.contains("end")) {
      file_->pending = std::move(object);
      return true;
    } else {
      break;
    }
  }
  complain("it does not belong here");
  return false;
}

// What follows the end is not read.
std::optional<ManifestEntry> ManifestReader::next() {
  Json object;
  while (problem_.empty() && line(object)) {
    if (object.contains("begin")) {
      const Json& begin = object["begin"];
      const std::size_t expected = begun_ ? section_ + 1 : 0;
      // In order and none left out: an item whose section is gone would look unexplained.
      if (begin != expected || expected >= header_.sections.size()) {
        return complain("a section is missing before it");
      }
      section_ = expected;
      begun_ = true;
      names_.clear();
      lastIsDirectory_ = true;
      continue;
    }
    if (object.contains("end")) {
      if (object.contains("entries") && object["entries"] == entries_ &&
          (header_.sections.empty() || (begun_ && section_ + 1 == header_.sections.size()))) {
        return std::nullopt;
      }
      return complain("lines are missing before it");
    }
    auto entry = EntryFromJson(object);
    if (!entry || !begun_ || !fits(*entry)) return complain("it does not belong here");
    ++entries_;
    return entry;
  }
  return std::nullopt;
}

// Whether the entry can follow the one before it in a sorted walk.
bool ManifestReader::fits(const ManifestEntry& entry) {
  const bool stray = header_.sections[section_].kind == SectionKind::stray;
  if (stray ? entry.depth != 0 || !names_.empty() : entry.depth == 0) return false;
  const std::size_t level = stray ? 0 : entry.depth - 1;
  if (level > names_.size() || (level == names_.size() && !lastIsDirectory_)) return false;
  if (level < names_.size() && entry.name <= names_[level]) return false;
  names_.resize(level);
  names_.push_back(entry.name);
  lastIsDirectory_ = entry.type == EntryType::directory;
  return true;
}

}  // namespace quorvel::host
