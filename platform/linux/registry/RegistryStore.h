// The registry's records and intents, as the database holds them.
//
// Every lookup is one search in a tree by the whole key: its cost does not grow with the number
// of apps. Operations answer false (or nothing) when the database failed; failure() says why.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/FileSystem.h"
#include "platform/Path.h"
#include "platform/linux/registry/InstallIntent.h"
#include "platform/linux/registry/RegistryDatabase.h"
#include "platform/linux/registry/RegistryTypes.h"

namespace quorvel::onlinux {

// One thread at a time.
class RegistryStore {
 public:
  // Opens the database, making it when it is missing (not when `options.readOnly`: then an absent
  // one is an empty registry). True at once when it is open.
  bool open(FileSystem& fileSystem, const Path& directory, const RegistryOptions& options,
            Error* error);
  const Error& failure() const { return database_.failure(); }

  // Whether all that is stored can be read. In time linear in it.
  bool isSound(Error* error);

  // False when the database failed; the record is absent when there is none.
  // The record by its identifier.
  bool find(const std::string& identifier, std::optional<AppRecord>* record);
  // The container that a group has been given, absent when it has none.
  bool findGroup(const std::string& group, std::optional<std::string>* container);
  bool forEachApp(const std::function<void(const AppRecord&)>& visit);

  // Changes survive a kill at once, and a power cut from the next flush of the database's file
  // system on; of several the earlier one never goes alone.

  // Writes the intent and its new groups (identifier to container) in one transaction, forgets
  // the finished ones, and sets the id.
  bool begin(InstallIntent* intent, const std::map<std::string, std::string>& newGroups);
  // Replaces what is stored of an open intent.
  bool rewrite(const InstallIntent& intent);
  // Replaces the records by those of the intent; only its clean-up is left then.
  bool commit(InstallIntent* intent);
  // Forgets the intent with the next transaction, or when the store is closed: if that is lost,
  // the clean-up is repeated and finds nothing to do.
  void finish(const InstallIntent& intent) { finished_.push_back(intent.id); }
  // Those that are not finished, oldest first.
  bool openIntents(std::vector<InstallIntent>* intents);

  // Replaces an earlier one of the same identifier and type.
  bool putSafeHarbor(const SafeHarborRecord& harbor);
  bool safeHarbors(std::vector<SafeHarborRecord>* harbors);
  // Settings of the service: a number by name, 0 when never set.
  bool putSetting(const std::string& name, std::int64_t value);
  bool setting(const std::string& name, std::int64_t* value);

  ~RegistryStore();
  RegistryStore() = default;
  RegistryStore(const RegistryStore&) = delete;
  RegistryStore& operator=(const RegistryStore&) = delete;

 private:
  // What a lookup told last. It stays true until this connection writes: it holds the database
  // alone for as long as it is open.
  struct Found {
    std::string identifier;
    std::optional<AppRecord> record;
  };

  bool putRecord(const AppRecord& record);
  bool putIntent(const InstallIntent& intent);
  // Deletes what finish() noted; part of whatever transaction comes next, so that it costs no flush
  // of its own.
  bool forgetFinished();
  bool end(bool done);

  RegistryDatabase database_;
  bool absent_ = false;  // read-only, and there is no database
  bool waited_ = false;  // another process was waited for in vain: not again
  std::vector<std::int64_t> finished_;
  std::optional<Found> found_;
};

}  // namespace quorvel::onlinux
