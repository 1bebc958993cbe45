#include "tools/simulator/data_agent.h"

#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "tools/simulator/mover_agent.h"
#include "tools/simulator/sim_server.h"

namespace com::vx::korvane::ndmpc::tools {

using enums::CNDMPError;
using DataHalt = enums::CNDMPEnumDataHaltReason;
using DataOp = enums::CNDMPEnumDataOperation;

namespace {

constexpr std::uint64_t kUnknown = ~0ull;

unsigned int HaltCode(CSimHaltReason reason) {
  switch (reason) {
    case CSimHaltReason::kSuccessful:
      return DataHalt::NDMP_DATA_HALT_SUCCESSFUL;
    case CSimHaltReason::kAborted:
      return DataHalt::NDMP_DATA_HALT_ABORTED;
    case CSimHaltReason::kConnectError:
      return DataHalt::NDMP_DATA_HALT_CONNECT_ERROR;
    case CSimHaltReason::kInternalError:
      break;
  }
  return DataHalt::NDMP_DATA_HALT_INTERNAL_ERROR;
}

const char* HaltText(unsigned int reason) {
  switch (reason) {
    case DataHalt::NDMP_DATA_HALT_SUCCESSFUL:
      return "successful";
    case DataHalt::NDMP_DATA_HALT_ABORTED:
      return "aborted";
    case DataHalt::NDMP_DATA_HALT_CONNECT_ERROR:
      return "data connection error";
    default:
      return "internal error";
  }
}

CNDMPFileStat Stat(const CSimFileEntry& entry) {
  using Type = enums::CNDMPEnumFileType;
  CNDMPFileStat stat;
  stat.FSType = enums::CNDMPEnumFSType::NDMP_FS_UNIX;
  switch (entry.type) {
    case CSimFileEntry::Type::kDir:
      stat.FileType = Type::NDMP_FILE_DIR;
      break;
    case CSimFileEntry::Type::kFile:
      stat.FileType = Type::NDMP_FILE_REG;
      break;
    case CSimFileEntry::Type::kSymlink:
      stat.FileType = Type::NDMP_FILE_SLINK;
      break;
    case CSimFileEntry::Type::kOther:
      stat.FileType = Type::NDMP_FILE_OTHER;
      break;
  }
  stat.MTime = static_cast<unsigned int>(entry.mtime);
  stat.ATime = static_cast<unsigned int>(entry.atime);
  stat.CTime = static_cast<unsigned int>(entry.ctime);
  stat.Owner = entry.uid;
  stat.Group = entry.gid;
  stat.FSAttributes = entry.mode;
  stat.Size = CNDMPUQuad(entry.size);
  stat.Links = entry.links;
  return stat;
}

CNDMPFileName UnixName(const std::string& name) {
  CNDMPFileName file;
  file.FileSystemType = enums::CNDMPEnumFSType::NDMP_FS_UNIX;
  file.UnixFileName = name;
  return file;
}

std::string Lookup(const std::vector<std::pair<std::string, std::string>>& env,
                   const std::string& name) {
  for (const auto& pair : env) {
    if (pair.first == name) return pair.second;
  }
  return std::string();
}

std::vector<std::pair<std::string, std::string>> ToEnv(const CXDRArray<CNDMPPVal>& values) {
  std::vector<std::pair<std::string, std::string>> env;
  for (unsigned int i = 0; i < values.size(); ++i) {
    env.emplace_back(values[i].Name.GetString(), values[i].Value.GetString());
  }
  return env;
}

void Set(std::vector<std::pair<std::string, std::string>>& env, const std::string& name,
         const std::string& value) {
  for (auto& pair : env) {
    if (pair.first == name) {
      pair.second = value;
      return;
    }
  }
  env.emplace_back(name, value);
}

}  // namespace

// ---------------------------------------------------------------------------
// Connection

void CSimDataAgent::Listen(CSimRequest& request) {
  auto* body = request.Body<CNDMPDataListenRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPDataListenReply reply;
  std::string why;
  std::lock_guard<std::mutex> lock(mutex_);
  unsigned int error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  if (state_ == State::kIdle) {
    CSimEndpoint endpoint;
    error = ListenEndpoint(body->AddressType.getInt32(), context_.localAddress, &endpoint,
                           &reply.DataConnAddress, &why);
    if (error == CNDMPError::NDMP_NO_ERR) {
      endpoint_ = std::move(endpoint);
      state_ = State::kListen;
    }
  }
  if (!why.empty()) context_.log.warning("sim client %u: data agent: %s", context_.id, why.c_str());
  reply.Error = CXDREnumBase<CNDMPError>(error);
  request.Reply(reply);
}

void CSimDataAgent::Connect(CSimRequest& request) {
  auto* body = request.Body<CNDMPDataConnectRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPDataConnectReply reply;
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::kIdle) error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  }
  CSimEndpoint endpoint;
  std::string why;
  if (error == CNDMPError::NDMP_NO_ERR) {
    error = ConnectEndpoint(
        body->Address, [this] { return mover_ == nullptr ? -1 : mover_->ConnectLocal(); },
        &endpoint, &why);
  }
  if (!why.empty()) context_.log.warning("sim client %u: data agent: %s", context_.id, why.c_str());
  if (error == CNDMPError::NDMP_NO_ERR) {
    std::lock_guard<std::mutex> lock(mutex_);
    endpoint_ = std::move(endpoint);
    state_ = State::kConnected;
  }
  reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
  request.Reply(reply);
}

