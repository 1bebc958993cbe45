#include "tools/index/backup_index.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <unordered_map>

namespace com::vx::korvane::ndmpc::tools {
namespace {

// Marks the file as ours (PRAGMA application_id, "ndix"), and the layout's version.
constexpr int kApplicationId = 0x6E646978;
constexpr int kSchemaVersion = 1;

// Entries are keyed by their directory and name, so that a directory's
// listing is one range of the primary key. `dir` is the parent's path ("/"
// for the children of the root); the root itself has an empty dir and name.
const char kSchema[] = R"(
BEGIN;
CREATE TABLE backups(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  started INTEGER NOT NULL,
  finished INTEGER NOT NULL DEFAULT 0,
  server TEXT NOT NULL,
  filesystem TEXT NOT NULL,
  backup_type TEXT NOT NULL,
  tape_device TEXT NOT NULL,
  tape_file INTEGER NOT NULL,
  rewind INTEGER NOT NULL,
  outcome TEXT NOT NULL DEFAULT 'incomplete',
  error TEXT NOT NULL DEFAULT '',
  bytes INTEGER NOT NULL DEFAULT 0,
  files INTEGER NOT NULL DEFAULT 0,
  entries INTEGER NOT NULL DEFAULT 0);
CREATE TABLE environment(
  backup INTEGER NOT NULL REFERENCES backups(id),
  position INTEGER NOT NULL,
  name TEXT NOT NULL,
  value TEXT NOT NULL,
  PRIMARY KEY(backup, position)) WITHOUT ROWID;
CREATE TABLE entries(
  backup INTEGER NOT NULL REFERENCES backups(id),
  dir TEXT NOT NULL,
  name TEXT NOT NULL,
  type INTEGER NOT NULL,
  size INTEGER NOT NULL,
  mode INTEGER NOT NULL,
  owner INTEGER NOT NULL,
  grp INTEGER NOT NULL,
  mtime INTEGER NOT NULL,
  fh_info INTEGER NOT NULL,
  PRIMARY KEY(backup, dir, name)) WITHOUT ROWID;
CREATE VIEW entry_paths AS
  SELECT backup, dir, name,
         CASE dir WHEN '' THEN '/' WHEN '/' THEN '/' || name ELSE dir || '/' || name END AS path,
         type, size, mode, owner, grp, mtime, fh_info
  FROM entries;
PRAGMA application_id = 1852074360;
PRAGMA user_version = 1;
COMMIT;
)";

// Node-based history of the running backup, joined into entries at its end.
// Temporary tables vanish with the connection, so a crash leaves nothing.
const char kStaging[] = R"(
CREATE TEMP TABLE IF NOT EXISTS fh_dir(node INTEGER NOT NULL, parent INTEGER NOT NULL,
                                       name TEXT NOT NULL);
CREATE TEMP TABLE IF NOT EXISTS fh_node(node INTEGER PRIMARY KEY, type INTEGER, size INTEGER,
  mode INTEGER, owner INTEGER, grp INTEGER, mtime INTEGER, fh_info INTEGER);
CREATE TEMP TABLE IF NOT EXISTS fh_path(node INTEGER PRIMARY KEY, path TEXT NOT NULL);
DELETE FROM fh_dir; DELETE FROM fh_node; DELETE FROM fh_path;
)";

const char kEntryColumns[] = "path, type, size, mode, owner, grp, mtime, fh_info";

// A prepared statement, finalized with its scope.
class CStatement {
 public:
  CStatement(sqlite3* db, const std::string& sql) {
    sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &statement_, nullptr);
  }
  ~CStatement() { sqlite3_finalize(statement_); }
  CStatement(const CStatement&) = delete;
  CStatement& operator=(const CStatement&) = delete;
  bool Ok() const { return statement_ != nullptr; }
  sqlite3_stmt* Get() { return statement_; }
  CStatement& Bind(int index, std::int64_t value) {
    sqlite3_bind_int64(statement_, index, value);
    return *this;
  }
  CStatement& Bind(int index, const std::string& value) {
    sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                      SQLITE_TRANSIENT);
    return *this;
  }
  // SQLITE_ROW, SQLITE_DONE or an error.
  int Step() { return sqlite3_step(statement_); }
  std::int64_t Int(int column) { return sqlite3_column_int64(statement_, column); }
  std::string Text(int column) {
    const unsigned char* text = sqlite3_column_text(statement_, column);
    return text == nullptr ? std::string()
                           : std::string(reinterpret_cast<const char*>(text),
                                         static_cast<std::size_t>(sqlite3_column_bytes(
                                             statement_, column)));
  }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

