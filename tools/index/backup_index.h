// A file-history index of backups in an SQLite database: one row per backup
// (when, from where, to which tape, how it ended) and one row per entry of its
// file history (path, type, size, mode, owner, mtime, fh_info), so that a file
// can be found among many backups and restored from its place in the image.
//
//   std::string error;
//   auto index = CBackupIndex::Open("backups.db", CBackupIndex::kCreate, &error);
//   CIndexWriter writer(*index);             // a CINDMPFileHistorySink
//   writer.Begin(backup, &error);            // committed at once, as "incomplete"
//   settings.history = &writer;  CNDMPBackupJob(settings).Run();
//   writer.Finish(end, &error);              // entries and outcome in one transaction
//
// Path-based history is stored as it arrives; node-based history (directory
// entries and nodes, in any order) is staged in temporary tables and joined
// into paths when the backup finishes. Entries are written in transactions of
// many thousand rows. A backup whose writer never finishes (the process was
// killed) keeps the outcome "incomplete" and is never shown as complete.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ndmpc/ndmp/jobs/file_history.h"

struct sqlite3;
struct sqlite3_stmt;

namespace com::vx::korvane::ndmpc::tools {

// One backup; `outcome` is "incomplete" until the backup's writer finishes,
// then "succeeded", "failed" or "aborted".
struct CIndexBackup {
  std::int64_t id = 0;
  std::int64_t started = 0, finished = 0;  // seconds since 1970; finished 0 while incomplete
  std::string server;
  std::string filesystem;
  std::string backupType;
  std::string tapeDevice;
  unsigned int tapeFile = 0;  // filemarks before the image
  bool rewind = true;         // tapeFile counts from the beginning of the tape
  std::string outcome = "incomplete";
  std::string error;
  std::uint64_t bytes = 0;
  std::uint64_t files = 0;    // entries that are not directories
  std::uint64_t entries = 0;  // all entries
  std::vector<std::pair<std::string, std::string>> environment;
};

// One entry of a backup's file history.
struct CIndexEntry {
  std::string path;       // "/" for the backed-up root, "/a/b" below it
  unsigned int type = 0;  // an enums::CNDMPEnumFileType value
  std::uint64_t size = 0;
  unsigned int mode = 0;  // permission bits
  unsigned int owner = 0, group = 0;
  std::int64_t mtime = 0;
  std::uint64_t fhInfo = ~std::uint64_t{0};
};

class CBackupIndex {
 public:
  enum Mode { kRead, kCreate };
  // Opens the index at `file`: kRead needs an existing index, kCreate makes
  // one when the file is missing. Null with `*error` when the file is
  // missing, is not an SQLite database, or is one that is not an index.
  static std::unique_ptr<CBackupIndex> Open(const std::string& file, Mode mode,
                                            std::string* error);
  ~CBackupIndex();
  CBackupIndex(const CBackupIndex&) = delete;
  CBackupIndex& operator=(const CBackupIndex&) = delete;

  const std::string& File() const { return file_; }
  // Each query returns false with `*error` when the database fails.
  bool Backups(std::vector<CIndexBackup>* backups, std::string* error);
  // False with "no backup N in FILE" when there is none.
  bool Backup(std::int64_t id, CIndexBackup* backup, std::string* error);
  // The entry at `path` of backup `id`; false with `*error` empty when absent.
  bool Entry(std::int64_t id, const std::string& path, CIndexEntry* entry, std::string* error);
  // The entries directly inside directory `path`, by name.
  bool Children(std::int64_t id, const std::string& path, std::vector<CIndexEntry>* entries,
                std::string* error);
  // Entries of every backup whose path (with a '/' in `pattern`) or name
  // (without) matches the glob `pattern`, by backup and path.
  bool Find(const std::string& pattern, std::vector<std::pair<std::int64_t, CIndexEntry>>* found,
            std::string* error);

  // "/a/b/" and "a/b" become "/a/b"; "", "." and "/" the root "/".
  static std::string NormalPath(const std::string& path);

 private:
  friend class CIndexWriter;
  CBackupIndex(sqlite3* db, std::string file) : db_(db), file_(std::move(file)) {}
  // `*error` = "index FILE: <sqlite's message>"; always false.
  bool Failed(std::string* error) const;
  bool Exec(const char* sql, std::string* error);
  bool ReadEntries(sqlite3_stmt* statement, std::vector<CIndexEntry>* entries,
                   std::string* error);

  sqlite3* db_;
  std::string file_;
};

// Writes one backup into an index. Entries arrive on the data connection's
// dispatch thread while Begin and Finish run on the job's thread: every call
// takes the writer's lock. A database failure while entries arrive is kept
// and reported by Finish; the backup then stays incomplete.
class CIndexWriter : public CINDMPFileHistorySink {
 public:
  explicit CIndexWriter(CBackupIndex& index, std::size_t batch = 50000)
      : index_(index), batch_(batch) {}
  // Without Finish, the entries of the open batch are dropped and the
  // backup stays incomplete.
  ~CIndexWriter() override;

  // Records the start of `backup` (its id, outcome and totals are ignored)
  // in a transaction of its own; false with `*error`.
  bool Begin(const CIndexBackup& backup, std::string* error);
  // The backup's id after Begin.
  std::int64_t Id() const { return id_; }

  void AddFile(const CNDMPHistoryFile& entry) override;
  void AddDir(const CNDMPHistoryDir& entry) override;
  void AddNode(const CNDMPHistoryNode& entry) override;

  // Writes the last entries, joins node-based history into paths, and sets
  // the outcome, error, bytes, finish time, totals and (when not empty) the
  // environment from `end`, all in one transaction. False with `*error`;
  // the backup then stays incomplete.
  bool Finish(const CIndexBackup& end, std::string* error);

 private:
  // Counts one entry; commits the batch when it is full. Under mutex_.
  void Added();
  void Fail();
  bool ResolveNodes(std::string* error);
  void Release();

  CBackupIndex& index_;
  const std::size_t batch_;
  std::mutex mutex_;
  // Guarded by mutex_.
  std::int64_t id_ = 0;
  bool open_ = false;     // a batch transaction is open
  std::string failure_;   // the first database failure while entries arrived
  std::size_t inBatch_ = 0;
  sqlite3_stmt* file_ = nullptr;
  sqlite3_stmt* dir_ = nullptr;
  sqlite3_stmt* node_ = nullptr;
};

}  // namespace com::vx::korvane::ndmpc::tools
