// The containers that --failing adds. Each is sound but for one thing.

#include "platform/DeviceNames.h"
#include "tools/legacy-image/LegacyImageDevice.h"

namespace quorvel::tools {
namespace {

using Notes = std::vector<std::string>;

std::string PlaceOf(const FailingCase& self) {
  return std::string(LegacyApplications) + "/" + self.name;
}

// Identifiers end with the case's name: every case is an app of its own and disturbs no other.
ContainerPlan SoundContainer(const FailingCase& self) {
  ContainerPlan plan;
  plan.name = self.name;
  plan.app.name = "Sound.app";
  plan.app.identifier = std::string("com.example.") + self.name;
  plan.dataBytes = 64;
  return plan;
}

ContainerPlan ContainerWithPlugin(const FailingCase& self) {
  ContainerPlan plan = SoundContainer(self);
  plan.plugin.name = "Tunnel.vpnplugin";
  plan.plugin.identifier = plan.app.identifier + ".vpn";
  return plan;
}

// A link may lead to another app's bundle, and must not move that.
void WriteLinkedApp(LegacyImageWriter& writer, LegacyImageRandom& random, const FailingCase& self,
                    Notes& notes) {
  WriteContainer(writer, random, SoundContainer(self), notes);
  writer.symbolicLink(PlaceOf(self) + "/Linked.app", "Sound.app");
}

void WriteLinkedPlugin(LegacyImageWriter& writer, LegacyImageRandom& random,
                       const FailingCase& self, Notes& notes) {
  WriteContainer(writer, random, SoundContainer(self), notes);
  writer.symbolicLink(PlaceOf(self) + "/Linked.vpnplugin", "/nowhere");
}

void WriteLinkedMarker(LegacyImageWriter& writer, LegacyImageRandom& random,
                       const FailingCase& self, Notes& notes) {
  const ContainerPlan plan = SoundContainer(self);
  WriteContainer(writer, random, plan, notes);
  // A good marker, which only the link makes unusable.
  writer.file(PlaceOf(self) + "/marker", PlistBytes(MarkerOf(plan), PropertyListFormat::xml));
  writer.symbolicLink(PlaceOf(self) + "/" + MigrationMarkerName, "marker");
}

// One hidden file, which a listing without hidden names would miss, and one directory with
// something in it.
void WriteLeftOver(LegacyImageWriter& writer, LegacyImageRandom& random, const FailingCase& self,
                   Notes& notes) {
  WriteContainer(writer, random, SoundContainer(self), notes);
  writer.file(PlaceOf(self) + "/.hidden notes", "of value to someone\n");
  writer.file(PlaceOf(self) + "/Photos/one.jpg", random.bytes(100));
}

void WriteUnregisteredPlugin(LegacyImageWriter& writer, LegacyImageRandom& random,
                             const FailingCase& self, Notes& notes) {
  ContainerPlan plan = ContainerWithPlugin(self);
  // Only the plug-in is left.
  plan.app = {};
  WriteContainer(writer, random, plan, notes);
}

// The plug-in beside it is whole, but nobody knows it: no reason to take anything away.
void WriteDamagedApp(LegacyImageWriter& writer, LegacyImageRandom& random, const FailingCase& self,
                     Notes& notes) {
  ContainerPlan plan = ContainerWithPlugin(self);
  plan.app.infoIsDamaged = true;
  WriteContainer(writer, random, plan, notes);
}

void WriteDamagedPlugin(LegacyImageWriter& writer, LegacyImageRandom& random,
                        const FailingCase& self, Notes& notes) {
  ContainerPlan plan = ContainerWithPlugin(self);
  plan.plugin.infoIsDamaged = true;
  WriteContainer(writer, random, plan, notes);
}

// Both have the same identifier, so that only one of them can be the registry's.
void WriteTwoApps(LegacyImageWriter& writer, LegacyImageRandom& random, const FailingCase& self,
                  Notes& notes) {
  const ContainerPlan plan = SoundContainer(self);
  WriteContainer(writer, random, plan, notes);
  BundlePlan second = plan.app;
  second.name = "Second.app";
  WriteBundle(writer, random, PlaceOf(self) + "/" + second.name, second, notes);
}

void WriteLostBundle(LegacyImageWriter& writer, LegacyImageRandom& random, const FailingCase& self,
                     Notes& notes) {
  ContainerPlan plan = SoundContainer(self);
  // As after a kill between staging and install; the registry then lost its record.
  plan.appIsStaged = true;
  WriteContainer(writer, random, plan, notes);
  WriteMarker(writer, plan, PlistBytes(MarkerOf(plan), PropertyListFormat::xml));
}

// Outside of it everything is the user's: it is neither followed nor removed.
void WriteLinkedContainer(LegacyImageWriter& writer, LegacyImageRandom& /*random*/,
                          const FailingCase& self, Notes& /*notes*/) {
  writer.symbolicLink(PlaceOf(self), "/private/var/mobile/Media");
}

void WriteNothing(LegacyImageWriter& /*writer*/, LegacyImageRandom& /*random*/,
                  const FailingCase& /*self*/, Notes& /*notes*/) {}

}  // namespace

const std::vector<FailingCase>& FailingCases() {
  // Names and reasons are shown by --help: one sentence each.
  static const std::vector<FailingCase> cases = {
      {"failing-linked-app", "an app bundle is a symbolic link: left alone", WriteLinkedApp},
      {"failing-linked-plugin", "a VPN plug-in is a symbolic link: left alone", WriteLinkedPlugin},
      {"failing-linked-marker", "the marker is a symbolic link: left alone", WriteLinkedMarker},
      {"failing-left-over", "items that no step moves: the app migrates, items and container stay",
       WriteLeftOver},
      {"failing-unregistered-plugin",
       "a VPN plug-in alone that the registry does not know: kept whole", WriteUnregisteredPlugin},
      {"failing-damaged-app",
       "the app's dictionary is cut off, the plug-in beside it unknown: kept whole",
       WriteDamagedApp},
      {"failing-damaged-plugin",
       "the plug-in's dictionary is cut off: the app migrates, the plug-in stays",
       WriteDamagedPlugin},
      {"failing-two-apps", "two app bundles: one migrates, the other and the container stay",
       WriteTwoApps},
      {"failing-lost-bundle",
       "a marker with a staged bundle, of an app the registry forgot: kept whole", WriteLostBundle},
      {"failing-linked-container", "a symbolic link among the containers: left alone",
       WriteLinkedContainer},
      {"safe harbors", "one whose directory is missing, and two damaged entries: the map stays",
       WriteNothing},  // written by WriteHarbors
  };
  return cases;
}

}  // namespace quorvel::tools