// Splits a normal path into the entries table's dir and name.
void SplitPath(const std::string& path, std::string* dir, std::string* name) {
  if (path == "/") {
    dir->clear();
    name->clear();
    return;
  }
  const std::size_t slash = path.rfind('/');
  dir->assign(path, 0, slash == 0 ? 1 : slash);
  name->assign(path, slash + 1, std::string::npos);
}

void BindText(sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void BindStat(sqlite3_stmt* statement, int first, const CNDMPHistoryStat& stat,
              std::uint64_t fhInfo) {
  sqlite3_bind_int64(statement, first, stat.fileType);
  sqlite3_bind_int64(statement, first + 1, static_cast<std::int64_t>(stat.size));
  sqlite3_bind_int64(statement, first + 2, stat.fsAttributes & 07777);
  sqlite3_bind_int64(statement, first + 3, stat.owner);
  sqlite3_bind_int64(statement, first + 4, stat.group);
  sqlite3_bind_int64(statement, first + 5, stat.mtime);
  sqlite3_bind_int64(statement, first + 6, static_cast<std::int64_t>(fhInfo));
}

// The entry of a row that starts with kEntryColumns.
CIndexEntry RowEntry(sqlite3_stmt* row) {
  CIndexEntry e;
  e.path.assign(reinterpret_cast<const char*>(sqlite3_column_text(row, 0)),
                static_cast<std::size_t>(sqlite3_column_bytes(row, 0)));
  e.type = static_cast<unsigned int>(sqlite3_column_int64(row, 1));
  e.size = static_cast<std::uint64_t>(sqlite3_column_int64(row, 2));
  e.mode = static_cast<unsigned int>(sqlite3_column_int64(row, 3));
  e.owner = static_cast<unsigned int>(sqlite3_column_int64(row, 4));
  e.group = static_cast<unsigned int>(sqlite3_column_int64(row, 5));
  e.mtime = sqlite3_column_int64(row, 6);
  e.fhInfo = static_cast<std::uint64_t>(sqlite3_column_int64(row, 7));
  return e;
}

bool InsertEnvironment(sqlite3* db, std::int64_t id,
                       const std::vector<std::pair<std::string, std::string>>& environment) {
  CStatement env(db, "INSERT INTO environment VALUES(?1, ?2, ?3, ?4)");
  for (std::size_t i = 0; i < environment.size(); ++i) {
    const bool ok = env.Ok() && env.Bind(1, id)
                                        .Bind(2, static_cast<std::int64_t>(i))
                                        .Bind(3, environment[i].first)
                                        .Bind(4, environment[i].second)
                                        .Step() == SQLITE_DONE;
    if (!ok) return false;
    sqlite3_reset(env.Get());
  }
  return true;
}

}  // namespace

std::string CBackupIndex::NormalPath(const std::string& path) {
  std::string normal = "/";
  std::size_t at = 0;
  while (at < path.size()) {
    std::size_t end = path.find('/', at);
    if (end == std::string::npos) end = path.size();
    if (end > at && !(end - at == 1 && path[at] == '.')) {
      if (normal.size() > 1) normal += '/';
      normal.append(path, at, end - at);
    }
    at = end + 1;
  }
  return normal;
}

