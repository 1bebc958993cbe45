// `ndmpc index FILE list|ls|find`, and the index side of `ndmpc backup
// --index FILE` (the file history goes into the index) and `ndmpc restore
// --index FILE --backup ID PATH...` (tape, type, environment and the paths'
// image offsets come from the index).
#include <algorithm>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/cli/job_run.h"
#include "tools/cli/json_writer.h"
#include "tools/cli/message_builder.h"
#include "tools/index/backup_index.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

// Short names and `ls -l` letters of the NDMP file types, by value.
struct CTypeRow {
  const char* name;
  char letter;
};
constexpr CTypeRow kTypes[] = {{"dir", 'd'},    {"fifo", 'p'},   {"char", 'c'},
                               {"block", 'b'},  {"file", '-'},   {"symlink", 'l'},
                               {"socket", 's'}, {"registry", '?'}, {"other", '?'}};

const CTypeRow& Type(unsigned int type) {
  return kTypes[type < sizeof kTypes / sizeof kTypes[0] ? type : 8];
}

std::string ModeText(const CIndexEntry& e) {
  std::string text(1, Type(e.type).letter);
  for (int shift = 6; shift >= 0; shift -= 3) {
    text += (e.mode >> shift) & 4 ? 'r' : '-';
    text += (e.mode >> shift) & 2 ? 'w' : '-';
    text += (e.mode >> shift) & 1 ? 'x' : '-';
  }
  return text;
}

// "2026-11-22 19:30" in UTC.
std::string TimeText(std::int64_t seconds) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  struct tm parts {};
  char text[32];
  gmtime_r(&t, &parts);
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
  return text;
}

int OpenIndex(CCommandContext& context, CBackupIndex::Mode mode,
              std::unique_ptr<CBackupIndex>* index) {
  std::string error;
  *index = CBackupIndex::Open(context.options.indexFile, mode, &error);
  return *index ? 0 : Complain(context, kExitFailure, error);
}

void EntryJson(CJsonWriter& json, const CIndexEntry& e) {
  json.BeginObject().Key("path").String(e.path).Key("type").String(Type(e.type).name);
  json.Key("mode").Number(e.mode).Key("owner").Number(e.owner).Key("group").Number(e.group);
  json.Key("size").Number(e.size).Key("mtime").Number(e.mtime);
  json.Key("fh_info").Number(e.fhInfo).EndObject();
}

void Print(CCommandContext& context, CJsonWriter& json) {
  std::fprintf(context.out, "%s\n", json.Text().c_str());
}

int List(CCommandContext& context, CBackupIndex& index) {
  std::vector<CIndexBackup> backups;
  std::string error;
  if (!index.Backups(&backups, &error)) return Complain(context, kExitFailure, error);
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject().Key("backups").BeginArray();
    for (const CIndexBackup& b : backups) {
      json.BeginObject().Key("id").Number(b.id).Key("started").Number(b.started);
      json.Key("finished").Number(b.finished).Key("server").String(b.server);
      json.Key("filesystem").String(b.filesystem).Key("type").String(b.backupType);
      json.Key("tape").String(b.tapeDevice).Key("tape_file").Number(b.tapeFile);
      json.Key("rewind").Bool(b.rewind).Key("outcome").String(b.outcome);
      json.Key("error").String(b.error).Key("bytes").Number(b.bytes);
      json.Key("files").Number(b.files).Key("entries").Number(b.entries);
      json.Key("environment").BeginObject();
      for (const auto& [name, value] : b.environment) json.Key(name).String(value);
      json.EndObject().EndObject();
    }
    json.EndArray().EndObject();
    Print(context, json);
    return kExitOk;
  }
  if (backups.empty()) {
    std::fprintf(context.out, "%s holds no backups\n", index.File().c_str());
    return kExitOk;
  }
  std::fprintf(context.out, "%4s  %-16s  %-10s  %-20s  %-16s  %-5s  %-10s  %9s  %14s\n", "ID",
               "STARTED (UTC)", "OUTCOME", "SERVER", "FILESYSTEM", "TYPE", "TAPE", "FILES",
               "BYTES");
  for (const CIndexBackup& b : backups) {
    std::fprintf(context.out, "%4lld  %-16s  %-10s  %-20s  %-16s  %-5s  %-10s  %9llu  %14llu\n",
                 static_cast<long long>(b.id), TimeText(b.started).c_str(), b.outcome.c_str(),
                 b.server.c_str(), b.filesystem.c_str(), b.backupType.c_str(),
                 b.tapeDevice.c_str(), static_cast<unsigned long long>(b.files),
                 static_cast<unsigned long long>(b.bytes));
  }
  return kExitOk;
}

