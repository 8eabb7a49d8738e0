#include "Orvix/sqlite3cpp.hpp"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.hpp"

using orvix_test::assertionLine;
using orvix_test::CaptureFd;
using orvix_test::ChildResult;
using orvix_test::nextSymbol;
using orvix_test::runInChild;
using orvix_test::takeArmed;
using sqlite3cpp::DbCon;
using sqlite3cpp::PrepStat;

// ---- interposed SQLite calls ---------------------------------------------------------------

namespace {
int openWithoutHandle = 0;  // the next open fails with SQLITE_NOMEM and no handle at all
int stepCalls = 0;          // every sqlite3_step reaching SQLite
int forceStepResult = 0;    // the next step is run, then reports this result instead
int failReset = 0;          // the next reset is run, then reports this result instead
int failFinalize = 0;       // the next finalize is run, then reports this result instead
int lastFinalizeResult = -1;
}  // namespace

extern "C" int sqlite3_open_v2(const char* filename, sqlite3** db, int flags, const char* vfs) {
  static auto real = nextSymbol<int (*)(const char*, sqlite3**, int, const char*)>(
      "sqlite3_open_v2");
  if (takeArmed(openWithoutHandle)) {
    *db = nullptr;
    return SQLITE_NOMEM;
  }
  return real(filename, db, flags, vfs);
}

extern "C" int sqlite3_step(sqlite3_stmt* stmt) {
  static auto real = nextSymbol<int (*)(sqlite3_stmt*)>("sqlite3_step");
  ++stepCalls;
  const int result = real(stmt);
  if (const int forced = takeArmed(forceStepResult)) return forced;
  return result;
}

extern "C" int sqlite3_reset(sqlite3_stmt* stmt) {
  static auto real = nextSymbol<int (*)(sqlite3_stmt*)>("sqlite3_reset");
  const int result = real(stmt);
  if (const int forced = takeArmed(failReset)) return forced;
  return result;
}

extern "C" int sqlite3_finalize(sqlite3_stmt* stmt) {
  static auto real = nextSymbol<int (*)(sqlite3_stmt*)>("sqlite3_finalize");
  lastFinalizeResult = real(stmt);
  if (const int forced = takeArmed(failFinalize)) return forced;
  return lastFinalizeResult;
}

namespace {

constexpr const char* kUnit = "Orvix/sqlite3cpp";

// Signatures as the assertion reports print them.
const std::string kOpSql = "sqlite3cpp::DbCon::operator sqlite3*()";
const std::string kExec = "void sqlite3cpp::DbCon::exec(const std::string&)";
const std::string kDbConDtor = "virtual sqlite3cpp::DbCon::~DbCon()";
const std::string kPrepStatDtor = "virtual sqlite3cpp::PrepStat::~PrepStat()";
const std::string kOpStmt = "sqlite3cpp::PrepStat::operator sqlite3_stmt*()";
const std::string kBindString = "void sqlite3cpp::PrepStat::bindText(int, const std::string&)";
const std::string kBindBytes = "void sqlite3cpp::PrepStat::bindText(int, const char*, size_t)";
const std::string kBindInt = "void sqlite3cpp::PrepStat::bindInt(int, int)";
const std::string kStep = "bool sqlite3cpp::PrepStat::step()";
const std::string kColumnType = "int sqlite3cpp::PrepStat::columnType(int)";
const std::string kColumnInt = "int sqlite3cpp::PrepStat::columnInt(int)";
const std::string kColumnText = "const unsigned char* sqlite3cpp::PrepStat::columnText(int)";
const std::string kReset = "void sqlite3cpp::PrepStat::reset()";

// Lines of the unit's checks.
constexpr int kLineClose = 39;
constexpr int kLineValid = 54;
constexpr int kLineSql = 59;
constexpr int kLineExecRes = 66;
constexpr int kLineFinalize = 86;
constexpr int kLineOpStmt = 91;
constexpr int kLineBindStringState = 97;
constexpr int kLineBindString = 98;
constexpr int kLineBindBytesState = 105;
constexpr int kLineBindBytes = 106;
constexpr int kLineBindIntState = 114;
constexpr int kLineBindInt = 115;
constexpr int kLineStepState = 121;
constexpr int kLineStepUnexpected = 138;
constexpr int kLineColumnType = 144;
constexpr int kLineColumnInt = 149;
constexpr int kLineColumnText = 154;
constexpr int kLineResetState = 159;
constexpr int kLineReset = 161;

const std::string kReadOnlyLine =
    "bool sqlite3cpp::PrepStat::step(): Attempt to write a readonly database\n";
const std::string kPrepareFailedLine = "sqlite3_prepare_v2 failed: SQL logic error\n";

std::string wrongState(const std::string& name, int state) {
  return name + " in invalid state: " + std::to_string(state) + "\n";
}

// A fresh directory for one test's databases; removed with the files the tests make in it.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/orvix-sqlite-XXXXXX";
    const char* made = mkdtemp(pattern);
    EXPECT_NE(made, nullptr) << "mkdtemp";
    path = made ? made : "/nonexistent";
  }
  ~TempDir() {
    for (const char* name : {"test.db", "sqLiteTest.db", "other.db"}) {
      unlink(file(name).c_str());
      unlink((file(name) + "-journal").c_str());
    }
    EXPECT_EQ(rmdir(path.c_str()), 0) << "files left in " << path;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string file(const char* name) const { return path + "/" + name; }

  std::string path;
};

