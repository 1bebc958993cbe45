// Backup and restore jobs: one call drives a data agent and a tape agent's
// mover through a whole backup (or restore) and reports how it ended.
//
//   CNDMPJobSettings s;
//   s.data = &filer; s.tape = &filer;            // two-way: the same
//   connection s.tapeDevice = "tape0"; s.backupType = "tar"; s.environment =
//   {{"FILESYSTEM", "/vol0"}, {"HIST", "y"}}; s.history = &catalog; // optional
//   file-history sink CNDMPJobResult r = CNDMPBackupJob(s).Run();  // blocks
//   until both agents halted if (r.outcome == CNDMPJobOutcome::kSucceeded)
//   Keep(r.environment);
//
// The tape is opened, the mover prepared (record size, window, listen), the
// data agent connected to the mover and started; the job then watches both
// agents (their halt, pause and log posts, and a state poll with bounded
// waits) until both have halted, stops them, writes a filemark after a
// backup and closes the tape. Three-way jobs use two connections; the mover
// listens on TCP then, on a local address for two-way. Works under NDMP
// version 3 and 4. Abort() may be called from any thread at any time.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/jobs/file_history.h"

namespace com::vx::korvane::ndmpc {

using CNDMPEnvironment = std::vector<std::pair<std::string, std::string>>;

enum class CNDMPJobOutcome { kSucceeded, kFailed, kAborted };

// A snapshot of a running job.
struct CNDMPJobProgress {
  std::uint64_t dataBytes = 0;       // bytes the data agent has processed
  std::uint64_t tapeBytes = 0;       // bytes the mover has moved
  std::uint64_t historyEntries = 0;  // file-history files and nodes so far
  unsigned int dataState = 0;        // an enums::CNDMPEnumDataState value
  unsigned int moverState = 0;       // an enums::CNDMPEnumMoverState value
  double seconds = 0;                // since the job started
};

// What the application hears while a job runs; every operation is optional.
class CINDMPJobObserver {
 public:
  virtual ~CINDMPJobObserver() = default;
  // After each state poll, on the thread that runs the job (the caller of
  // Run), not on a dispatch thread: progress is what the job learns from
  // NDMP_DATA_GET_STATE and NDMP_MOVER_GET_STATE, whose replies go to the
  // requesting thread, and the connection offers no way to queue work on
  // its dispatch thread. It may therefore run at the same time as OnLog and
  // the history sink; an observer that shares state between them locks it.
  virtual void OnProgress(const CNDMPJobProgress& /*progress*/) {}
  // Each log post of either agent ("data" or "tape"), with its
  // enums::CNDMPEnumLogType, on that connection's dispatch thread.
  virtual void OnLog(const char* /*agent*/, unsigned int /*logType*/, const std::string& /*text*/) {
  }
  // The mover paused at the end of a tape: end of medium while backing up,
  // end of the data on tape while restoring. Returns the device of the next
  // tape, which the job opens before it lets the mover continue, or "" to
  // end the job (a backup then fails with "tape full", its written part
  // closed by a filemark). `tapesUsed` counts the tapes so far. On the thread
  // that runs the job.
  virtual std::string OnTapeChange(unsigned int /*tapesUsed*/) { return {}; }
};

struct CNDMPJobSettings {
  CNDMPConnection* data = nullptr;  // the data agent's connection
  CNDMPConnection* tape = nullptr;  // the tape agent's; the same object for two-way
  std::string tapeDevice;
  unsigned int recordSize = 65536;
  // Each tape is rewound once opened; the image is then written or read
  // after `tapeFile` filemarks of the first tape.
  bool rewind = true;
  unsigned int tapeFile = 0;
  std::string backupType = "tar";
  CNDMPEnvironment environment;  // a restore passes the backup's environment
  CINDMPJobObserver* observer = nullptr;
  CINDMPFileHistorySink* history = nullptr;
  unsigned int requestTimeout = 3;      // seconds an agent has to answer a request
  unsigned int pollMilliseconds = 500;  // between state polls
  unsigned int haltTimeout = 30;        // seconds the second agent has to halt after the first
};

// One item of a restore: `originalPath` in the image ("/" for all of it)
// restored to `destinationPath` on the data agent; `fhInfo` as the file
// history reported it, or all ones when unknown.
struct CNDMPRestoreItem {
  std::string originalPath;
  std::string destinationPath;
  std::uint64_t fhInfo = ~std::uint64_t{0};
};

struct CNDMPJobResult {
  CNDMPJobOutcome outcome = CNDMPJobOutcome::kFailed;
  std::string error;            // what failed and on which agent; empty on success
  unsigned int refusal = 0;     // the NDMP error of a refused request, else 0
  bool agentLost = false;       // an agent's connection dropped or it stopped answering
  std::uint64_t bytes = 0;      // the data agent's bytes processed
  std::uint64_t tapeBytes = 0;  // the mover's bytes moved
  std::uint64_t historyEntries = 0;
  double seconds = 0;
  unsigned int dataHaltReason = 0;   // an enums::CNDMPEnumDataHaltReason value
  unsigned int moverHaltReason = 0;  // an enums::CNDMPEnumMoverHaltReason value
  unsigned int tapesUsed = 0;
  CNDMPEnvironment environment;  // NDMP_DATA_GET_ENV after a backup
  // The restore items (original paths) the data agent reported missing with
  // a warning or error log line naming the path and saying "not found"; a
  // restore with any fails, although the rest was restored.
  std::vector<std::string> notFound;
};

// The common machinery of both jobs; use CNDMPBackupJob or CNDMPRestoreJob.
class CNDMPJob {
 public:
  CNDMPJob(const CNDMPJob&) = delete;
  CNDMPJob& operator=(const CNDMPJob&) = delete;
  virtual ~CNDMPJob();