int CSimDataAgent::ConnectLocal() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kListen || !endpoint_.stream || !endpoint_.stream->LocalListen()) return -1;
  const int fd = endpoint_.stream->TakeLocalPeer();
  if (fd >= 0) state_ = State::kConnected;
  return fd;
}

// ---------------------------------------------------------------------------
// Operations

unsigned int CSimDataAgent::CanStart() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kConnected && state_ != State::kListen) {
    return CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  }
  if (context_.server.Config().dataRoot.empty()) return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  return CNDMPError::NDMP_NO_ERR;
}

void CSimDataAgent::StartBackup(CSimRequest& request) {
  auto* body = request.Body<CNDMPDataStartBackupRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPDataStartBackupReply reply;
  unsigned int error = CanStart();
  const std::string type = body->BUTypeName.GetString();
  CEnv env = ToEnv(body->Environments);
  const std::string fileSystem = Lookup(env, "FILESYSTEM");
  std::string hostRoot;
  std::string why;
  if (error == CNDMPError::NDMP_NO_ERR && type != "tar" && type != "dump") {
    why = "unknown backup type '" + type + "'";
    error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else if (error == CNDMPError::NDMP_NO_ERR &&
             (fileSystem.empty() || !ResolveUnderRoot(context_.server.Config().dataRoot, fileSystem,
                                                      true, &hostRoot, &why))) {
    if (fileSystem.empty()) why = "no FILESYSTEM in the environment";
    error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  }
  if (error != CNDMPError::NDMP_NO_ERR) {
    if (!why.empty())
      context_.log.info("sim client %u: backup refused: %s", context_.id, why.c_str());
    reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
    return request.Reply(reply);
  }
  const std::string hist = Lookup(env, "HIST");
  const bool history = hist == "y" || hist == "Y" || hist == "yes";
  Set(env, "HIST", history ? "y" : "n");
  Set(env, "TYPE", type);
  Launch(DataOp::NDMP_DATA_OP_BACKUP, env, [this, hostRoot, history, type] {
    CSimBackupJob job;
    job.hostRoot = hostRoot;
    job.history = history;
    job.nodeHistory = type == "dump";
    job.write = [this](const void* data, std::size_t length) {
      return endpoint_.stream->WriteAll(data, length);
    };
    Wire(job);
    return RunBackup(job);
  });
  request.Reply(reply);
}

void CSimDataAgent::StartRecover(CSimRequest& request) { Recover(request, false); }

void CSimDataAgent::StartRecoverFilehist(CSimRequest& request) { Recover(request, true); }

void CSimDataAgent::Recover(CSimRequest& request, bool historyOnly) {
  auto* body = request.Body<CNDMPStartRecoverRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPDataStartRecoverReply reply;
  unsigned int error = CanStart();
  CEnv env = ToEnv(body->Environments);
  std::string type = body->BackupTypeName.GetString();
  if (type.empty()) type = Lookup(env, "TYPE");
  std::vector<CSimRecoverItem> items;
  std::string why;
  for (unsigned int i = 0; error == CNDMPError::NDMP_NO_ERR && i < body->NameList.size(); ++i) {
    const CNDMPName& name = body->NameList[i];
    CSimRecoverItem item;
    item.original = name.OriginalPath.GetString().empty() ? "/" : name.OriginalPath.GetString();
    item.fhInfo = name.FileHistoryInfo.getUint64();
    // The destination is the item's own new path; a version 3 client may
    // give it as a directory and a new name.
    std::string destination = name.DestinationDir.GetString();
    if (!name.Name.GetString().empty()) {
      destination +=
          (destination.empty() || destination.back() != '/' ? "/" : "") + name.Name.GetString();
    }
    if (!historyOnly && !ResolveUnderRoot(context_.server.Config().dataRoot,
                                          destination.empty() ? "/" : destination, false,
                                          &item.hostDestination, &why)) {
      error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
    }
    items.push_back(item);
  }
  if (error == CNDMPError::NDMP_NO_ERR && items.empty()) {
    if (!historyOnly) {
      why = "an empty name list";
      error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
    } else {
      items.push_back(CSimRecoverItem{"/", std::string(), kUnknown});
    }
  }
  if (error != CNDMPError::NDMP_NO_ERR) {
    if (!why.empty())
      context_.log.info("sim client %u: recover refused: %s", context_.id, why.c_str());
    reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
    return request.Reply(reply);
  }
  const unsigned int operation =
      historyOnly ? DataOp::NDMP_DATA_OP_RECOVER_FILEHIST : DataOp::NDMP_DATA_OP_RECOVER;
  Launch(operation, env, [this, items, historyOnly, type] {
    CSimRecoverJob job;
    job.items = items;
    job.historyOnly = historyOnly;
    job.nodeHistory = type == "dump";
    job.request = [this](std::uint64_t offset, std::uint64_t length) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        readOffset_ = offset;
        readLength_ = length;
      }
      CNDMPNotifyDataReadPost post;
      post.Offset = CNDMPUQuad(offset);
      post.Length = CNDMPUQuad(length);
      context_.post(post);
      return true;
    };
    job.read = [this](void* buffer, std::size_t length) {
      return endpoint_.stream->Read(buffer, length);
    };
    Wire(job);
    return RunRecover(job);
  });
  request.Reply(reply);
}