// A database with a table of two rows: (1, 'eins'), (2, 'zwei').
class Sqlite3cpp : public testing::Test {
 protected:
  void SetUp() override {
    DbCon db(dbPath);
    db.exec(
        "CREATE TABLE t(a INTEGER PRIMARY KEY, b TEXT);"
        "INSERT INTO t VALUES(1, 'eins');"
        "INSERT INTO t VALUES(2, 'zwei');");
  }

  // Rows of "SELECT a, b FROM t ORDER BY a" as "a=b;" pairs.
  std::string rows(DbCon& db) {
    PrepStat select(db, "SELECT a, b FROM t ORDER BY a");
    std::string out;
    while (select.step())
      out += std::to_string(select.columnInt(0)) + "=" +
             reinterpret_cast<const char*>(select.columnText(1)) + ";";
    return out;
  }

  TempDir dir;
  const std::string dbPath = dir.file("test.db");
};

using Sqlite3cppDeathTest = Sqlite3cpp;

// Runs fn in a child; expects it to write expectedErr and then fail the assertion given, with
// nothing on standard output.
void expectAbort(const std::function<void()>& fn, const std::string& expectedErr, int line,
                 const std::string& function, const std::string& expression) {
  const ChildResult r = runInChild(fn);
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, expectedErr + assertionLine(kUnit, line, function, expression));
  EXPECT_EQ(r.out, "");
}

}  // namespace

// ---- DbCon ---------------------------------------------------------------------------------

TEST_F(Sqlite3cpp, OpensAndRunsStatementsOnTheFile) {
  DbCon db(dbPath);
  EXPECT_TRUE(db.isValid());
  sqlite3* handle = db;
  EXPECT_NE(handle, nullptr);
  EXPECT_EQ(rows(db), "1=eins;2=zwei;");
  db.exec("UPDATE t SET b = 'one' WHERE a = 1; DELETE FROM t WHERE a = 2");
  EXPECT_EQ(rows(db), "1=one;");
  EXPECT_EQ(sqlite3_total_changes(db), 2);
}