int Ls(CCommandContext& context, CBackupIndex& index, const std::string& idText,
       const std::string& pathText) {
  std::uint64_t id = 0;
  if (!ParseNumber(idText, 0xFFFFFFFFu, &id) || id == 0) {
    return Complain(context, kExitUsage, "ls needs a backup id (a number), not '" + idText + "'");
  }
  CIndexBackup backup;
  std::string error;
  if (!index.Backup(static_cast<std::int64_t>(id), &backup, &error)) {
    return Complain(context, kExitFailure, error);
  }
  const std::string path = CBackupIndex::NormalPath(pathText);
  CIndexEntry self;
  std::vector<CIndexEntry> entries;
  const bool found = index.Entry(backup.id, path, &self, &error);
  if (!error.empty()) return Complain(context, kExitFailure, error);
  if (found && self.type != 0) {
    entries.push_back(self);
  } else if (!index.Children(backup.id, path, &entries, &error)) {
    return Complain(context, kExitFailure, error);
  } else if (!found && entries.empty()) {
    return Complain(context, kExitFailure,
                    "no " + path + " in backup " + idText + " of " + index.File());
  }
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject().Key("backup").Number(backup.id).Key("path").String(path);
    json.Key("entries").BeginArray();
    for (const CIndexEntry& e : entries) EntryJson(json, e);
    json.EndArray().EndObject();
    Print(context, json);
    return kExitOk;
  }
  for (const CIndexEntry& e : entries) {
    const std::string name =
        found && self.type != 0 ? e.path : e.path.substr(e.path.find_last_of('/') + 1);
    std::fprintf(context.out, "%s %6u %6u %12llu %s %s\n", ModeText(e).c_str(), e.owner, e.group,
                 static_cast<unsigned long long>(e.size), TimeText(e.mtime).c_str(), name.c_str());
  }
  return kExitOk;
}

int Find(CCommandContext& context, CBackupIndex& index, const std::string& pattern) {
  std::vector<CIndexBackup> backups;
  std::vector<std::pair<std::int64_t, CIndexEntry>> found;
  std::string error;
  if (!index.Backups(&backups, &error) || !index.Find(pattern, &found, &error)) {
    return Complain(context, kExitFailure, error);
  }
  std::map<std::int64_t, const CIndexBackup*> byId;
  for (const CIndexBackup& b : backups) byId[b.id] = &b;
  if (context.options.json) {
    CJsonWriter json;
    json.BeginObject().Key("pattern").String(pattern).Key("matches").BeginArray();
    for (const auto& [id, e] : found) {
      json.BeginObject().Key("backup").Number(id).Key("outcome").String(byId[id]->outcome);
      json.Key("entry");
      EntryJson(json, e);
      json.EndObject();
    }
    json.EndArray().EndObject();
    Print(context, json);
  } else {
    for (const auto& [id, e] : found) {
      std::fprintf(context.out, "%4lld  %-16s  %-10s  %s\n", static_cast<long long>(id),
                   TimeText(byId[id]->started).c_str(), byId[id]->outcome.c_str(),
                   e.path.c_str());
    }
  }
  if (found.empty()) {
    return Complain(context, kExitFailure,
                    "no path of a backup in " + index.File() + " matches '" + pattern + "'");
  }
  return kExitOk;
}

// A backup writing its file history into the index.
class CBackupLink : public CJobIndexLink {
 public:
  CBackupLink(CCommandContext& context, CBackupIndex& index)
      : context_(context), writer_(index) {}

  int Begin(const CNDMPJobSettings& settings) override {
    CIndexBackup backup;
    backup.server = context_.options.host + ":" + std::to_string(context_.options.port);
    backup.filesystem = context_.options.args[1];
    for (const auto& [name, value] : settings.environment) {
      if (name == "FILESYSTEM") backup.filesystem = value;
    }
    backup.backupType = settings.backupType;
    backup.tapeDevice = settings.tapeDevice;
    backup.tapeFile = settings.tapeFile;
    backup.rewind = settings.rewind;
    backup.environment = settings.environment;
    std::string error;
    return writer_.Begin(backup, &error) ? 0 : Complain(context_, kExitFailure, error);
  }
  CINDMPFileHistorySink* History() override { return &writer_; }
  std::uint64_t FhInfo(const std::string&) const override { return ~std::uint64_t{0}; }
  std::int64_t BackupId() const override { return writer_.Id(); }
  int Finish(const CNDMPJobResult& r) override {
    CIndexBackup end;
    end.outcome = r.outcome == CNDMPJobOutcome::kSucceeded ? "succeeded"
                  : r.outcome == CNDMPJobOutcome::kAborted ? "aborted"
                                                           : "failed";
    end.error = r.error;
    end.bytes = r.bytes;
    end.environment = r.environment;
    std::string error;
    if (!writer_.Finish(end, &error)) {
      return Complain(context_, kExitFailure,
                      "the backup's file history could not be indexed: " + error);
    }
    if (!context_.options.json) {
      std::fprintf(context_.out, "indexed as backup %lld in %s\n",
                   static_cast<long long>(writer_.Id()), context_.options.indexFile.c_str());
    }
    return 0;
  }

