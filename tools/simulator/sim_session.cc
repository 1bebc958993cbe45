#include "tools/simulator/sim_session.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/message_factory.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tools/simulator/sim_server.h"
#include "tools/simulator/virtual_tape.h"

namespace com::vx::korvane::ndmpc::tools {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using enums::CNDMPMessageType;
using Code = enums::CNDMPMessageCode;

namespace {

// How long a new client may stay silent before it is dropped.
constexpr auto kGreetingIdleLimit = std::chrono::seconds(60);
constexpr unsigned int kQueueWaitMs = 200;

unsigned int TapeError(CVirtualTape::Status status) {
  switch (status) {
    case CVirtualTape::Status::kOk:
      return CNDMPError::NDMP_NO_ERR;
    case CVirtualTape::Status::kFilemark:
      return CNDMPError::NDMP_EOF_ERR;
    case CVirtualTape::Status::kEndOfData:
    case CVirtualTape::Status::kBeginning:
    case CVirtualTape::Status::kEndOfMedium:
      return CNDMPError::NDMP_EOM_ERR;
    case CVirtualTape::Status::kWriteProtected:
      return CNDMPError::NDMP_WRITE_PROTECT_ERR;
    case CVirtualTape::Status::kIoError:
      break;
  }
  return CNDMPError::NDMP_IO_ERR;
}

CNDMPPVal Pair(const char* name, const std::string& value) { return CNDMPPVal(name, value); }

}  // namespace

const std::vector<CSimSession::CHandlerRow>& CSimSession::HandlerTable() {
  static const std::vector<CHandlerRow> table = {
      {Code::NDMP_CONNECT_OPEN, &CSimSession::ConnectOpen, true},
      {Code::NDMP_CONNECT_CLIENT_AUTH, &CSimSession::ConnectClientAuth, true},
      {Code::NDMP_CONNECT_CLOSE, &CSimSession::ConnectClose, true},
      {Code::NDMP_CONFIG_GET_SERVER_INFO, &CSimSession::ConfigGetServerInfo, true},
      {Code::NDMP_CONFIG_GET_AUTH_ATTR, &CSimSession::ConfigGetAuthAttr, true},
      {Code::NDMP_CONFIG_GET_HOST_INFO, &CSimSession::ConfigGetHostInfo, false},
      {Code::NDMP_CONFIG_GET_CONNECTION_TYPE, &CSimSession::ConfigGetConnectionType, false},
      {Code::NDMP_CONFIG_GET_BUTYPE_INFO, &CSimSession::ConfigGetButypeInfo, false},
      {Code::NDMP_CONFIG_GET_FS_INFO, &CSimSession::ConfigGetFsInfo, false},
      {Code::NDMP_CONFIG_GET_TAPE_INFO, &CSimSession::ConfigGetTapeInfo, false},
      {Code::NDMP_CONFIG_GET_SCSI_INFO, &CSimSession::ConfigGetScsiInfo, false},
      {Code::NDMP_CONFIG_GET_EXT_LIST, &CSimSession::ConfigGetExtList, false},
      {Code::NDMP_CONFIG_SET_EXT_LIST, &CSimSession::ConfigSetExtList, false},
      {Code::NDMP_SCSI_OPEN, &CSimSession::ScsiOpen, false},
      {Code::NDMP_SCSI_CLOSE, &CSimSession::ScsiClose, false},
      {Code::NDMP_SCSI_GET_STATE, &CSimSession::ScsiGetState, false},
      {Code::NDMP_TAPE_OPEN, &CSimSession::TapeOpen, false},
      {Code::NDMP_TAPE_CLOSE, &CSimSession::TapeClose, false},
      {Code::NDMP_TAPE_GET_STATE, &CSimSession::TapeGetState, false},
      {Code::NDMP_TAPE_MTIO, &CSimSession::TapeMtio, false},
      {Code::NDMP_TAPE_WRITE, &CSimSession::TapeWrite, false},
      {Code::NDMP_TAPE_READ, &CSimSession::TapeRead, false},
      {Code::NDMP_DATA_GET_STATE, &CSimSession::DataGetState, false},
      {Code::NDMP_MOVER_GET_STATE, &CSimSession::MoverGetState, false},
  };
  return table;
}

CSimSession::CSimSession(CNDMPSimServer& server, std::unique_ptr<VxTcpSocket> socket,
                         unsigned int id)
    : server_(server), log_(server.Log()), id_(id), socket_(std::move(socket)) {
  std::random_device seed;
  random_.seed((static_cast<std::uint64_t>(seed()) << 32) ^ seed() ^ id);
}

CSimSession::~CSimSession() {
  std::lock_guard<std::mutex> lock(socketMutex_);
  connection_.reset();
  socket_.reset();
}

void CSimSession::Interrupt() {
  interrupted_ = true;
  std::lock_guard<std::mutex> lock(socketMutex_);
  if (socket_) socket_->close();
  if (connection_ && connection_->getSocket() != nullptr) {
    // Wakes the connection's reader and any blocked write; the descriptor
    // stays valid until the connection is destroyed under this lock.
    ::shutdown(connection_->getSocket()->descriptor(), SHUT_RDWR);
  }
}

std::unique_ptr<CNDMPMessagePacket> CSimSession::Greet() {
  // The connection collects packets only from StartServerMode on, and its
  // threads start as soon as it is built: a request that arrived in between
  // would be lost. So the greeting and the client's first message go over a
  // plain stream here; the client waits for that first reply before it
  // sends more, and the connection takes the socket over before replying.
  std::unique_ptr<CNDMPMessagePacket> first;
  int fd = -1;
  {
    CXDRStream stream(*socket_, log_);
    first = ReadFirst(stream);
    if (first) {
      // The stream closes a connected socket when it goes: hand the
      // descriptor over to a closed socket first, and back afterwards.
      std::lock_guard<std::mutex> lock(socketMutex_);
      fd = socket_->release();
    }
  }
  if (first) {
    std::lock_guard<std::mutex> lock(socketMutex_);
    socket_->adopt(fd);
  }
  return first;
}

std::unique_ptr<CNDMPMessagePacket> CSimSession::ReadFirst(CXDRStream& stream) {
  CNDMPNotifyConnectionStatusPost post;
  post.Reason = enums::CNDMPEnumConnectionStatusReason::NDMP_CONNECTED;
  const auto& versions = server_.Config().versions;
  unsigned int highest = versions.empty() ? 4 : *std::max_element(versions.begin(), versions.end());
  post.Protocol = CXDREnumBase<enums::CNDMPProtocolVersion>(highest);
  {
    CNDMPMessagePacket packet(CNDMPMessageAccess::Code(post), CNDMPMessageAccess::Type(post),
                              CXDREnumBase<enums::CNDMPProtocolVersion>(4u));
    packet.GetHeader().Sequence = 1u;
    packet.GetHeader().TimeStamp = static_cast<unsigned int>(std::time(nullptr));
    packet.SetMessage(post);
    if (packet.Serialize(stream) == XDR_FAILURE || stream.flushRecord() != 0) return nullptr;
  }
  const auto deadline = std::chrono::steady_clock::now() + kGreetingIdleLimit;
  while (!interrupted_ && !server_.Stopping() && stream.IsConnected()) {
    if (!stream.IsAvailable()) {
      if (std::chrono::steady_clock::now() > deadline) {
        log_.warning("sim client %u: no request within %d s, disconnecting", id_,
                     static_cast<int>(kGreetingIdleLimit.count()));
        return nullptr;
      }
      continue;
    }
    std::unique_ptr<CNDMPMessagePacket> packet(new CNDMPMessagePacket());
    int result = packet->DeSerialize(stream);
    if (stream.GetBytesAvailable() != 0) stream.skipRecord();
    if (!stream.AtRecordEnd()) stream.DiscardRecord();
    if (result != XDR_FAILURE) return packet;
    log_.warning("sim client %u: undecodable message dropped", id_);
  }
  return nullptr;
}

bool CSimSession::SocketAlive() {
  const VxTcpSocket* socket = connection_->getSocket();
  return socket != nullptr && socket->isConnected();
}

void CSimSession::Run() {
  log_.info("sim client %u: connected from %s", id_,
            socket_->getRemoteAddress().toIPAddress().c_str());
  std::unique_ptr<CNDMPMessagePacket> first = Greet();
  if (first) {
    {
      std::lock_guard<std::mutex> lock(socketMutex_);
      if (!interrupted_) {
        connection_.reset(new CNDMPConnection(*socket_, log_));
        connection_->GetNextSequence();  // 1 went out with the greeting
        connection_->StartServerMode();
      }
      socket_.reset();
    }
    if (connection_) {
      Handle(*first);
      first.reset();
      CNDMPMessagePacketQueue& queue = connection_->GetPacketQueue();
      while (!closing_ && !interrupted_ && !server_.Stopping()) {
        if (queue.GetFilledSize() == 0) queue.WaitForPacket(kQueueWaitMs);
        CNDMPMessagePacket* packet = nullptr;
        while (!closing_ && queue.GetNextPacket(packet)) {
          std::unique_ptr<CNDMPMessagePacket> owned(packet);
          Handle(*owned);
        }
        if (!SocketAlive() && queue.GetFilledSize() == 0) break;
      }
    }
  }
  ReleaseDevices();
  {
    std::lock_guard<std::mutex> lock(socketMutex_);
    if (connection_) connection_->Disconnect();
    connection_.reset();
    socket_.reset();
  }
  log_.info("sim client %u: disconnected", id_);
}

template <class T>
T* CSimSession::Body() {
  return dynamic_cast<T*>(current_->GetMessage());
}

void CSimSession::Reply(CNDMPMessage& reply) {
  connection_->SendMessage(reply, current_->GetHeader().Sequence.getInt32());
}

void CSimSession::Fail(unsigned int error) {
  const CNDMPHeader& header = current_->GetHeader();
  connection_->SendNDMPError(CXDREnumBase<CNDMPMessageType>(CNDMPMessageType::NDMP_MESSAGE_REPLY),
                             header.MessageCode, CXDREnumBase<CNDMPError>(error),
                             header.Sequence.getInt32());
}

void CSimSession::Handle(CNDMPMessagePacket& packet) {
  const CNDMPHeader& header = packet.GetHeader();
  const std::uint32_t code = header.MessageCode.getInt32();
  const VxString name = header.MessageCode.ToString();
  if (header.MessageType != CNDMPMessageType::NDMP_MESSAGE_REQUEST) {
    log_.warning("sim client %u: unexpected reply %s ignored", id_, name.c_str());
    return;
  }
  const CNDMPFactoryEntry* entry = FindNDMPFactoryEntry(code);
  if (entry != nullptr && entry->makeRequest == entry->makeReply &&
      code != Code::NDMP_CONNECT_CLOSE) {
    log_.info("sim client %u: notification %s ignored", id_, name.c_str());
    return;
  }
  current_ = &packet;
  const auto& table = HandlerTable();
  auto row = std::find_if(table.begin(), table.end(),
                          [code](const CHandlerRow& r) { return r.code == code; });
  const bool allowed = authenticated_ || (row != table.end() && row->beforeAuthentication);
  if (!allowed) {
    log_.info("sim client %u: %s refused before authentication", id_, name.c_str());
    Fail(CNDMPError::NDMP_NOT_AUTHORIZED_ERR);
  } else if (row == table.end()) {
    log_.info("sim client %u: %s not supported", id_, name.c_str());
    Fail(CNDMPError::NDMP_NOT_SUPPORTED_ERR);
  } else if (header.ErrorCode != CNDMPError::NDMP_NO_ERR) {
    log_.warning("sim client %u: %s request carrying error %s refused", id_, name.c_str(),
                 header.ErrorCode.ToString().c_str());
    Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  } else {
    log_.debug("sim client %u: %s", id_, name.c_str());
    (this->*(row->handler))();
  }
  current_ = nullptr;
}

void CSimSession::ReleaseDevices() {
  if (tape_ != nullptr) server_.ReleaseTape(tapeName_, this);
  tape_ = nullptr;
  if (changerOpen_) server_.ReleaseChanger(this);
  changerOpen_ = false;
}

// ---------------------------------------------------------------------------
// Connect

void CSimSession::ConnectOpen() {
  auto* request = Body<CNDMPConnectOpenRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  const unsigned int version = request->ProtocolVersion.getInt32();
  const auto& versions = server_.Config().versions;
  CNDMPConnectOpenReply reply;
  if (std::find(versions.begin(), versions.end(), version) != versions.end()) {
    // Later packets, this reply included, are encoded under the agreed version.
    connection_->SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(version));
    reply.NDMP_Error = CNDMPError::NDMP_NO_ERR;
    log_.info("sim client %u: NDMP version %u agreed", id_, version);
  } else {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
    log_.info("sim client %u: NDMP version %u refused", id_, version);
  }
  Reply(reply);
}