template <class Job>
void CSimDataAgent::Wire(Job& job) {
  job.files = [this](const std::vector<CSimFileEntry>& e) { PostFiles(e); };
  job.dirs = [this](const std::vector<CSimFileEntry>& e) { PostDirs(e); };
  job.nodes = [this](const std::vector<CSimFileEntry>& e) { PostNodes(e); };
  job.log = [this](int level, const std::string& text) { Log(level, text); };
  job.abort = &abort_;
  job.bytes = &bytes_;
}

void CSimDataAgent::Launch(unsigned int operation, CEnv env, std::function<CSimHaltReason()> run) {
  if (worker_.joinable()) worker_.join();  // the previous operation ended before its STOP
  std::lock_guard<std::mutex> lock(mutex_);
  state_ = State::kActive;
  operation_ = operation;
  haltReason_ = DataHalt::NDMP_DATA_HALT_NA;
  env_ = std::move(env);
  readOffset_ = readLength_ = 0;
  abort_ = false;
  bytes_ = 0;
  worker_ = std::thread([this, run] {
    if (!endpoint_.stream->WaitConnected(abort_)) return Finish(CSimHaltReason::kConnectError);
    Finish(run());
  });
}

void CSimDataAgent::Finish(CSimHaltReason reason) {
  // Closing first lets the mover see the end of the stream.
  endpoint_.stream->Close();
  const unsigned int code = abort_ ? DataHalt::NDMP_DATA_HALT_ABORTED : HaltCode(reason);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = State::kHalted;
    haltReason_ = code;
  }
  Log(code == DataHalt::NDMP_DATA_HALT_SUCCESSFUL ? 0 : 2,
      "operation ended after " + std::to_string(bytes_.load()) + " bytes: " + HaltText(code));
  PostHalted(code, HaltText(code));
}

void CSimDataAgent::PostHalted(unsigned int reason, const std::string& text) {
  CNDMPNotifyDataHaltedPost post;
  post.Reason = CXDREnumBase<DataHalt>(reason);
  post.TextReason = text;
  context_.post(post);
}

// ---------------------------------------------------------------------------
// State

void CSimDataAgent::GetState(CSimRequest& request) {
  CNDMPDataGetStateReply reply;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    static const unsigned int kStates[] = {enums::CNDMPEnumDataState::NDMP_DATA_STATE_IDLE,
                                           enums::CNDMPEnumDataState::NDMP_DATA_STATE_LISTEN,
                                           enums::CNDMPEnumDataState::NDMP_DATA_STATE_CONNECTED,
                                           enums::CNDMPEnumDataState::NDMP_DATA_STATE_ACTIVE,
                                           enums::CNDMPEnumDataState::NDMP_DATA_STATE_HALTED};
    reply.Operation = CXDREnumBase<DataOp>(state_ == State::kIdle ? 0u : operation_);
    reply.State = kStates[static_cast<int>(state_)];
    reply.HaltReason = CXDREnumBase<DataHalt>(haltReason_);
    reply.BytesProcessed = CNDMPUQuad(bytes_.load());
    reply.ReadOffset = CNDMPUQuad(readOffset_);
    reply.ReadLength = CNDMPUQuad(readLength_);
    FillAddress(reply.DataConnAddress, endpoint_.tcp && state_ != State::kIdle, endpoint_.ip,
                endpoint_.port);
  }
  request.Reply(reply);
}

