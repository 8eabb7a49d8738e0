#include "Orvix/sqlite3cpp.hpp"

#include <iostream>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/ThreadSafeStream.hpp"

namespace sqlite3cpp {
namespace {

constexpr const char* kUnit = "Orvix/sqlite3cpp";

// The wrong-state report: one line on safeCerr, then the assertion "false" at the caller's line.
[[noreturn]] void failWrongState(const char* name, int state, unsigned line,
                                 const char* function) {
  safeCerr << name << " in invalid state: " << state << std::endl;
  __assert_fail("false", kUnit, line, function);
}

}  // namespace

// The unit's assertions report the line they start on.
#define SQLITE3CPP_ASSERT(cond, text) ORVIX_ASSERT(cond, text, kUnit, __LINE__)

// Each operation names itself and the states it allows; the report carries its own line.
#define SQLITE3CPP_REQUIRE_STATE(allowed, name) \
  ((allowed) ? static_cast<void>(0) : failWrongState(name, state, __LINE__, __PRETTY_FUNCTION__))

// ---- DbCon ---------------------------------------------------------------------------------

DbCon::DbCon() : sql(nullptr), valid(false) { open("sqLiteTest.db"); }

DbCon::DbCon(const std::string& filename) : sql(nullptr), valid(false) {
  open(filename.c_str());
}

DbCon::~DbCon() {
  if (sql != nullptr) {
    SQLITE3CPP_ASSERT(SQLITE_OK == sqlite3_close(sql), "SQLITE_OK == sqlite3_close(sql)");
  } else {
    std::cerr << "sql == NULL in ~DbCon" << std::endl;
  }
}

void DbCon::open(const char* filename) {
  const int result =
      sqlite3_open_v2(filename, &sql, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (result != SQLITE_OK)
    std::cerr << "sqlite3_open failed: " << sqlite3_errstr(result) << std::endl;
  valid = result == SQLITE_OK;
}

DbCon::operator sqlite3*() {
  SQLITE3CPP_ASSERT(valid, "valid");
  return sql;
}

void DbCon::exec(const std::string& statement) {
  SQLITE3CPP_ASSERT(sql, "sql");
  char* errorText = nullptr;
  const int execRes = sqlite3_exec(sql, statement.c_str(), nullptr, nullptr, &errorText);
  if (errorText != nullptr) {
    safeCerr << "sqlite3_exec failed for \"" << statement << "\": " << errorText << std::endl;
    sqlite3_free(errorText);
  }
  SQLITE3CPP_ASSERT(SQLITE_OK == execRes, "SQLITE_OK == execRes");
}

// ---- PrepStat ------------------------------------------------------------------------------

PrepStat::PrepStat(DbCon& db, const std::string& statement)
    : state(CONSTRUCTING), db(db), stmt(nullptr) {
  const int result = sqlite3_prepare_v2(db, statement.c_str(), -1, &stmt, nullptr);
  if (result == SQLITE_OK) {
    state = BINDING;
  } else {
    std::cerr << "sqlite3_prepare_v2 failed: " << sqlite3_errstr(result) << std::endl;
    state = INVALID;
  }
}

PrepStat::~PrepStat() {
  SQLITE3CPP_ASSERT(state != DESTROYED, "state != DESTROYED");
  const int finalizeResult = sqlite3_finalize(stmt);
  stmt = nullptr;
  SQLITE3CPP_ASSERT(state == INVALID || finalizeResult == SQLITE_OK,
                    "state == INVALID || finalizeResult == SQLITE_OK");
}

PrepStat::operator sqlite3_stmt*() {
  SQLITE3CPP_ASSERT(state != INVALID && state != CONSTRUCTING && state != DESTROYED,
                    "state != INVALID && state != CONSTRUCTING && state != DESTROYED");
  return stmt;
}

void PrepStat::bindText(int idx, const std::string& text) {
  SQLITE3CPP_REQUIRE_STATE(state == BINDING, "bindText");
  SQLITE3CPP_ASSERT(
      SQLITE_OK == sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT),
      "SQLITE_OK == sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT)");
  SQLITE3CPP_ASSERT(state == BINDING, "state == BINDING");
}

void PrepStat::bindText(int idx, const char* textBegin, size_t textBytes) {
  SQLITE3CPP_REQUIRE_STATE(state == BINDING, "bindText");
  SQLITE3CPP_ASSERT(SQLITE_OK == sqlite3_bind_text(stmt, idx, textBegin,
                                                   static_cast<int>(textBytes), SQLITE_TRANSIENT),
                    "SQLITE_OK == sqlite3_bind_text(stmt, idx, textBegin, textBytes, "
                    "SQLITE_TRANSIENT)");
  SQLITE3CPP_ASSERT(state == BINDING, "state == BINDING");
}

void PrepStat::bindInt(int idx, int val) {
  SQLITE3CPP_REQUIRE_STATE(state == BINDING, "bindInt");
  SQLITE3CPP_ASSERT(SQLITE_OK == sqlite3_bind_int(stmt, idx, val),
                    "SQLITE_OK == sqlite3_bind_int(stmt, idx, val)");
}

bool PrepStat::step() {
  if (state == INVALID) return false;
  SQLITE3CPP_REQUIRE_STATE(state == BINDING || state == ROW_READY, "step");
  const int stepResult = sqlite3_step(stmt);
  switch (stepResult) {
    case SQLITE_ROW:
      state = ROW_READY;
      return true;
    case SQLITE_DONE:
      state = DONE;
      return false;
    case SQLITE_READONLY:
      safeCerr << "bool sqlite3cpp::PrepStat::step()"
               << ": Attempt to write a readonly database" << std::endl;
      state = INVALID;
      return false;
    default:
      safeCerr << "bool sqlite3cpp::PrepStat::step()"
               << ": Unexpected stepResult: " << stepResult << std::endl;
      SQLITE3CPP_REQUIRE_STATE(false, "step");
  }
  return false;  // not reached
}

int PrepStat::columnType(int iCol) {
  SQLITE3CPP_REQUIRE_STATE(state == ROW_READY, "columnType");
  return sqlite3_column_type(stmt, iCol);
}

int PrepStat::columnInt(int iCol) {
  SQLITE3CPP_REQUIRE_STATE(state == ROW_READY, "columnInt");
  return sqlite3_column_int(stmt, iCol);
}

const unsigned char* PrepStat::columnText(int iCol) {
  SQLITE3CPP_REQUIRE_STATE(state == ROW_READY, "columnText");
  return sqlite3_column_text(stmt, iCol);
}

void PrepStat::reset() {
  SQLITE3CPP_REQUIRE_STATE(state == BINDING || state == ROW_READY || state == DONE, "reset");
  // No sqlite3_clear_bindings: the values bound stay for the next run.
  SQLITE3CPP_ASSERT(SQLITE_OK == sqlite3_reset(stmt), "SQLITE_OK == sqlite3_reset(stmt)");
  state = BINDING;
}

#undef SQLITE3CPP_REQUIRE_STATE
#undef SQLITE3CPP_ASSERT

}  // namespace sqlite3cpp
