// The SQLite twin of a storage: every stream is a row of one table,
//
//   streams(parent INTEGER, name TEXT, data BLOB, PRIMARY KEY(parent, name))
//
// where a root stream has parent 0 and a child has its folder's rowid.  The
// database runs in WAL mode with synchronous=NORMAL, and every statement is
// prepared once per connection, as a user who cares about speed would set
// it up.  Every failure aborts: a benchmark has nothing to recover.
#ifndef KYSTORE_BENCH_SQLITE_TABLE_H_
#define KYSTORE_BENCH_SQLITE_TABLE_H_

#include <sqlite3.h>

#include <cstdint>
#include <string>

class SqliteTable {
 public:
  // Opens the database at `path`; with `create` a previous one (and its WAL
  // files) is removed first and the table made.
  SqliteTable(const std::string& path, bool create);
  ~SqliteTable();
  SqliteTable(const SqliteTable&) = delete;
  SqliteTable& operator=(const SqliteTable&) = delete;

  void Begin();
  void Commit();

  // Adds a row and returns its rowid.
  int64_t Insert(int64_t parent, const char* name, const void* data, int size);
  // Copies up to `size` bytes of the row's data into `out`; returns how
  // many bytes the row holds, -1 when there is no such row.
  int Select(int64_t parent, const char* name, void* out, int size);
  // Deletes the row; false when there was none.
  bool Delete(int64_t parent, const char* name);

  // The files SQLite keeps for a database at `path`, removed.
  static void RemoveFiles(const std::string& path);

 private:
  void Exec(const char* sql);
  // Prepares `sql` into `*stmt` on first use and resets it for the next.
  sqlite3_stmt* Statement(sqlite3_stmt** stmt, const char* sql);
  void BindKey(sqlite3_stmt* stmt, int64_t parent, const char* name);

  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
};

#endif  // KYSTORE_BENCH_SQLITE_TABLE_H_
