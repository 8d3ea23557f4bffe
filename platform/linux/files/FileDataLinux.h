// Whole-file data on Linux.
#pragma once

#include <utility>

#include "platform/FileData.h"

namespace quorvel::onlinux {

// Stateless but for the directory's name: any number of threads may use one.
class FileDataLinux : public FileData {
 public:
  // The temporary directory is inside the device tree: TMPDIR speaks of the machine around it.
  explicit FileDataLinux(Path temporaryDirectory = Path::directory("/private/var/tmp"))
      : temporaryDirectory_(std::move(temporaryDirectory)) {}

  // A file above 1 GiB is refused (EFBIG): nothing that is read whole is that large. Memory that
  // runs out is ENOMEM. The file's pages are dropped from the cache afterwards.
  std::unique_ptr<std::vector<std::uint8_t>> readWholeFile(const Path& file, Error* error) override;
  // ReplaceFileAtomically (AtomicFile.h) without a flush: whoever relies on the file after a power
  // cut syncs its file system. The file is the process's own and has mode 0644; its directory must
  // be there.
  bool writeAtomically(std::span<const std::uint8_t> bytes, const Path& file,
                       Error* error) override;
  Path temporaryDirectory() override { return temporaryDirectory_; }

 private:
  const Path temporaryDirectory_;
};

}  // namespace quorvel::onlinux