std::unique_ptr<CBackupIndex> CBackupIndex::Open(const std::string& file, Mode mode,
                                                 std::string* error) {
  struct stat st {};
  if (::stat(file.c_str(), &st) != 0) {
    if (mode == kRead || errno != ENOENT) {
      *error = "index " + file + ": " + std::strerror(errno);
      return nullptr;
    }
  } else if (!S_ISREG(st.st_mode)) {
    *error = "index " + file + ": not a regular file";
    return nullptr;
  }
  sqlite3* db = nullptr;
  int flags = mode == kRead ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  flags |= SQLITE_OPEN_NOMUTEX;
  const int opened = sqlite3_open_v2(file.c_str(), &db, flags, nullptr);
  std::unique_ptr<CBackupIndex> index(new CBackupIndex(db, file));
  if (opened != SQLITE_OK) {
    index->Failed(error);
    return nullptr;
  }
  sqlite3_busy_timeout(db, 10000);
  CStatement kind(db,
                  "SELECT (SELECT application_id FROM pragma_application_id), "
                  "(SELECT user_version FROM pragma_user_version), "
                  "(SELECT count(*) FROM sqlite_schema)");
  if (!kind.Ok() || kind.Step() != SQLITE_ROW) {
    *error = file + " is not an ndmpc backup index (" + sqlite3_errmsg(db) + ")";
    return nullptr;
  }
  const std::int64_t application = kind.Int(0), version = kind.Int(1), objects = kind.Int(2);
  sqlite3_reset(kind.Get());  // ends its read transaction
  if (application == 0 && objects == 0 && mode == kCreate) {
    if (!index->Exec("PRAGMA journal_mode = WAL", error) || !index->Exec(kSchema, error)) {
      return nullptr;
    }
  } else if (application != kApplicationId) {
    *error = file + " is not an ndmpc backup index" +
             (objects == 0 ? " (an empty database)" : " (an SQLite database of something else)");
    return nullptr;
  } else if (version > kSchemaVersion) {
    *error = file + " was made by a newer ndmpc (index version " + std::to_string(version) + ")";
    return nullptr;
  }
  if (mode == kCreate &&
      !index->Exec("PRAGMA synchronous = NORMAL; PRAGMA cache_size = -65536; PRAGMA temp.cache_size = -65536; PRAGMA wal_autocheckpoint = 16384", error)) {
    return nullptr;
  }
  return index;
}

CBackupIndex::~CBackupIndex() { sqlite3_close_v2(db_); }