TEST(Sqlite3cppDbCon, DefaultFileIsSqLiteTestDbInTheCurrentDirectory) {
  TempDir dir;
  const ChildResult r = runInChild([&] {
    if (chdir(dir.path.c_str()) != 0) _exit(3);
    DbCon db;
    db.exec("CREATE TABLE x(y)");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 0);
  EXPECT_EQ(r.err, "");
  struct stat st;
  EXPECT_EQ(stat(dir.file("sqLiteTest.db").c_str(), &st), 0);
}

TEST(Sqlite3cppDbCon, UnopenablePathIsReportedAndLeavesTheConnectionInvalid) {
  TempDir dir;
  CaptureFd err(2);
  {
    DbCon db(dir.file("fehlt") + "/test.db");
    EXPECT_FALSE(db.isValid());
  }
  // The handle SQLite gives even on failure closes without a word.
  EXPECT_EQ(err.text(), "sqlite3_open failed: unable to open database file\n");
}

TEST(Sqlite3cppDbConDeathTest, UsingAnInvalidConnectionAbortsOnValid) {
  TempDir dir;
  const std::string path = dir.file("fehlt") + "/test.db";
  const std::string opened = "sqlite3_open failed: unable to open database file\n";
  expectAbort(
      [&] {
        DbCon db(path);
        sqlite3* handle = db;
        (void)handle;
      },
      opened, kLineValid, kOpSql, "valid");
  expectAbort(
      [&] {
        DbCon db(path);
        PrepStat p(db, "SELECT 1");
      },
      opened, kLineValid, kOpSql, "valid");
}

TEST(Sqlite3cppDbCon, OpenWithoutAnyHandleIsWrittenAgainByTheDestructor) {
  TempDir dir;
  CaptureFd err(2);
  {
    openWithoutHandle = 1;
    DbCon db(dir.file("test.db"));
    EXPECT_FALSE(db.isValid());
  }
  EXPECT_EQ(err.text(), "sqlite3_open failed: out of memory\nsql == NULL in ~DbCon\n");
}

TEST(Sqlite3cppDbConDeathTest, ExecWithoutAnyHandleAbortsOnSql) {
  TempDir dir;
  expectAbort(
      [&] {
        openWithoutHandle = 1;
        DbCon db(dir.file("test.db"));
        db.exec("SELECT 1");
      },
      "sqlite3_open failed: out of memory\n", kLineSql, kExec, "sql");
}

TEST_F(Sqlite3cppDeathTest, ExecFailureWritesTheStatementAndSqlitesTextThenAborts) {
  expectAbort(
      [&] {
        DbCon db(dbPath);
        db.exec("INSERT INTO fehlt VALUES(1)");
      },
      "sqlite3_exec failed for \"INSERT INTO fehlt VALUES(1)\": no such table: fehlt\n",
      kLineExecRes, kExec, "SQLITE_OK == execRes");
}

TEST_F(Sqlite3cppDeathTest, ClosingWithAnUnfinalisedStatementAborts) {
  expectAbort(
      [&] {
        auto* db = new DbCon(dbPath);
        new PrepStat(*db, "SELECT a FROM t");
        delete db;
      },
      "", kLineClose, kDbConDtor, "SQLITE_OK == sqlite3_close(sql)");
}

// ---- PrepStat: states ----------------------------------------------------------------------

TEST_F(Sqlite3cpp, EveryTransitionOfTheStateMachine) {
  DbCon db(dbPath);
  PrepStat select(db, "SELECT a, b FROM t WHERE a >= ? ORDER BY a");
  EXPECT_EQ(select.getState(), PrepStat::BINDING);  // CONSTRUCTING -> BINDING
  select.reset();                                   // BINDING -> BINDING
  EXPECT_EQ(select.getState(), PrepStat::BINDING);
  select.bindInt(1, 1);
  EXPECT_TRUE(select.step());  // BINDING -> ROW_READY
  EXPECT_EQ(select.getState(), PrepStat::ROW_READY);
  EXPECT_EQ(select.columnInt(0), 1);
  EXPECT_TRUE(select.step());  // ROW_READY -> ROW_READY
  EXPECT_EQ(select.getState(), PrepStat::ROW_READY);
  EXPECT_EQ(select.columnInt(0), 2);
  EXPECT_FALSE(select.step());  // ROW_READY -> DONE
  EXPECT_EQ(select.getState(), PrepStat::DONE);
  select.reset();  // DONE -> BINDING
  EXPECT_EQ(select.getState(), PrepStat::BINDING);
  EXPECT_TRUE(select.step());
  select.reset();  // ROW_READY -> BINDING
  EXPECT_EQ(select.getState(), PrepStat::BINDING);
  select.bindInt(1, 3);
  EXPECT_FALSE(select.step());  // BINDING -> DONE
  EXPECT_EQ(select.getState(), PrepStat::DONE);

  PrepStat insert(db, "INSERT INTO t VALUES(?, ?)");
  insert.bindInt(1, 3);
  insert.bindText(2, "drei");
  EXPECT_FALSE(insert.step());
  EXPECT_EQ(insert.getState(), PrepStat::DONE);
  EXPECT_EQ(rows(db), "1=eins;2=zwei;3=drei;");
}

TEST_F(Sqlite3cpp, StateValues) {
  EXPECT_EQ(PrepStat::CONSTRUCTING, 0);
  EXPECT_EQ(PrepStat::BINDING, 1);
  EXPECT_EQ(PrepStat::INVALID, 2);
  EXPECT_EQ(PrepStat::ROW_READY, 3);
  EXPECT_EQ(PrepStat::DONE, 4);
  EXPECT_EQ(PrepStat::DESTROYED, 5);
}

TEST_F(Sqlite3cpp, PrepareFailureIsWrittenAndStepIsFalseForEverWithoutSqlite) {
  DbCon db(dbPath);
  for (const char* statement : {"SELEKT 1", "SELECT * FROM fehlt", "INSERT INTO t VALUES("}) {
    SCOPED_TRACE(statement);
    CaptureFd err(2);
    {
      PrepStat p(db, statement);
      EXPECT_EQ(p.getState(), PrepStat::INVALID);  // CONSTRUCTING -> INVALID
      stepCalls = 0;
      for (int i = 0; i < 3; ++i) EXPECT_FALSE(p.step());
      EXPECT_EQ(stepCalls, 0);
      EXPECT_EQ(p.getState(), PrepStat::INVALID);
    }
    EXPECT_EQ(err.text(), kPrepareFailedLine);
  }
}

TEST_F(Sqlite3cppDeathTest, HandleOfAnInvalidStatementAsserts) {
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat p(db, "SELEKT 1");
        sqlite3_stmt* handle = p;
        (void)handle;
      },
      kPrepareFailedLine, kLineOpStmt, kOpStmt,
      "state != INVALID && state != CONSTRUCTING && state != DESTROYED");
}

