// Files to bytes and back; the encodings are PropertyList.h's.
#include "platform/linux/plist/PropertyListFiles.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/plist/PropertyList.h"
#include "platform/linux/plist/PropertyListEncodings.h"

namespace quorvel::onlinux {

namespace {

// The error with the file's name in front of its description.
Error InFile(const Path& file, const Error& cause) {
  return Error(cause.domain(), cause.code(),
               {{LocalizedDescriptionKey,
                 PlistValue("Reading " + file.string() + ": " + cause.description())}});
}

// The whole file is made in memory first: a value that cannot be written has touched nothing on
// disk.
bool Write(const PlistDictionary& dictionary, const Path& file, PropertyListFormat format,
           Durability durability, Error* error) {
  std::vector<std::uint8_t> bytes;
  return SerializePropertyList(PlistValue(dictionary), format, bytes, error) &&
         ReplaceFileAtomically(file, bytes, durability, error);
}

}  // namespace

std::unique_ptr<PlistDictionary> DictionaryOf(std::span<const std::uint8_t> bytes, const Path& file,
                                              Error* error, bool* isExact) {
  Error cause;
  const std::unique_ptr<PlistValue> root = ParsePropertyList(bytes, &cause, isExact);
  // Another root is damage like any other: every file of the system holds a dictionary.
  PlistDictionary* dictionary = root != nullptr ? root->dictionary() : nullptr;
  if (dictionary != nullptr) return std::make_unique<PlistDictionary>(std::move(*dictionary));
  SetError(error, InFile(file, root != nullptr ? Damage("the root is no dictionary") : cause));
  return nullptr;
}

std::unique_ptr<PlistDictionary> ReadDictionaryAt(int directory, const char* name, const Path& file,
                                                  Error* error, bool* isExact) {
  std::vector<std::uint8_t> bytes;
  const int failure = ReadRegularFile(directory, name, PropertyListSizeLimit, false, bytes);
  if (failure == 0) return DictionaryOf(bytes, file, error, isExact);
  SetError(error, PosixFailure(failure, "Reading " + file.string()));
  return nullptr;
}

std::unique_ptr<PlistDictionary> PropertyListFiles::readDictionary(const Path& file, Error* error) {
  return ReadDictionaryAt(AT_FDCWD, file.fileSystemRepresentation().c_str(), file, error);
}

bool PropertyListFiles::writeDictionary(const PlistDictionary& dictionary, const Path& file,
                                        PropertyListFormat format, Error* error) {
  return Write(dictionary, file, format, Durability::contentFirst, error);
}

bool PropertyListFiles::writeDictionaryBeforeFlush(const PlistDictionary& dictionary,
                                                   const Path& file, PropertyListFormat format,
                                                   Error* error) {
  return Write(dictionary, file, format, Durability::none, error);
}

}  // namespace quorvel::onlinux
