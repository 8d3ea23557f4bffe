// Writes a bundle, its data and what lies beside it.
#include "tools/legacy-image/LegacyImageApp.h"

#include <algorithm>

#include "platform/DeviceNames.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/linux/plist/PropertyList.h"

namespace quorvel::tools {
namespace {

std::string StemOf(const std::string& bundleName) {
  return bundleName.substr(0, bundleName.rfind('.'));
}

PlistDictionary InfoOf(const BundlePlan& plan) {
  const std::string stem = StringFromFileSystemRepresentation(StemOf(plan.name));
  PlistDictionary info;
  info.set("PKBundleIdentifier", plan.identifier);
  info.set("PKBundleVersion", plan.version);
  info.set("PKBundleShortVersionString", plan.version);
  info.set("PKBundleDisplayName", stem);
  info.set("PKBundleExecutable", stem);
  // Keys that nobody reads, of kinds that the others do not have.
  info.set("MinimumSystemVersion", 7.0);
  info.set("RequiresNetwork", false);
  if (!plan.iconName.empty()) info.set("PKBundleIconFile", plan.iconName);
  if (!plan.groups.empty()) {
    info.set("PKApplicationGroups", PlistArray(plan.groups.begin(), plan.groups.end()));
  }
  return info;
}

// Random bytes in pieces, so that a file may be larger than memory.
void WriteData(LegacyImageWriter& writer, LegacyImageRandom& random, const std::string& path,
               std::uint64_t size) {
  // 64 MiB.
  constexpr std::uint64_t step = std::uint64_t{64} << 20U;
  for (std::uint64_t part = 0; part == 0 || part * step < size; ++part) {
    const std::string name = part == 0 ? path : path + "." + std::to_string(part);
    const std::uint64_t bytes = std::min(step, size - part * step);
    writer.file(name, random.bytes(static_cast<std::size_t>(bytes)));
  }
}

void WriteUserData(LegacyImageWriter& writer, LegacyImageRandom& random,
                   const std::string& container, const ContainerPlan& plan,
                   std::vector<std::string>& notes) {
  const std::string& identifier =
      plan.app.name.empty() ? plan.plugin.identifier : plan.app.identifier;
  WriteData(writer, random, container + "/Documents/data.bin", plan.dataBytes);
  PlistDictionary settings;
  settings.set("LaunchCount", static_cast<std::int64_t>(random.next() % 1000));
  writer.file(container + "/Library/Preferences/" + identifier + ".plist",
              PlistBytes(settings, PropertyListFormat::binary), 0600);
  writer.directory(container + "/tmp");
  if (plan.hasTillkit) writer.file(container + "/Tillkit/receipt", random.bytes(600), 0600);
  if (plan.hasOddData) WriteOddData(writer, random, container + "/Documents", notes);
}

std::string LegacyPath(const ContainerPlan& plan) {
  return "/" + std::string(LegacyApplications) + "/" + plan.name;
}

}  // namespace

std::string PlistBytes(const PlistDictionary& dictionary, PropertyListFormat format) {
  std::vector<std::uint8_t> bytes;
  onlinux::SerializePropertyList(dictionary, format, bytes, nullptr);
  return {bytes.begin(), bytes.end()};
}

void WriteBundle(LegacyImageWriter& writer, LegacyImageRandom& random, const std::string& directory,
                 const BundlePlan& plan, std::vector<std::string>& notes) {
  const std::string info = PlistBytes(InfoOf(plan), plan.infoFormat);
  writer.file(directory + "/Info.plist",
              plan.infoIsDamaged ? std::string_view(info).substr(0, info.size() / 2) : info);
  if (!plan.iconFile.empty()) writer.file(directory + "/" + plan.iconFile, plan.iconBytes);
  if (plan.isPlaceholder) {
    if (!writer.attribute(directory, (std::string("user.") + PlaceholderAttributeName).c_str(),
                          std::string_view("\1\0\0\0", 4))) {
      notes.push_back(directory +
                      ": the file system keeps no extended attributes, so that the "
                      "bundle is not marked as a placeholder");
    }
    return;  // a placeholder has no code
  }
  writer.file(directory + "/" + StemOf(plan.name), "#!/bin/false\n" + random.bytes(256), 0755);
  writer.file(directory + "/Resources/strings", "title = \"" + plan.identifier + "\";\n");
}

void WriteContainer(LegacyImageWriter& writer, LegacyImageRandom& random, const ContainerPlan& plan,
                    std::vector<std::string>& notes) {
  const std::string container = std::string(LegacyApplications) + "/" + plan.name;
  const bool isBegun = plan.appIsStaged || plan.pluginIsStaged;
  const auto inContainer = [&](const std::string& name, bool staged) {
    std::string path = container;
    path += staged ? "/Staging/Payload/" : "/";
    return path += name;
  };
  if (!plan.app.name.empty()) {
    WriteBundle(writer, random, inContainer(plan.app.name, plan.appIsStaged), plan.app, notes);
  }
  if (!plan.plugin.name.empty()) {
    WriteBundle(writer, random, inContainer(plan.plugin.name, plan.pluginIsStaged), plan.plugin,
                notes);
  }
  // The data has gone before anything is staged; the metadata follows the bundles.
  if (!isBegun) WriteUserData(writer, random, container, plan, notes);
  for (const std::string& name : plan.metadata) {
    PlistDictionary item;
    item.set("Item", name);
    item.set("Price", 0.99);
    writer.file(inContainer(name, false), name.ends_with(".plist")
                                              ? PlistBytes(item, PropertyListFormat::xml)
                                              : random.bytes(300));
  }
}

PlistDictionary MarkerOf(const ContainerPlan& plan) {
  const auto text = [](const std::string& bytes) {
    return PlistValue(StringFromFileSystemRepresentation(bytes));
  };
  const bool isApp = !plan.app.name.empty();
  const std::string container = LegacyPath(plan);
  PlistDictionary marker;
  marker.set("ContainerPath", text(container));
  marker.set("BundlePath", text(container + "/" + (isApp ? plan.app.name : plan.plugin.name)));
  marker.set("BundleIdentifier", isApp ? plan.app.identifier : plan.plugin.identifier);
  marker.set("ContainerType", isApp ? "App" : "VPNBundle");
  if (isApp && !plan.plugin.name.empty()) {
    marker.set("SecondBundlePath", text(container + "/" + plan.plugin.name));
  }
  return marker;
}

void WriteMarker(LegacyImageWriter& writer, const ContainerPlan& plan, std::string_view bytes) {
  writer.file(std::string(LegacyApplications) + "/" + plan.name + "/" + MigrationMarkerName, bytes);
}

void WriteOddData(LegacyImageWriter& writer, LegacyImageRandom& random,
                  const std::string& directory, std::vector<std::string>& notes) {
  const auto at = [&](const std::string& name) { return directory + "/" + name; };
  // Formats, line ends, bytes that are no text, options, hidden names.
  for (const char* name : {"Report 100%.txt", "line\nbreak", "caf\xC3\xA9", "raw\xFF\xFEname",
                           "-dash", "control\x01", "back\\slash", "%@ %s %n", "..."}) {
    writer.file(at(name), random.bytes(40));
  }
  // NAME_MAX, and read-only for its owner.
  writer.file(at(std::string(255, 'n')), "the longest name\n", 0400);
  writer.symbolicLink(at("link"), "Report 100%.txt");
  writer.symbolicLink(at("dangling link"), "/nowhere/\xFF");
  writer.hardLink(at("second name"), at("-dash"));
  writer.sparseFile(at("sparse"), std::uint64_t{1} << 20U, "end");
  writer.directory(at("empty"), 0555);
  std::string deep = at("deep");
  // Deeper than what a walk keeps open.
  for (int level = 0; level < 30; ++level) deep += "/level " + std::to_string(level);
  writer.file(deep + "/bottom", "reached\n");
  writer.fifo(at("pipe"));
  if (!writer.attribute(at("Report 100%.txt"), "user.com.example.tag", "green")) {
    notes.push_back(directory + ": the file system keeps no extended attributes");
  }
}

}  // namespace quorvel::tools
