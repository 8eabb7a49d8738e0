// sqlite3cpp: one SQLite connection (DbCon) and its prepared statements (PrepStat).
//
// A PrepStat makes the order bind -> step -> read columns -> reset explicit with a small state
// machine. Threads: nothing here locks; a connection and its statements belong to one thread at
// a time (its lines on safeCerr are whole even when other threads write).
//
// Failures: nothing throws.
//   - Failures that come from the database file are written to std::cerr and leave the object
//     unusable: a connection that could not be opened ("sqlite3_open failed: <text>") fails the
//     assertion "valid" on its next use; a statement that could not be prepared
//     ("sqlite3_prepare_v2 failed: <text>") or whose step met a read-only database (a line on
//     safeCerr) is INVALID for good, and its step() returns false for ever.
//   - Misuse is a programming error: a call in a state it does not allow writes
//     "<name> in invalid state: <state>" on safeCerr and fails the assertion "false"; a failing
//     bind, reset, finalize, close or exec fails an assertion whose text is the SQLite call;
//     exec writes SQLite's error text on safeCerr first. Any other step result than a row, the
//     end, or read-only (busy, locked, constraint, ...) is written on safeCerr and aborts the
//     same way; there is no retry and no busy time-out.
//   - Destroying a connection that still has statements aborts ("SQLITE_OK == sqlite3_close(sql)"):
//     statements go first.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <string>

namespace sqlite3cpp {

// One open database connection.
class DbCon {
 public:
  // Opens (or creates) "sqLiteTest.db" in the current directory.
  DbCon();
  // Opens (or creates) filename.
  explicit DbCon(const std::string& filename);
  DbCon(const DbCon&) = delete;
  DbCon& operator=(const DbCon&) = delete;
  // Closes the handle (asserting that this succeeds); with no handle at all, writes
  // "sql == NULL in ~DbCon" on std::cerr.
  virtual ~DbCon();

  // sqlite3_open_v2 for reading and writing, creating the file if need be (flags 6). On failure
  // writes "sqlite3_open failed: <text>" on std::cerr and leaves the connection invalid. A
  // handle opened before is not closed.
  void open(const char* filename);

  // The handle, for the C API and for PrepStat; asserts that the connection is valid.
  operator sqlite3*();

  // Runs statement (any number of SQL statements, no results); a failure writes
  // "sqlite3_exec failed for \"<statement>\": <text>" on safeCerr and aborts.
  void exec(const std::string& statement);

  // Whether sqlite3_open_v2 succeeded.
  bool isValid() const { return valid; }

 private:
  // Null until opened.
  sqlite3* sql;
  // Set by open().
  bool valid;
};

// One prepared statement on a connection that outlives it.
class PrepStat {
 public:
  // The states, by value.
  enum State {
    CONSTRUCTING = 0,  // inside the constructor
    BINDING = 1,       // prepared or reset: bind, then step
    INVALID = 2,       // preparation failed, or the database refused a write; step() is false
    ROW_READY = 3,     // the last step produced a row: read its columns
    DONE = 4,          // the last step finished the statement: reset to run it again
    DESTROYED = 5      // never stored; excluded by the checks
  };

  // Prepares statement on db (asserting that db is valid). A failure is written on std::cerr
  // and leaves the statement INVALID.
  PrepStat(DbCon& db, const std::string& statement);
  PrepStat(const PrepStat&) = delete;
  PrepStat& operator=(const PrepStat&) = delete;
  // Finalizes; only an INVALID statement may have a failing finalize.
  virtual ~PrepStat();

  // The handle, for the C API; asserts that the statement is prepared.
  operator sqlite3_stmt*();

  // Binds text (copied) to parameter idx (from 1). BINDING only.
  void bindText(int idx, const std::string& text);
  // Binds textBytes bytes from textBegin (copied) to parameter idx. BINDING only.
  void bindText(int idx, const char* textBegin, size_t textBytes);
  // Binds val to parameter idx. BINDING only.
  void bindInt(int idx, int val);

  // Runs the statement one row further: true with a row ready, false at the end. INVALID: false
  // without touching SQLite. BINDING or ROW_READY otherwise.
  bool step();

  // Column iCol (from 0) of the current row: its SQLite type (SQLITE_INTEGER, ...), its integer
  // value, its text (valid until the next step or reset). ROW_READY only.
  int columnType(int iCol);
  int columnInt(int iCol);
  const unsigned char* columnText(int iCol);

  // Rewinds the statement to run it again; the bindings stay. BINDING, ROW_READY or DONE.
  void reset();

  // The current state (a State value).
  int getState() const { return state; }

 private:
  // A State value.
  int state;
  // The connection the statement was prepared on; kept with the statement, read by nothing yet.
  [[maybe_unused]] DbCon& db;
  // Null until prepared and after finalizing.
  sqlite3_stmt* stmt;
};

}  // namespace sqlite3cpp
