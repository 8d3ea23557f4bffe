// Opens the database without following links and turns its codes into errors.
#include "platform/linux/registry/RegistryDatabase.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/Uninterrupted.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {
namespace {

std::string Joined(const std::string& directory, const std::string& name) {
  return directory + "/" + name;
}

// The file name as a URI, for the parameters that only a URI can carry.
std::string FileUri(const std::string& path, const char* parameters) {
  std::string uri = "file:";
  for (const char byte : path) {
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned char>(byte));
    // Everything but slashes is escaped: a name may hold any byte.
    uri += byte == '/' ? "/" : escaped;
  }
  return uri + "?" + parameters;
}

// Size of the file, or -1 with errno.
std::int64_t FileSize(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return -1;
  return info.st_size;
}

int ErrnoOf(int result, sqlite3* connection) {
  // The low byte is the primary code; the rest says more about the same.
  switch (result & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return EBUSY;
    case SQLITE_FULL:
      return ENOSPC;
    case SQLITE_NOMEM:
      return ENOMEM;
    case SQLITE_READONLY:
      return EROFS;
    case SQLITE_IOERR:
    case SQLITE_CANTOPEN: {
      const int number = connection != nullptr ? sqlite3_system_errno(connection) : 0;
      return number != 0 ? number : EIO;
    }
    // About the content: no file of ours, cut off, or without what it should hold.
    case SQLITE_ERROR:
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_SCHEMA:
    case SQLITE_MISMATCH:
    case SQLITE_CONSTRAINT:
      return 0;
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return EACCES;
    // What is not known to be damage is called none.
    default:
      return EIO;
  }
}

Error FailureOf(int result, sqlite3* connection) {
  const std::string text =
      connection != nullptr ? sqlite3_errmsg(connection) : sqlite3_errstr(result);
  const int number = ErrnoOf(result, connection);
  // What has an errno may pass; anything else is about the content.
  if (number != 0) return PosixFailure(number, "The application registry: " + text);
  return RegistryFailure(RegistryErrorCode::damagedStore, "The application registry: " + text);
}

