#include "ndmpc/ndmp/jobs/job.h"

#include <algorithm>
#include <chrono>
#include <cctype>
#include <cstdio>

#include "ndmpc/ndmp/connection/data_read_handler.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"

namespace com::vx::korvane::ndmpc {

namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using Clock = std::chrono::steady_clock;

// How long an abort waits for the agents to report themselves halted.
constexpr std::chrono::seconds kAbortWait{5};
// How long a restore's data agent may make no progress while the mover
// waits at the end of a tape before the next tape is asked for. A data agent
// that has read all it needs may still be busy finishing (closing files,
// setting times) on a loaded server; a tape change takes far longer anyway.
constexpr std::chrono::milliseconds kEndOfDataSettle{5000};

// The first error field of a reply body (every NDMP reply has one).
CXDREnumBase<CNDMPError> ReplyError(CNDMPMessage& reply) {
  for (std::size_t i = 0; i < reply.GetMemberCount(); ++i) {
    if (auto* e = dynamic_cast<CXDREnumBase<CNDMPError>*>(reply.GetMember(i).member)) return *e;
  }
  return CNDMPError::NDMP_NO_ERR;
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The listen address of the mover, rebuilt for the data agent's connection
// (whose protocol version may differ). A TCP address without an IP (some
// movers report 0.0.0.0) means the tape agent's own address.
CNDMPAddr DataConnectAddress(CNDMPAddr& listen, const char* tapeHostIp) {
  CNDMPAddr address;
  address.AddressType = listen.AddressType;
  if (listen.AddressType != enums::CNDMPEnumAddrType::NDMP_ADDR_TCP) {
    address.IPCAddress = listen.IPCAddress;
    return address;
  }
  CNDMPTcpAddr tcp =
      listen.TcpAddressList.size() > 0 ? listen.TcpAddressList[0] : listen.TcpAddress;
  if (tcp.IPAddress.getInt32() == 0 && tapeHostIp != nullptr) {
    unsigned int a = 0, b = 0, c = 0, d = 0;
    if (std::sscanf(tapeHostIp, "%u.%u.%u.%u", &a, &b, &c, &d) == 4) {
      tcp.IPAddress = (a << 24) | (b << 16) | (c << 8) | d;
    }
  }
  CNDMPTcpAddr one;
  one.IPAddress = tcp.IPAddress.getInt32();
  one.Port = static_cast<int>(tcp.Port.getInt32());
  address.TcpAddress = one;
  address.TcpAddressList.AddItem(one);
  return address;
}

// True when a log line says `path` was not found: it names the path whole
// (quoted, or followed by a colon) and says "not found".
bool SaysNotFound(const std::string& line, const std::string& path) {
  std::string lower = line;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower.find("not found") == std::string::npos) return false;
  for (std::size_t at = line.find(path); at != std::string::npos; at = line.find(path, at + 1)) {
    const std::size_t end = at + path.size();
    const char before = at == 0 ? ' ' : line[at - 1];
    const char after = end == line.size() ? ':' : line[end];
    if ((before == '"' || before == '\'' || before == ' ') &&
        (after == '"' || after == '\'' || after == ':')) {
      return true;
    }
  }
  return false;
}

}  // namespace

