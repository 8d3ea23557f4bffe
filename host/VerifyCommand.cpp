// verify: whether everything that a device held is still there.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "host/Commands.h"
#include "host/DeviceSections.h"
#include "host/HostServices.h"
#include "host/ProofCommands.h"
#include "host/console/ExitCode.h"
#include "host/console/Json.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"
#include "host/proof/Verification.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/Uninterrupted.h"
#include "platform/linux/system/Sha256Linux.h"

namespace quorvel::host {

namespace {

// What a program is told one by one; the totals count the others.
constexpr std::size_t kMostListed = 10'000;
// Larger than any run's result; a bound against what is none.
constexpr std::size_t kMostOfResult = 256 * 1024 * 1024;

std::string Text(const std::string& bytes) { return StringFromFileSystemRepresentation(bytes); }

Json AsJson(const ProofFinding& finding) {
  Json object;
  object["verdict"] = NameOf(finding.verdict);
  object["path"] = Text(finding.path);
  object["where"] = finding.where.empty() ? Json(nullptr) : Json(Text(finding.where));
  object["what"] = finding.what;
  object["reason"] = finding.reason.empty() ? Json(nullptr) : Json(finding.reason);
  object["items"] = finding.items;
  return object;
}

std::string AsText(const ProofFinding& finding) {
  std::string text = Padded(NameOf(finding.verdict), 12) + Printable(finding.path);
  if (finding.items > 1) text += " (" + std::to_string(finding.items) + " items)";
  const char* separator = ": ";
  for (const std::string& what : finding.what) {
    text += separator + what;
    separator = ", ";
  }
  if (!finding.reason.empty()) text += ": " + Printable(finding.reason);
  text += "\n";
  if (!finding.where.empty() && finding.where != finding.path) {
    text += std::string(12, ' ') + "now " + Printable(finding.where) + "\n";
  }
  return text;
}

// Told one after another: text at once, objects at the end.
// Text goes out as it is found, because a verification takes long and the first findings are what a
// person waits for. An object can only be written when it is whole.
class ToldFindings {
 public:
  explicit ToldFindings(bool json) : json_(json) {}

  void add(const ProofFinding& finding) {
    if (!json_) {
      (void)WriteWhole(STDOUT_FILENO, AsText(finding));
    } else if (list_.size() < kMostListed) {
      list_.push_back(AsJson(finding));
    } else {
      ++leftOut_;
    }
  }

  std::string asJson(const VerificationTotals& totals, bool succeeded) {
    Json object;
    object["succeeded"] = succeeded;
    addTotals(totals, object);
    object["findings"] = std::move(list_);
    object["findingsLeftOut"] = leftOut_;
    return JsonLine(object);
  }

  static std::string asText(const VerificationTotals& totals) {
    Json numbers;
    addTotals(totals, numbers);
    std::string text;
    for (const auto& [name, number] : numbers.items()) {
      text += (text.empty() ? "" : ", ") + std::to_string(number.get<std::uint64_t>()) + " " + name;
    }
    return text + ".\n";
  }

 private:
  static void addTotals(const VerificationTotals& totals, Json& object) {
    object["items"] = totals.items;
    object["arrived"] = totals.arrived;
    object["kept"] = totals.kept;
    object["changed"] = totals.changed;
    object["missing"] = totals.missing;
    object["lost"] = totals.lost;
    object["unproven"] = totals.unproven;
    object["unexplained"] = totals.unexplained;
  }

