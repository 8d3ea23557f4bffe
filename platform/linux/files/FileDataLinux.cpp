// Whole files by way of AtomicFile.
#include "platform/linux/files/FileDataLinux.h"

#include <fcntl.h>

#include <cerrno>

#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::onlinux {

namespace {

constexpr std::size_t kWholeFileLimit = std::size_t{1} << 30U;

}  // namespace

std::unique_ptr<std::vector<std::uint8_t>> FileDataLinux::readWholeFile(const Path& file,
                                                                        Error* error) {
  auto bytes = std::make_unique<std::vector<std::uint8_t>>();
  const int failure = ReadRegularFile(AT_FDCWD, file.fileSystemRepresentation().c_str(),
                                      kWholeFileLimit, true, *bytes);
  if (failure == 0) return bytes;
  const std::string what = "Reading " + file.string();
  // ENOTDIR is no missing file to this interface: the path itself is wrong then.
  SetError(error, failure == ENOENT ? PlatformFailure(PlatformFileReadNoSuchFileError,
                                                      what + ": " + ErrnoDescription(failure))
                                    : PosixFailure(failure, what));
  return nullptr;
}

bool FileDataLinux::writeAtomically(std::span<const std::uint8_t> bytes, const Path& file,
                                    Error* error) {
  return ReplaceFileAtomically(file, bytes, Durability::none, error);
}

}  // namespace quorvel::onlinux