bool CBackupIndex::Failed(std::string* error) const {
  *error = "index " + file_ + ": " + (db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory");
  return false;
}

bool CBackupIndex::Exec(const char* sql, std::string* error) {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK || Failed(error);
}

bool CBackupIndex::Backups(std::vector<CIndexBackup>* backups, std::string* error) {
  CStatement rows(db_,
                  "SELECT id, started, finished, server, filesystem, backup_type, tape_device, "
                  "tape_file, rewind, outcome, error, bytes, files, entries FROM backups "
                  "ORDER BY id");
  if (!rows.Ok()) return Failed(error);
  std::unordered_map<std::int64_t, std::size_t> byId;
  int step;
  while ((step = rows.Step()) == SQLITE_ROW) {
    CIndexBackup b;
    b.id = rows.Int(0);
    b.started = rows.Int(1);
    b.finished = rows.Int(2);
    b.server = rows.Text(3);
    b.filesystem = rows.Text(4);
    b.backupType = rows.Text(5);
    b.tapeDevice = rows.Text(6);
    b.tapeFile = static_cast<unsigned int>(rows.Int(7));
    b.rewind = rows.Int(8) != 0;
    b.outcome = rows.Text(9);
    b.error = rows.Text(10);
    b.bytes = static_cast<std::uint64_t>(rows.Int(11));
    b.files = static_cast<std::uint64_t>(rows.Int(12));
    b.entries = static_cast<std::uint64_t>(rows.Int(13));
    byId[b.id] = backups->size();
    backups->push_back(std::move(b));
  }
  if (step != SQLITE_DONE) return Failed(error);
  CStatement env(db_, "SELECT backup, name, value FROM environment ORDER BY backup, position");
  while (env.Ok() && (step = env.Step()) == SQLITE_ROW) {
    auto at = byId.find(env.Int(0));
    if (at != byId.end()) (*backups)[at->second].environment.emplace_back(env.Text(1), env.Text(2));
  }
  return (env.Ok() && step == SQLITE_DONE) || Failed(error);
}

bool CBackupIndex::Backup(std::int64_t id, CIndexBackup* backup, std::string* error) {
  std::vector<CIndexBackup> all;
  if (!Backups(&all, error)) return false;
  for (CIndexBackup& b : all) {
    if (b.id == id) {
      *backup = std::move(b);
      return true;
    }
  }
  *error = "no backup " + std::to_string(id) + " in " + file_ + " (see ndmpc index " + file_ +
           " list)";
  return false;
}

bool CBackupIndex::ReadEntries(sqlite3_stmt* statement, std::vector<CIndexEntry>* entries,
                               std::string* error) {
  int step;
  while ((step = sqlite3_step(statement)) == SQLITE_ROW) entries->push_back(RowEntry(statement));
  return step == SQLITE_DONE || Failed(error);
}

bool CBackupIndex::Entry(std::int64_t id, const std::string& path, CIndexEntry* entry,
                         std::string* error) {
  std::string dir, name;
  SplitPath(NormalPath(path), &dir, &name);
  CStatement row(db_, std::string("SELECT ") + kEntryColumns +
                          " FROM entry_paths WHERE backup = ?1 AND dir = ?2 AND name = ?3");
  if (!row.Ok()) return Failed(error);
  row.Bind(1, id).Bind(2, dir).Bind(3, name);
  std::vector<CIndexEntry> found;
  error->clear();
  if (!ReadEntries(row.Get(), &found, error) || found.empty()) return false;
  *entry = std::move(found[0]);
  return true;
}

bool CBackupIndex::Children(std::int64_t id, const std::string& path,
                            std::vector<CIndexEntry>* entries, std::string* error) {
  CStatement rows(db_, std::string("SELECT ") + kEntryColumns +
                           " FROM entry_paths WHERE backup = ?1 AND dir = ?2 ORDER BY name");
  if (!rows.Ok()) return Failed(error);
  rows.Bind(1, id).Bind(2, NormalPath(path));
  return ReadEntries(rows.Get(), entries, error);
}

bool CBackupIndex::Find(const std::string& pattern,
                        std::vector<std::pair<std::int64_t, CIndexEntry>>* found,
                        std::string* error) {
  const bool byPath = pattern.find('/') != std::string::npos;
  CStatement rows(db_, std::string("SELECT ") + kEntryColumns + ", backup FROM entry_paths WHERE " +
                           (byPath ? "path" : "name") + " GLOB ?1 ORDER BY backup, path");
  if (!rows.Ok()) return Failed(error);
  rows.Bind(1, pattern);
  int step;
  while ((step = rows.Step()) == SQLITE_ROW) found->emplace_back(rows.Int(8), RowEntry(rows.Get()));
  return step == SQLITE_DONE || Failed(error);
}

// ---------------------------------------------------------------------------
// Writing a backup

CIndexWriter::~CIndexWriter() {
  std::lock_guard<std::mutex> lock(mutex_);
  Release();
}

void CIndexWriter::Release() {
  if (open_) sqlite3_exec(index_.db_, "ROLLBACK", nullptr, nullptr, nullptr);
  open_ = false;
  for (sqlite3_stmt** statement : {&file_, &dir_, &node_}) {
    sqlite3_finalize(*statement);
    *statement = nullptr;
  }
}

bool CIndexWriter::Begin(const CIndexBackup& backup, std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (id_ != 0) {
    *error = "index " + index_.File() + ": a writer records one backup";
    return false;
  }
  sqlite3* db = index_.db_;
  if (!index_.Exec("BEGIN IMMEDIATE", error)) return false;
  CStatement row(db,
                 "INSERT INTO backups(started, server, filesystem, backup_type, tape_device, "
                 "tape_file, rewind) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)");
  bool ok = row.Ok() && row.Bind(1, static_cast<std::int64_t>(std::time(nullptr)))
                                .Bind(2, backup.server)
                                .Bind(3, backup.filesystem)
                                .Bind(4, backup.backupType)
                                .Bind(5, backup.tapeDevice)
                                .Bind(6, backup.tapeFile)
                                .Bind(7, backup.rewind ? 1 : 0)
                                .Step() == SQLITE_DONE;
  const std::int64_t id = sqlite3_last_insert_rowid(db);
  ok = ok && InsertEnvironment(db, id, backup.environment);
  if (!ok || !index_.Exec("COMMIT", error)) {
    if (!ok) index_.Failed(error);
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return false;
  }
  id_ = id;
  const char* statements[] = {
      "INSERT OR REPLACE INTO entries VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)",
      "INSERT INTO temp.fh_dir VALUES(?1, ?2, ?3)",
      "INSERT OR REPLACE INTO temp.fh_node VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)"};
  sqlite3_stmt** prepared[] = {&file_, &dir_, &node_};
  if (!index_.Exec(kStaging, error)) return false;
  for (int i = 0; i < 3; ++i) {
    if (sqlite3_prepare_v2(db, statements[i], -1, prepared[i], nullptr) != SQLITE_OK) {
      index_.Failed(error);
      Release();
      return false;
    }
  }
  sqlite3_bind_int64(file_, 1, id_);
  if (!index_.Exec("BEGIN", error)) {
    Release();
    return false;
  }
  open_ = true;
  return true;
}

void CIndexWriter::Fail() {
  if (failure_.empty()) index_.Failed(&failure_);
  Release();
}

void CIndexWriter::Added() {
  if (++inBatch_ < batch_) return;
  inBatch_ = 0;
  if (sqlite3_exec(index_.db_, "COMMIT; BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) Fail();
}

void CIndexWriter::AddFile(const CNDMPHistoryFile& entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!open_) return;
  std::string dir, name;
  SplitPath(CBackupIndex::NormalPath(entry.path), &dir, &name);
  BindText(file_, 2, dir);
  BindText(file_, 3, name);
  BindStat(file_, 4, entry.stat, entry.fhInfo);
  const int step = sqlite3_step(file_);
  sqlite3_reset(file_);
  if (step != SQLITE_DONE) return Fail();
  Added();
}

void CIndexWriter::AddDir(const CNDMPHistoryDir& entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!open_) return;
  sqlite3_bind_int64(dir_, 1, static_cast<std::int64_t>(entry.node));
  sqlite3_bind_int64(dir_, 2, static_cast<std::int64_t>(entry.parent));
  BindText(dir_, 3, entry.name);
  const int step = sqlite3_step(dir_);
  sqlite3_reset(dir_);
  if (step != SQLITE_DONE) return Fail();
  Added();
}

void CIndexWriter::AddNode(const CNDMPHistoryNode& entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!open_) return;
  sqlite3_bind_int64(node_, 1, static_cast<std::int64_t>(entry.node));
  BindStat(node_, 2, entry.stat, entry.fhInfo);
  const int step = sqlite3_step(node_);
  sqlite3_reset(node_);
  if (step != SQLITE_DONE) return Fail();
  Added();
}

