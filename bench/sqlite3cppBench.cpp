// The wrapper's state machine against the bare SQLite C API: one million single-row inserts with
// bound parameters in one transaction (bind, step, reset), and reading the rows back. Both sides
// run the same statements on the same database file in a temporary directory.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Orvix/sqlite3cpp.hpp"

namespace {

constexpr int kRows = 1000000;

// The database file, in a directory removed at exit.
const std::string& dbPath() {
  static const std::string path = [] {
    char pattern[] = "/tmp/orvix-sqlite-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    static std::string file = dir + "/bench.db";
    atexit([] {
      unlink(file.c_str());
      unlink((file + "-journal").c_str());
      rmdir(file.substr(0, file.rfind('/')).c_str());
    });
    return file;
  }();
  return path;
}

// A few texts to bind, made once so that neither side measures string building.
const std::vector<std::string>& names() {
  static const std::vector<std::string> texts = {"Rechnung", "Lieferschein", "Etikett",
                                                 "Testseite", "Kalibrierung"};
  return texts;
}

// Empties the table; fsync at commit is off on both sides so the loop itself is measured.
void prepareTable(sqlite3cpp::DbCon& db) {
  db.exec("PRAGMA synchronous = OFF; DROP TABLE IF EXISTS t;"
          "CREATE TABLE t(id INTEGER, name TEXT)");
}

void BM_RawInsert(benchmark::State& state) {
  sqlite3cpp::DbCon db(dbPath());
  sqlite3* raw = db;
  const auto& texts = names();
  for (auto _ : state) {
    state.PauseTiming();
    prepareTable(db);
    state.ResumeTiming();
    sqlite3_exec(raw, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(raw, "INSERT INTO t VALUES(?, ?)", -1, &stmt, nullptr);
    for (int i = 0; i < kRows; ++i) {
      if (sqlite3_bind_int(stmt, 1, i) != SQLITE_OK ||
          sqlite3_bind_text(stmt, 2, texts[i % texts.size()].c_str(), -1, SQLITE_TRANSIENT) !=
              SQLITE_OK ||
          sqlite3_step(stmt) != SQLITE_DONE || sqlite3_reset(stmt) != SQLITE_OK) {
        state.SkipWithError("insert failed");
        break;
      }
    }
    sqlite3_finalize(stmt);
    sqlite3_exec(raw, "COMMIT", nullptr, nullptr, nullptr);
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_PrepStatInsert(benchmark::State& state) {
  sqlite3cpp::DbCon db(dbPath());
  const auto& texts = names();
  for (auto _ : state) {
    state.PauseTiming();
    prepareTable(db);
    state.ResumeTiming();
    db.exec("BEGIN");
    {
      sqlite3cpp::PrepStat insert(db, "INSERT INTO t VALUES(?, ?)");
      for (int i = 0; i < kRows; ++i) {
        insert.bindInt(1, i);
        insert.bindText(2, texts[i % texts.size()]);
        insert.step();
        insert.reset();
      }
    }
    db.exec("COMMIT");
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

// Fills the table once for the read benchmarks.
void fillOnce() {
  static bool filled = false;
  if (filled) return;
  sqlite3cpp::DbCon db(dbPath());
  prepareTable(db);
  db.exec("BEGIN");
  {
    sqlite3cpp::PrepStat insert(db, "INSERT INTO t VALUES(?, ?)");
    for (int i = 0; i < kRows; ++i) {
      insert.bindInt(1, i);
      insert.bindText(2, names()[i % names().size()]);
      insert.step();
      insert.reset();
    }
  }
  db.exec("COMMIT");
  filled = true;
}

void BM_RawReadBack(benchmark::State& state) {
  fillOnce();
  sqlite3cpp::DbCon db(dbPath());
  sqlite3* raw = db;
  for (auto _ : state) {
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(raw, "SELECT id, name FROM t", -1, &stmt, nullptr);
    long sum = 0;
    int rows = 0;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      sum += sqlite3_column_int(stmt, 0) + sqlite3_column_text(stmt, 1)[0];
      ++rows;
    }
    sqlite3_finalize(stmt);
    benchmark::DoNotOptimize(sum);
    if (rows != kRows) state.SkipWithError("rows missing");
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_PrepStatReadBack(benchmark::State& state) {
  fillOnce();
  sqlite3cpp::DbCon db(dbPath());
  for (auto _ : state) {
    sqlite3cpp::PrepStat select(db, "SELECT id, name FROM t");
    long sum = 0;
    int rows = 0;
    while (select.step()) {
      sum += select.columnInt(0) + select.columnText(1)[0];
      ++rows;
    }
    benchmark::DoNotOptimize(sum);
    if (rows != kRows) state.SkipWithError("rows missing");
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

}  // namespace

BENCHMARK(BM_RawInsert)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);
BENCHMARK(BM_PrepStatInsert)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);
BENCHMARK(BM_RawReadBack)->Unit(benchmark::kMillisecond)->Iterations(2)->Repetitions(5);
BENCHMARK(BM_PrepStatReadBack)->Unit(benchmark::kMillisecond)->Iterations(2)->Repetitions(5);

BENCHMARK_MAIN();
