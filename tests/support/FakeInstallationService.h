// The installation service in memory.
#pragma once

#include <sys/stat.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileSystemRepresentation.h"
#include "platform/InstallationService.h"

namespace quorvel::tests {

class FakeInstallationService : public InstallationService {
 public:
  struct SafeHarbor {
    std::string identifier;
    std::string path;
    int containerType = 0;
    friend bool operator==(const SafeHarbor&, const SafeHarbor&) = default;
  };

  // Identifiers whose registration fails, and whether the protection update does.
  std::set<std::string> refusedIdentifiers;
  bool refuseDataProtection = false;

  // What was asked, in order, refused requests included.
  std::vector<SafeHarbor> registrations;
  std::vector<PlistDictionary> dataProtectionRequests;
  bool everyReservedArgumentWasNull = true;

  // What is recorded: by identifier, then container type.
  std::vector<SafeHarbor> safeHarbors() const {
    std::vector<SafeHarbor> all;
    for (const auto& [key, path] : harbors_) all.push_back({key.first, path, key.second});
    return all;
  }
  bool dataProtectionUpdated() const { return dataProtectionUpdated_; }

  int QuorvelRegisterSafeHarborForContainerType(const std::string& path,
                                                const std::string& identifier, int containerType,
                                                const PlistDictionary* options) override {
    registrations.push_back({identifier, path, containerType});
    if (options != nullptr) everyReservedArgumentWasNull = false;
    struct stat info {};
    if (refusedIdentifiers.contains(identifier) || path.empty() ||
        ::lstat(FileSystemRepresentation(path).c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
      return 0;
    }
    harbors_[{identifier, containerType}] = path;
    return 1;
  }

  int QuorvelUpdateContainerDataProtectionForMigratorOnly(const PlistDictionary& options) override {
    dataProtectionRequests.push_back(options);
    if (refuseDataProtection) return 0;
    dataProtectionUpdated_ = true;
    return 1;
  }

 private:
  std::map<std::pair<std::string, int>, std::string> harbors_;
  bool dataProtectionUpdated_ = false;
};

}  // namespace quorvel::tests