// Receives the posts of one agent's connection: halts and pauses wake the
// job, log posts go to the observer, read requests of the data agent go to
// the mover.
class CNDMPJob::CWatcher : public CINDMPCallback {
 public:
  CWatcher(CNDMPJob& job, bool dataAgent)
      : job_(job), dataAgent_(dataAgent), agent_(dataAgent ? "data" : "tape") {}
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override {
    CNDMPMessage* body = packet.GetMessage();
    CINDMPJobObserver* observer = job_.settings_.observer;
    if (auto* log = dynamic_cast<CNDMPLogMessagePost*>(body)) {
      const unsigned int type = log->LogType.getInt32();
      if (dataAgent_ && (type == enums::CNDMPEnumLogType::NDMP_LOG_WARNING ||
                                   type == enums::CNDMPEnumLogType::NDMP_LOG_ERROR)) {
        std::lock_guard<std::mutex> lock(job_.mutex_);
        job_.dataProblems_.push_back(log->Entry);
      }
      if (observer != nullptr) observer->OnLog(agent_, type, log->Entry);
    } else if (auto* file = dynamic_cast<CNDMPLogFilePost*>(body)) {
      if (observer != nullptr) {
        observer->OnLog(agent_, enums::CNDMPEnumLogType::NDMP_LOG_ERROR,
                        file->Name.GetString() + ": " + file->Error.ToString());
      }
    } else if (dynamic_cast<CNDMPNotifyDataReadPost*>(body) != nullptr) {
      CNDMPDataReadHandler reader(*job_.settings_.tape);
      if (reader.HandleMessagePacket(packet) != 0) {
        job_.readFailed_ = true;
        job_.Wake();
      }
    } else {
      job_.Wake();  // a halt or pause: poll the states now
    }
    return 0;
  }

 private:
  CNDMPJob& job_;
  const bool dataAgent_;  // two-way: the posts of both agents
  const char* agent_;
};

CNDMPJob::CNDMPJob(CNDMPJobSettings settings, bool backup)
    : settings_(std::move(settings)), backup_(backup) {}

CNDMPJob::~CNDMPJob() {
  for (auto& [connection, registration] : registrations_) {
    connection->UnregisterCallback(registration);
  }
  delete historyHandler_;
  delete dataWatcher_;
  delete tapeWatcher_;
}

void CNDMPJob::Abort() {
  abort_ = true;
  Wake();
}

void CNDMPJob::Wake() {
  std::lock_guard<std::mutex> lock(mutex_);
  woken_ = true;
  wake_.notify_all();
}

std::string CNDMPJob::AgentName(bool dataAgent) const {
  CNDMPConnection* c = dataAgent ? settings_.data : settings_.tape;
  return std::string(dataAgent ? "data agent" : "tape agent") + " (" + c->GetHostName() + ")";
}

void CNDMPJob::Refused(const CXDREnumBase<CNDMPError>& error) {
  if (result_.error.empty() && !dataLost_ && !tapeLost_) result_.refusal = error.getInt32();
}

void CNDMPJob::Fail(const std::string& text) {
  if (result_.error.empty()) {
    result_.error = text;
    result_.agentLost = dataLost_ || tapeLost_;
  }
  if (result_.outcome != CNDMPJobOutcome::kAborted) result_.outcome = CNDMPJobOutcome::kFailed;
}

CXDREnumBase<CNDMPError> CNDMPJob::Ask(bool dataAgent, CNDMPMessage& request,
                                       CNDMPMessage** reply) {
  CNDMPConnection* c = dataAgent ? settings_.data : settings_.tape;
  const bool twoWay = settings_.data == settings_.tape;
  bool& lost = dataAgent ? dataLost_ : tapeLost_;
  CXDREnumBase<CNDMPError> err = CNDMPError::NDMP_CONNECT_ERR;
  CNDMPMessage* answer = nullptr;
  if (!lost && c->IsConnected()) err = c->SendMessage(request, &answer, settings_.requestTimeout);
  if (err == CNDMPError::NDMP_CONNECT_ERR || err == CNDMPError::NDMP_TIMEOUT_ERR) {
    lost = true;
    if (twoWay) dataLost_ = tapeLost_ = true;
  }
  if (err == CNDMPError::NDMP_NO_ERR && answer != nullptr) err = ReplyError(*answer);
  if (reply != nullptr) {
    *reply = answer;
  } else {
    c->FreeMessage(answer);
  }
  return err;
}