// Gives every directory node one path and inserts the node-based entries
// under them. A directory's path is found through its first name (a
// directory has one; "." and ".." are skipped); the root is a directory that
// is its own parent (its "." entry) and has no name. Chains that loop or
// never reach the root stay unresolved, and so do the entries under them.
bool CIndexWriter::ResolveNodes(std::string* error) {
  sqlite3* db = index_.db_;
  struct CName {
    std::int64_t parent;
    std::string name;
  };
  std::unordered_map<std::int64_t, CName> names;
  std::vector<std::int64_t> selves;
  CStatement dirs(db,
                  "SELECT node, parent, name FROM temp.fh_dir "
                  "WHERE node IN (SELECT parent FROM temp.fh_dir) ORDER BY rowid");
  int step = SQLITE_DONE;
  while (dirs.Ok() && (step = dirs.Step()) == SQLITE_ROW) {
    const std::int64_t node = dirs.Int(0), parent = dirs.Int(1);
    std::string name = dirs.Text(2);
    if (node == parent) {
      selves.push_back(node);
    } else if (!name.empty() && name != "." && name != ".." &&
               name.find('/') == std::string::npos) {
      names.emplace(node, CName{parent, std::move(name)});
    }
  }
  if (!dirs.Ok() || step != SQLITE_DONE) return index_.Failed(error);
  for (std::int64_t node : selves) names.emplace(node, CName{node, ""});

  std::unordered_map<std::int64_t, std::string> paths;  // "" marks an unresolved node
  std::vector<std::int64_t> chain;
  for (const auto& start : names) {
    chain.clear();
    std::string base;
    for (std::int64_t at = start.first;;) {
      if (auto known = paths.find(at); known != paths.end()) {
        base = known->second;
        break;
      }
      auto name = names.find(at);
      if (name == names.end() || chain.size() > names.size()) break;
      if (name->second.parent == at) {
        base = paths[at] = "/";
        break;
      }
      chain.push_back(at);
      at = name->second.parent;
    }
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
      if (!base.empty()) base = (base.size() > 1 ? base : "") + "/" + names[*it].name;
      paths[*it] = base;
    }
  }
  CStatement path(db, "INSERT INTO temp.fh_path VALUES(?1, ?2)");
  for (const auto& [node, text] : paths) {
    if (text.empty()) continue;
    if (!path.Ok() || path.Bind(1, node).Bind(2, text).Step() != SQLITE_DONE) {
      return index_.Failed(error);
    }
    sqlite3_reset(path.Get());
  }
  CStatement join(db,
                  "INSERT OR REPLACE INTO entries SELECT ?1, p.path, d.name, n.type, n.size, "
                  "n.mode, n.owner, n.grp, n.mtime, n.fh_info FROM temp.fh_dir d "
                  "JOIN temp.fh_path p ON p.node = d.parent JOIN temp.fh_node n ON n.node = d.node "
                  "WHERE d.node <> d.parent AND d.name NOT IN ('', '.', '..') "
                  "AND instr(d.name, '/') = 0");
  CStatement root(db,
                  "INSERT OR REPLACE INTO entries SELECT ?1, '', '', type, size, mode, owner, grp, "
                  "mtime, fh_info FROM temp.fh_node "
                  "WHERE node IN (SELECT node FROM temp.fh_path WHERE path = '/')");
  if (!join.Ok() || join.Bind(1, id_).Step() != SQLITE_DONE || !root.Ok() ||
      root.Bind(1, id_).Step() != SQLITE_DONE) {
    return index_.Failed(error);
  }
  return index_.Exec("DELETE FROM temp.fh_dir; DELETE FROM temp.fh_node; DELETE FROM temp.fh_path",
                     error);
}

