// Preferences as property-list files.
//
// "<directory>/<domain>.plist" holds a domain's values for any host, and
// "<directory>/ByHost/<domain>.plist" those for the current host. Beside each stands
// ".<domain>.plist.lock", which a process locks while it changes the file and which stays. Files
// are replaced whole, so that readers need no lock. They are written in binary, which holds every
// value; either encoding is read.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "platform/Path.h"
#include "platform/PreferencesStore.h"

namespace quorvel::onlinux {

// Where the preferences of a user are, on the device at `root` ("" for the process's own root).
inline Path PreferencesDirectory(const std::string& root = "", const std::string& user = "mobile") {
  return Path::directory(root + "/private/var/" + user + "/Library/Preferences");
}

// Nothing is cached: a read that no pending change answers goes to the file. A domain that is no
// plain file name (it is empty, "." or "..", is too long, or has a slash) has no values and
// cannot be synchronized.
class PreferencesPlist : public PreferencesStore {
 public:
  // With `readOnly` nothing is ever stored: changes stay in this object, and synchronize is false.
  explicit PreferencesPlist(Path directory, bool readOnly = false)
      : directory_(std::move(directory)), readOnly_(readOnly) {}

  std::optional<PlistValue> copyValue(const std::string& key, const std::string& domain,
                                      PreferencesScope scope) override;
  void setValue(const std::string& key, const PlistValue& value, const std::string& domain,
                PreferencesScope scope) override;
  // Missing directories are created with mode 0755 and belong to whom the one above belongs. The
  // file keeps its owner, mode and attributes; a new one belongs to whom its directory belongs. A
  // file that cannot be understood is set aside as "<file>.damaged" (or ".damaged.2" and so on:
  // nothing is overwritten) and a new one begun; one that cannot be read at all makes this fail.
  // True without touching the disk where no change is pending, also when reading only. Changes made
  // by this process count over what the file has under the same keys, other keys stay as they are
  // in the file. Waits for whoever has the lock. After a failure nothing is lost: what is pending
  // stays so.
  bool synchronize(const std::string& domain, PreferencesScope scope) override;
  std::optional<std::string> stringFromUserDefaults(const std::string& key,
                                                    const std::string& domain) override;
  // The names that files which could not be understood got from this object, in order.
  std::vector<std::string> filesSetAside();

 private:
  // The serial tells a change from a later one of the same key.
  struct Change {
    PlistValue value;
    std::uint64_t serial = 0;
  };
  using Changes = std::map<std::string, Change>;
  using Domain = std::pair<std::string, PreferencesScope>;

  Path directoryFor(PreferencesScope scope) const;
  Changes pendingChanges(const Domain& domain);
  // Takes what was stored out of what is pending.
  void forget(const Domain& domain, const Changes& stored);

  const Path directory_;
  const bool readOnly_;
  std::mutex mutex_;  // guards what follows; never held during I/O
  std::map<Domain, Changes> pending_;
  std::uint64_t serial_ = 0;
  std::vector<std::string> setAside_;
};

}  // namespace quorvel::onlinux
