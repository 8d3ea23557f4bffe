// Chooses what stands on a device, one function per kind of thing.
#include "tools/legacy-image/LegacyImageDevice.h"

#include <array>
#include <cstdio>

#include "platform/DeviceNames.h"
#include "tools/legacy-image/LegacyImageIcon.h"

namespace quorvel::tools {
namespace {

constexpr const char* kSharedGroup = "group.com.example.suite";
constexpr const char* kInstallMap = "private/var/mobile/Library/Caches/com.velto.quorvel.plist";
constexpr const char* kGroupParent = "private/var/mobile/Library/GroupContainers";
constexpr const char* kPreferences =
    "private/var/mobile/Library/Preferences/ByHost/com.velto.quorvel.plist";

// Bundle names that are hard on whoever prints, encodes or passes them on.
constexpr std::array<const char*, 14> kOddNames = {"Two Words",
                                                   "100% Juice",
                                                   "Line\nBreak",
                                                   "Caf\xC3\xA9 Notes",
                                                   "Raw\xFF\xFE Bytes",
                                                   "-rf",
                                                   "Quote\"s & <tags>'",
                                                   "Tab\tStop",
                                                   "\xE5\x9C\xB0\xE5\x9B\xB3",
                                                   "%@ %s %n",
                                                   "Control\x01",
                                                   "decomposed e\xCC\x81",
                                                   "dotted.name.v2",
                                                   "Phone \xF0\x9F\x93\xB1"};
constexpr std::array<const char*, 5> kOddContainers = {"Old Container ", "50% done ", "new\nline ",
                                                       "\xC3\xBC"
                                                       "ber ",
                                                       "raw\xF0\x28 "};

// With leading zeros, so that names sort as their numbers do.
std::string Numbered(const char* prefix, unsigned number) {
  char text[64];
  std::snprintf(text, sizeof text, "%s%04u", prefix, number);
  return text;
}

// Everything is written in one fixed order and draws from one sequence of numbers: the order is
// part of what makes two images alike.
class DeviceMaker {
 public:
  DeviceMaker(LegacyImageWriter& writer, const LegacyImageOptions& options)
      : writer_(writer), options_(options), random_(options.seed) {}

  LegacyImageResult make() {
    writeFrame();
    // Nothing else, so that what is measured grows with the apps alone.
    if (options_.plain) {
      for (unsigned i = 0; i < options_.apps; ++i) writePlainApp(i);
      return std::move(result_);
    }
    for (unsigned i = 0; i < options_.apps; ++i) writeApp(i);
    writeLonePlugins();
    writeBuiltInApps();
    writeInterrupted();
    writeStrays();
    writeInstallMap();
    WriteHarbors(writer_, random_, options_.failing);
    if (options_.failing) {
      for (const FailingCase& one : FailingCases()) {
        one.write(writer_, random_, one, result_.notes);
      }
    }
    return std::move(result_);
  }

 private:
  void writeFrame();
  void writePlainApp(unsigned number);
  void writeApp(unsigned number);
  BundlePlan appBundle(unsigned number);
  void chooseIcon(unsigned number, BundlePlan& bundle);
  void joinGroups(unsigned number, BundlePlan& bundle);
  std::string containerName(unsigned number);
  void writeGroup(const std::string& identifier);
  void writeLonePlugins();
  void writeBuiltInApps();
  void writeInterrupted();
  void writeBegun(const char* identifier, std::string_view marker);
  void writeStaged();
  void writeStrays();
  void writeInstallMap();
  void write(const ContainerPlan& plan) { WriteContainer(writer_, random_, plan, result_.notes); }
  ContainerPlan simpleContainer(const std::string& stem, const std::string& identifier);

