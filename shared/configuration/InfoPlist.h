// Loading of bundles' info dictionaries.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/Path.h"
#include "platform/PlistValue.h"
#include "shared/support/Export.h"

namespace quorvel {

// The info dictionary of the bundle directory, as the caller's own copy: all of it, or only those
// of `keys` that it has. Null when there is none or it cannot be read; the reason is one line of
// the log (none when memory has run out), a missing "Info.plist" a debug line only.
//
// Any thread may call. All bundles of the process are read one at a time under one lock, which
// may be taken while the configuration's instance lock is held, never the other way round.
QV_EXPORT std::unique_ptr<PlistDictionary> QVLoadInfoPlist(
    const Path& bundle, const std::optional<std::set<std::string>>& keys);

}  // namespace quorvel