TEST_F(Sqlite3cpp, HandleServesTheCApiInEveryPreparedState) {
  DbCon db(dbPath);
  PrepStat p(db, "SELECT a FROM t WHERE a = ?");
  EXPECT_EQ(sqlite3_bind_parameter_count(p), 1);
  EXPECT_EQ(sqlite3_bind_int(p, 1, 2), SQLITE_OK);
  EXPECT_TRUE(p.step());
  EXPECT_EQ(sqlite3_column_count(p), 1);
  EXPECT_EQ(sqlite3_column_int(p, 0), 2);
  EXPECT_FALSE(p.step());
  EXPECT_STREQ(sqlite3_sql(p), "SELECT a FROM t WHERE a = ?");
}

TEST_F(Sqlite3cpp, BindingsAreKeptOverReset) {
  DbCon db(dbPath);
  PrepStat insert(db, "INSERT INTO t(b) VALUES(?)");
  insert.bindText(1, "gleich");
  EXPECT_FALSE(insert.step());
  insert.reset();
  EXPECT_FALSE(insert.step());  // no new binding: the same value again
  PrepStat count(db, "SELECT count(*) FROM t WHERE b = ?");
  count.bindText(1, std::string("gleich"));
  ASSERT_TRUE(count.step());
  EXPECT_EQ(count.columnInt(0), 2);
  count.reset();
  ASSERT_TRUE(count.step());
  EXPECT_EQ(count.columnInt(0), 2);
}

