// A marker, an install map and a harbor map of any content drive a whole migration of a small
// device, and once more what the first run left: nothing outside it changes, and no file of the
// user's goes without being told as lost by the tree that it was in.
#include <map>
#include <set>

#include "Ravelle/Ravelle.h"
#include "fuzz/Fuzzing.h"
#include "platform/linux/services/QVLinuxServices.h"
#include "shared/configuration/ConfigurationForRoot.h"
#include "shared/support/Platform.h"

namespace quorvel::fuzzing {
namespace {

namespace fs = std::filesystem;

const std::string kMobile = "/private/var/mobile";
const std::string kLegacy = kMobile + "/Applications";

const std::string kPaths[] = {"/",
                              kMobile,
                              kLegacy,
                              kLegacy + "/A",
                              kLegacy + "/A/A.app",
                              kLegacy + "/A/Documents",
                              kLegacy + "/A/T.vpnplugin",
                              kLegacy + "/B",
                              kLegacy + "/B/B.app",
                              kMobile + "/Groups/g",
                              kMobile + "/Groups",
                              kMobile + "/Harbors/h",
                              kMobile + "/Containers",
                              kMobile + "/Containers/Data",
                              "/private/var/quorveld",
                              "/../canary",
                              "../canary",
                              "/link",
                              "nowhere",
                              ""};
const char* const kSuffixes[] = {"", "", "", "/", "/..", "/.", "/Documents", "/A.app", "/x"};
const char* const kIdentifiers[] = {
    "com.example.a", "com.example.b", "com.example.a.t", "group.g", "", "..", "/"};
const char* const kTypes[] = {"App", "VPNBundle", "app", ""};

const std::string kUserFiles[] = {kLegacy + "/A/Documents/one",          kLegacy + "/A/Library/two",
                                  kLegacy + "/B/Documents/three",        kMobile + "/Groups/g/four",
                                  kMobile + "/Harbors/h/Documents/five", kMobile + "/Media/six"};

std::string ContentOf(const std::string& userFile) { return "what the user wrote: " + userFile; }

std::string Dictionary(const std::string& content) { return "<dict>" + content + "</dict>"; }
std::string List(const std::string& content) {
  return "<plist>" + Dictionary(content) + "</plist>";
}

// A path mostly of the device, under the key; now and then of a wrong kind, or none.
std::string Entry(const std::string& key, Input& input, const std::string& usual) {
  const std::size_t form = input.number(16);
  if (form == 0) return {};
  if (form == 1) return "<key>" + key + "</key><array/>";
  const std::string text = form == 2 ? input.text() : form < 8 ? usual : input.oneOf(kPaths);
  const std::string suffix = form < 8 ? std::string() : input.oneOf(kSuffixes);
  return "<key>" + key + "</key><string>" + text + suffix + "</string>";
}

std::string Marker(Input& input) {
  return List(Entry(RecordContainerPathKey, input, kLegacy + "/A") +
              Entry(RecordBundlePathKey, input, kLegacy + "/A/A.app") +
              Entry(RecordContainerTypeKey, input, input.oneOf(kTypes)) +
              Entry(RecordBundleIdentifierKey, input, input.oneOf(kIdentifiers)) +
              (input.number(2) == 0 ? "" : Entry(RecordSecondBundlePathKey, input, "")));
}

std::string Records(Input& input, const char* key, const std::string& usual) {
  std::string records;
  for (std::size_t left = input.number(4); left > 0; --left) {
    const std::string identifier = input.number(2) == 0 ? "group.g" : input.oneOf(kIdentifiers);
    records += "<key>" + identifier + "</key>" + Dictionary(Entry(key, input, usual));
  }
  return records;
}

// What the grammar says, any bytes instead, or nothing.
void PutList(const std::string& file, Input& input, const std::string& fromGrammar) {
  const std::size_t form = input.number(8);
  if (form == 0) return;
  Put(file, form == 1 ? input.text() : fromGrammar);
}

void PutBundle(const std::string& directory, const std::string& identifier) {
  Put(directory + "/Info.plist",
      List("<key>PKBundleIdentifier</key><string>" + identifier +
           "</string><key>PKBundleVersion</key><string>1</string>"
           "<key>PKApplicationGroups</key><array><string>group.g</string></array>"));
}

void MakeDevice(const std::string& root, Input& input) {
  for (const std::string& file : kUserFiles) Put(root + file, ContentOf(file));
  PutBundle(root + kLegacy + "/A/A.app", "com.example.a");
  PutBundle(root + kLegacy + "/A/T.vpnplugin", "com.example.a.t");
  PutBundle(root + kLegacy + "/B/B.app", "com.example.b");
  fs::create_symlink("../canary", root + "/link");
  fs::create_directories(root + "/tmp");
  PutList(root + kLegacy + "/A/" + MigrationMarkerName, input, Marker(input));
  PutList(root + kMobile + "/" + LegacyInstallMapPath, input,
          List("<key>GroupContainers</key>" +
               Dictionary(Records(input, InstallMapContainerKey, kMobile + "/Groups/g"))));
  PutList(root + kMobile + "/Library/Quorvel/" + HarborMapName, input,
          List(Records(input, HarborPathKey, kMobile + "/Harbors/h")));
}

using Places = std::map<std::string, std::string>;  // the path of each content

Places ContentsBelow(const std::string& root) {
  Places places;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const bool small = entry.is_regular_file() && !entry.is_symlink() && entry.file_size() < 200;
    if (small) places[Get(entry.path())] = entry.path();
  }
  return places;
}

// Which of the user's files went with which loss that was told. A file counts as told only when it
// lay in the tree that is said to have gone when the step began, and went before the next thing
// was told, so that no loss excuses another.
class LossAccount final : public MigrationAccount {
 public:
  void lost(const MigrationLoss& loss) override {
    const std::string tree = fs::weakly_canonical(loss.path).string();
    const Places now = ContentsBelow("/");
    std::uint64_t files = 0;
    for (const std::string& file : kUserFiles) {
      const auto before = before_.find(ContentOf(file));
      if (before == before_.end() || now.contains(before->first)) continue;
      const bool wasInside =
          before->second == tree || before->second.starts_with(tree == "/" ? tree : tree + "/");
      if (!wasInside) continue;
      told.insert(before->first);
      ++files;
    }
    Require(loss.complete && files <= loss.files);
    before_ = now;
  }
  void itemsFound(std::size_t /*count*/) override { before_ = ContentsBelow("/"); }
  void stepBegan(MigrationStep /*step*/) override { before_ = ContentsBelow("/"); }

