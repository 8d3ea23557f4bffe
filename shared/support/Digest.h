// Digests of whole files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "shared/support/Export.h"

namespace quorvel {

// The SHA-256 digest of the file's contents as 64 lower-case hexadecimal characters; absent, with
// the reason in the log, when the file could not be read whole. Files of up to 2^31 - 1 bytes. Any
// thread may call; memory stays below one chunk whatever the file.
QV_EXPORT std::optional<std::string> QVCreateSHA256Digest(const std::string& path);

// Not installed: what others cannot link.
// Hands the file to the callback in chunks of at most 65,536 bytes, up to the size that the file
// had when it was opened. The callback returns 1 to go on, anything else to stop. True when the
// whole file was handed over; otherwise the reason is in the log and errno.
using ReadFileCallback = std::function<int(const std::uint8_t* bytes, std::size_t count)>;
bool _ReadFile(const char* path, const ReadFileCallback& callback);
// Installed again.

}  // namespace quorvel
