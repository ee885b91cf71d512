// Thin SQLite wrapper: the simulation state of every host lives in one
// database so that tools run by several hosts at once see one storage network.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace qzsim {

class DbError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A bound value: text, integer or SQL NULL.
struct Value {
  enum Kind { kNull, kInt, kText } kind = kNull;
  int64_t i = 0;
  std::string s;
  Value() = default;
  Value(int64_t v) : kind(kInt), i(v) {}
  Value(int v) : kind(kInt), i(v) {}
  Value(const std::string& v) : kind(kText), s(v) {}
  Value(const char* v) : kind(kText), s(v) {}
};

using Row = std::vector<Value>;

class Db {
 public:
  // Opens (creating) the database with a rollback journal and a busy
  // timeout, and creates the schema when missing.
  explicit Db(const std::string& path);
  ~Db();
  Db(const Db&) = delete;
  Db& operator=(const Db&) = delete;

  void exec(const std::string& sql, const std::vector<Value>& args = {});
  std::vector<Row> query(const std::string& sql, const std::vector<Value>& args = {});
  // First column of the first row, or the fallback when there is no row.
  int64_t queryInt(const std::string& sql, const std::vector<Value>& args, int64_t fallback);
  std::string queryText(const std::string& sql, const std::vector<Value>& args,
                        const std::string& fallback);
  int64_t lastInsertId();
  int changes();
  int64_t totalChanges();  // rows changed through this connection so far

  // Takes the write lock at once so that two hosts never interleave a run.
  void begin() { exec("BEGIN IMMEDIATE"); }
  void commit() { exec("COMMIT"); }
  void rollback() { exec("ROLLBACK"); }
  // Next value of a named counter (ids, guids, OS names).
  int64_t nextSeq(const std::string& name);

 private:
  // A cached statement, reset and bound to args; a tool run repeats the same
  // few statements many times, and compiling them is most of its cost.
  sqlite3_stmt* prepare(const std::string& sql, const std::vector<Value>& args);
  void createSchema();
  sqlite3* db_ = nullptr;
  std::unordered_map<std::string, sqlite3_stmt*> stmts_;
};

}  // namespace qzsim