TEST_F(Sqlite3cpp, BindTextWithAByteCountTakesExactlyThoseBytes) {
  DbCon db(dbPath);
  PrepStat p(db, "SELECT ?, length(?), hex(?)");
  const char bytes[] = {'a', 'b', '\0', 'c', 'd'};
  p.bindText(1, "abcdef", 3);
  p.bindText(2, bytes, sizeof bytes);
  p.bindText(3, bytes, sizeof bytes);
  ASSERT_TRUE(p.step());
  EXPECT_STREQ(reinterpret_cast<const char*>(p.columnText(0)), "abc");
  EXPECT_STREQ(reinterpret_cast<const char*>(p.columnText(2)), "6162006364");
}

TEST_F(Sqlite3cpp, BoundTextIsCopied) {
  DbCon db(dbPath);
  PrepStat p(db, "SELECT ?, ?");
  {
    std::string first = "vergaenglich";
    char second[] = "kurzlebig";
    p.bindText(1, first);
    p.bindText(2, second, 4);
    first.assign(first.size(), 'x');
    second[0] = 'X';
  }
  ASSERT_TRUE(p.step());
  EXPECT_STREQ(reinterpret_cast<const char*>(p.columnText(0)), "vergaenglich");
  EXPECT_STREQ(reinterpret_cast<const char*>(p.columnText(1)), "kurz");
}

TEST_F(Sqlite3cpp, ColumnsReportTypesAndValues) {
  DbCon db(dbPath);
  PrepStat p(db, "SELECT 42, '17', NULL, 'text', -7");
  ASSERT_TRUE(p.step());
  EXPECT_EQ(p.columnType(0), SQLITE_INTEGER);
  EXPECT_EQ(p.columnType(1), SQLITE_TEXT);
  EXPECT_EQ(p.columnType(2), SQLITE_NULL);
  EXPECT_EQ(p.columnInt(0), 42);
  EXPECT_EQ(p.columnInt(1), 17);
  EXPECT_EQ(p.columnText(2), nullptr);
  EXPECT_STREQ(reinterpret_cast<const char*>(p.columnText(3)), "text");
  EXPECT_EQ(p.columnInt(4), -7);
}

// ---- PrepStat: read-only databases ---------------------------------------------------------

TEST_F(Sqlite3cpp, QueryOnlyConnectionRefusesAWriteOnceThenTheStatementStaysInvalid) {
  DbCon db(dbPath);
  db.exec("PRAGMA query_only = ON");
  CaptureFd err(2);
  {
    PrepStat insert(db, "INSERT INTO t VALUES(3, 'drei')");
    EXPECT_EQ(insert.getState(), PrepStat::BINDING);
    EXPECT_FALSE(insert.step());  // BINDING -> INVALID
    EXPECT_EQ(insert.getState(), PrepStat::INVALID);
    stepCalls = 0;
    EXPECT_FALSE(insert.step());
    EXPECT_EQ(stepCalls, 0);
  }
  // Finalizing a refused statement reports the refusal again; that is allowed when INVALID.
  EXPECT_EQ(lastFinalizeResult, SQLITE_READONLY);
  EXPECT_EQ(err.text(), kReadOnlyLine);
  db.exec("PRAGMA query_only = OFF");
  EXPECT_EQ(rows(db), "1=eins;2=zwei;");
}

TEST_F(Sqlite3cpp, ReadOnlyFileForAnUnprivilegedProcessRefusesTheWrite) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to hand the file to an unprivileged user";
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr) GTEST_SKIP() << "no user \"nobody\" on this machine";
  const uid_t uid = nobody->pw_uid;
  const gid_t gid = nobody->pw_gid;
  ASSERT_EQ(chmod(dir.path.c_str(), 0755), 0);
  ASSERT_EQ(chmod(dbPath.c_str(), 0444), 0);
  const ChildResult r = runInChild([&] {
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) {
      std::cout << "could not drop privileges" << std::endl;
      return;
    }
    DbCon db(dbPath);
    PrepStat insert(db, "INSERT INTO t VALUES(3, 'drei')");
    const bool stepped = insert.step();
    std::cout << db.isValid() << " " << stepped << " " << insert.getState() << std::endl;
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "1 0 2\n");
  EXPECT_EQ(r.err, kReadOnlyLine);
  DbCon db(dbPath);
  EXPECT_EQ(rows(db), "1=eins;2=zwei;");
}