void CSimDataAgent::GetEnv(CSimRequest& request) {
  CNDMPDataGetEnvReply reply;
  std::lock_guard<std::mutex> lock(mutex_);
  if ((state_ != State::kActive && state_ != State::kHalted) ||
      operation_ != DataOp::NDMP_DATA_OP_BACKUP) {
    reply.Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  } else {
    for (const auto& pair : env_) reply.Environments.AddItem(CNDMPPVal(pair.first, pair.second));
  }
  request.Reply(reply);
}

void CSimDataAgent::Abort(CSimRequest& request) {
  CNDMPDataAbortReply reply;
  bool running = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::kIdle || state_ == State::kHalted) {
      reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
    } else if (state_ == State::kActive) {
      running = true;
    } else {  // listening or connected: nothing runs, the agent halts here
      endpoint_.stream->Close();
      state_ = State::kHalted;
      haltReason_ = DataHalt::NDMP_DATA_HALT_ABORTED;
    }
  }
  if (running) Shutdown();  // the worker posts the halt
  request.Reply(reply);
  if (reply.NDMP_Error == CNDMPError::NDMP_NO_ERR && !running) {
    PostHalted(DataHalt::NDMP_DATA_HALT_ABORTED, "aborted");
  }
}

void CSimDataAgent::Stop(CSimRequest& request) {
  StopWhenHalted<CNDMPDataStopReply>(
      request, mutex_, worker_, [this] { return state_ == State::kHalted; },
      [this] {
        endpoint_ = CSimEndpoint();
        state_ = State::kIdle;
        operation_ = DataOp::NDMP_DATA_OP_NOACTION;
        haltReason_ = DataHalt::NDMP_DATA_HALT_NA;
        env_.clear();
        bytes_ = 0;
      });
}

void CSimDataAgent::Shutdown() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    abort_ = true;
    if (endpoint_.stream) endpoint_.stream->Shutdown();
  }
  if (worker_.joinable()) worker_.join();
}

// ---------------------------------------------------------------------------
// Posts from the worker thread

void CSimDataAgent::Log(int level, const std::string& text) {
  using LogType = enums::CNDMPEnumLogType;
  CNDMPLogMessagePost post;
  post.LogType = level == 0   ? LogType::NDMP_LOG_NORMAL
                 : level == 1 ? LogType::NDMP_LOG_WARNING
                              : LogType::NDMP_LOG_ERROR;
  post.MesssageID = ++messageId_;
  post.Entry = text;
  post.AssocMessageValid = enums::CNDMPEnumHasAssociatedMessage::NDMP_NO_ASSOCIATED_MESSAGE;
  context_.post(post);
}

void CSimDataAgent::PostFiles(const std::vector<CSimFileEntry>& entries) {
  CNDMPFhAddFilePost post;
  post.Files.Reserve(entries.size());
  for (const CSimFileEntry& entry : entries) {
    CNDMPFile& file = post.Files.AppendNew();
    file.FileNameList.AddItem(UnixName(entry.path));
    file.FileStatList.AddItem(Stat(entry));
    file.Node = CNDMPUQuad(entry.node);
    file.FileHistInfo = CNDMPUQuad(entry.fhInfo);
  }
  context_.post(post);
}

void CSimDataAgent::PostDirs(const std::vector<CSimFileEntry>& entries) {
  CNDMPFhAddDirPost post;
  post.Directories.Reserve(entries.size());
  for (const CSimFileEntry& entry : entries) {
    CNDMPDir& dir = post.Directories.AppendNew();
    dir.DirNameList.AddItem(UnixName(entry.name));
    dir.Node = CNDMPUQuad(entry.node);
    dir.Parent = CNDMPUQuad(entry.parent);
  }
  context_.post(post);
}

void CSimDataAgent::PostNodes(const std::vector<CSimFileEntry>& entries) {
  CNDMPFhAddNodePost post;
  post.Nodes.Reserve(entries.size());
  for (const CSimFileEntry& entry : entries) {
    CNDMPNode& node = post.Nodes.AppendNew();
    node.Stats.AddItem(Stat(entry));
    node.Node = CNDMPUQuad(entry.node);
    node.FileHistInfo = CNDMPUQuad(entry.fhInfo);
  }
  context_.post(post);
}

}  // namespace com::vx::korvane::ndmpc::tools
