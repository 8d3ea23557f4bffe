// Manifests on disk: lines of JSON, compressed if asked. docs/manifest.md has the format.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/proof/ManifestEntry.h"
#include "host/proof/ManifestSection.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

// Writes in the order of the operations below. The first failure is kept and told at the end.
class ManifestWriter {
 public:
  // Takes the file, which is open for writing and empty. A failure to set up the stream is told by
  // finish() like any other, so that the caller has one place to look at.
  ManifestWriter(UniqueDescriptor file, bool compressed);
  ~ManifestWriter();
  ManifestWriter(const ManifestWriter&) = delete;
  ManifestWriter& operator=(const ManifestWriter&) = delete;

  // First, once: the device's sections, the registry's records.
  void header(const ManifestHeader& header);
  // The entries that follow belong to the section of that number.
  void begin(std::size_t section);
  void entry(const ManifestEntry& entry);
  // Without this a manifest counts as cut off. False with errno when anything was not written.
  // Closes the file and says nothing of its being on the disk: who needs that synchronizes the file
  // by a descriptor of its own. Nothing may be written after it.
  bool finish();

 private:
  // The zlib stream, which also reads what is not compressed.
  // Kept out of this header, so that nobody else depends on zlib.
  struct File;
  void write(std::string_view text);

  std::unique_ptr<File> file_;
  std::uint64_t entries_ = 0;
};

// Reads what may have been damaged, or made by somebody who wants to mislead: a line that does not
// fit where it stands ends the reading. What is compressed is recognised.
class ManifestReader {
 public:
  // A file that cannot be read at all shows as a manifest that is cut off at its first line.
  explicit ManifestReader(UniqueDescriptor file);
  ~ManifestReader();
  ManifestReader(const ManifestReader&) = delete;
  ManifestReader& operator=(const ManifestReader&) = delete;

  // The lines before the first section's. False when they are no manifest's; problem() says why.
  // Once, and before next(). A later version of the format is refused: guessing at what it means
  // could prove what is not so.
  bool readHeader();
  const ManifestHeader& header() const { return header_; }

  // The next entry, and the section that it belongs to. None at the end, or at what is damaged:
  // then problem() is not empty.
  std::optional<ManifestEntry> next();
  // Of the entry that next() gave last; zero before the first one.
  std::size_t section() const { return section_; }

  const std::string& problem() const { return problem_; }

 private:
  struct File;
  // The next line as an object. False at the end, or at what is none: problem() tells which.
  bool line(Json& object);
  // Whether the entry can follow the last one: depth and order of names.
  bool fits(const ManifestEntry& entry);
  // Sets problem(), with the number of the line. Nothing is read after it.
  std::nullopt_t complain(const std::string& what);

  std::unique_ptr<File> file_;
  ManifestHeader header_;
  std::string problem_;
  std::uint64_t lines_ = 0;
  std::uint64_t entries_ = 0;
  std::size_t section_ = 0;
  bool begun_ = false;
  // The last item of every depth of the section, to check the order.
  // With the last depth's name the largest so far: a sorted walk never goes back.
  std::vector<std::string> names_;
  bool lastIsDirectory_ = false;
};

}  // namespace quorvel::host