TEST_F(Sqlite3cpp, RowReadyBecomesInvalidWhenAStepIsRefused) {
  DbCon db(dbPath);
  CaptureFd err(2);
  {
    PrepStat select(db, "SELECT a FROM t");
    ASSERT_TRUE(select.step());
    forceStepResult = SQLITE_READONLY;
    EXPECT_FALSE(select.step());  // ROW_READY -> INVALID
    EXPECT_EQ(select.getState(), PrepStat::INVALID);
  }
  EXPECT_EQ(err.text(), kReadOnlyLine);
}

TEST_F(Sqlite3cppDeathTest, AnyOtherStepResultAbortsWithTheWrongStateLine) {
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat insert(db, "INSERT INTO t VALUES(1, 'doppelt')");
        insert.step();
      },
      "bool sqlite3cpp::PrepStat::step(): Unexpected stepResult: 19\n" + wrongState("step", 1),
      kLineStepUnexpected, kStep, "false");
  // From a row, the line names ROW_READY.
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat select(db, "SELECT a FROM t");
        select.step();
        forceStepResult = SQLITE_IOERR;
        select.step();
      },
      "bool sqlite3cpp::PrepStat::step(): Unexpected stepResult: 10\n" + wrongState("step", 3),
      kLineStepUnexpected, kStep, "false");
}

TEST_F(Sqlite3cppDeathTest, ABusyDatabaseAbortsWithoutRetry) {
  expectAbort(
      [&] {
        DbCon reader(dbPath);
        PrepStat select(reader, "SELECT a FROM t");
        DbCon writer(dbPath);
        writer.exec("BEGIN EXCLUSIVE");
        select.step();
      },
      "bool sqlite3cpp::PrepStat::step(): Unexpected stepResult: 5\n" + wrongState("step", 1),
      kLineStepUnexpected, kStep, "false");
}

// ---- PrepStat: misuse ----------------------------------------------------------------------

namespace {

// Brings a statement on "SELECT a, b FROM t WHERE a >= ?" into one of the reachable states,
// and says what that wrote on standard error.
struct Reach {
  int state;
  std::string written;
  std::function<void(DbCon&, std::unique_ptr<PrepStat>&)> go;
};

std::vector<Reach> reachableStates() {
  const char* sql = "SELECT a, b FROM t WHERE a >= ?";
  return {
      {PrepStat::BINDING, "",
       [=](DbCon& db, std::unique_ptr<PrepStat>& p) { p.reset(new PrepStat(db, sql)); }},
      {PrepStat::INVALID, kPrepareFailedLine,
       [=](DbCon& db, std::unique_ptr<PrepStat>& p) { p.reset(new PrepStat(db, "SELEKT")); }},
      {PrepStat::ROW_READY, "",
       [=](DbCon& db, std::unique_ptr<PrepStat>& p) {
         p.reset(new PrepStat(db, sql));
         p->bindInt(1, 0);
         p->step();
       }},
      {PrepStat::DONE, "",
       [=](DbCon& db, std::unique_ptr<PrepStat>& p) {
         p.reset(new PrepStat(db, sql));
         p->bindInt(1, 99);
         p->step();
       }},
  };
}

struct Operation {
  const char* name;
  std::string function;
  int line;
  std::vector<int> allowed;
  std::function<void(PrepStat&)> call;
};

std::vector<Operation> checkedOperations() {
  using S = PrepStat::State;
  return {
      {"bindText", kBindString, kLineBindStringState, {S::BINDING},
       [](PrepStat& p) { p.bindText(1, std::string("x")); }},
      {"bindText", kBindBytes, kLineBindBytesState, {S::BINDING},
       [](PrepStat& p) { p.bindText(1, "x", 1); }},
      {"bindInt", kBindInt, kLineBindIntState, {S::BINDING}, [](PrepStat& p) { p.bindInt(1, 1); }},
      {"columnType", kColumnType, kLineColumnType, {S::ROW_READY},
       [](PrepStat& p) { p.columnType(0); }},
      {"columnInt", kColumnInt, kLineColumnInt, {S::ROW_READY},
       [](PrepStat& p) { p.columnInt(0); }},
      {"columnText", kColumnText, kLineColumnText, {S::ROW_READY},
       [](PrepStat& p) { p.columnText(0); }},
      {"reset", kReset, kLineResetState, {S::BINDING, S::ROW_READY, S::DONE},
       [](PrepStat& p) { p.reset(); }},
      // INVALID is no wrong state for step: it answers false.
      {"step", kStep, kLineStepState, {S::BINDING, S::ROW_READY, S::INVALID},
       [](PrepStat& p) { p.step(); }},
  };
}

}  // namespace

