// A damaged or foreign registry file, and unfinished intents of any content: opened or refused, a
// refused file stays as it is, and nothing outside the device changes.
#include <sqlite3.h>

#include "fuzz/Fuzzing.h"
#include "platform/DeviceNames.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"
#include "platform/linux/registry/IntentCodec.h"
#include "platform/linux/services/QVLinuxServices.h"

namespace quorvel::fuzzing {
namespace {

using onlinux::InstallIntent;
using onlinux::InstallStep;

const std::string kContainers = "/private/var/mobile/Containers";
const std::string kPaths[] = {"/",         "/Staging",   "/Staging/Payload",
                              "/link",     "/../canary", "../canary",
                              kContainers, "/Staging/x", kContainers + "/Bundle/x",
                              "",          "nowhere",    kContainers + "/Data/y",
                              "/link/file"};
const char* const kIdentifiers[] = {"", "com.example.a", "com.example.b", ".."};

std::string FileIn(const std::string& root) {
  return root + "/" + DaemonDirectory + RegistryDirectoryPath + "/" + RegistryFileName;
}

// Opens the registry as the host does, and uses it.
bool Use(const std::string& root) {
  const auto services = QVLinuxServices::create(
      Path::directory(root), {.digests = false, .processWillEnterRoot = true}, nullptr);
  Require(services != nullptr);
  const Confinement confinement(root);
  Error error;
  onlinux::RegistrySnapshot snapshot;
  const bool known = services->registry().snapshot(&snapshot, &error);
  Require(known == !error);
  services->registry().isSound(nullptr);
  const bool registered = services->registry().registerIdentifier("com.example.new", nullptr);
  return known || registered;
}

// A registry with one record.
const std::string& Sound() {
  static const std::string bytes = [] {
    const std::string root = Scratch::fresh() + "/device";
    std::filesystem::create_directories(root + "/private/var/mobile");
    Require(Use(root));
    return Get(FileIn(root));
  }();
  return bytes;
}

std::string Damaged(Input& input) {
  if (input.number(8) == 0) return input.all();
  std::string bytes = Sound();
  for (std::size_t left = input.number(16); left > 0; --left) {
    const std::size_t at = input.number(256) * 256 + input.number(256);
    const std::string patch = input.take(1 + input.number(8));
    if (at + patch.size() <= bytes.size()) bytes.replace(at, patch.size(), patch);
  }
  if (input.number(8) == 0) bytes.resize(input.number(256) * 256);
  return bytes;
}

InstallIntent Intent(Input& input) {
  InstallIntent intent;
  for (std::size_t left = input.number(6); left > 0; --left) {
    InstallStep step{.kind = static_cast<InstallStep::Kind>(input.number(8)),
                     .cleanup = input.number(3) == 0,
                     .identifier = input.oneOf(kIdentifiers),
                     .source = input.oneOf(kPaths),
                     .target = input.oneOf(kPaths),
                     .data = input.text()};
    intent.steps.push_back(step);
  }
  for (std::size_t left = input.number(3); left > 0; --left) {
    onlinux::AppRecord record;
    record.identifier = input.oneOf(kIdentifiers);
    record.type = input.text();
    record.bundleContainer = input.text();
    record.bundleName = input.oneOf(kPaths);
    record.groups = {input.text()};
    intent.records.push_back(record);
  }
  return intent;
}

void RequireCodec(const std::string& bytes) {
  InstallIntent intent, again;
  if (!onlinux::DecodeIntent(bytes, &intent)) return;
  const std::string encoded = onlinux::EncodeIntent(intent);
  Require(onlinux::DecodeIntent(encoded, &again));
  Require(onlinux::EncodeIntent(again) == encoded);
}

void PutIntent(const std::string& file, bool committed, const std::string& content) {
  Put(file, Sound());
  sqlite3* connection = nullptr;
  sqlite3_stmt* statement = nullptr;
  const int opened = ::sqlite3_open(file.c_str(), &connection);
  Require(opened == SQLITE_OK);
  ::sqlite3_prepare_v2(connection, "INSERT INTO intents(committed, content) VALUES(?, ?)", -1,
                       &statement, nullptr);
  ::sqlite3_bind_int(statement, 1, committed ? 1 : 0);
  ::sqlite3_bind_blob(statement, 2, content.data(), static_cast<int>(content.size()),
                      SQLITE_STATIC);
  Require(::sqlite3_step(statement) == SQLITE_DONE);
  ::sqlite3_finalize(statement);
  ::sqlite3_close(connection);
}

}  // namespace
}  // namespace quorvel::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel::fuzzing;  // NOLINT
  Sound();
  Input input(data, size);
  const std::string& scratch = Scratch::fresh();
  const std::string root = scratch + "/device", file = FileIn(root);
  Put(scratch + "/canary/file", "canary");
  Put(root + "/Staging/Payload/x/f", "staged");
  std::filesystem::create_directories(root + kContainers);
  std::filesystem::create_symlink("../canary", root + "/link");
  const std::size_t form = input.number(3);
  if (form == 0) {
    Put(file, Damaged(input));
  } else {
    const bool committed = input.number(2) == 1;
    const std::string content =
        form == 1 ? input.all() : quorvel::onlinux::EncodeIntent(Intent(input));
    RequireCodec(content);
    PutIntent(file, committed, content);
  }
  const std::string before = Get(file);
  if (!Use(root)) Require(Get(file) == before);
  Require(Get(scratch + "/canary/file") == "canary");
  for (const auto& entry : std::filesystem::directory_iterator(scratch + "/canary")) {
    Require(entry.path().filename() == "file");
  }
  return 0;
}