 private:
  CCommandContext& context_;
  CIndexWriter writer_;
};

// A restore of paths whose image offsets the index gave.
class CRestoreLink : public CJobIndexLink {
 public:
  std::map<std::string, std::uint64_t> fhInfo;
  int Begin(const CNDMPJobSettings&) override { return 0; }
  CINDMPFileHistorySink* History() override { return nullptr; }
  std::uint64_t FhInfo(const std::string& path) const override {
    auto at = fhInfo.find(path);
    return at != fhInfo.end() ? at->second : ~std::uint64_t{0};
  }
  std::int64_t BackupId() const override { return 0; }
  int Finish(const CNDMPJobResult&) override { return 0; }
};

}  // namespace

int CommandIndex(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  const std::string sub = args.size() > 2 ? args[2] : "";
  const bool fits = (sub == "list" && args.size() == 3) ||
                    (sub == "ls" && (args.size() == 4 || args.size() == 5)) ||
                    (sub == "find" && args.size() == 4);
  if (!fits) {
    return Complain(context, kExitUsage,
                    "index takes FILE list, FILE ls BACKUP [PATH] or FILE find PATTERN; see "
                    "ndmpc index --help");
  }
  context.options.indexFile = args[1];
  std::unique_ptr<CBackupIndex> index;
  if (int status = OpenIndex(context, CBackupIndex::kRead, &index)) return status;
  if (sub == "list") return List(context, *index);
  if (sub == "ls") return Ls(context, *index, args[3], args.size() == 5 ? args[4] : "/");
  return Find(context, *index, args[3]);
}

int IndexedBackup(CCommandContext& context) {
  std::unique_ptr<CBackupIndex> index;
  if (int status = OpenIndex(context, CBackupIndex::kCreate, &index)) return status;
  CBackupLink link(context, *index);
  return RunJob(context, true, {context.options.args[1]}, &link);
}

int IndexedRestore(CCommandContext& context) {
  COptions& o = context.options;
  std::vector<std::string> paths(o.args.begin() + 1, o.args.end());
  if (o.backupId == 0 || paths.empty()) {
    return Complain(context, kExitUsage,
                    "restore --index FILE needs --backup ID and the PATHs to restore, e.g. ndmpc "
                    "restore --index backups.db --backup 3 /home/ann/report.odt");
  }
  std::unique_ptr<CBackupIndex> index;
  if (int status = OpenIndex(context, CBackupIndex::kRead, &index)) return status;
  CIndexBackup backup;
  std::string error;
  if (!index->Backup(o.backupId, &backup, &error)) return Complain(context, kExitFailure, error);
  if (backup.outcome != "succeeded") {
    return Complain(context, kExitFailure,
                    "backup " + std::to_string(o.backupId) + " did not succeed (" +
                        backup.outcome + "); restore from one that did (see ndmpc index " +
                        o.indexFile + " list)");
  }
  CRestoreLink link;
  for (std::string& path : paths) {
    path = CBackupIndex::NormalPath(path);
    CIndexEntry entry;
    if (!index->Entry(backup.id, path, &entry, &error)) {
      return Complain(context, kExitFailure,
                      error.empty() ? "no " + path + " in backup " + std::to_string(backup.id) +
                                          " of " + o.indexFile
                                    : error);
    }
    link.fhInfo[path] = entry.fhInfo;
  }
  // The backup's tape, type and environment; --tape and --env override.
  if (o.tapeDevice.empty()) o.tapeDevice = backup.tapeDevice;
  o.backupType = backup.backupType;
  o.skipFiles = backup.tapeFile;
  o.noRewind = !backup.rewind;
  std::vector<std::string> env;
  for (const auto& pair : backup.environment) {
    const std::string prefix = pair.first + "=";
    const bool overridden = std::any_of(o.env.begin(), o.env.end(), [&](const std::string& e) {
      return e.compare(0, prefix.size(), prefix) == 0;
    });
    if (!overridden) env.push_back(prefix + pair.second);
  }
  env.insert(env.end(), o.env.begin(), o.env.end());
  o.env = env;
  if (o.restoreTo.empty()) o.restoreTo = backup.filesystem;
  return RunJob(context, false, paths, &link);
}

}  // namespace com::vx::korvane::ndmpc::tools