CNDMPJobResult CNDMPJob::Run() {
  const Clock::time_point start = Clock::now();
  if (settings_.data == nullptr || settings_.tape == nullptr || settings_.tapeDevice.empty()) {
    result_.error = "a job needs a data connection, a tape connection and a tape device";
    return result_;
  }
  dataWatcher_ = new CWatcher(*this, true);
  const bool twoWay = settings_.data == settings_.tape;
  tapeWatcher_ = twoWay ? nullptr : new CWatcher(*this, false);
  auto enter = [this](CNDMPConnection* c, CINDMPCallback* h, CNDMPMessageCode::enum_value code) {
    registrations_.emplace_back(c, c->RegisterCallback(h, code));
  };
  CWatcher* forTape = twoWay ? dataWatcher_ : tapeWatcher_;
  enter(settings_.data, dataWatcher_, CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED);
  enter(settings_.data, dataWatcher_, CNDMPMessageCode::NDMP_LOG_MESSAGE);
  enter(settings_.data, dataWatcher_, CNDMPMessageCode::NDMP_LOG_FILE);
  if (!backup_) enter(settings_.data, dataWatcher_, CNDMPMessageCode::NDMP_NOTIFY_DATA_READ);
  enter(settings_.tape, forTape, CNDMPMessageCode::NDMP_NOTIFY_MOVER_HALTED);
  enter(settings_.tape, forTape, CNDMPMessageCode::NDMP_NOTIFY_MOVER_PAUSED);
  if (!twoWay) {
    enter(settings_.tape, forTape, CNDMPMessageCode::NDMP_LOG_MESSAGE);
    enter(settings_.tape, forTape, CNDMPMessageCode::NDMP_LOG_FILE);
  }
  if (settings_.history != nullptr) {
    historyHandler_ = new CNDMPFileHistoryHandler(*settings_.history);
    for (auto code : {CNDMPMessageCode::NDMP_FH_ADD_FILE, CNDMPMessageCode::NDMP_FH_ADD_DIR,
                      CNDMPMessageCode::NDMP_FH_ADD_NODE}) {
      enter(settings_.data, historyHandler_, code);
    }
  }

  start_ = start;
  if (Prepare()) {
    Monitor();
  } else {
    Finish(true);
  }
  // Nothing reaches this job once its registrations are gone.
  for (auto& [connection, registration] : registrations_) {
    connection->UnregisterCallback(registration);
  }
  registrations_.clear();
  CheckNotFound();
  if (historyHandler_ != nullptr) result_.historyEntries = historyHandler_->Entries();
  result_.seconds = SecondsSince(start);
  return result_;
}

bool CNDMPJob::OpenTape(const std::string& device) {
  CNDMPTapeOpenRequest open;
  open.Device = device.c_str();
  open.Mode = backup_ ? enums::CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE
                      : enums::CNDMPEnumTapeOpenMode::NDMP_TAPE_READ_MODE;
  CXDREnumBase<CNDMPError> err = Ask(false, open);
  if (err != CNDMPError::NDMP_NO_ERR) {
    Refused(err);
    Fail(AgentName(false) + ": cannot open tape " + device + ": " + err.ToString());
    return false;
  }
  tapeOpen_ = true;
  const bool first = result_.tapesUsed++ == 0;
  auto motion = [this](enums::CNDMPEnumMtioOp::enum_value op, unsigned int count) {
    CNDMPTapeMtioRequest request;
    request.TapeOp = op;
    request.Count = count;
    CXDREnumBase<CNDMPError> mtio = Ask(false, request);
    if (mtio == CNDMPError::NDMP_NO_ERR) return true;
    Refused(mtio);
    Fail(AgentName(false) + ": cannot position the tape (" +
         CXDREnumBase<enums::CNDMPEnumMtioOp>(op).ToString() + "): " + mtio.ToString());
    return false;
  };
  if (settings_.rewind && !motion(enums::CNDMPEnumMtioOp::NDMP_MTIO_REW, 1)) return false;
  if (first && settings_.tapeFile > 0 &&
      !motion(enums::CNDMPEnumMtioOp::NDMP_MTIO_FSF, settings_.tapeFile)) {
    return false;
  }
  return true;
}