  LegacyImageWriter& writer_;
  const LegacyImageOptions& options_;
  LegacyImageRandom random_;
  LegacyImageResult result_;
  // Filled while apps are written and written itself at the end, when all groups are known.
  PlistDictionary groups_;  // the groups of the install map
  std::string plainIcon_;
};

// What is there whatever the options.
void DeviceMaker::writeFrame() {
  writer_.directory("Applications");
  writer_.directory("private/var/tmp", 01777);
  writer_.directory(LegacyApplications);
  writer_.directory("private/var/mobile/Library/Logs");
  writer_.directory("private/var/quorveld");
  // As devices have them: paths through these links lead into the tree.
  writer_.symbolicLink("var", "private/var");
  writer_.symbolicLink("tmp", "private/var/tmp");
}

// Nothing about it is odd; callers change what they are about.
ContainerPlan DeviceMaker::simpleContainer(const std::string& stem, const std::string& identifier) {
  ContainerPlan plan;
  plan.name = random_.uuid();
  plan.app.name = stem + ".app";
  plan.app.identifier = identifier;
  plan.dataBytes = options_.dataBytes;
  return plan;
}

// For measurements: all alike, so that the time per app is one number.
void DeviceMaker::writePlainApp(unsigned number) {
  ContainerPlan plan =
      simpleContainer(Numbered("App", number), Numbered("com.example.app", number));
  if (options_.icons) {
    if (plainIcon_.empty()) plainIcon_ = DrawIcon(IconForm::rgba120, options_.seed);
    plan.app.iconName = plan.app.iconFile = "Icon.png";
    plan.app.iconBytes = plainIcon_;
  }
  write(plan);
}

// The number of the app decides, not chance: every form is there from a small number of apps on.
void DeviceMaker::chooseIcon(unsigned number, BundlePlan& bundle) {
  // The numbers here have no common divisors, so that forms mix.
  if (!options_.icons || number % 9 == 8) return;  // an app without an icon
  bundle.iconBytes = DrawIcon(static_cast<IconForm>(number % IconFormCount), random_.next());
  switch (number % 4) {
    case 0:  // named without its extension
      bundle.iconName = "AppIcon";
      bundle.iconFile = "AppIcon.png";
      break;
    case 1:
      bundle.iconName = bundle.iconFile = "Art/Icon 120.png";
      break;
    case 2:  // not named at all
      bundle.iconFile = "Icon.png";
      break;
    default:
      bundle.iconName = bundle.iconFile = "Icon.png";
      break;
  }
  if (number % 13 == 12) bundle.iconBytes.resize(bundle.iconBytes.size() / 2);  // a broken one
}

void DeviceMaker::writeGroup(const std::string& identifier) {
  // Several apps share one.
  if (groups_.find(identifier) != nullptr) return;
  const std::string directory = std::string(kGroupParent) + "/" + random_.uuid();
  writer_.file(directory + "/shared.db", random_.bytes(512));
  writer_.file(directory + "/Library/Preferences/" + identifier + ".plist", random_.bytes(64));
  // Group containers are moved item by item: odd names matter.
  writer_.file(directory + "/new\nline \xFF", "odd\n");
  writer_.symbolicLink(directory + "/current", "shared.db");
  PlistDictionary entry;
  entry.set("Container", "/" + directory);
  entry.set("Created", PlistDate{421692800});
  groups_.set(identifier, entry);
}

void DeviceMaker::joinGroups(unsigned number, BundlePlan& bundle) {
  if (number % 4 == 0) bundle.groups.emplace_back(kSharedGroup);
  if (number % 6 == 1) bundle.groups.push_back("group." + bundle.identifier);
  for (const std::string& group : bundle.groups) writeGroup(group);
  // Groups whose entries lead nowhere: told in the log, and no failure.
  if (number == 2) {
    bundle.groups.insert(bundle.groups.end(), {"group.com.example.gone", "group.com.example.nopath",
                                               "group.com.example.unknown"});
  }
}

BundlePlan DeviceMaker::appBundle(unsigned number) {
  BundlePlan bundle;
  const bool isOdd = number % 2 == 1;
  bundle.name =
      (isOdd ? std::string(kOddNames[number / 2 % kOddNames.size()]) : Numbered("App", number)) +
      ".app";
  if (number % 16 == 10) bundle.name = std::string(251, 'L') + ".app";  // as long as a name can be
  bundle.identifier =
      Numbered(number % 10 == 5 ? "com.example.caf\xC3\xA9 %" : "com.example.app", number);
  bundle.version = std::to_string(1 + number % 3) + "." + std::to_string(number % 10);
  bundle.infoFormat = number % 3 == 1 ? PropertyListFormat::binary : PropertyListFormat::xml;
  bundle.isPlaceholder = number % 10 == 9;
  chooseIcon(number, bundle);
  joinGroups(number, bundle);
  return bundle;
}

std::string DeviceMaker::containerName(unsigned number) {
  if (number % 8 != 6) return random_.uuid();
  return kOddContainers[number / 8 % kOddContainers.size()] + std::to_string(number);
}

void DeviceMaker::writeApp(unsigned number) {
  ContainerPlan plan;
  plan.name = containerName(number);
  plan.app = appBundle(number);
  if (number % 5 == 3 && !plan.app.isPlaceholder) {
    plan.plugin.name = number % 2 == 0 ? "Tunnel.vpnplugin" : "Tunnel 100%.vpnplugin";
    plan.plugin.identifier = plan.app.identifier + ".vpn";
    plan.plugin.infoFormat = PropertyListFormat::binary;
  }
  for (std::size_t i = 0; i < StoreMetadataItemNames.size() && !plan.app.isPlaceholder; ++i) {
    if (number % 2 == 0 || number % StoreMetadataItemNames.size() == i)
      plan.metadata.emplace_back(StoreMetadataItemNames[i]);
  }
  plan.dataBytes = options_.dataBytes;
  plan.hasTillkit = number % 3 == 0;
  plan.hasOddData = number % 8 == 4;
  write(plan);
}

// Plug-ins without an app migrate only when the registry knows them.
void DeviceMaker::writeLonePlugins() {
  for (const char* stem : {"Anchor", "Bridge \xC3\xA9"}) {
    ContainerPlan plan = simpleContainer("", "");
    plan.app = {};
    plan.plugin.name = std::string(stem) + ".vpnplugin";
    plan.plugin.identifier = "com.example.vpn." + std::string(stem, 6);
    result_.registered.push_back(plan.plugin.identifier);
    write(plan);
  }
}

// Built-in apps, and legacy copies of them: an older one, which the built-in one makes needless,
// and a newer one, which is installed over it.
void DeviceMaker::writeBuiltInApps() {
  for (const char* name : {"Compass", "Ledger", "Metronome"}) {
    BundlePlan bundle;
    bundle.name = std::string(name) + ".app";
    bundle.identifier = "com.velto." + std::string(name);
    bundle.version = "12.0";
    bundle.infoFormat = PropertyListFormat::binary;
    WriteBundle(writer_, random_, "Applications/" + bundle.name, bundle, result_.notes);
  }
  ContainerPlan older = simpleContainer("Compass", "com.velto.Compass");
  older.app.version = "2.1";
  write(older);
  ContainerPlan newer = simpleContainer("Ledger", "com.velto.Ledger");
  newer.app.version = "12.0.1";
  write(newer);
  // On the installation blacklist, which a migration skips.
  // Its identifier is the list's only entry.
  write(simpleContainer("Updater", "com.velto.Kyo6Updater"));
}

// A container as a killed migration left it right after its first step, with this marker file.
void DeviceMaker::writeBegun(const char* identifier, std::string_view marker) {
  const ContainerPlan plan = simpleContainer("Begun", identifier);
  write(plan);
  const std::string whole = PlistBytes(MarkerOf(plan), PropertyListFormat::xml);
  WriteMarker(writer_, plan, marker == "whole" ? whole : marker);
  if (marker == "whole") {
    writer_.file(
        std::string(LegacyApplications) + "/" + plan.name + "/com.velto.quorvel.migration_marker",
        "");
  }
}

// Containers whose data has gone and whose bundles are in the staging directory, of apps that the
// registry knows without our help: a built-in one, and a plug-in that is to be registered.
void DeviceMaker::writeStaged() {
  ContainerPlan app = simpleContainer("Metronome", "com.velto.Metronome");
  app.app.version = "13.0";
  app.appIsStaged = true;
  app.plugin.name = "Beat.vpnplugin";  // not staged yet: stopped between the two moves
  app.plugin.identifier = "com.velto.Metronome.vpn";
  app.metadata = {StoreManifestName, StoreGeoName};
  PlistDictionary marker = MarkerOf(app);
  // Keys of others are kept through every rewriting of a marker.
  marker.set("Note", "a key that the migration does not know");
  write(app);
  WriteMarker(writer_, app, PlistBytes(marker, PropertyListFormat::binary));

  ContainerPlan plugin = simpleContainer("", "");
  plugin.app = {};
  plugin.plugin.name = "Staged.vpnplugin";
  plugin.plugin.identifier = "com.example.vpn.Staged";
  plugin.pluginIsStaged = true;
  result_.registered.push_back(plugin.plugin.identifier);
  write(plugin);
  WriteMarker(writer_, plugin, PlistBytes(MarkerOf(plugin), PropertyListFormat::xml));
}

void DeviceMaker::writeInterrupted() {
  writeBegun("com.example.begun.whole", "whole");
  writeBegun("com.example.begun.empty", "");
  writeBegun("com.example.begun.truncated", "<?xml version=\"1.0\"?>\n<plist><dict><key>Contai");
  writeBegun("com.example.begun.garbage", std::string_view("bplist00\xFF\0\0\x7F", 12));
  writeStaged();
}

// What lies in the legacy applications directory and is no app: a migration removes it.
void DeviceMaker::writeStrays() {
  const std::string applications = LegacyApplications;
  writer_.file(applications + "/WhereDidMyApplicationsGo.txt", "They have moved.\n");
  writer_.file(applications + "/stray file\n100%", "left by nobody\n");
  writer_.directory(applications + "/" + random_.uuid());
  writer_.file(applications + "/" + random_.uuid() + "/Documents/orphan.txt", "no app left\n");
}

void DeviceMaker::writeInstallMap() {
  // One that no app claims: it stays behind and is told.
  writeGroup("group.com.example.of-no-app");
  PlistDictionary gone;
  gone.set("Container", std::string("/") + kGroupParent + "/gone");
  groups_.set("group.com.example.gone", gone);
  groups_.set("group.com.example.nopath", PlistDictionary());
  // An entry that is no dictionary.
  groups_.set("group.com.example.unknown", 7);
  PlistDictionary map;
  map.set(InstallMapGroupsKey, groups_);
  map.set("Version", 3);
  writer_.file(kInstallMap, PlistBytes(map, PropertyListFormat::binary));
  // A preference that differs from its default, and one that is a number.
  PlistDictionary preferences;
  preferences.set("LowerInstallPriority", false);
  preferences.set(SimultaneousInstallsNumberKey, 2);
  writer_.file(kPreferences, PlistBytes(preferences, PropertyListFormat::binary));
}

}  // namespace

LegacyImageResult WriteDevice(LegacyImageWriter& writer, const LegacyImageOptions& options) {
  return DeviceMaker(writer, options).make();
}

void WriteHarbors(LegacyImageWriter& writer, LegacyImageRandom& random, bool failing) {
  PlistDictionary harbors;
  for (unsigned i = 0; i < 3; ++i) {
    const std::string directory = "private/var/mobile/Library/SafeHarbors/" + random.uuid();
    writer.file(directory + "/Documents/kept.bin", random.bytes(200));
    PlistDictionary entry;
    entry.set(HarborPathKey, "/" + directory);
    harbors.set(Numbered("com.example.uninstalled", i), entry);
  }
  if (failing) {
    PlistDictionary missing;
    missing.set(HarborPathKey, "/private/var/mobile/Library/SafeHarbors/missing");
    harbors.set("com.example.harbor.missing", missing);
    PlistDictionary wrong;
    wrong.set(HarborPathKey, 42);
    harbors.set("com.example.harbor.wrong", wrong);
    harbors.set("com.example.harbor.number", 7);
  }
  writer.file("private/var/mobile/Library/Quorvel/SafeHarbor.plist",
              PlistBytes(harbors, PropertyListFormat::xml));
}

}  // namespace quorvel::tools
