// `ndmpc backup` and `ndmpc restore`: one job of the library's job layer,
// two-way on the -H server or three-way with the mover of --tape-host.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/jobs/job.h"
#include "tools/cli/client_session.h"
#include "tools/cli/commands.h"
#include "tools/cli/job_run.h"
#include "tools/cli/json_writer.h"
#include "tools/cli/progress.h"

namespace com::vx::korvane::ndmpc::tools {

namespace {

// Shows the job as it runs: progress bar, files seen, the agents' log
// lines; aborts the job on Ctrl-C.
class CJobView : public CINDMPJobObserver, public CINDMPFileHistorySink {
 public:
  CJobView(CCommandContext& context) : context_(context), progress_(context.err, 0) {}
  void SetJob(CNDMPJob* job) { job_ = job; }
  // Hands every history entry on to `next` as well.
  void Forward(CINDMPFileHistorySink* next) { next_ = next; }
  std::uint64_t Files() const { return files_.load(); }

  void OnProgress(const CNDMPJobProgress& p) override {
    if (InterruptRequested() && job_ != nullptr) job_->Abort();
    progress_.Update(p.dataBytes, files_ > 0 ? std::to_string(files_.load()) + " files" : "");
  }
  void OnLog(const char* agent, unsigned int type, const std::string& text) override {
    const bool problem = type == enums::CNDMPEnumLogType::NDMP_LOG_ERROR ||
                         type == enums::CNDMPEnumLogType::NDMP_LOG_WARNING;
    if (!problem && context_.options.verbosity == 0) return;
    std::fprintf(context_.err, "%s%s agent: %s\n", problem ? "warning: " : "", agent, text.c_str());
  }
  void AddFile(const CNDMPHistoryFile& entry) override {
    if (entry.stat.fileType != enums::CNDMPEnumFileType::NDMP_FILE_DIR) ++files_;
    if (next_ != nullptr) next_->AddFile(entry);
  }
  void AddDir(const CNDMPHistoryDir& entry) override {
    if (next_ != nullptr) next_->AddDir(entry);
  }
  void AddNode(const CNDMPHistoryNode& entry) override {
    if (entry.stat.fileType != enums::CNDMPEnumFileType::NDMP_FILE_DIR) ++files_;
    if (next_ != nullptr) next_->AddNode(entry);
  }
  void Finish() { progress_.Finish(); }

