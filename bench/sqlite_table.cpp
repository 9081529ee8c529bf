#include "sqlite_table.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void Check(sqlite3* db, int rc, const char* what) {
  if (rc == SQLITE_OK || rc == SQLITE_DONE || rc == SQLITE_ROW) return;
  fprintf(stderr, "sqlite: %s: %s\n", what, db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
  abort();
}

}  // namespace

SqliteTable::SqliteTable(const std::string& path, bool create) {
  if (create) RemoveFiles(path);
  int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
  Check(db_, sqlite3_open_v2(path.c_str(), &db_, flags, nullptr), "open");
  // WAL mode is kept in the file; synchronous is a setting of the connection.
  if (create) Exec("PRAGMA journal_mode=WAL");
  Exec("PRAGMA synchronous=NORMAL");
  if (create) {
    Exec(
        "CREATE TABLE streams(parent INTEGER, name TEXT, data BLOB, "
        "PRIMARY KEY(parent, name))");
  }
}

SqliteTable::~SqliteTable() {
  sqlite3_finalize(insert_);
  sqlite3_finalize(select_);
  sqlite3_finalize(delete_);
  Check(db_, sqlite3_close(db_), "close");
}

void SqliteTable::Exec(const char* sql) {
  Check(db_, sqlite3_exec(db_, sql, nullptr, nullptr, nullptr), sql);
}

void SqliteTable::Begin() {
  Exec("BEGIN");
}

void SqliteTable::Commit() {
  Exec("COMMIT");
}

sqlite3_stmt* SqliteTable::Statement(sqlite3_stmt** stmt, const char* sql) {
  if (*stmt == nullptr)
    Check(db_, sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, stmt, nullptr), sql);
  return *stmt;
}

void SqliteTable::BindKey(sqlite3_stmt* stmt, int64_t parent, const char* name) {
  Check(db_, sqlite3_bind_int64(stmt, 1, parent), "bind parent");
  Check(db_, sqlite3_bind_text(stmt, 2, name, -1, SQLITE_STATIC), "bind name");
}

int64_t SqliteTable::Insert(int64_t parent, const char* name, const void* data, int size) {
  sqlite3_stmt* stmt =
      Statement(&insert_, "INSERT INTO streams(parent, name, data) VALUES(?1, ?2, ?3)");
  BindKey(stmt, parent, name);
  Check(db_, sqlite3_bind_blob(stmt, 3, data, size, SQLITE_STATIC), "bind data");
  Check(db_, sqlite3_step(stmt), "insert");
  Check(db_, sqlite3_reset(stmt), "insert");
  return sqlite3_last_insert_rowid(db_);
}

int SqliteTable::Select(int64_t parent, const char* name, void* out, int size) {
  sqlite3_stmt* stmt =
      Statement(&select_, "SELECT data FROM streams WHERE parent = ?1 AND name = ?2");
  BindKey(stmt, parent, name);
  int rc = sqlite3_step(stmt);
  Check(db_, rc, "select");
  int held = -1;
  if (rc == SQLITE_ROW) {
    const void* data = sqlite3_column_blob(stmt, 0);
    held = sqlite3_column_bytes(stmt, 0);
    if (held > 0) memcpy(out, data, held < size ? held : size);
  }
  Check(db_, sqlite3_reset(stmt), "select");
  return held;
}

bool SqliteTable::Delete(int64_t parent, const char* name) {
  sqlite3_stmt* stmt = Statement(&delete_, "DELETE FROM streams WHERE parent = ?1 AND name = ?2");
  BindKey(stmt, parent, name);
  Check(db_, sqlite3_step(stmt), "delete");
  Check(db_, sqlite3_reset(stmt), "delete");
  return sqlite3_changes(db_) == 1;
}

void SqliteTable::RemoveFiles(const std::string& path) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path + suffix).c_str());
}
