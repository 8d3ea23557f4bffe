#include "platform/linux/plist/PropertyListFiles.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/plist/PropertyList.h"

namespace quorvel::onlinux {

namespace {

Error CorruptFile(const Path& file, const std::string& reason) {
  return PlatformFailure(PlatformPropertyListReadCorruptError,
                         "Reading " + file.string() + ": " + reason);
}

}  // namespace

std::unique_ptr<PlistDictionary> ReadDictionaryAt(int directory, const char* name, const Path& file,
                                                  ForeignKeys policy, Error* error) {
  std::vector<std::uint8_t> bytes;
  const int failure = ReadRegularFile(directory, name, PropertyListSizeLimit, false, bytes);
  if (failure != 0) {
    SetError(error, failure == EFBIG ? CorruptFile(file, "It is too large")
                                     : PosixFailure(failure, "Reading " + file.string()));
    return nullptr;
  }
  Error cause;
  const std::unique_ptr<PlistValue> root = ParsePropertyList(bytes, policy, &cause);
  if (root == nullptr) {
    SetError(error, CorruptFile(file, cause.description()));
    return nullptr;
  }
  PlistDictionary* dictionary = root->dictionary();
  if (dictionary == nullptr) {
    SetError(error, CorruptFile(file, "The root is no dictionary"));
    return nullptr;
  }
  return std::make_unique<PlistDictionary>(std::move(*dictionary));
}

std::unique_ptr<PlistDictionary> PropertyListFiles::readDictionary(const Path& file,
                                                                   ForeignKeys policy,
                                                                   Error* error) {
  return ReadDictionaryAt(AT_FDCWD, file.fileSystemRepresentation().c_str(), file, policy, error);
}

bool PropertyListFiles::writeDictionary(const PlistDictionary& dictionary, const Path& file,
                                        PropertyListFormat format, Error* error) {
  std::vector<std::uint8_t> bytes;
  return SerializePropertyList(PlistValue(dictionary), format, bytes, error) &&
         ReplaceFileAtomically(file, bytes, Durability::contentFirst, error);
}

}  // namespace quorvel::onlinux