  std::set<std::string> told;

 private:
  Places before_;
};

void Migrate(const std::string& root, LossAccount& account) {
  const auto services = QVLinuxServices::create(
      Path::directory(root), {.digests = false, .processWillEnterRoot = true}, nullptr);
  Require(services != nullptr);
  PlatformServices set = services->set();
  set.account = &account;
  QVInstallPlatformServices(&set);
  const Confinement confinement(root);
  {
    const auto configuration = ConfigurationForRoot::make(Path::directory("/"));
    QVRavelle plugin(*configuration);
    if (plugin.init() != nullptr) plugin.performMigration();
  }
  QVInstallPlatformServices(nullptr);
}

}  // namespace
}  // namespace quorvel::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;           // NOLINT
  using namespace quorvel::fuzzing;  // NOLINT
  Input input(data, size);
  const std::string& scratch = Scratch::fresh();
  const std::string root = scratch + "/device";
  Put(scratch + "/canary/file", "canary");
  MakeDevice(root, input);
  LossAccount account;
  for (int run = 1; run <= 2; ++run) {
    Migrate(root, account);
    const Places there = ContentsBelow(root);
    for (const std::string& file : kUserFiles) {
      Require(there.contains(ContentOf(file)) || account.told.contains(ContentOf(file)));
    }
  }
  Require(Get(scratch + "/canary/file") == "canary");
  Require(ContentsBelow(scratch + "/canary").size() == 1);
  return 0;
}