void CSimSession::ConnectClientAuth() {
  auto* request = Body<CNDMPConnectClientAuthRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  const CSimServerConfig& config = server_.Config();
  CNDMPAuthData& data = request->AuthenticationData;
  bool ok = false;
  const char* method = "unknown";
  switch (data.AuthenticationType.getInt32()) {
    case enums::CNDMPEnumAuthType::NDMP_AUTH_NONE:
      method = "none";
      ok = config.authNone;
      break;
    case enums::CNDMPEnumAuthType::NDMP_AUTH_TEXT:
      method = "text";
      ok = config.authText &&
           data.TextAuthenticationData.AuthenticationID.GetString() == config.user &&
           data.TextAuthenticationData.AuthenticationPassword.GetString() == config.password;
      break;
    case enums::CNDMPEnumAuthType::NDMP_AUTH_MD5: {
      method = "MD5";
      if (config.authMD5 && !challenge_.empty() &&
          data.MD5AuthenticationData.AuthenticationID.GetString() == config.user) {
        CNDMPAuthMD5 expected;
        CXDROpaque challenge(challenge_.data(), static_cast<unsigned int>(challenge_.size()));
        expected.ComputeDigest(config.password, challenge);
        ok = expected.AuthenticationDigest == data.MD5AuthenticationData.AuthenticationDigest;
      }
      challenge_.clear();  // one attempt per challenge
      break;
    }
    default:
      break;
  }
  CNDMPConnectClientAuthReply reply;
  reply.NDMP_Error = ok ? CNDMPError::NDMP_NO_ERR : CNDMPError::NDMP_NOT_AUTHORIZED_ERR;
  if (ok) authenticated_ = true;
  log_.info("sim client %u: %s authentication %s", id_, method, ok ? "accepted" : "refused");
  Reply(reply);
}