bool CNDMPJob::Prepare() {
  if (abort_) return false;
  if (!OpenTape(settings_.tapeDevice)) return false;
  auto step = [this](bool dataAgent, CNDMPMessage& request, const char* what,
                     CNDMPMessage** reply = nullptr) {
    CXDREnumBase<CNDMPError> err = Ask(dataAgent, request, reply);
    if (err == CNDMPError::NDMP_NO_ERR) return true;
    Refused(err);
    Fail(AgentName(dataAgent) + ": " + what + " refused: " + err.ToString());
    return false;
  };
  CNDMPMoverSetRecordSizeRequest recordSize;
  recordSize.RecordLength = settings_.recordSize;
  if (!step(false, recordSize, "NDMP_MOVER_SET_RECORD_SIZE")) return false;
  // Version 4 movers take the window while idle; version 3 ones only once
  // they listen (an idle one refuses it with NDMP_ILLEGAL_STATE_ERR).
  const bool windowAfterListen =
      settings_.tape->GetProtocolVersion() == enums::CNDMPProtocolVersion::PROTOCOL_VERSION_3;
  CNDMPMoverSetWindowRequest window;
  window.Offset = CNDMPUQuad(0);
  window.Length = CNDMPUQuad(~std::uint64_t{0});
  if (!windowAfterListen && !step(false, window, "NDMP_MOVER_SET_WINDOW")) return false;

  CNDMPMoverListenRequest listen;
  listen.Mode = backup_ ? enums::CNDMPEnumMoverMode::NDMP_MOVER_MODE_READ
                        : enums::CNDMPEnumMoverMode::NDMP_MOVER_MODE_WRITE;
  listen.AddressType = settings_.data == settings_.tape ? enums::CNDMPEnumAddrType::NDMP_ADDR_LOCAL
                                                        : enums::CNDMPEnumAddrType::NDMP_ADDR_TCP;
  CNDMPMessage* reply = nullptr;
  if (!step(false, listen, "NDMP_MOVER_LISTEN", &reply)) {
    settings_.tape->FreeMessage(reply);
    return false;
  }
  moverActive_ = true;
  if (windowAfterListen && !step(false, window, "NDMP_MOVER_SET_WINDOW")) {
    settings_.tape->FreeMessage(reply);
    return false;
  }
  CNDMPDataConnectRequest connect;
  auto* listening = dynamic_cast<CNDMPMoverListenReply*>(reply);
  if (listening != nullptr) {
    connect.Address = DataConnectAddress(listening->Address, settings_.tape->GetIPAddress());
  }
  settings_.tape->FreeMessage(reply);
  if (listening == nullptr) {
    Fail(AgentName(false) + ": NDMP_MOVER_LISTEN gave no address");
    return false;
  }
  if (!step(true, connect, "NDMP_DATA_CONNECT")) return false;
  dataActive_ = true;
  if (abort_) return false;
  CXDREnumBase<CNDMPError> err = StartData();
  if (err != CNDMPError::NDMP_NO_ERR) {
    Refused(err);
    Fail(AgentName(true) + ": " + (backup_ ? "NDMP_DATA_START_BACKUP" : "NDMP_DATA_START_RECOVER") +
         " refused: " + err.ToString());
    return false;
  }
  started_ = true;
  return true;
}

CXDREnumBase<CNDMPError> CNDMPBackupJob::StartData() {
  CNDMPDataStartBackupRequest request;
  request.BUTypeName = Settings().backupType.c_str();
  for (const auto& [name, value] : Settings().environment) {
    request.Environments.AddItem(CNDMPPVal(name, value));
  }
  return AskData(request);
}

CXDREnumBase<CNDMPError> CNDMPRestoreJob::StartData() {
  CNDMPDataStartRecoverRequest request;
  request.BackupTypeName = Settings().backupType.c_str();
  for (const auto& [name, value] : Settings().environment) {
    request.Environments.AddItem(CNDMPPVal(name, value));
  }
  for (const CNDMPRestoreItem& item : items_) {
    CNDMPName name;
    name.OriginalPath = item.originalPath.c_str();
    name.DestinationDir = item.destinationPath.c_str();
    name.Node = CNDMPUQuad(~std::uint64_t{0});
    name.FileHistoryInfo = CNDMPUQuad(item.fhInfo);
    request.NameList.AddItem(name);
  }
  if (items_.empty()) return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  return AskData(request);
}

