// Property-list files on Linux.
#pragma once

#include <cstdint>
#include <span>

#include "platform/PropertyListStore.h"

namespace quorvel::onlinux {

// PropertyList.h says what is read and written and what the limits are, AtomicFile.h how a file
// is replaced. Stateless: any number of threads may use one. The text of a failure to read names
// the file. The directory of a file that is written must be there.
class PropertyListFiles : public PropertyListStore {
 public:
  std::unique_ptr<PlistDictionary> readDictionary(const Path& file, Error* error) override;
  bool writeDictionary(const PlistDictionary& dictionary, const Path& file,
                       PropertyListFormat format, Error* error) override;
  bool writeDictionaryBeforeFlush(const PlistDictionary& dictionary, const Path& file,
                                  PropertyListFormat format, Error* error) override;
};

// readDictionary for a file named relative to an open directory. `name` is as a system call
// takes it; `file` is what messages call it. `isExact` as ParsePropertyList() gives it. The file is
// opened without following a link and without waiting for a FIFO's writer.
std::unique_ptr<PlistDictionary> ReadDictionaryAt(int directory, const char* name, const Path& file,
                                                  Error* error, bool* isExact = nullptr);

// The dictionary that the bytes of a file are; null with the Error that readDictionary gives.
std::unique_ptr<PlistDictionary> DictionaryOf(std::span<const std::uint8_t> bytes, const Path& file,
                                              Error* error, bool* isExact = nullptr);

}  // namespace quorvel::onlinux
