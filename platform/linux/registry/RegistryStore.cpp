// The schema, and rows to records and back.
#include "platform/linux/registry/RegistryStore.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/DeviceNames.h"
#include "platform/linux/files/DurableDirectory.h"
#include "platform/linux/registry/IntentCodec.h"
#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {
namespace {

constexpr std::int32_t kApplicationId = 0x51565247;  // "QVRG"
constexpr int kSchemaVersion = 1;

// Texts are compared bytewise, so that any identifier is a key. `groups` and `content` are lists
// as IntentCodec.h writes them.
constexpr const char* kSchema = R"(
  CREATE TABLE apps(identifier TEXT PRIMARY KEY NOT NULL, type TEXT NOT NULL,
                    version TEXT NOT NULL, bundle_container TEXT, bundle_name TEXT NOT NULL,
                    data_container TEXT, groups BLOB NOT NULL, placeholder INTEGER NOT NULL,
                    staging TEXT NOT NULL, obsolete INTEGER NOT NULL) WITHOUT ROWID;
  CREATE TABLE groups(identifier TEXT PRIMARY KEY NOT NULL, container TEXT NOT NULL) WITHOUT ROWID;
  CREATE TABLE intents(id INTEGER PRIMARY KEY, committed INTEGER NOT NULL,
                       content BLOB NOT NULL);
  CREATE TABLE harbors(identifier TEXT NOT NULL, type INTEGER NOT NULL, path TEXT NOT NULL,
                       PRIMARY KEY(identifier, type)) WITHOUT ROWID;
  CREATE TABLE settings(name TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL) WITHOUT ROWID;
)";

// The order in which RecordOf() reads and putRecord() binds.
#define QV_APP_COLUMNS                                                                \
  "identifier, type, version, bundle_container, bundle_name, data_container, groups," \
  " placeholder, staging, obsolete"

// False with the failure set when its list of groups is none: fewer groups would be made of it, and
// what the app shares with others be taken from it.
bool RecordOf(const Query& query, RegistryDatabase& database, AppRecord* record) {
  *record = {query.text(0),
             query.text(1),
             query.text(2),
             query.optionalText(3),
             query.text(4),
             query.optionalText(5),
             {},
             query.number(7) != 0,
             query.text(8),
             query.number(9) != 0};
  if (DecodeList(query.text(6), &record->groups)) return true;
  database.setFailure(RegistryFailure(RegistryErrorCode::damagedStore,
                                      "The application registry: a record is damaged"));
  return false;
}

}  // namespace

RegistryStore::~RegistryStore() {
  // If this fails the clean-up is repeated, which does no harm.
  if (database_.isOpen() && !finished_.empty() && database_.begin() && forgetFinished()) {
    database_.commit();
  }
}

bool RegistryStore::open(FileSystem& fileSystem, const Path& directory,
                         const RegistryOptions& options, Error* error) {
  if (database_.isOpen() || absent_) return true;
  const FileSystemRepresentation bytes(directory.string());
  const DatabaseOptions database{kSchema, kApplicationId, kSchemaVersion, options.readOnly,
                                 waited_ ? 0 : options.busyTimeoutMilliseconds};
  struct stat info {};
  const std::string file = std::string(bytes.c_str()) + "/" + RegistryFileName;
  if (::lstat(file.c_str(), &info) != 0) {
    if (errno != ENOENT) return Fail(file, error);
    absent_ = options.readOnly;
    // Nothing is stored: nothing can be damaged.
    if (absent_) return true;
    // Both are stored when they return: a record must not be lost with the directory that holds the
    // database.
    if (!MakeDurableDirectory(fileSystem, bytes.c_str(), error) ||
        !RegistryDatabase::create(bytes.c_str(), RegistryFileName, database, error)) {
      return false;
    }
  }
  Error failure;
  if (database_.open(bytes.c_str(), RegistryFileName, database, &failure)) return true;
  // One wait a process: a command with many lookups would otherwise wait at each.
  waited_ = failure.is(PosixErrorDomain, EBUSY);
  return SetError(error, std::move(failure));
}

bool RegistryStore::isSound(Error* error) {
  if (absent_) return true;
  if (!database_.contentIsWhole()) {
    return Fail(RegistryErrorCode::damagedStore, "The application registry: its tables are damaged",
                error);
  }
  // Records, intents and harbors are read whole; an intent that cannot be decoded is found out. The
  // other two tables hold plain values: that they are there is enough.
  std::optional<std::string> container;
  std::vector<InstallIntent> intents;
  std::vector<SafeHarborRecord> harbors;
  std::int64_t value = 0;
  const bool read = forEachApp([](const AppRecord&) {}) && findGroup("", &container) &&
                    openIntents(&intents) && safeHarbors(&harbors) && setting("", &value);
  return read || SetError(error, failure());
}

bool RegistryStore::find(const std::string& identifier, std::optional<AppRecord>* record) {
  record->reset();
  if (absent_) return true;
  // One request asks several times for the same app.
  if (!found_ || found_->identifier != identifier) {
    found_.reset();
    Query query(database_, "SELECT " QV_APP_COLUMNS " FROM apps WHERE identifier = ?");
    Found found{identifier, std::nullopt};
    if (query.bind(identifier).row() && !RecordOf(query, database_, &found.record.emplace())) {
      return false;
    }
    if (query.failed()) return false;
    found_ = std::move(found);
  }
  *record = found_->record;
  return true;
}

bool RegistryStore::findGroup(const std::string& group, std::optional<std::string>* container) {
  container->reset();
  if (absent_) return true;
  Query query(database_, "SELECT container FROM groups WHERE identifier = ?");
  if (query.bind(group).row()) *container = query.text(0);
  return !query.failed();
}

