// The steps of the commands that prove a migration, which a rehearsal takes one after another.
#pragma once

#include "host/CommandLine.h"
#include "host/PluginBundle.h"
#include "host/console/DeviceRoot.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

// Enters the opened tree and writes its manifest to the file, then says so. The exit code.
// The file is opened by the caller, before the process enters the tree, where its path would mean
// something else. Failures are reported before this returns.
int SnapshotInto(DeviceRoot& root, const PluginBundle& bundle, UniqueDescriptor file,
                 const Options& options);

// Enters the opened tree and compares it with the manifest; `result` may be none. The exit code.
// Both files are only read.
int VerifyAgainst(DeviceRoot& root, UniqueDescriptor manifest, UniqueDescriptor result,
                  const Options& options);

}  // namespace quorvel::host
