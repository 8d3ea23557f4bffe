// Whole files: reading one in bounds, and replacing one so that no reader and no power cut ever
// meets half of it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::onlinux {

// What a power cut may do to a replaced file. A kill never shows anything but old or new.
enum class Durability {
  contentFirst,  // the bytes are on stable storage before the rename makes them visible
  none,          // for a caller that syncs the file system before it relies on the file
};

// Whose a replaced file is afterwards.
enum class Ownership {
  own,    // the writer's, mode 0644
  taken,  // owner, group, mode and attributes (access lists and protection class among them) of the
          // regular file that is replaced, as far as they may be given; where there is none, the
          // owner and group of the directory, mode 0644
};

// Replaces the file by a regular file with these bytes (the umask does not apply to its
// mode), in one rename. The rename itself may be undone by a power cut until the directory is
// flushed (FlushDirectory) or its file system synced. A link of that name is replaced, not
// followed.
//
// The new content is first written beside the file, under TemporaryNameFor() its name. What a
// killed process left under that name is taken over; a process or thread that is at work on it is
// waited for. On failure (false, PosixErrorDomain) the temporary file is removed and the old file
// is as it was. The mode is 0644. Any thread may call.
bool ReplaceFileAtomically(const Path& file, std::span<const std::uint8_t> bytes,
                           Durability durability, Error* error);

// The same for a file named relative to an open directory (O_RDONLY). `name` is a plain file name
// as a system call takes it; `file` is what messages call it.
bool ReplaceFileAtomicallyAt(int directory, const std::string& name,
                             std::span<const std::uint8_t> bytes, Durability durability,
                             const Path& file, Error* error, Ownership ownership = Ownership::own);

// Brings renames in an open directory to stable storage; false with errno.
bool FlushDirectory(int directory);

// The temporary name that belongs to a file name: ".<name>.tmp" (HiddenName.h).
std::string TemporaryNameFor(const std::string& name);

// Reads a regular file whole, however it grows or shrinks meanwhile. Returns 0 or an errno value:
// ELOOP for a link, EISDIR for a directory, EINVAL for other kinds, EFBIG above the limit (found
// before anything is read), ENOMEM.
// `directory` is an open directory or AT_FDCWD. With `pastCache` the file's pages are dropped
// from the cache afterwards.
int ReadRegularFile(int directory, const char* name, std::size_t limit, bool pastCache,
                    std::vector<std::uint8_t>& bytes);

// The same for a file that is open to read.
int ReadRegularFile(int file, std::size_t limit, bool pastCache, std::vector<std::uint8_t>& bytes);

// The directory that holds the file, opened to read; -1 with errno. "." for a relative plain name.
UniqueDescriptor OpenParentDirectory(const Path& file);

}  // namespace quorvel::onlinux