bool RegistryStore::forEachApp(const std::function<void(const AppRecord&)>& visit) {
  if (absent_) return true;
  Query query(database_, "SELECT " QV_APP_COLUMNS " FROM apps ORDER BY identifier");
  AppRecord record;
  while (query.row()) {
    if (!RecordOf(query, database_, &record)) return false;
    visit(record);
  }
  return !query.failed();
}

bool RegistryStore::begin(InstallIntent* intent,
                          const std::map<std::string, std::string>& newGroups) {
  if (!database_.begin()) return false;
  bool done = forgetFinished();
  for (const auto& [group, container] : newGroups) {
    Query query(database_, "INSERT INTO groups(identifier, container) VALUES(?, ?)");
    done = done && query.bind(group).bind(container).run();
  }
  const std::string content = EncodeIntent(*intent);
  Query query(database_, "INSERT INTO intents(committed, content) VALUES(0, ?) RETURNING id");
  done = done && query.bind(content).row();
  if (done) intent->id = query.number(0);
  // A statement that returns a row is done only when it was asked for the next one.
  done = done && query.run();
  return end(done);
}

// Ends the transaction: every statement of it went well, or all are undone.
bool RegistryStore::end(bool done) {
  if (!done) {
    database_.rollback();
    return false;
  }
  if (!database_.commit()) return false;
  // Not before: what a transaction that failed had deleted is there again.
  finished_.clear();
  return true;
}

bool RegistryStore::rewrite(const InstallIntent& intent) {
  return database_.begin() && end(forgetFinished() && putIntent(intent));
}

bool RegistryStore::commit(InstallIntent* intent) {
  if (!database_.begin()) return false;
  bool done = forgetFinished();
  for (const AppRecord& record : intent->records) done = done && putRecord(record);
  // The records are stored as such from here on; what is left of the intent is its clean-up.
  InstallIntent cleanup{intent->id, true, {}, {}};
  for (const InstallStep& step : intent->steps) {
    if (step.cleanup) cleanup.steps.push_back(step);
  }
  if (!end(done && putIntent(cleanup))) return false;
  *intent = std::move(cleanup);
  return true;
}

bool RegistryStore::openIntents(std::vector<InstallIntent>* intents) {
  intents->clear();
  if (absent_) return true;
  Query query(database_, "SELECT id, committed, content FROM intents ORDER BY id");
  while (query.row()) {
    InstallIntent intent{query.number(0), query.number(1) != 0, {}, {}};
    if (!DecodeIntent(query.text(2), &intent)) {
      // None is passed over: nobody could say whose bundle is on its way.
      database_.setFailure(RegistryFailure(RegistryErrorCode::damagedStore,
                                           "The application registry: an intent is damaged"));
      return false;
    }
    // Done, but not forgotten on disk yet.
    if (std::find(finished_.begin(), finished_.end(), intent.id) == finished_.end()) {
      intents->push_back(std::move(intent));
    }
  }
  return !query.failed();
}

bool RegistryStore::putRecord(const AppRecord& record) {
  const std::string groups = EncodeList(record.groups);
  found_.reset();
  Query query(database_,
              "INSERT OR REPLACE INTO apps(" QV_APP_COLUMNS ") VALUES(?,?,?,?,?,?,?,?,?,?)");
  query.bind(record.identifier)
      .bind(record.type)
      .bind(record.version)
      .bindOptional(record.bundleContainer);
  query.bind(record.bundleName).bindOptional(record.dataContainer).bind(groups);
  query.bind(std::int64_t{record.placeholder}).bind(record.staging);
  return query.bind(std::int64_t{record.obsolete}).run();
}

bool RegistryStore::putIntent(const InstallIntent& intent) {
  const std::string content = EncodeIntent(intent);
  Query query(database_, "UPDATE intents SET committed = ?, content = ? WHERE id = ?");
  return query.bind(std::int64_t{intent.committed}).bind(content).bind(intent.id).run();
}

bool RegistryStore::forgetFinished() {
  for (const std::int64_t id : finished_) {
    if (!Query(database_, "DELETE FROM intents WHERE id = ?").bind(id).run()) return false;
  }
  return true;
}

// A statement outside of a transaction is one by itself. It takes no finished intents with it;
// those wait for the next one.
bool RegistryStore::putSafeHarbor(const SafeHarborRecord& harbor) {
  Query query(database_, "INSERT OR REPLACE INTO harbors(identifier, type, path) VALUES(?, ?, ?)");
  return query.bind(harbor.identifier)
      .bind(std::int64_t{harbor.containerType})
      .bind(harbor.path)
      .run();
}

bool RegistryStore::safeHarbors(std::vector<SafeHarborRecord>* harbors) {
  harbors->clear();
  if (absent_) return true;
  Query query(database_, "SELECT identifier, type, path FROM harbors ORDER BY identifier, type");
  while (query.row()) {
    harbors->push_back({query.text(0), query.text(2), static_cast<int>(query.number(1))});
  }
  return !query.failed();
}

bool RegistryStore::putSetting(const std::string& name, std::int64_t value) {
  Query query(database_, "INSERT OR REPLACE INTO settings(name, value) VALUES(?, ?)");
  return query.bind(name).bind(value).run();
}

bool RegistryStore::setting(const std::string& name, std::int64_t* value) {
  *value = 0;
  if (absent_) return true;
  Query query(database_, "SELECT value FROM settings WHERE name = ?");
  if (query.bind(name).row()) *value = query.number(0);
  return !query.failed();
}

}  // namespace quorvel::onlinux
