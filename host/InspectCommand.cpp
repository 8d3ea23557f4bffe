#include <unistd.h>

#include <algorithm>

#include "host/Commands.h"
#include "host/HostServices.h"
#include "host/Inspection.h"
#include "host/console/DeviceRoot.h"
#include "host/console/ExitCode.h"
#include "host/console/Json.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

Json DirectoriesAsJson(const std::vector<InspectedDirectory>& directories) {
  Json list = Json::array();
  for (const InspectedDirectory& directory : directories) {
    Json object;
    object["identifier"] = directory.identifier;
    object["path"] = JsonOrNull(directory.path);
    object["exists"] = directory.exists;
    list.push_back(std::move(object));
  }
  return list;
}

std::string AsJson(const Inspection& inspection) {
  Json items = Json::array();
  for (const InspectedItem& item : inspection.items) {
    Json object;
    object["path"] = item.path;
    object["kind"] = item.kind;
    object["identifier"] = JsonOrNull(item.identifier);
    object["bundlePath"] = JsonOrNull(item.bundlePath);
    object["action"] = item.action;
    items.push_back(std::move(object));
  }
  Json object;
  object["items"] = std::move(items);
  object["groups"] = DirectoriesAsJson(inspection.groups);
  object["harbors"] = DirectoriesAsJson(inspection.harbors);
  return JsonLine(object);
}

std::string AsText(const Inspection& inspection) {
  std::size_t columns = 10;
  for (const InspectedItem& item : inspection.items) {
    columns = std::max(columns, DisplayWidth(Printable(item.identifier.value_or("-"))));
  }
  columns = std::min<std::size_t>(columns, 48);
  std::string text = inspection.items.empty() ? "No legacy containers.\n" : "";
  for (const InspectedItem& item : inspection.items) {
    text += Padded(Printable(item.kind), 10) + "  " +
            Padded(Printable(item.identifier.value_or("-")), columns) + "  " +
            Printable(Path(item.path).lastPathComponent()) + "\n" + std::string(12, ' ') +
            Printable(item.action) + "\n";
  }
  const auto append = [&text, columns](const char* label,
                                       const std::vector<InspectedDirectory>& list) {
    for (const InspectedDirectory& directory : list) {
      text += Padded(label, 10) + "  " + Padded(Printable(directory.identifier), columns) + "  " +
              Printable(directory.path.value_or("(damaged entry)")) +
              (directory.path && !directory.exists ? " (missing)" : "") + "\n";
    }
  };
  append("group", inspection.groups);
  append("harbor", inspection.harbors);
  return text;
}

}  // namespace

int RunInspect(const Options& options) {
  FatalError error;
  DeviceRoot root;
  HostServices services(DeviceAccess::look);
  if (!root.open(options.root, error) || !root.enter(ViewForLooking(root), error)) {
    return ReportFatal(error, options.json);
  }
  services.install();
  onlinux::RegistrySnapshot registry;
  Error failure;
  Inspection inspection;
  if (!services.registry().snapshot(&registry, &failure) ||
      !Inspector(services.set(), registry, LegacyLayoutOfDevice()).inspect(inspection, &failure)) {
    return ReportFatal({ExitFailed, root.printable() + ": " + Printable(failure.description()),
                        "Nothing was changed"},
                       options.json);
  }
  return WriteResult(options.json ? AsJson(inspection) : AsText(inspection), ExitSucceeded);
}

}  // namespace quorvel::host
