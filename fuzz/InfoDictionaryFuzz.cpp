// Arbitrary bytes as a bundle's info dictionary: its container is called unusable only when they
// are certainly no property list, or hold no identifier.
#include "Ravelle/Classification.h"
#include "fuzz/Fuzzing.h"
#include "platform/BundleReader.h"
#include "platform/linux/plist/PropertyList.h"
#include "platform/linux/services/QVLinuxServices.h"
#include "shared/support/Platform.h"

namespace quorvel::fuzzing {
namespace {

using Verdict = Classification::Verdict;

const char* const kTags[] = {"string", "integer", "data", "dict", "array", "date", "real", "true"};

// As they are, or as the value of the key, so that more of them reach the identifier.
std::string InfoDictionary(Input& input) {
  if (input.number(2) == 0) return input.all();
  const std::string key = input.number(4) == 0 ? input.text() : PKBundleIdentifierKey;
  const std::string tag = input.oneOf(kTags);
  return "<plist><dict><key>" + key + "</key><" + tag + ">" + input.all() + "</" + tag +
         "></dict></plist>";
}

void RequireVerdict(const Classification& found, const std::string& bytes) {
  Error error;
  const auto value = onlinux::ParsePropertyList(BytesOf(bytes), &error);
  const PlistDictionary* info = value ? value->dictionary() : nullptr;
  const std::string* identifier = info ? info->findString(PKBundleIdentifierKey) : nullptr;
  const bool damaged = error.is(PlatformErrorDomain, PlatformPropertyListReadCorruptError);
  if (identifier != nullptr) {
    Require(found.verdict == Verdict::migrate && found.record.has_value());
    Require(FieldsOf(*found.record).identifier == *identifier);
  } else {
    Require(found.verdict == (value || damaged ? Verdict::remove : Verdict::leave));
  }
}

}  // namespace
}  // namespace quorvel::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;           // NOLINT
  using namespace quorvel::fuzzing;  // NOLINT
  const std::string& root = Scratch::fresh();
  const auto services = QVLinuxServices::create(Path::directory(root), {.digests = false}, nullptr);
  PlatformServices set = services->set();
  QVInstallPlatformServices(&set);
  Input input(data, size);
  const std::string bytes = InfoDictionary(input);
  Put(root + "/container/Some.app/Info.plist", bytes);
  RequireVerdict(ClassifyLegacyContainer(QVFileManager::defaultManager(),
                                         Path::directory(root + "/container")),
                 bytes);
  QVInstallPlatformServices(nullptr);
  return 0;
}