std::vector<std::string> CNDMPRestoreJob::RequestedPaths() const {
  std::vector<std::string> paths;
  for (const CNDMPRestoreItem& item : items_) paths.push_back(item.originalPath);
  return paths;
}

void CNDMPJob::CheckNotFound() {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::vector<std::string> wanted = RequestedPaths();
  for (const std::string& path : wanted) {
    for (const std::string& line : dataProblems_) {
      if (SaysNotFound(line, path)) {
        result_.notFound.push_back(path);
        break;
      }
    }
  }
  if (result_.notFound.empty() || result_.outcome != CNDMPJobOutcome::kSucceeded) return;
  std::string list;
  for (const std::string& path : result_.notFound) list += (list.empty() ? "" : ", ") + path;
  result_.outcome = CNDMPJobOutcome::kFailed;
  result_.error = std::to_string(result_.notFound.size()) + " of " +
                  std::to_string(wanted.size()) + " requested paths are not in the image: " + list;
}

CXDREnumBase<CNDMPError> CNDMPJob::AskData(CNDMPMessage& request) { return Ask(true, request); }

bool CNDMPJob::PollData() {
  CNDMPDataGetStateRequest request;
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<CNDMPError> err = Ask(true, request, &reply);
  auto* state = dynamic_cast<CNDMPDataGetStateReply*>(reply);
  if (err == CNDMPError::NDMP_NO_ERR && state != nullptr) {
    dataState_ = state->State.getInt32();
    result_.bytes = state->BytesProcessed.getUint64();
    if (dataState_ == enums::CNDMPEnumDataState::NDMP_DATA_STATE_HALTED) {
      dataHalted_ = true;
      result_.dataHaltReason = state->HaltReason.getInt32();
    }
  }
  settings_.data->FreeMessage(reply);
  return err == CNDMPError::NDMP_NO_ERR || PollFailed(true, err);
}

bool CNDMPJob::PollMover() {
  CNDMPMoverGetStateRequest request;
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<CNDMPError> err = Ask(false, request, &reply);
  auto* state = dynamic_cast<CNDMPMoverGetStateReply*>(reply);
  if (err == CNDMPError::NDMP_NO_ERR && state != nullptr) {
    moverState_ = state->State.getInt32();
    pauseReason_ = state->PauseReason.getInt32();
    seekPosition_ = state->SeekPosition.getUint64();
    result_.tapeBytes = state->BytesMoved.getUint64();
    if (moverState_ == enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_HALTED) {
      moverHalted_ = true;
      result_.moverHaltReason = state->HaltReason.getInt32();
    }
  }
  settings_.tape->FreeMessage(reply);
  return err == CNDMPError::NDMP_NO_ERR || PollFailed(false, err);
}

bool CNDMPJob::PollFailed(bool dataAgent, const CXDREnumBase<CNDMPError>& err) {
  if (dataAgent ? dataLost_ : tapeLost_) {
    Fail(AgentName(dataAgent) + " stopped answering (connection lost or no reply within " +
         std::to_string(settings_.requestTimeout) + " s)");
  } else {
    Fail(AgentName(dataAgent) + (dataAgent ? ": NDMP_DATA_GET_STATE" : ": NDMP_MOVER_GET_STATE") +
         " refused: " + err.ToString());
  }
  return false;
}

bool CNDMPJob::WaitForWake(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  const bool woken = wake_.wait_for(lock, limit, [this] { return woken_; });
  woken_ = false;
  return woken;
}