void CSimSession::ConnectClose() {
  log_.info("sim client %u: closed the connection", id_);
  closing_ = true;
}

// ---------------------------------------------------------------------------
// Config

void CSimSession::ConfigGetServerInfo() {
  const CSimServerConfig& config = server_.Config();
  CNDMPConfigGetServerInfoReply reply;
  reply.VenderName = config.vendor;
  reply.ProductName = config.product;
  reply.RevisionNumber = config.revision;
  using Auth = enums::CNDMPEnumAuthType;
  if (config.authMD5) reply.AuthenticationTypes.AddItem(Auth::NDMP_AUTH_MD5);
  if (config.authText) reply.AuthenticationTypes.AddItem(Auth::NDMP_AUTH_TEXT);
  if (config.authNone) reply.AuthenticationTypes.AddItem(Auth::NDMP_AUTH_NONE);
  Reply(reply);
}

void CSimSession::ConfigGetAuthAttr() {
  auto* request = Body<CNDMPConfigGetAuthAttrRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  const CSimServerConfig& config = server_.Config();
  CNDMPConfigGetAuthAttrReply reply;
  const unsigned int type = request->AuthType.getInt32();
  reply.ServerAttr.AuthType = CXDREnumBase<enums::CNDMPEnumAuthType>(type);
  bool offered = (type == enums::CNDMPEnumAuthType::NDMP_AUTH_MD5 && config.authMD5) ||
                 (type == enums::CNDMPEnumAuthType::NDMP_AUTH_TEXT && config.authText) ||
                 (type == enums::CNDMPEnumAuthType::NDMP_AUTH_NONE && config.authNone);
  if (!offered) {
    reply.Error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else if (type == enums::CNDMPEnumAuthType::NDMP_AUTH_MD5) {
    challenge_.resize(64);
    for (unsigned char& byte : challenge_) byte = static_cast<unsigned char>(random_());
    reply.ServerAttr.Challenge.SetData(challenge_.data(), challenge_.size());
  }
  Reply(reply);
}

void CSimSession::ConfigGetHostInfo() {
  const CSimServerConfig& config = server_.Config();
  CNDMPConfigGetHostInfoReply reply;
  reply.hostname = config.hostName;
  reply.OSType = config.osType;
  reply.OSVersion = config.osVersion;
  reply.HostID = config.hostId;
  Reply(reply);
}

void CSimSession::ConfigGetConnectionType() {
  CNDMPConfigGetConnectionTypeReply reply;
  reply.AddressTypes.AddItem(enums::CNDMPEnumAddrType::NDMP_ADDR_LOCAL);
  reply.AddressTypes.AddItem(enums::CNDMPEnumAddrType::NDMP_ADDR_TCP);
  Reply(reply);
}

void CSimSession::ConfigGetButypeInfo() {
  CNDMPConfigGetButypeAttrReply reply;
  CNDMPConfigButypeInfo& dump = reply.BackupTypeInfo.AppendNew();
  dump.BackupTypeName = "dump";
  dump.Attributes = 0x1466u;  // file lists, incrementals, directory and node history
  dump.DefaultEnvironment.AddItem(Pair("FILESYSTEM", ""));
  dump.DefaultEnvironment.AddItem(Pair("LEVEL", "0"));
  dump.DefaultEnvironment.AddItem(Pair("HIST", "y"));
  dump.DefaultEnvironment.AddItem(Pair("UPDATE", "y"));
  CNDMPConfigButypeInfo& tar = reply.BackupTypeInfo.AppendNew();
  tar.BackupTypeName = "tar";
  tar.Attributes = 0x0206u;  // file lists, file history
  tar.DefaultEnvironment.AddItem(Pair("FILESYSTEM", ""));
  tar.DefaultEnvironment.AddItem(Pair("HIST", "y"));
  tar.DefaultEnvironment.AddItem(Pair("BLOCKSIZE", "20"));
  Reply(reply);
}

void CSimSession::ConfigGetFsInfo() {
  CNDMPConfigGetFsInfoReply reply;
  for (const CSimFileSystem& fs : server_.Config().fileSystems) {
    CNDMPFsInfo& info = reply.FsInfoArray.AppendNew();
    info.FSType = fs.type;
    info.LogDeviceName = fs.name;
    info.PhysDeviceName = fs.device;
    info.TotalSize = CNDMPUQuad(fs.totalBytes);
    info.UsedSize = CNDMPUQuad(fs.usedBytes);
    info.AvailSize = CNDMPUQuad(fs.totalBytes - std::min(fs.usedBytes, fs.totalBytes));
    info.TotalInodes = CNDMPUQuad(fs.totalInodes);
    info.UsedInodes = CNDMPUQuad(fs.usedInodes);
    info.FSEnvironment.AddItem(Pair("LOCAL", "y"));
    info.FSEnvironment.AddItem(Pair("TYPE", fs.type));
    info.FSStatus = fs.status;
  }
  Reply(reply);
}

void CSimSession::ConfigGetTapeInfo() {
  CNDMPConfigGetTapeInfoReply reply;
  for (const std::string& name : server_.TapeNames()) {
    CNDMPDeviceInfo& info = reply.TapeInfoArray.AppendNew();
    info.Model = "SIM-TAPE";
    CNDMPDeviceCapability& capability = info.CapabilityList.AppendNew();
    capability.Device = name;
    capability.Capability.AddItem(Pair("EXECUTE_CDB", "f"));
    capability.Capability.AddItem(Pair("SERIAL_NUMBER", "SIM" + name));
    capability.Capability.AddItem(
        Pair("MAX_RECORD_SIZE", std::to_string(server_.Config().maxRecordSize)));
  }
  Reply(reply);
}

void CSimSession::ConfigGetScsiInfo() {
  CNDMPConfigGetSCSIInfoReply reply;
  CNDMPDeviceInfo& info = reply.SCSIInfoArray.AppendNew();
  info.Model = "SIM-CHANGER";
  CNDMPDeviceCapability& capability = info.CapabilityList.AppendNew();
  capability.Device = server_.Config().changerName;
  capability.Capability.AddItem(Pair("SERIAL_NUMBER", "SIMCHG0001"));
  Reply(reply);
}

void CSimSession::ConfigGetExtList() {
  if (!server_.Config().answerExtList) return;  // deliberately silent, like some filers
  CNDMPConfigGetExtListReply reply;             // no extensions
  Reply(reply);
}

void CSimSession::ConfigSetExtList() {
  auto* request = Body<CNDMPConfigSetExtListRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPConfigSetExtListReply reply;
  if (request->SelectedExtensions.size() != 0) {
    reply.NDMP_Error = CNDMPError::NDMP_CLASS_NOT_SUPPORTED_ERR;
  }
  Reply(reply);
}

// ---------------------------------------------------------------------------
// SCSI

void CSimSession::ScsiOpen() {
  auto* request = Body<CNDMPScsiOpenRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPScsiOpenReply reply;
  if (changerOpen_) {
    reply.NDMP_Error = CNDMPError::NDMP_DEVICE_OPENED_ERR;
  } else {
    switch (server_.AcquireChanger(request->Device.GetString(), this)) {
      case CNDMPSimServer::DeviceResult::kOk:
        changerOpen_ = true;
        break;
      case CNDMPSimServer::DeviceResult::kBusy:
        reply.NDMP_Error = CNDMPError::NDMP_DEVICE_BUSY_ERR;
        break;
      default:
        reply.NDMP_Error = CNDMPError::NDMP_NO_DEVICE_ERR;
        break;
    }
  }
  Reply(reply);
}

void CSimSession::ScsiClose() {
  CNDMPScsiCloseReply reply;
  if (!changerOpen_) {
    reply.NDMP_Error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else {
    server_.ReleaseChanger(this);
    changerOpen_ = false;
  }
  Reply(reply);
}

void CSimSession::ScsiGetState() {
  CNDMPScsiGetStateReply reply;
  if (!changerOpen_) reply.NDMP_Error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  Reply(reply);
}

// ---------------------------------------------------------------------------
// Tape

void CSimSession::TapeOpen() {
  auto* request = Body<CNDMPTapeOpenRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPTapeOpenReply reply;
  const std::string name = request->Device.GetString();
  const unsigned int mode = request->Mode.getInt32();
  using Mode = enums::CNDMPEnumTapeOpenMode;
  const bool write = mode == Mode::NDMP_TAPE_RDWR_MODE || mode == Mode::NDMP_TAPE_RAW_MODE ||
                     mode == Mode::NDMP_TAPE_RAW_MODE_OLD;
  if (tape_ != nullptr) {
    reply.NDMP_Error = CNDMPError::NDMP_DEVICE_OPENED_ERR;
  } else if (!write && mode != Mode::NDMP_TAPE_READ_MODE) {
    reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else if (!CNDMPSimServer::IsValidTapeName(name)) {
    reply.NDMP_Error = CNDMPError::NDMP_NO_DEVICE_ERR;
  } else {
    CVirtualTape* tape = nullptr;
    switch (server_.AcquireTape(name, write, this, &tape)) {
      case CNDMPSimServer::DeviceResult::kOk:
        if (write && !tape->IsWritable()) {
          server_.ReleaseTape(name, this);
          reply.NDMP_Error = CNDMPError::NDMP_WRITE_PROTECT_ERR;
        } else {
          tape_ = tape;
          tapeName_ = name;
          tapeWritable_ = write;
          tapeUnloaded_ = false;
        }
        break;
      case CNDMPSimServer::DeviceResult::kBusy:
        reply.NDMP_Error = CNDMPError::NDMP_DEVICE_BUSY_ERR;
        break;
      case CNDMPSimServer::DeviceResult::kNoDevice:
        reply.NDMP_Error = CNDMPError::NDMP_NO_DEVICE_ERR;
        break;
      case CNDMPSimServer::DeviceResult::kIoError:
        reply.NDMP_Error = CNDMPError::NDMP_IO_ERR;
        break;
    }
  }
  if (reply.NDMP_Error == CNDMPError::NDMP_NO_ERR) {
    log_.info("sim client %u: tape %s opened (%s)", id_, name.c_str(),
              request->Mode.ToString().c_str());
  }
  Reply(reply);
}

void CSimSession::TapeClose() {
  CNDMPTapeCloseReply reply;
  if (tape_ == nullptr) {
    reply.NDMP_Error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else {
    server_.ReleaseTape(tapeName_, this);
    tape_ = nullptr;
  }
  Reply(reply);
}

void CSimSession::TapeGetState() {
  CNDMPTapeGetStateReply reply;
  if (tape_ == nullptr) {
    reply.NDMP_Error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else if (tapeUnloaded_) {
    reply.NDMP_Error = CNDMPError::NDMP_NO_TAPE_LOADED_ERR;
  } else {
    reply.Flags = tape_->IsWritable() ? 0u : 0x10u;  // write protected
    reply.FileNum = tape_->FileNumber();
    reply.BlockNo = tape_->BlockNumber();
    reply.BlockSize = 0u;  // variable-size records
    reply.TotalSpace = CNDMPUQuad(tape_->Capacity());
    reply.SpaceRemaining = CNDMPUQuad(tape_->Remaining());
  }
  Reply(reply);
}

void CSimSession::TapeMtio() {
  auto* request = Body<CNDMPTapeMtioRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPTapeMtioReply reply;
  const std::uint32_t count = request->Count.getInt32();
  std::uint32_t resid = 0;
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  using Op = enums::CNDMPEnumMtioOp;
  const unsigned int op = request->TapeOp.getInt32();
  if (tape_ == nullptr) {
    error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else if (tapeUnloaded_ && op != Op::NDMP_MTIO_OFF) {
    error = CNDMPError::NDMP_NO_TAPE_LOADED_ERR;
    resid = count;
  } else {
    switch (op) {
      case Op::NDMP_MTIO_FSF:
      case Op::NDMP_MTIO_BSF:
        error = TapeError(tape_->SpaceFilemarks(op == Op::NDMP_MTIO_FSF, count, &resid));
        break;
      case Op::NDMP_MTIO_FSR:
      case Op::NDMP_MTIO_BSR:
        error = TapeError(tape_->SpaceRecords(op == Op::NDMP_MTIO_FSR, count, &resid));
        break;
      case Op::NDMP_MTIO_REW:
        tape_->Rewind();
        break;
      case Op::NDMP_MTIO_EOF:
        if (!tapeWritable_) {
          error = CNDMPError::NDMP_PERMISSION_ERR;
          resid = count;
        } else {
          std::uint32_t written = 0;
          error = TapeError(tape_->WriteFilemarks(count, &written));
          resid = count - written;
        }
        break;
      case Op::NDMP_MTIO_OFF:
        tape_->Rewind();
        tapeUnloaded_ = true;
        break;
      case Op::NDMP_MTIO_TUR:
        break;
      default:
        error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
        resid = count;
        break;
    }
  }
  reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
  reply.ResidCount = resid;
  Reply(reply);
}

void CSimSession::TapeWrite() {
  auto* request = Body<CNDMPTapeWriteRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPTapeWriteReply reply;
  const std::uint64_t length = request->DataOut.GetSize();
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  if (tape_ == nullptr) {
    error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else if (tapeUnloaded_) {
    error = CNDMPError::NDMP_NO_TAPE_LOADED_ERR;
  } else if (!tapeWritable_) {
    error = CNDMPError::NDMP_PERMISSION_ERR;
  } else if (length == 0 || length > server_.Config().maxRecordSize) {
    error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else {
    error = TapeError(
        tape_->WriteRecord(request->DataOut.GetData(), static_cast<std::uint32_t>(length)));
    if (error == CNDMPError::NDMP_NO_ERR) reply.Count = static_cast<unsigned int>(length);
  }
  reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
  Reply(reply);
}

void CSimSession::TapeRead() {
  auto* request = Body<CNDMPTapeReadRequest>();
  if (request == nullptr) return Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  CNDMPTapeReadReply reply;
  unsigned int error = CNDMPError::NDMP_NO_ERR;
  const std::uint32_t count = request->Count.getInt32();
  if (tape_ == nullptr) {
    error = CNDMPError::NDMP_DEV_NOT_OPEN_ERR;
  } else if (tapeUnloaded_) {
    error = CNDMPError::NDMP_NO_TAPE_LOADED_ERR;
  } else if (count == 0) {
    error = CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  } else {
    std::vector<unsigned char> data;
    error = TapeError(tape_->ReadRecord(count, &data));
    if (!data.empty()) reply.Data.SetData(data.data(), data.size());
  }
  reply.NDMP_Error = CXDREnumBase<CNDMPError>(error);
  Reply(reply);
}

// ---------------------------------------------------------------------------
// Data and mover: always idle.

void CSimSession::DataGetState() {
  CNDMPDataGetStateReply reply;
  reply.Operation = enums::CNDMPEnumDataOperation::NDMP_DATA_OP_NOACTION;
  reply.State = enums::CNDMPEnumDataState::NDMP_DATA_STATE_IDLE;
  reply.HaltReason = enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_NA;
  reply.DataConnAddress.AddressType = enums::CNDMPEnumAddrType::NDMP_ADDR_LOCAL;
  Reply(reply);
}

void CSimSession::MoverGetState() {
  CNDMPMoverGetStateReply reply;
  reply.Mode = enums::CNDMPEnumMoverMode::NDMP_MOVER_MODE_READ;
  reply.State = enums::CNDMPEnumMoverState::NDMP_MOVER_STATE_IDLE;
  reply.PauseReason = enums::CNDMPEnumMoverPauseReason::NDMP_MOVER_PAUSE_NA;
  reply.HaltReason = enums::CNDMPEnumMoverHaltReason::NDMP_MOVER_HALT_NA;
  reply.DataConnAddress.AddressType = enums::CNDMPEnumAddrType::NDMP_ADDR_LOCAL;
  Reply(reply);
}

}  // namespace com::vx::korvane::ndmpc::tools
