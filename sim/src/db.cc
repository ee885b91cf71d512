#include "db.h"

namespace qzsim {

namespace {

const char* kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS seq(name TEXT PRIMARY KEY, value INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS hosts(
  name TEXT PRIMARY KEY, installed INTEGER, version TEXT,
  dmp INTEGER, vset INTEGER, cds INTEGER, hide_scans INTEGER DEFAULT 0,
  synced_gen INTEGER DEFAULT 0);
CREATE TABLE IF NOT EXISTS disks(
  id INTEGER PRIMARY KEY, lun TEXT UNIQUE, enclosure TEXT, encl_index INTEGER,
  size INTEGER, image TEXT,
  ptype TEXT DEFAULT 'auto', pformat TEXT DEFAULT 'none',
  privslice INTEGER DEFAULT 9999, pubslice INTEGER DEFAULT 9999,
  privoffset INTEGER DEFAULT 0, privlen INTEGER DEFAULT 0,
  puboffset INTEGER DEFAULT 0, publen INTEGER DEFAULT 0,
  configlen INTEGER DEFAULT 0, loglen INTEGER DEFAULT 0,
  nconfig INTEGER DEFAULT 0, nlog INTEGER DEFAULT 0,
  diskid TEXT DEFAULT '', dmname TEXT DEFAULT '', dgname TEXT DEFAULT '',
  dgid TEXT DEFAULT '', hostlock TEXT DEFAULT '', seqno INTEGER DEFAULT 0,
  udid TEXT DEFAULT '', copy_of INTEGER DEFAULT 0);
-- A disk's copy of its group's configuration, when it has one: it holds the
-- whole group, so it lives apart from the disk's other columns, which a run
-- reads for every disk it looks at.
-- Disks that carry one configuration share its text.
CREATE TABLE IF NOT EXISTS diskconfigs(disk INTEGER PRIMARY KEY, text INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS configtexts(id INTEGER PRIMARY KEY, config TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS paths(
  host TEXT, osname TEXT, disk INTEGER, enabled INTEGER DEFAULT 1, ord INTEGER,
  PRIMARY KEY(host, osname));
CREATE TABLE IF NOT EXISTS presented(
  host TEXT, osname TEXT, disk INTEGER, PRIMARY KEY(host, osname));
CREATE TABLE IF NOT EXISTS hostdisks(
  host TEXT, disk INTEGER, discovered INTEGER DEFAULT 0, inview INTEGER DEFAULT 0,
  late INTEGER DEFAULT 0, name TEXT DEFAULT '', PRIMARY KEY(host, disk));
CREATE TABLE IF NOT EXISTS imports(
  host TEXT, dgid TEXT, dgname TEXT, config TEXT DEFAULT '', disabled INTEGER DEFAULT 0,
  shared INTEGER DEFAULT 0, PRIMARY KEY(host, dgid));
CREATE TABLE IF NOT EXISTS members(
  host TEXT, dgid TEXT, dm TEXT, disk INTEGER, PRIMARY KEY(host, dgid, dm));
CREATE INDEX IF NOT EXISTS paths_by_disk ON paths(host, disk);
CREATE INDEX IF NOT EXISTS members_by_disk ON members(host, disk);
CREATE TABLE IF NOT EXISTS nodes(
  host TEXT, key TEXT, path TEXT, uid INTEGER, gid INTEGER, mode INTEGER,
  PRIMARY KEY(host, key));
CREATE TABLE IF NOT EXISTS started(host TEXT, dgid TEXT, obj TEXT, PRIMARY KEY(host, dgid, obj));
CREATE TABLE IF NOT EXISTS holds(host TEXT, dgid TEXT, vol TEXT, PRIMARY KEY(host, dgid, vol));
CREATE TABLE IF NOT EXISTS faults(
  id INTEGER PRIMARY KEY, host TEXT, tool TEXT, pattern TEXT, kind TEXT,
  nth INTEGER, remaining INTEGER, status INTEGER, out TEXT, err TEXT, hits INTEGER DEFAULT 0);
CREATE TABLE IF NOT EXISTS runs(
  id INTEGER PRIMARY KEY, host TEXT, cmd TEXT, status INTEGER, usec INTEGER,
  printed INTEGER DEFAULT 0, changed INTEGER DEFAULT 0);
)SQL";

}  // namespace

Db::Db(const std::string& path) {
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    std::string msg = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    db_ = nullptr;
    throw DbError("cannot open " + path + ": " + msg);
  }
  sqlite3_busy_timeout(db_, 30000);
  // Every tool run is a short process and often the only connection: a
  // rollback journal costs it a file truncated at each commit, where a
  // write-ahead log costs a log and its index made, read and removed again
  // by every run. A process killed in a transaction leaves its journal, and
  // the next connection rolls the change back. No fsync is made: a
  // simulation need not survive a power cut.
  exec("PRAGMA journal_mode=TRUNCATE");
  exec("PRAGMA synchronous=OFF");
  if (queryInt("SELECT count(*) FROM sqlite_master WHERE name='runs'", {}, 0) == 0) {
    createSchema();
  }
}

Db::~Db() {
  for (auto& st : stmts_) sqlite3_finalize(st.second);
  sqlite3_close(db_);
}

void Db::createSchema() {
  begin();
  char* err = nullptr;
  if (sqlite3_exec(db_, kSchema, nullptr, nullptr, &err) != SQLITE_OK) {
    std::string msg = err ? err : "?";
    sqlite3_free(err);
    rollback();
    throw DbError("schema: " + msg);
  }
  commit();
}

sqlite3_stmt* Db::prepare(const std::string& sql, const std::vector<Value>& args) {
  sqlite3_stmt*& st = stmts_[sql];
  if (!st && sqlite3_prepare_v2(db_, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
    stmts_.erase(sql);
    throw DbError(std::string(sqlite3_errmsg(db_)) + " in " + sql);
  }
  for (size_t i = 0; i < args.size(); ++i) {
    int idx = static_cast<int>(i + 1);
    const Value& v = args[i];
    if (v.kind == Value::kInt)
      sqlite3_bind_int64(st, idx, v.i);
    else if (v.kind == Value::kText)
      sqlite3_bind_text(st, idx, v.s.c_str(), -1, SQLITE_TRANSIENT);
    else
      sqlite3_bind_null(st, idx);
  }
  return st;
}

std::vector<Row> Db::query(const std::string& sql, const std::vector<Value>& args) {
  sqlite3_stmt* st = prepare(sql, args);
  std::vector<Row> rows;
  int rc;
  while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
    Row row;
    int n = sqlite3_column_count(st);
    for (int c = 0; c < n; ++c) {
      switch (sqlite3_column_type(st, c)) {
        case SQLITE_INTEGER:
          row.emplace_back(static_cast<int64_t>(sqlite3_column_int64(st, c)));
          break;
        case SQLITE_NULL:
          row.emplace_back();
          break;
        default: {
          const unsigned char* t = sqlite3_column_text(st, c);
          row.emplace_back(std::string(t ? reinterpret_cast<const char*>(t) : ""));
        }
      }
    }
    rows.push_back(std::move(row));
  }
  std::string msg = sqlite3_errmsg(db_);
  sqlite3_reset(st);
  sqlite3_clear_bindings(st);
  if (rc != SQLITE_DONE)
    throw DbError(msg + " in " + sql);
  return rows;
}

void Db::exec(const std::string& sql, const std::vector<Value>& args) {
  query(sql, args);
}

int64_t Db::queryInt(const std::string& sql, const std::vector<Value>& args, int64_t fallback) {
  auto rows = query(sql, args);
  if (rows.empty() || rows[0].empty() || rows[0][0].kind == Value::kNull)
    return fallback;
  return rows[0][0].kind == Value::kInt ? rows[0][0].i : std::stoll(rows[0][0].s);
}

std::string Db::queryText(const std::string& sql, const std::vector<Value>& args,
                          const std::string& fallback) {
  auto rows = query(sql, args);
  if (rows.empty() || rows[0].empty() || rows[0][0].kind == Value::kNull)
    return fallback;
  return rows[0][0].kind == Value::kText ? rows[0][0].s : std::to_string(rows[0][0].i);
}

int64_t Db::lastInsertId() {
  return sqlite3_last_insert_rowid(db_);
}
int Db::changes() {
  return sqlite3_changes(db_);
}
int64_t Db::totalChanges() {
  return sqlite3_total_changes64(db_);
}

int64_t Db::nextSeq(const std::string& name) {
  exec("INSERT INTO seq(name, value) VALUES(?, 1) ON CONFLICT(name) DO UPDATE SET value=value+1",
       {name});
  return queryInt("SELECT value FROM seq WHERE name=?", {name}, 1);
}

}  // namespace qzsim
