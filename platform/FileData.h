// Whole files as bytes, and the process's temporary directory.
//
// Why a service: the platform decides where temporary files live and how a file is replaced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "platform/Error.h"
#include "platform/Path.h"

namespace quorvel {

// Any thread may call; no state is kept between calls.
class FileData {
 public:
  virtual ~FileData() = default;

  // The whole file, read past the cache where the platform can. Null with an Error: a missing
  // file is PlatformErrorDomain PlatformFileReadNoSuchFileError, everything else
  // PosixErrorDomain. A link is not followed; only a regular file can be read.
  virtual std::unique_ptr<std::vector<std::uint8_t>> readWholeFile(const Path& file,
                                                                   Error* error) = 0;

  // Replaces the file in one rename: a reader sees the old file or the new one whole. Nothing is
  // flushed: who relies on the file after a power cut syncs its file system (FileSystem).
  virtual bool writeAtomically(std::span<const std::uint8_t> bytes, const Path& file,
                               Error* error) = 0;

  // TemporaryDirectory: where this process may put temporary files. It need not exist.
  virtual Path temporaryDirectory() = 0;
};

}  // namespace quorvel
