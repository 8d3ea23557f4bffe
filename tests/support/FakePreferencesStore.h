// Preferences in memory, under the contract of platform/PreferencesStore.h.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/PreferencesStore.h"

namespace quorvel::testing {

// Stores made over one Storage are like processes on one device: each sees what the others have
// synchronized, and of its own also what is pending.
class FakePreferencesStore : public PreferencesStore {
 public:
  using Domain = std::pair<std::string, PreferencesScope>;
  struct Storage {
    std::mutex mutex;
    std::map<Domain, PlistDictionary> domains;
  };

  explicit FakePreferencesStore(std::shared_ptr<Storage> storage = std::make_shared<Storage>())
      : storage_(std::move(storage)) {}

  std::optional<PlistValue> copyValue(const std::string& key, const std::string& domain,
                                      PreferencesScope scope) override {
    const std::lock_guard guard(storage_->mutex);
    if (!isDomain(domain)) return std::nullopt;
    for (const auto* domains : {&pending_, &storage_->domains}) {
      const auto values = domains->find({domain, scope});
      const PlistValue* value = values != domains->end() ? values->second.find(key) : nullptr;
      if (value != nullptr) return std::optional<PlistValue>(std::in_place, *value);
    }
    return std::nullopt;
  }

  void setValue(const std::string& key, const PlistValue& value, const std::string& domain,
                PreferencesScope scope) override {
    const std::lock_guard guard(storage_->mutex);
    pending_[{domain, scope}].set(key, value);
  }

  bool synchronize(const std::string& domain, PreferencesScope scope) override {
    const std::lock_guard guard(storage_->mutex);
    if (!isDomain(domain)) return false;
    for (const PlistEntry& entry : pending_[{domain, scope}]) {
      storage_->domains[{domain, scope}].set(entry.key, entry.value);
    }
    pending_.erase({domain, scope});
    return true;
  }

  std::optional<std::string> stringFromUserDefaults(const std::string& key,
                                                    const std::string& domain) override {
    auto value = copyValue(key, domain, PreferencesScope::currentUserCurrentHost);
    if (!value) value = copyValue(key, domain, PreferencesScope::currentUserAnyHost);
    if (!value || value->string() == nullptr) return std::nullopt;
    return *value->string();
  }

 private:
  static bool isDomain(const std::string& domain) {
    return !domain.empty() && domain != "." && domain != ".." &&
           domain.find('/') == std::string::npos;
  }

  const std::shared_ptr<Storage> storage_;
  std::map<Domain, PlistDictionary> pending_;  // guarded by the storage's mutex
};

}  // namespace quorvel::testing
