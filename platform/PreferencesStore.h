// Preferences: named values per domain, user and host.
//
// Why a service: where and how preferences are kept is the platform's, and other processes read
// and write them at the same time.
#pragma once

#include <optional>
#include <string>

#include "platform/PlistValue.h"

namespace quorvel {

// Which of a domain's values are meant.
enum class PreferencesScope {
  currentUserCurrentHost,
  currentUserAnyHost,
};

// Any thread and any number of processes may call at the same time.
class PreferencesStore {
 public:
  virtual ~PreferencesStore() = default;
  // The value of the key, or none when it is absent or the domain cannot be read.
  virtual std::optional<PlistValue> copyValue(const std::string& key, const std::string& domain,
                                              PreferencesScope scope) = 0;
  // Remembers the value; synchronize() stores it. Visible to this process's reads at once.
  virtual void setValue(const std::string& key, const PlistValue& value, const std::string& domain,
                        PreferencesScope scope) = 0;
  // Brings pending changes of the domain to stable storage without losing what others wrote to
  // other keys. Whether that worked; pending changes stay pending otherwise.
  virtual bool synchronize(const std::string& domain, PreferencesScope scope) = 0;
  // The string under the key in the user's defaults of a domain (current host before any host);
  // none when there is no string.
  virtual std::optional<std::string> stringFromUserDefaults(const std::string& key,
                                                            const std::string& domain) = 0;
};

}  // namespace quorvel