void CNDMPJob::Monitor() {
  Clock::time_point firstHalt{};
  Clock::time_point pausedSince{};  // when the mover was first seen paused
  const auto poll = std::chrono::milliseconds(settings_.pollMilliseconds);
  for (;;) {
    WaitForWake(poll);
    if (abort_) {
      Finish(true);
      return;
    }
    if (readFailed_) {
      Fail(AgentName(false) + ": NDMP_MOVER_READ for the data agent's read request refused");
      Finish(true);
      return;
    }
    if (!PollData() || !PollMover()) {
      Finish(true);
      return;
    }
    if (settings_.observer != nullptr) {
      CNDMPJobProgress progress;
      progress.dataBytes = result_.bytes;
      progress.tapeBytes = result_.tapeBytes;
      progress.historyEntries = historyHandler_ != nullptr ? historyHandler_->Entries() : 0;
      progress.dataState = dataState_;
      progress.moverState = moverState_;
      progress.seconds = SecondsSince(start_);
      settings_.observer->OnProgress(progress);
    }
    // A restore is done when the data agent is: the mover may still wait
    // for reads nobody will ask for, and is aborted on the way out.
    if (dataHalted_ && (moverHalted_ || !backup_)) {
      Finish(false);
      return;
    }
    if (result_.bytes != lastDataBytes_) {
      lastDataBytes_ = result_.bytes;
      lastDataProgress_ = Clock::now();
    }
    if (moverState_ != enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_PAUSED) {
      pausedSince = Clock::time_point{};
    } else {
      if (pausedSince == Clock::time_point{}) pausedSince = Clock::now();
      // While restoring, the mover reaches the end of the data on tape when
      // the image ends there too: the data agent then finishes from what it
      // has, and may not even have counted its first bytes yet. Only a data
      // agent that made no progress for a while since the pause needs
      // another tape.
      const bool endOfData = pauseReason_ == enums::CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_EOF;
      const Clock::time_point quietSince = std::max(lastDataProgress_, pausedSince);
      if (!backup_ && endOfData && Clock::now() - quietSince < kEndOfDataSettle) continue;
      if (!ChangeTape()) {
        Finish(true);
        return;
      }
      pausedSince = Clock::time_point{};
      continue;
    }
    if (dataHalted_ || moverHalted_) {
      if (firstHalt == Clock::time_point{}) firstHalt = Clock::now();
      if (Clock::now() - firstHalt > std::chrono::seconds(settings_.haltTimeout)) {
        Fail(AgentName(!dataHalted_) + " did not halt within " +
             std::to_string(settings_.haltTimeout) + " s after the " +
             (dataHalted_ ? "data agent" : "mover") + " halted");
        Finish(true);
        return;
      }
    }
  }
}

bool CNDMPJob::ChangeTape() {
  const bool endOfMedium = pauseReason_ == enums::CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_EOM;
  const bool endOfData = pauseReason_ == enums::CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_EOF;
  std::string next;
  if ((endOfMedium || endOfData) && settings_.observer != nullptr) {
    next = settings_.observer->OnTapeChange(result_.tapesUsed);
  }
  if (next.empty()) {
    if (backup_ && endOfMedium) {
      Fail("tape full: the end of the tape was reached after " + std::to_string(result_.tapeBytes) +
           " bytes; use a larger tape or load another one when asked");
    } else {
      Fail(AgentName(false) + ": mover paused (" +
           CXDREnumBase<enums::CNDMPEnumMoverPauseReason>(pauseReason_).ToString() +
           ") and no further tape was given");
    }
    return false;
  }
  CNDMPTapeCloseRequest close;
  Ask(false, close);
  tapeOpen_ = false;
  if (!OpenTape(next)) return false;
  if (!backup_) {
    // The new tape holds the image from where the mover stopped: the window
    // tells the mover which image offset its first record has.
    CNDMPMoverSetWindowRequest window;
    window.Offset = CNDMPUQuad(seekPosition_);
    window.Length = CNDMPUQuad(~std::uint64_t{0} - seekPosition_);
    CXDREnumBase<CNDMPError> err = Ask(false, window);
    if (err != CNDMPError::NDMP_NO_ERR) {
      Refused(err);
      Fail(AgentName(false) + ": NDMP_MOVER_SET_WINDOW for the next tape refused: " +
           err.ToString());
      return false;
    }
  }
  CNDMPMoverContinueRequest proceed;
  CXDREnumBase<CNDMPError> err = Ask(false, proceed);
  if (err != CNDMPError::NDMP_NO_ERR) {
    Fail(AgentName(false) + ": NDMP_MOVER_CONTINUE refused: " + err.ToString());
    return false;
  }
  moverState_ = enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_ACTIVE;
  return true;
}