  // Runs the job to its end on the calling thread. Call once.
  CNDMPJobResult Run();
  // Asks the running job to abort both agents; safe from any thread, also
  // before Run (the job then aborts as soon as it starts).
  void Abort();

 protected:
  CNDMPJob(CNDMPJobSettings settings, bool backup);
  // Sends the start request to the data agent; NDMP_NO_ERR or why not.
  virtual CXDREnumBase<enums::CNDMPError> StartData() = 0;
  const CNDMPJobSettings& Settings() const { return settings_; }
  // Sends a request to the data agent with the job's bounded wait.
  CXDREnumBase<enums::CNDMPError> AskData(CNDMPMessage& request);
  // The image paths a restore asked for, checked against the data agent's
  // "not found" log lines when the job ends.
  virtual std::vector<std::string> RequestedPaths() const { return {}; }

 private:
  class CWatcher;

  bool Prepare();
  bool OpenTape(const std::string& device);
  // Waits for a post or Abort, at most `limit`; true when woken.
  bool WaitForWake(std::chrono::milliseconds limit);
  void Monitor();
  void Finish(bool abortAgents);
  bool PollData();
  bool PollMover();
  // Records why a state poll failed; always false.
  bool PollFailed(bool dataAgent, const CXDREnumBase<enums::CNDMPError>& err);
  bool ChangeTape();
  // Fails a restore whose data agent reported requested paths missing.
  void CheckNotFound();
  // Records why the job failed; the first reason stays.
  void Fail(const std::string& text);
  void Refused(const CXDREnumBase<enums::CNDMPError>& error);
  // One request to an agent with the job's bounded wait; marks the agent
  // unreachable when it does not answer. Returns the reply's first error.
  CXDREnumBase<enums::CNDMPError> Ask(bool dataAgent, CNDMPMessage& request,
                                      CNDMPMessage** reply = nullptr);
  std::string AgentName(bool dataAgent) const;
  void Wake();

  CNDMPJobSettings settings_;
  const bool backup_;
  CWatcher* dataWatcher_ = nullptr;
  CWatcher* tapeWatcher_ = nullptr;  // three-way only
  CNDMPFileHistoryHandler* historyHandler_ = nullptr;
  std::vector<std::pair<CNDMPConnection*, CNDMPCallbackRegistration*>> registrations_;
  std::atomic<bool> abort_{false};
  std::atomic<bool> readFailed_{false};  // a NDMP_MOVER_READ for the data agent was refused

  std::mutex mutex_;
  std::condition_variable wake_;
  bool woken_ = false;  // guarded by mutex_: a post arrived or Abort was called
  std::vector<std::string> dataProblems_;  // guarded by mutex_: warning and error log lines

  // Touched only by the thread running the job.
  CNDMPJobResult result_;
  bool dataHalted_ = false, moverHalted_ = false;
  bool dataLost_ = false, tapeLost_ = false;  // the agent no longer answers
  unsigned int dataState_ = 0, moverState_ = 0, pauseReason_ = 0;
  std::uint64_t seekPosition_ = 0;  // the mover's, while paused
  bool started_ = false;      // the data agent accepted the start
  bool dataActive_ = false;   // the data agent was connected to the mover
  bool moverActive_ = false;  // the mover was listening
  bool tapeOpen_ = false;
  std::chrono::steady_clock::time_point start_;
  std::uint64_t lastDataBytes_ = 0;
  std::chrono::steady_clock::time_point lastDataProgress_;  // when the data bytes last grew
};

class CNDMPBackupJob : public CNDMPJob {
 public:
  explicit CNDMPBackupJob(CNDMPJobSettings settings) : CNDMPJob(std::move(settings), true) {}

 protected:
  CXDREnumBase<enums::CNDMPError> StartData() override;
};

class CNDMPRestoreJob : public CNDMPJob {
 public:
  // At least one item; {"/", dir} restores the whole image into dir.
  CNDMPRestoreJob(CNDMPJobSettings settings, std::vector<CNDMPRestoreItem> items)
      : CNDMPJob(std::move(settings), false), items_(std::move(items)) {}

 protected:
  CXDREnumBase<enums::CNDMPError> StartData() override;
  std::vector<std::string> RequestedPaths() const override;

 private:
  std::vector<CNDMPRestoreItem> items_;
};

}  // namespace com::vx::korvane::ndmpc