  const bool json_;
  Json list_ = Json::array();
  std::uint64_t leftOut_ = 0;
};

// What `migrate --json` printed says of the containers that went with something in them.
// Bounded and without trust: a result may come from anywhere, and excuses only what it names.
bool ReadResult(UniqueDescriptor file, ReportedLosses& losses) {
  std::string text;
  char piece[64 * 1024];
  ssize_t count = 1;
  while (count > 0 && text.size() <= kMostOfResult) {
    count = Uninterrupted([&] { return ::read(file.get(), piece, sizeof piece); });
    if (count > 0) text.append(piece, static_cast<std::size_t>(count));
  }
  const Json result = Json::parse(text, nullptr, false);
  if (count != 0 || !result.is_object() || !result.contains("containers") ||
      !result["containers"].is_array()) {
    return false;
  }
  const auto string = [](const Json& object, const char* key) {
    const auto at = object.find(key);
    return at != object.end() && at->is_string() ? at->get<std::string>() : std::string();
  };
  for (const Json& container : result["containers"]) {
    if (!container.is_object() || !container.contains("lost")) continue;
    const Json& lost = container["lost"];
    if (!lost.is_object()) continue;
    ReportedLoss& loss = losses[string(container, "path")];
    // Its words are quoted: they are not this command's own finding.
    loss.reason = "the run says: " + string(container, "outcome");
    const std::string reason = string(container, "reason");
    if (!reason.empty()) loss.reason += ", " + reason;
    if (!lost.contains("userDataItems") || !lost["userDataItems"].is_array()) continue;
    for (const Json& item : lost["userDataItems"]) {
      if (item.is_string()) loss.userDataItems.insert(item.get<std::string>());
    }
  }
  return true;
}

// What the registry held it must hold still, and a harbor is registered or in its map.
// By identifiers alone: where a record's containers are is shown by the items that are found in
// them.
void CheckRegistry(const ManifestHeader& before, const onlinux::RegistrySnapshot& now,
                   const Places& places, const std::set<std::string>& harborMap,
                   const FindingSink& sink, VerificationTotals& totals) {
  const auto missing = [&](const std::string& what, const std::string& identifier) {
    ++totals.missing;
    sink({Verdict::missing, identifier, {}, {}, what});
  };
  // A harbor that is still in the map is waiting for the next run.
  std::set<std::string> harbors = harborMap;
  for (const auto& harbor : now.safeHarbors) harbors.insert(harbor.identifier);
  const auto identifierOf = [](const Json& object) {
    const auto at = object.find("identifier");
    return at != object.end() && at->is_string() ? at->get<std::string>() : std::string();
  };
  for (const Json& record : before.records) {
    const std::string identifier = identifierOf(record);
    if (places.record(identifier) == nullptr) missing("the registry has no record", identifier);
  }
  for (const Json& harbor : before.harbors) {
    const std::string identifier = identifierOf(harbor);
    if (!harbors.contains(identifier)) missing("the harbor is not registered", identifier);
  }
  for (const ManifestSection& section : before.sections) {
    if (section.kind != SectionKind::harbor || harbors.contains(section.identifier)) continue;
    missing("the harbor is not registered", section.identifier);
  }
}

}  // namespace

int VerifyAgainst(DeviceRoot& root, UniqueDescriptor manifestFile, UniqueDescriptor result,
                  const Options& options) {
  FatalError error;
  HostServices services(DeviceAccess::look);
  onlinux::Sha256ProviderLinux digests;
  ReportedLosses reported;
  const auto fail = [&](int code, const std::string& problem, const char* remedy) {
    return ReportFatal({code, problem, remedy}, options.json);
  };
  if (result && !ReadResult(std::move(result), reported)) {
    return fail(ExitUsage, Printable(options.result) + ": no result of a migration",
                "Name what migrate --json printed with --result");
  }
  ManifestReader manifest(std::move(manifestFile));
  if (!manifest.readHeader()) {
    return fail(ExitFailed, Printable(options.manifest) + ": " + manifest.problem(),
                "Nothing was proven");
  }
  if (!root.enter(ViewForLooking(root), error)) return ReportFatal(error, options.json);
  services.install();
  onlinux::RegistrySnapshot registry;
  Error failure;
  VerificationTotals totals;
  ToldFindings findings(options.json);
  const FindingSink sink = [&findings](const ProofFinding& finding) { findings.add(finding); };
  bool done = services.registry().snapshot(&registry, &failure);
  if (done) {
    const Places places(registry, manifest.header(), reported);
    EntryReader reader(manifest.header().contents ? &digests : nullptr);
    CheckRegistry(manifest.header(), registry, places, HarborsOfMap(services), sink, totals);
    done = Verify(manifest, places, reader, sink, totals, &failure);
  }
  if (!done) {
    return fail(ExitFailed, root.printable() + ": " + Printable(failure.description()),
                "What was proven until then does not count");
  }
  // What was lost in order is no failure, unless the user says so.
  const bool succeeded = totals.isWhole() && !(options.strict && totals.lost > 0);
  return WriteResult(
      options.json ? findings.asJson(totals, succeeded) : ToldFindings::asText(totals),
      succeeded ? ExitSucceeded : ExitFailed);
}

int RunVerify(const Options& options) {
  FatalError error;
  DeviceRoot root;
  // Opened before the process enters the tree, where its path would mean something else.
  UniqueDescriptor manifest(::open(options.manifest.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!manifest) {
    return ReportFatal({ExitUsage, Printable(options.manifest) + ": " + ErrnoDescription(errno),
                        "Name a manifest that snapshot wrote"},
                       options.json);
  }
  UniqueDescriptor result;
  if (!options.result.empty()) {
    result.reset(::open(options.result.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!result) {
      return ReportFatal({ExitUsage, Printable(options.result) + ": " + ErrnoDescription(errno),
                          "Name what migrate --json printed with --result"},
                         options.json);
    }
  }
  if (!root.openDevice(options.root, error) || !root.lock(error))
    return ReportFatal(error, options.json);
  return VerifyAgainst(root, std::move(manifest), std::move(result), options);
}

}  // namespace quorvel::host
