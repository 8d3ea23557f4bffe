// Arbitrary bytes as a preferences file: read whole or not at all, and set aside before anything
// is stored over what could not be understood.
#include "fuzz/Fuzzing.h"
#include "platform/linux/plist/PreferencesPlist.h"
#include "platform/linux/plist/PropertyList.h"

namespace quorvel::fuzzing {
namespace {

constexpr const char* kDomain = "com.example";
constexpr const char* kNewKey = "stored by the fuzzer";
constexpr auto kScope = PreferencesScope::currentUserAnyHost;

// Each key has the file's value, or none is there at all.
void RequireRead(onlinux::PreferencesPlist& store, const PlistDictionary* held) {
  if (held == nullptr) Require(!store.copyValue("key", kDomain, kScope));
  if (held == nullptr) return;
  for (const PlistEntry& entry : *held) {
    const auto value = store.copyValue(entry.key, kDomain, kScope);
    Require(value && *value == entry.value);
  }
}

void RequireStored(const std::string& directory, const std::string& before,
                   const PlistDictionary* held, bool damaged) {
  const std::string after = Get(directory + "/com.example.plist");
  const auto value = onlinux::ParsePropertyList(BytesOf(after), nullptr);
  Require(value && value->dictionary() != nullptr);
  Require(value->dictionary()->find(kNewKey) != nullptr);
  if (held != nullptr) {
    for (const PlistEntry& entry : *held) {
      const PlistValue* now = value->dictionary()->find(entry.key);
      Require(now != nullptr && (entry.key == kNewKey || *now == entry.value));
    }
  }
  if (damaged) Require(Get(directory + "/com.example.plist.damaged") == before);
}

}  // namespace
}  // namespace quorvel::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;           // NOLINT
  using namespace quorvel::fuzzing;  // NOLINT
  Input input(data, size);
  const bool wrapped = input.number(2) == 1;
  std::string bytes = input.all();
  if (wrapped) bytes = "<plist><dict>" + bytes + "</dict></plist>";
  const std::string& directory = Scratch::fresh();
  Put(directory + "/com.example.plist", bytes);
  bool isExact = false;
  const auto value = onlinux::ParsePropertyList(BytesOf(bytes), nullptr, &isExact);
  const PlistDictionary* held = value ? value->dictionary() : nullptr;

  onlinux::PreferencesPlist store(Path::directory(directory));
  RequireRead(store, held);
  store.setValue(kNewKey, PlistValue(true), kDomain, kScope);
  if (store.synchronize(kDomain, kScope)) {
    RequireStored(directory, bytes, held, !store.filesSetAside().empty());
    // Also what was read but cannot be written back as it was.
    Require((held == nullptr || !isExact) == !store.filesSetAside().empty());
  } else {
    Require(Get(directory + "/com.example.plist") == bytes);
  }
  return 0;
}
