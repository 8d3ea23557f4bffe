// The registry's database file: opening it safely, and statements on it.
//
// SQLite with a write-ahead log in exclusive locking mode: one process at a time, no shared
// memory file. What is in the tables is RegistryStore's business.
//
// A commit is one write to the log and survives a kill. It is on stable storage after the next
// flush of its file system, which is the caller's to make: that flush usually covers much more.
// What a power cut leaves of the log is a whole number of transactions, the first ones: each frame
// is checked on reading. The database flushes by itself only where it reuses the log
// (synchronous=NORMAL), so that pages never reach the file before the log that would repair them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Error.h"

struct sqlite3;
struct sqlite3_stmt;

namespace quorvel::onlinux {

// What the database is to be, and how it is used.
struct DatabaseOptions {
  const char* schema = "";          // the statements that make the tables of a new database
  std::int32_t applicationId = 0;   // marks the file as ours
  int version = 0;                  // of the schema
  bool readOnly = false;            // nothing on disk changes, not even the log
  int busyTimeoutMilliseconds = 0;  // wait for another process
};

// One connection. One thread at a time.
class RegistryDatabase {
 public:
  RegistryDatabase() = default;
  RegistryDatabase(const RegistryDatabase&) = delete;
  RegistryDatabase& operator=(const RegistryDatabase&) = delete;
  ~RegistryDatabase() { close(); }

  // Takes what the library needs from outside the device tree: the seed of its random numbers,
  // for which it would look at "/dev" later. Before the process is confined.
  static void prepareProcess();

  // Opens the existing file `directory`/`name`; the bytes of both as system calls take them. A
  // file that is not whole, not ours or too new is refused and left as it is.
  bool open(const std::string& directory, const char* name, const DatabaseOptions& options,
            Error* error);
  // Makes the database, complete before it gets its name and durable when this returns. True
  // also when another process made it meanwhile.
  static bool create(const std::string& directory, const char* name, const DatabaseOptions& options,
                     Error* error);
  // Folds the log into the file unless opened for reading only. May be called at any time.
  void close();
  bool isOpen() const { return connection_ != nullptr; }

  // Reads every page: whether the tables are whole. In linear time.
  // By SQLite's own check of pages and indexes.
  bool contentIsWhole();

  // A rollback keeps failure() as it was: why the transaction failed is what counts.
  bool begin();     // a transaction that writes
  bool commit();    // a kill cannot undo it
  void rollback();  // nothing when no transaction is open

  // The failure of the last statement that failed.
  // Kept until another statement fails.
  const Error& failure() const { return failure_; }
  void setFailure(Error failure) { failure_ = std::move(failure); }  // for content that is wrong

 private:
  friend class Query;
  // Statements without results, one after another. False with failure().
  bool execute(const char* sql);
  // Whether the file that was opened is ours, of a known version and whole.
  bool check(const std::string& path, const DatabaseOptions& options, Error* error);
  // Whether the file is as long as it has to be; its content only after an unclean end.
  bool fileIsWhole(const std::string& path);
  // The number that the statement answers, or -1.
  std::int64_t pragma(const char* sql);
  // Turns SQLite's result into failure(). True when it was none.
  bool recordFailure(int result);
  // The connection's one statement of that text, made at its first use; null with failure().
  sqlite3_stmt* prepared(std::string_view sql);

  sqlite3* connection_ = nullptr;
  std::map<std::string_view, sqlite3_stmt*> statements_;  // by their literal
  Error failure_;
};

// One use of a statement. Binds in order, then run() or row() until it is false. The text must be
// a literal: statements are prepared once per connection.
class Query {
 public:
  Query(RegistryDatabase& database, std::string_view literal);
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;
  ~Query();

  // Texts are bytes to the database: any encoding, zero bytes included. They must outlive the use.
  // The next parameter, from the first.
  Query& bind(std::string_view text);
  Query& bind(std::int64_t number);
  Query& bindOptional(const std::optional<std::string>& text);

  // After it was false no column may be asked for.
  bool row();  // whether there is a (next) row
  bool run();  // executes to the end; false when it failed
  bool failed() const { return failed_; }

  // Of the current row, counted from 0. An absent text is empty.
  std::string text(int column) const;
  std::optional<std::string> optionalText(int column) const;
  std::int64_t number(int column) const;

 private:
  void note(int result);

  RegistryDatabase& database_;
  sqlite3_stmt* statement_;
  int next_ = 1;
  bool failed_;
};

}  // namespace quorvel::onlinux
