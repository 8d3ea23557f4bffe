// snapshot: what a device holds before a migration.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "host/Commands.h"
#include "host/DeviceSections.h"
#include "host/HostServices.h"
#include "host/ProofCommands.h"
#include "host/RunAccount.h"
#include "host/console/ExitCode.h"
#include "host/console/Json.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"
#include "host/proof/Snapshot.h"
#include "platform/Path.h"
#include "platform/linux/system/Sha256Linux.h"

namespace quorvel::host {

namespace {

// Standard output where no file is named. A manifest in the tree would change what it is about.
bool OpenOutput(const DeviceRoot& root, const Options& options, UniqueDescriptor& file,
                FatalError& error) {
  if (options.output.empty()) {
    // A copy: closing the manifest must not close standard output.
    file.reset(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  } else if (root.contains(ParentOf(options.output))) {
    return Fail(error, ExitUsage, Printable(options.output) + ": no place outside the device tree",
                "Name a file elsewhere with --output");
  } else {
    file.reset(
        ::open(options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0600));
  }
  return file || Fail(error, ExitUsage, Printable(options.output) + ": " + ErrnoDescription(errno),
                      "Name a file that can be written with --output");
}

std::string AsJson(const SnapshotTotals& totals, double seconds) {
  Json object;
  object["items"] = totals.items;
  object["bytes"] = totals.bytes;
  object["unreadable"] = totals.unreadable;
  object["seconds"] = seconds;
  return JsonLine(object);
}

// The number of unreadable items is said in a sentence of its own, as a later verification can
// prove nothing about them.
std::string AsText(const SnapshotTotals& totals) {
  std::string text = "Listed " + std::to_string(totals.items) + " items, " +
                     std::to_string(totals.bytes) + " bytes.\n";
  if (totals.unreadable > 0) {
    text += std::to_string(totals.unreadable) +
            " of them could not be read (whole); nobody can prove what becomes of these.\n";
  }
  return text;
}

}  // namespace

// The plug-in is asked what a migration would do, so that the manifest says which losses were
// foreseen before there were any.
int SnapshotInto(DeviceRoot& root, const PluginBundle& bundle, UniqueDescriptor file,
                 const Options& options) {
  const auto start = std::chrono::steady_clock::now();
  FatalError error;
  HostServices services(DeviceAccess::look);
  onlinux::Sha256ProviderLinux digests;
  if (!root.enter(ViewForLooking(root), error)) return ReportFatal(error, options.json);
  services.install();
  onlinux::RegistrySnapshot registry;
  RunAccount foreseen;
  Error failure;
  SnapshotTotals totals;
  const auto preview = bundle.createPreview(error);
  if (preview == nullptr) return ReportFatal(error, options.json);
  EntryReader reader(options.fast ? nullptr : &digests);
  ManifestWriter writer(std::move(file), options.gzip);
  bool done =
      services.registry().snapshot(&registry, &failure) && preview->preview(foreseen, &failure);
  if (done) {
    ManifestHeader header = DescribeDevice(services, registry, foreseen);
    header.contents = !options.fast;
    done = WriteSnapshot(header, reader, writer, totals, &failure);
  }
  if (!done) {
    return ReportFatal({ExitFailed, root.printable() + ": " + Printable(failure.description()),
                        "There is no whole manifest of the device"},
                       options.json);
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  // A rehearsal lists the tree twice and has its own report.
  if (options.quiet) return ExitSucceeded;
  if (options.json) return WriteResult(AsJson(totals, taken.count()), ExitSucceeded);
  // Standard output may be the manifest's.
  (void)WriteWhole(STDERR_FILENO, AsText(totals));
  return ExitSucceeded;
}

int RunSnapshot(const Options& options) {
  FatalError error;
  DeviceRoot root;
  PluginBundle bundle;
  UniqueDescriptor file;
  if (options.json && options.output.empty()) {
    return ReportFatal({ExitUsage, "--json: standard output is the manifest's",
                        "Name a file for the manifest with --output"},
                       true);
  }
  // Everything from outside first; then nobody else may work in the tree.
  if (!root.openDevice(options.root, error) || !bundle.load(options.plugin, error) ||
      !OpenOutput(root, options, file, error) || !root.lock(error)) {
    return ReportFatal(error, options.json);
  }
  return SnapshotInto(root, bundle, std::move(file), options);
}

}  // namespace quorvel::host
