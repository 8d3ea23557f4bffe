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

// Any thread may call; no state is kept between calls.
class PropertyListStore {
 public:
  virtual ~PropertyListStore() = default;

  // Reads a file of either encoding whose root is a dictionary. A link is not followed. Dictionary
  // keys that are no strings are passed over and counted (PlistDictionary::foreignKeyCount()).
  // Null with an Error, which is that of the one attempt to read and says what is known
  // (IsCertainlyUnusable()):
  //   - PosixErrorDomain ENOENT or ENOTDIR: there is no such file
  //   - PlatformPropertyListReadCorruptError: the file was read whole and is no property list, is
  //     damaged, or has another root
  //   - anything else in PosixErrorDomain: not known. The file could not be read, is no regular
  //     file, memory ran out (ENOMEM), it is larger (EFBIG) or holds more or deeper values (E2BIG)
  //     than this reader takes, or uses what this reader does not support (ENOTSUP)
  virtual std::unique_ptr<PlistDictionary> readDictionary(const Path& file, Error* error) = 0;

  // Writes the dictionary, replacing the file in one rename: a reader sees the old file or the
  // new one whole. The new content is on stable storage before the rename; the rename itself once
  // the directory or its file system is synced (FileSystem). What an interrupted
  // write leaves beside the file is taken over by the next write of the same file. The mode of
  // a new file is 0644. XML cannot hold control characters: such a value is refused
  // (PlatformPropertyListWriteInvalidError) and the old file stays.
  virtual bool writeDictionary(const PlistDictionary& dictionary, const Path& file,
                               PropertyListFormat format, Error* error) = 0;

  // The same without bringing the content to stable storage: until the caller has synced the file
  // system, a power cut may leave the name with no bytes, or other ones, behind it. For files that
  // nothing rests on before that, which spares a flush for each.
  virtual bool writeDictionaryBeforeFlush(const PlistDictionary& dictionary, const Path& file,
                                          PropertyListFormat format, Error* error) = 0;
};

}  // namespace quorvel