 private:
  CCommandContext& context_;
  CProgress progress_;
  CNDMPJob* job_ = nullptr;
  CINDMPFileHistorySink* next_ = nullptr;
  std::atomic<std::uint64_t> files_{0};
};

// What to try after a failed job.
std::string Advice(const CNDMPJobResult& r) {
  if (!r.notFound.empty())
    return "give the paths as the backup has them (/dir/file, below the backed-up file "
           "system); `ndmpc tape read DEV FILE` and `tar -tf FILE` list the image";
  if (r.error.rfind("tape full", 0) == 0) return "use a larger tape";
  if (r.agentLost)
    return "check that the server is running and reachable, then run the job "
           "again";
  if (r.refusal != 0) {
    const char* hint = ErrorHint(r.refusal);
    if (hint != nullptr && *hint != '\0') return hint;
  }
  return "run again with -v to see the agents' log lines";
}

}  // namespace

int RunJob(CCommandContext& context, bool backup, const std::vector<std::string>& paths,
           CJobIndexLink* index) {
  const COptions& o = context.options;
  if (o.tapeDevice.empty()) {
    return Complain(context, kExitUsage,
                    std::string(backup ? "backup" : "restore") +
                        " needs --tape DEVICE; see ndmpc " + (backup ? "backup" : "restore") +
                        " --help");
  }
  CClientSession data(context);
  if (int status = data.Open()) return status;
  // Three-way: a second session to the tape server.
  std::unique_ptr<CCommandContext> tapeContext;
  std::unique_ptr<CClientSession> tape;
  if (!o.tapeHost.empty()) {
    tapeContext.reset(new CCommandContext{o, context.log, context.out, context.err});
    COptions& t = tapeContext->options;
    const std::string::size_type colon = o.tapeHost.rfind(':');
    t.host = o.tapeHost.substr(0, colon);
    if (colon != std::string::npos) {
      t.port = static_cast<unsigned int>(std::strtoul(o.tapeHost.c_str() + colon + 1, nullptr, 10));
      if (t.port == 0 || t.port > 65535) {
        return Complain(context, kExitUsage,
                        "--tape-host needs HOST or HOST:PORT, not '" + o.tapeHost + "'");
      }
    }
    if (o.tapeCredentialsGiven) {
      t.user = o.tapeUser;
      t.password = o.tapePassword;
    }
    tape.reset(new CClientSession(*tapeContext));
    if (int status = tape->Open()) return status;
  }

  CJobView view(context);
  CNDMPJobSettings settings;
  settings.data = &data.Connection();
  settings.tape = tape ? &tape->Connection() : &data.Connection();
  settings.tapeDevice = o.tapeDevice;
  settings.recordSize = o.recordSize;
  settings.rewind = !o.noRewind;
  settings.tapeFile = o.skipFiles;
  settings.backupType = o.backupType;
  settings.observer = &view;
  settings.history = &view;
  settings.requestTimeout = o.timeout < 10 ? o.timeout : 10;
  bool hasFs = false, hasHist = false;
  for (const std::string& pair : o.env) {
    const std::string::size_type eq = pair.find('=');
    settings.environment.emplace_back(pair.substr(0, eq), pair.substr(eq + 1));
    hasFs = hasFs || pair.compare(0, eq, "FILESYSTEM") == 0;
    hasHist = hasHist || pair.compare(0, eq, "HIST") == 0;
  }
  std::unique_ptr<CNDMPJob> job;
  std::string what;
  if (backup) {
    if (!hasFs) settings.environment.emplace_back("FILESYSTEM", paths[0]);
    if (!hasHist) settings.environment.emplace_back("HIST", "y");
    what = "backup of " + paths[0] + " to " + o.tapeDevice;
    job.reset(new CNDMPBackupJob(settings));
  } else {
    std::vector<CNDMPRestoreItem> items;
    if (paths.empty()) items.push_back({"/", o.restoreTo, ~std::uint64_t{0}});
    for (const std::string& path : paths) {
      std::string target = o.restoreTo;
      if (!target.empty() && target.back() == '/') target.pop_back();
      items.push_back({path, target + (path[0] == '/' ? "" : "/") + path,
                       index != nullptr ? index->FhInfo(path) : ~std::uint64_t{0}});
    }
    what = "restore of " + o.tapeDevice + " into " + o.restoreTo;
    job.reset(new CNDMPRestoreJob(settings, items));
  }
  view.SetJob(job.get());
  if (index != nullptr) {
    if (int status = index->Begin(settings)) return status;
    view.Forward(index->History());
  }
  InstallInterruptHandlers();
  const CNDMPJobResult r = job->Run();
  view.Finish();

  const char* outcome = r.outcome == CNDMPJobOutcome::kSucceeded ? "succeeded"
                        : r.outcome == CNDMPJobOutcome::kAborted ? "aborted"
                                                                 : "failed";
  const std::string dataHalt = enums::CNDMPEnumDataHaltReason::ToString(r.dataHaltReason);
  const std::string moverHalt = enums::CNDMPEnumMoverHaltReason::ToString(r.moverHaltReason);
  if (o.json) {
    CJsonWriter json;
    json.BeginObject().Key("operation").String(backup ? "backup" : "restore");
    json.Key("outcome").String(outcome).Key("tape").String(o.tapeDevice);
    json.Key("bytes").Number(r.bytes).Key("tape_bytes").Number(r.tapeBytes);
    json.Key("files").Number(view.Files()).Key("seconds").Double(r.seconds);
    json.Key("tapes").Number(r.tapesUsed);
    json.Key("data_halt_reason").String(dataHalt).Key("mover_halt_reason").String(moverHalt);
    json.Key("environment").BeginObject();
    for (const auto& [name, value] : r.environment) json.Key(name).String(value);
    json.EndObject();
    if (!r.notFound.empty()) {
      json.Key("not_found").BeginArray();
      for (const std::string& path : r.notFound) json.String(path);
      json.EndArray();
    }
    if (!r.error.empty()) json.Key("error").String(r.error);
    if (index != nullptr && backup) json.Key("index_backup").Number(index->BackupId());
    json.EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
  } else if (r.outcome == CNDMPJobOutcome::kSucceeded) {
    std::fprintf(context.out, "%s: %s%s in %.1f s (%s)%s\n", what.c_str(),
                 HumanBytes(r.bytes).c_str(),
                 backup ? (", " + std::to_string(view.Files()) + " files").c_str() : "", r.seconds,
                 HumanRate(r.bytes, r.seconds).c_str(),
                 r.tapesUsed > 1 ? (" on " + std::to_string(r.tapesUsed) + " tapes").c_str() : "");
    if (backup && !r.environment.empty()) {
      std::string env;
      for (const auto& [name, value] : r.environment) env += " " + name + "=" + value;
      std::fprintf(context.out, "environment:%s\n", env.c_str());
    }
  }
  if (index != nullptr) {
    if (int status = index->Finish(r)) return status;
  }
  if (r.outcome == CNDMPJobOutcome::kSucceeded) return kExitOk;
  if (r.outcome == CNDMPJobOutcome::kAborted) {
    return Complain(context, kExitFailure, what + " aborted; the tape was closed");
  }
  Complain(context, 0, what + " failed: " + r.error);
  Complain(context, 0, "try: " + Advice(r));
  if (r.agentLost) return kExitConnect;
  return r.refusal != 0 ? kExitNdmpError : kExitFailure;
}

int CommandBackup(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  if (args.size() != 2) {
    return Complain(context, kExitUsage,
                    "backup takes one FILESYSTEM, e.g. ndmpc backup /vol0 --tape tape0");
  }
  if (!context.options.indexFile.empty()) return IndexedBackup(context);
  return RunJob(context, true, {args[1]}, nullptr);
}

int CommandRestore(CCommandContext& context) {
  const std::vector<std::string>& args = context.options.args;
  if (!context.options.indexFile.empty()) return IndexedRestore(context);
  if (context.options.restoreTo.empty()) {
    return Complain(context, kExitUsage,
                    "restore needs --to DIR, e.g. ndmpc restore --tape tape0 "
                    "--to /restored");
  }
  return RunJob(context, false, std::vector<std::string>(args.begin() + 1, args.end()), nullptr);
}

}  // namespace com::vx::korvane::ndmpc::tools
