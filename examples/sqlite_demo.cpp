// The SQLite wrapper: a table in a temporary directory, rows inserted through one prepared
// statement with bound parameters (bind, step, reset), read back, and the wrong-state report a
// misuse produces, shown in a child process because it aborts.
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "Orvix/sqlite3cpp.hpp"

int main() {
  std::cout << "Orvix SQLite demo\n";
  char pattern[] = "/tmp/orvix-sqlite-demo-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  const std::string dir = pattern;
  const std::string path = dir + "/demo.db";
  std::cout << "1. Database " << path << "\n";

  {
    sqlite3cpp::DbCon db(path);
    db.exec("CREATE TABLE jobs(id INTEGER PRIMARY KEY, name TEXT, pages INTEGER)");

    const char* names[] = {"Rechnung", "Lieferschein", "Etikett"};
    const int pages[] = {3, 1, 12};
    db.exec("BEGIN");
    {
      sqlite3cpp::PrepStat insert(db, "INSERT INTO jobs(name, pages) VALUES(?, ?)");
      for (int i = 0; i < 3; ++i) {
        insert.bindText(1, names[i]);
        insert.bindInt(2, pages[i]);
        insert.step();
        insert.reset();  // the bindings stay until bound anew
      }
    }
    db.exec("COMMIT");
    std::cout << "2. Inserted 3 rows with bound parameters.\n";

    std::cout << "3. Read back:\n";
    sqlite3cpp::PrepStat select(db,
                                "SELECT id, name, pages FROM jobs WHERE pages >= ? ORDER BY id");
    select.bindInt(1, 1);
    while (select.step())
      std::cout << "   " << select.columnInt(0) << " | " << select.columnText(1) << " | "
                << select.columnInt(2) << " pages\n";
  }

  std::cout << "4. Misuse in a child: reading a column after the last row.\n" << std::flush;
  const pid_t child = fork();
  if (child == 0) {
    sqlite3cpp::DbCon db(path);
    sqlite3cpp::PrepStat select(db, "SELECT id FROM jobs");
    while (select.step()) {
    }
    select.columnInt(0);  // state DONE: reported on standard error, then the assertion
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status))
    std::cout << "   the child ended with signal " << WTERMSIG(status) << " (abort).\n";
  else
    std::cout << "   the child exited with " << WEXITSTATUS(status) << ".\n";

  unlink(path.c_str());
  rmdir(dir.c_str());
  return 0;
}
