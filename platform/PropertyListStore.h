// Property-list files.
//
// Why a service: the encodings are the platform's, and every file read here may be hostile.
#pragma once

#include <memory>

#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/PlistValue.h"

namespace quorvel {

enum class PropertyListFormat { xml, binary };

// What a reader does with dictionary keys that are no strings.
enum class ForeignKeys {
  refuse,  // the file is damaged: fail
  count,   // pass over the entry and count it in PlistDictionary::foreignKeyCount()
};

// Any thread may call; no state is kept between calls.
class PropertyListStore {
 public:
  virtual ~PropertyListStore() = default;

  // Reads a file of either encoding whose root is a dictionary. Null with an Error when the file
  // cannot be read (PosixErrorDomain), or is no property list, is not whole, is unreasonably deep
  // or large, or has another root (PlatformPropertyListReadCorruptError). A link is not followed.
  virtual std::unique_ptr<PlistDictionary> readDictionary(const Path& file, ForeignKeys policy,
                                                          Error* error) = 0;

  // Writes the dictionary, replacing the file in one rename: a reader sees the old file or the
  // new one whole. The new content is on stable storage before the rename; the rename itself once
  // the directory or its file system is synced (FileSystem). What an interrupted
  // write leaves beside the file is taken over by the next write of the same file. The mode of
  // a new file is 0644. XML cannot hold control characters: such a value is refused
  // (PlatformPropertyListWriteInvalidError) and the old file stays.
  virtual bool writeDictionary(const PlistDictionary& dictionary, const Path& file,
                               PropertyListFormat format, Error* error) = 0;
};

}  // namespace quorvel