TEST_F(Sqlite3cppDeathTest, EveryOperationInEveryStateItDoesNotAllow) {
  int checked = 0;
  for (const Operation& op : checkedOperations()) {
    for (const Reach& reach : reachableStates()) {
      const bool allowed =
          std::find(op.allowed.begin(), op.allowed.end(), reach.state) != op.allowed.end();
      SCOPED_TRACE(op.function + " in state " + std::to_string(reach.state));
      const ChildResult r = runInChild([&] {
        DbCon db(dbPath);
        std::unique_ptr<PrepStat> p;
        reach.go(db, p);
        op.call(*p);
        std::cout << "returned" << std::endl;
      });
      if (allowed) {
        EXPECT_TRUE(r.exited()) << r.describe();
        EXPECT_EQ(r.out, "returned\n");
        continue;
      }
      ++checked;
      ASSERT_TRUE(r.signaled()) << r.describe();
      EXPECT_EQ(r.signal(), SIGABRT);
      EXPECT_EQ(r.out, "");
      EXPECT_EQ(r.err, reach.written + wrongState(op.name, reach.state) +
                           assertionLine(kUnit, op.line, op.function, "false"));
    }
  }
  EXPECT_EQ(checked, 20);
}

TEST_F(Sqlite3cppDeathTest, ColumnAfterTheLastRowNamesDone) {
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat select(db, "SELECT a FROM t");
        while (select.step()) {
        }
        select.columnInt(0);
      },
      wrongState("columnInt", 4), kLineColumnInt, kColumnInt, "false");
}

TEST_F(Sqlite3cppDeathTest, FailingBindsAssertWithTheCallAsText) {
  const char* sql = "SELECT ?";
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat(db, sql).bindText(2, std::string("x"));
      },
      "", kLineBindString, kBindString,
      "SQLITE_OK == sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT)");
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat(db, sql).bindText(0, "x", 1);
      },
      "", kLineBindBytes, kBindBytes,
      "SQLITE_OK == sqlite3_bind_text(stmt, idx, textBegin, textBytes, SQLITE_TRANSIENT)");
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat(db, sql).bindInt(-1, 1);
      },
      "", kLineBindInt, kBindInt, "SQLITE_OK == sqlite3_bind_int(stmt, idx, val)");
}

TEST_F(Sqlite3cppDeathTest, FailingResetAsserts) {
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat select(db, "SELECT a FROM t");
        failReset = SQLITE_IOERR;
        select.reset();
      },
      "", kLineReset, kReset, "SQLITE_OK == sqlite3_reset(stmt)");
}

TEST_F(Sqlite3cppDeathTest, FailingFinalizeOfAValidStatementAsserts) {
  expectAbort(
      [&] {
        DbCon db(dbPath);
        PrepStat select(db, "SELECT a FROM t");
        failFinalize = SQLITE_IOERR;
      },
      "", kLineFinalize, kPrepStatDtor, "state == INVALID || finalizeResult == SQLITE_OK");
}

TEST_F(Sqlite3cpp, FailingFinalizeOfAnInvalidStatementIsAccepted) {
  DbCon db(dbPath);
  CaptureFd err(2);
  {
    PrepStat p(db, "SELEKT");
    failFinalize = SQLITE_IOERR;
  }
  EXPECT_EQ(failFinalize, 0);
  EXPECT_EQ(err.text(), kPrepareFailedLine);
}