void CNDMPJob::Finish(bool abortAgents) {
  if (abort_) {
    result_.outcome = CNDMPJobOutcome::kAborted;
    if (result_.error.empty()) result_.error = "aborted";
  }
  const bool abortMover = abortAgents || (!backup_ && !moverHalted_);
  if (abortAgents && dataActive_ && !dataHalted_) {
    CNDMPDataAbortRequest request;
    Ask(true, request);
  }
  if (abortMover && moverActive_ && !moverHalted_) {
    CNDMPMoverAbortRequest request;
    Ask(false, request);
  }
  // Bounded: an agent that does not report itself halted is stopped anyway.
  const Clock::time_point deadline = Clock::now() + kAbortWait;
  // A data agent that never started has nothing to halt: an abort leaves it
  // connected or idle, and the stop below resets it.
  auto settled = [this] {
    return (!started_ || dataHalted_ || dataLost_) && (!moverActive_ || moverHalted_ || tapeLost_);
  };
  while (!settled() && Clock::now() < deadline) {
    if (started_ && !dataHalted_ && !dataLost_) PollData();
    if (moverActive_ && !moverHalted_ && !tapeLost_) PollMover();
    if (!settled()) WaitForWake(std::chrono::milliseconds(settings_.pollMilliseconds));
  }
  if (backup_ && started_) {
    CNDMPDataGetEnvRequest request;
    CNDMPMessage* reply = nullptr;
    if (Ask(true, request, &reply) == CNDMPError::NDMP_NO_ERR) {
      if (auto* env = dynamic_cast<CNDMPDataGetEnvReply*>(reply)) {
        for (CNDMPPVal& v : env->Environments) {
          result_.environment.emplace_back(v.Name.GetString(), v.Value.GetString());
        }
      }
    }
    settings_.data->FreeMessage(reply);
  }
  if (dataActive_) {
    CNDMPDataStopRequest request;
    Ask(true, request);
  }
  if (moverActive_) {
    CNDMPMoverStopRequest request;
    Ask(false, request);
  }
  if (tapeOpen_) {
    if (backup_ && started_) {
      CNDMPTapeMtioRequest filemark;
      filemark.TapeOp = enums::CNDMPEnumMtioOp::NDMP_MTIO_EOF;
      filemark.Count = 1;
      Ask(false, filemark);
    }
    CNDMPTapeCloseRequest close;
    Ask(false, close);
    tapeOpen_ = false;
  }
  if (!result_.error.empty()) return;
  using Halt = enums::CNDMPEnumDataHaltReason;
  using MoverHalt = enums::CNDMPEnumMoverHaltReason;
  const bool dataOk = result_.dataHaltReason == Halt::NDMP_DATA_HALT_SUCCESSFUL;
  const bool moverOk =
      !backup_ || result_.moverHaltReason == MoverHalt::NDMP_MOVER_HALT_CONNECTION_CLOSED;
  if (dataOk && moverOk) {
    result_.outcome = CNDMPJobOutcome::kSucceeded;
    return;
  }
  Fail("the job did not complete: data agent halted with " +
       CXDREnumBase<Halt>(result_.dataHaltReason).ToString() + ", mover halted with " +
       CXDREnumBase<MoverHalt>(result_.moverHaltReason).ToString() +
       "; the agents' log lines tell why");
}

}  // namespace com::vx::korvane::ndmpc