bool CIndexWriter::Finish(const CIndexBackup& end, std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!open_) {
    *error = !failure_.empty() ? failure_ : "index " + index_.File() + ": no backup was begun";
    return false;
  }
  sqlite3* db = index_.db_;
  CStatement update(db,
                    "UPDATE backups SET finished = ?2, outcome = ?3, error = ?4, bytes = ?5, "
                    "entries = (SELECT count(*) FROM entries WHERE backup = ?1), "
                    "files = (SELECT count(*) FROM entries WHERE backup = ?1 AND type <> 0) "
                    "WHERE id = ?1");
  bool ok = ResolveNodes(error);
  if (ok) {
    ok = update.Ok() && update.Bind(1, id_)
                                .Bind(2, static_cast<std::int64_t>(std::time(nullptr)))
                                .Bind(3, end.outcome)
                                .Bind(4, end.error)
                                .Bind(5, static_cast<std::int64_t>(end.bytes))
                                .Step() == SQLITE_DONE;
    if (!ok) index_.Failed(error);
  }
  if (ok && !end.environment.empty()) {
    CStatement clear(db, "DELETE FROM environment WHERE backup = ?1");
    ok = clear.Ok() && clear.Bind(1, id_).Step() == SQLITE_DONE &&
         InsertEnvironment(db, id_, end.environment);
    if (!ok) index_.Failed(error);
  }
  ok = ok && index_.Exec("COMMIT", error);
  if (ok) open_ = false;
  Release();
  return ok;
}

}  // namespace com::vx::korvane::ndmpc::tools