// Makes all tables in the connection's new file and leaves it with its final journal mode, which
// the file remembers.
bool Populate(sqlite3* connection, const DatabaseOptions& options) {
  const std::string script =
      // Each change is one whole page in the log: small pages make small changes.
      std::string("PRAGMA page_size=2048; PRAGMA locking_mode=EXCLUSIVE; ") +
      "PRAGMA synchronous=FULL; " +
      "PRAGMA temp_store=MEMORY; BEGIN EXCLUSIVE; PRAGMA application_id=" +
      std::to_string(options.applicationId) +
      "; PRAGMA user_version=" + std::to_string(options.version) + "; " + options.schema +
      " COMMIT; PRAGMA journal_mode=WAL;";
  return sqlite3_exec(connection, script.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace

void RegistryDatabase::prepareProcess() {
  unsigned char seeded = 0;
  // The generator is seeded at its first use.
  if (sqlite3_initialize() == SQLITE_OK) sqlite3_randomness(sizeof seeded, &seeded);
}

bool RegistryDatabase::create(const std::string& directory, const char* name,
                              const DatabaseOptions& options, Error* error) {
  const UniqueDescriptor parent(
      ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!parent) return Fail(directory, error);
  // Only one process makes it; the lock goes with the descriptor, however the process ends.
  if (Uninterrupted([&] { return ::flock(parent.get(), LOCK_EX); }) != 0) {
    return Fail(directory, error);
  }
  struct stat info {};
  // Another process made it while this one waited for the lock.
  if (::fstatat(parent.get(), name, &info, AT_SYMLINK_NOFOLLOW) == 0) return true;
  if (errno != ENOENT) return Fail(Joined(directory, name), error);

  // What an interrupted creation left. A log of that name would be taken for the new file's.
  // Made under another name: half a database never has the real one.
  const std::string fresh = std::string(name) + ".new";
  for (const char* suffix : {"", "-journal", "-wal"}) {
    if (::unlinkat(parent.get(), (fresh + suffix).c_str(), 0) != 0 && errno != ENOENT) {
      return Fail(Joined(directory, fresh + suffix), error);
    }
  }
  sqlite3* connection = nullptr;
  int result = sqlite3_open_v2(
      Joined(directory, fresh).c_str(), &connection,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX,
      nullptr);
  if (result == SQLITE_OK && !Populate(connection, options)) result = sqlite3_errcode(connection);
  if (result != SQLITE_OK) SetError(error, FailureOf(result, connection));
  // Closing folds the log into the file, so its failure counts, and removes the log.
  const int closed = sqlite3_close(connection);
  if (result != SQLITE_OK) return false;
  if (closed != SQLITE_OK || FileSize(Joined(directory, fresh + "-wal")) > 0) {
    return SetError(error, PosixFailure(EIO, Joined(directory, fresh)));
  }
  // Under its name only when it is complete, and the name stored.
  if (::renameat(parent.get(), fresh.c_str(), parent.get(), name) != 0 ||
      ::fsync(parent.get()) != 0) {
    return Fail(Joined(directory, name), error);
  }
  return true;
}

bool RegistryDatabase::open(const std::string& directory, const char* name,
                            const DatabaseOptions& options, Error* error) {
  close();
  const std::string path = Joined(directory, name);
  const std::int64_t size = FileSize(path);
  if (size < 0) return Fail(path, error);
  // SQLite takes an empty file for a new database; it is one that was cut off.
  if (size == 0) {
    return Fail(RegistryErrorCode::damagedStore, path + ": is empty", error);
  }
  // A reader that changes nothing: without a log the file is all there is and is read without
  // locks. With one it must be read as its writer would, under its locks and with the log
  // indexed in memory, and closed without folding it in.
  const bool immutable = options.readOnly && FileSize(path + "-wal") <= 0;
  const std::string opened = immutable ? FileUri(path, "immutable=1") : path;
  const int flags = (immutable ? SQLITE_OPEN_READONLY | SQLITE_OPEN_URI : SQLITE_OPEN_READWRITE) |
                    SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX;
  const int result = sqlite3_open_v2(opened.c_str(), &connection_, flags, nullptr);
  if (result != SQLITE_OK) {
    SetError(error, FailureOf(result, connection_));
    close();
    return false;
  }
  // In exclusive mode the first read takes the lock, and waits for it this long.
  sqlite3_busy_timeout(connection_, options.busyTimeoutMilliseconds);
  sqlite3_extended_result_codes(connection_, 1);
  if (options.readOnly) {
    sqlite3_db_config(connection_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  }
  if (check(path, options, error)) return true;
  close();
  return false;
}

// The first read takes the lock and reads the log; only then sizes hold still.
bool RegistryDatabase::check(const std::string& path, const DatabaseOptions& options,
                             Error* error) {
  const bool ready = execute(
      "PRAGMA locking_mode=EXCLUSIVE; PRAGMA temp_store=MEMORY; PRAGMA synchronous=NORMAL;"
      // A request touches few pages: half of the usual cache, in KiB.
      "PRAGMA cache_size=-1000; PRAGMA cell_size_check=ON; PRAGMA trusted_schema=OFF;"
      "SELECT count(*) FROM sqlite_schema;");
  if (!ready) return SetError(error, failure_);
  const std::int64_t applicationId = pragma("PRAGMA application_id");
  const std::int64_t version = pragma("PRAGMA user_version");
  if (applicationId != options.applicationId || version < 1) {
    return Fail(RegistryErrorCode::damagedStore, path + ": is no application registry", error);
  }
  if (version > options.version) {
    return Fail(RegistryErrorCode::newerStore, path + ": was written by a newer system", error);
  }
  if (!fileIsWhole(path)) {
    return Fail(RegistryErrorCode::damagedStore, path + ": is not whole", error);
  }
  if (options.readOnly && !execute("PRAGMA query_only=ON")) return SetError(error, failure_);
  return true;
}

// SQLite itself reads what a file cut off inside its last page lacks as zeros. After a clean end
// the header tells the size. After an unclean one the file may rightly be shorter than its header
// says, since the log holds the rest: then the content is checked, once, in linear time.
bool RegistryDatabase::fileIsWhole(const std::string& path) {
  if (FileSize(path + "-wal") > 0) return contentIsWhole();
  sqlite3_file* file = nullptr;
  sqlite3_file_control(connection_, "main", SQLITE_FCNTL_FILE_POINTER, &file);
  sqlite3_int64 size = 0;
  if (file == nullptr || file->pMethods == nullptr ||
      file->pMethods->xFileSize(file, &size) != SQLITE_OK) {
    return false;
  }
  return size == pragma("PRAGMA page_size") * pragma("PRAGMA page_count");
}

bool RegistryDatabase::contentIsWhole() {
  Query check(*this, "PRAGMA quick_check(1)");
  return check.row() && check.text(0) == "ok";
}

void RegistryDatabase::close() {
  for (const auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  statements_.clear();
  sqlite3_close(connection_);
  connection_ = nullptr;
}

bool RegistryDatabase::begin() { return Query(*this, "BEGIN IMMEDIATE").run(); }

bool RegistryDatabase::commit() {
  if (Query(*this, "COMMIT").run()) return true;
  rollback();
  return false;
}

void RegistryDatabase::rollback() {
  if (connection_ == nullptr || sqlite3_get_autocommit(connection_) != 0) return;
  // The rollback's own failure, if any, must not hide why it was needed.
  const Error cause = failure_;
  Query(*this, "ROLLBACK").run();
  failure_ = cause;
}

bool RegistryDatabase::execute(const char* sql) {
  return recordFailure(sqlite3_exec(connection_, sql, nullptr, nullptr, nullptr));
}

std::int64_t RegistryDatabase::pragma(const char* sql) {
  Query query(*this, sql);
  return query.row() ? query.number(0) : -1;
}

// True when there was none.
bool RegistryDatabase::recordFailure(int result) {
  if (result == SQLITE_OK || result == SQLITE_ROW || result == SQLITE_DONE) return true;
  failure_ = FailureOf(result, connection_);
  return false;
}

sqlite3_stmt* RegistryDatabase::prepared(std::string_view sql) {
  const auto found = statements_.find(sql);
  if (found != statements_.end()) return found->second;
  sqlite3_stmt* statement = nullptr;
  if (!recordFailure(sqlite3_prepare_v3(connection_, sql.data(), static_cast<int>(sql.size()),
                                        // Kept for the connection's life.
                                        SQLITE_PREPARE_PERSISTENT, &statement, nullptr))) {
    return nullptr;
  }
  statements_.emplace(sql, statement);
  return statement;
}

Query::Query(RegistryDatabase& database, std::string_view literal)
    : database_(database), statement_(database.prepared(literal)), failed_(statement_ == nullptr) {}

Query::~Query() {
  if (statement_ == nullptr) return;
  // Ready for the next use; bindings point to the caller's texts.
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

void Query::note(int result) {
  if (!database_.recordFailure(result)) failed_ = true;
}

Query& Query::bind(std::string_view text) {
  // A null pointer would bind NULL, and the empty string is a value.
  if (!failed_) {
    note(sqlite3_bind_text64(statement_, next_++, text.empty() ? "" : text.data(), text.size(),
                             SQLITE_STATIC, SQLITE_UTF8));
  }
  return *this;
}

Query& Query::bind(std::int64_t number) {
  if (!failed_) note(sqlite3_bind_int64(statement_, next_++, number));
  return *this;
}

Query& Query::bindOptional(const std::optional<std::string>& text) {
  if (text) return bind(std::string_view(*text));
  if (!failed_) note(sqlite3_bind_null(statement_, next_++));
  return *this;
}

bool Query::row() {
  if (failed_) return false;
  const int result = sqlite3_step(statement_);
  note(result);
  return result == SQLITE_ROW;
}

bool Query::run() {
  while (row()) {
  }
  return !failed_;
}

std::string Query::text(int column) const { return optionalText(column).value_or(std::string()); }

std::optional<std::string> Query::optionalText(int column) const {
  const void* bytes = sqlite3_column_blob(statement_, column);
  if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
  const int size = sqlite3_column_bytes(statement_, column);
  return bytes == nullptr ? std::string()
                          : std::string(static_cast<const char*>(bytes), static_cast<size_t>(size));
}

std::int64_t Query::number(int column) const { return sqlite3_column_int64(statement_, column); }

}  // namespace quorvel::onlinux
