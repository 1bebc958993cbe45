#include "tools/simulator/sim_session.h"

#include <arpa/inet.h>
#include <netinet/in.h>
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
#include "tools/simulator/config_agent.h"
#include "tools/simulator/data_agent.h"
#include "tools/simulator/mover_agent.h"
#include "tools/simulator/sim_server.h"
#include "tools/simulator/tape_agent.h"

namespace com::vx::korvane::ndmpc::tools {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using enums::CNDMPMessageType;
using Code = enums::CNDMPMessageCode;

namespace {

// How long a new client may stay silent before it is dropped.
constexpr auto kGreetingIdleLimit = std::chrono::seconds(60);
// The queue is woken by every packet and closed when the client leaves or
// the session is interrupted; the time limit only bounds a missed wake-up.
constexpr unsigned int kQueueWaitMs = 1000;

}  // namespace

void CSimSession::BuildHandlerTable() {
  using R = CSimRequest;
  CSimConfigAgent& c = *config_;
  CSimTapeAgent& t = *tape_;
  CSimDataAgent& d = *data_;
  CSimMoverAgent& m = *mover_;
  handlers_ = {
      {Code::NDMP_CONNECT_OPEN, [this](R& r) { ConnectOpen(r); }, true},
      {Code::NDMP_CONNECT_CLIENT_AUTH, [this](R& r) { ConnectClientAuth(r); }, true},
      {Code::NDMP_CONNECT_CLOSE, [this](R& r) { ConnectClose(r); }, true},
      {Code::NDMP_CONFIG_GET_SERVER_INFO, [&c](R& r) { c.ConfigGetServerInfo(r); }, true},
      {Code::NDMP_CONFIG_GET_AUTH_ATTR, [this](R& r) { ConfigGetAuthAttr(r); }, true},
      {Code::NDMP_CONFIG_GET_HOST_INFO, [&c](R& r) { c.ConfigGetHostInfo(r); }, false},
      {Code::NDMP_CONFIG_GET_CONNECTION_TYPE, [&c](R& r) { c.ConfigGetConnectionType(r); }, false},
      {Code::NDMP_CONFIG_GET_BUTYPE_INFO, [&c](R& r) { c.ConfigGetButypeInfo(r); }, false},
      {Code::NDMP_CONFIG_GET_FS_INFO, [&c](R& r) { c.ConfigGetFsInfo(r); }, false},
      {Code::NDMP_CONFIG_GET_TAPE_INFO, [&c](R& r) { c.ConfigGetTapeInfo(r); }, false},
      {Code::NDMP_CONFIG_GET_SCSI_INFO, [&c](R& r) { c.ConfigGetScsiInfo(r); }, false},
      {Code::NDMP_CONFIG_GET_EXT_LIST, [&c](R& r) { c.ConfigGetExtList(r); }, false},
      {Code::NDMP_CONFIG_SET_EXT_LIST, [&c](R& r) { c.ConfigSetExtList(r); }, false},
      {Code::NDMP_SCSI_OPEN, [&t](R& r) { t.ScsiOpen(r); }, false},
      {Code::NDMP_SCSI_CLOSE, [&t](R& r) { t.ScsiClose(r); }, false},
      {Code::NDMP_SCSI_GET_STATE, [&t](R& r) { t.ScsiGetState(r); }, false},
      {Code::NDMP_TAPE_OPEN, [&t](R& r) { t.TapeOpen(r); }, false},
      {Code::NDMP_TAPE_CLOSE, [&t](R& r) { t.TapeClose(r); }, false},
      {Code::NDMP_TAPE_GET_STATE, [&t](R& r) { t.TapeGetState(r); }, false},
      {Code::NDMP_TAPE_MTIO, [&t](R& r) { t.TapeMtio(r); }, false},
      {Code::NDMP_TAPE_WRITE, [&t](R& r) { t.TapeWrite(r); }, false},
      {Code::NDMP_TAPE_READ, [&t](R& r) { t.TapeRead(r); }, false},
      {Code::NDMP_DATA_LISTEN, [&d](R& r) { d.Listen(r); }, false},
      {Code::NDMP_DATA_CONNECT, [&d](R& r) { d.Connect(r); }, false},
      {Code::NDMP_DATA_START_BACKUP, [&d](R& r) { d.StartBackup(r); }, false},
      {Code::NDMP_DATA_START_RECOVER, [&d](R& r) { d.StartRecover(r); }, false},
      {Code::NDMP_DATA_START_RECOVER_FILEHIST, [&d](R& r) { d.StartRecoverFilehist(r); }, false},
      {Code::NDMP_DATA_GET_STATE, [&d](R& r) { d.GetState(r); }, false},
      {Code::NDMP_DATA_GET_ENV, [&d](R& r) { d.GetEnv(r); }, false},
      {Code::NDMP_DATA_ABORT, [&d](R& r) { d.Abort(r); }, false},
      {Code::NDMP_DATA_STOP, [&d](R& r) { d.Stop(r); }, false},
      {Code::NDMP_MOVER_LISTEN, [&m](R& r) { m.Listen(r); }, false},
      {Code::NDMP_MOVER_CONNECT, [&m](R& r) { m.Connect(r); }, false},
      {Code::NDMP_MOVER_SET_RECORD_SIZE, [&m](R& r) { m.SetRecordSize(r); }, false},
      {Code::NDMP_MOVER_SET_WINDOW, [&m](R& r) { m.SetWindow(r); }, false},
      {Code::NDMP_MOVER_READ, [&m](R& r) { m.Read(r); }, false},
      {Code::NDMP_MOVER_CONTINUE, [&m](R& r) { m.Continue(r); }, false},
      {Code::NDMP_MOVER_ABORT, [&m](R& r) { m.Abort(r); }, false},
      {Code::NDMP_MOVER_STOP, [&m](R& r) { m.Stop(r); }, false},
      {Code::NDMP_MOVER_CLOSE, [&m](R& r) { m.Close(r); }, false},
      {Code::NDMP_MOVER_GET_STATE, [&m](R& r) { m.GetState(r); }, false},
  };
}

namespace {

// The local address of an accepted socket, where data connections listen.
std::string LocalAddress(const VxTcpSocket& socket, const std::string& fallback) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  char text[INET_ADDRSTRLEN] = "";
  if (::getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      address.sin_family != AF_INET ||
      ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text)) == nullptr) {
    return fallback;
  }
  return text;
}

}  // namespace

CSimSession::CSimSession(CNDMPSimServer& server, std::unique_ptr<VxTcpSocket> socket,
                         unsigned int id)
    : server_(server),
      log_(server.Log()),
      id_(id),
      socket_(std::move(socket)),
      context_{server, server.Log(), id, LocalAddress(*socket_, server.Config().listenAddress),
               [this](CNDMPMessage& post) { connection_->SendMessage(post, 0); }} {
  std::random_device seed;
  random_.seed((static_cast<std::uint64_t>(seed()) << 32) ^ seed() ^ id);
  config_ = std::make_unique<CSimConfigAgent>(context_);
  tape_ = std::make_unique<CSimTapeAgent>(context_);
  mover_ = std::make_unique<CSimMoverAgent>(context_, *tape_);
  data_ = std::make_unique<CSimDataAgent>(context_);
  mover_->SetDataAgent(data_.get());
  data_->SetMover(mover_.get());
  BuildHandlerTable();
}

CSimSession::~CSimSession() {
  StopAgents();
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
    const bool oversized = stream.RecordOverLimit();
    if (stream.GetBytesAvailable() != 0 && !oversized) stream.skipRecord();
    if (!stream.AtRecordEnd()) stream.DiscardRecord();
    if (result != XDR_FAILURE && !oversized) return packet;
    log_.warning("sim client %u: undecodable message dropped", id_);
  }
  return nullptr;
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
        if (queue.GetFilledSize() == 0 && !queue.IsClosed()) queue.WaitForPacket(kQueueWaitMs);
        // Read before draining: closed and then drained means every request
        // the client sent before leaving has been served.
        const bool inputEnded = queue.IsClosed();
        CNDMPMessagePacket* packet = nullptr;
        while (!closing_ && queue.GetNextPacket(packet)) {
          std::unique_ptr<CNDMPMessagePacket> owned(packet);
          Handle(*owned);
        }
        if (inputEnded && queue.GetFilledSize() == 0) break;
      }
    }
  }
  StopAgents();
  {
    std::lock_guard<std::mutex> lock(socketMutex_);
    if (connection_) connection_->Disconnect();
    connection_.reset();
    socket_.reset();
  }
  log_.info("sim client %u: disconnected", id_);
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
  CSimRequest request(*connection_, packet);
  auto row = std::find_if(handlers_.begin(), handlers_.end(),
                          [code](const CHandlerRow& r) { return r.code == code; });
  const bool allowed = authenticated_ || (row != handlers_.end() && row->beforeAuthentication);
  if (!allowed) {
    log_.info("sim client %u: %s refused before authentication", id_, name.c_str());
    request.Fail(CNDMPError::NDMP_NOT_AUTHORIZED_ERR);
  } else if (row == handlers_.end()) {
    log_.info("sim client %u: %s not supported", id_, name.c_str());
    request.Fail(CNDMPError::NDMP_NOT_SUPPORTED_ERR);
  } else if (header.ErrorCode != CNDMPError::NDMP_NO_ERR) {
    log_.warning("sim client %u: %s request carrying error %s refused", id_, name.c_str(),
                 header.ErrorCode.ToString().c_str());
    request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  } else {
    log_.debug("sim client %u: %s", id_, name.c_str());
    row->handler(request);
  }
}

void CSimSession::StopAgents() {
  // The workers send posts through the connection: they end before it does.
  if (data_) data_->Shutdown();
  if (mover_) mover_->Shutdown();
  if (tape_) tape_->Release();
}

// ---------------------------------------------------------------------------
// Connect

void CSimSession::ConnectOpen(CSimRequest& request) {
  auto* body = request.Body<CNDMPConnectOpenRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  const unsigned int version = body->ProtocolVersion.getInt32();
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
  request.Reply(reply);
}

void CSimSession::ConnectClientAuth(CSimRequest& request) {
  auto* body = request.Body<CNDMPConnectClientAuthRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  const CSimServerConfig& config = server_.Config();
  CNDMPAuthData& data = body->AuthenticationData;
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
  request.Reply(reply);
}

void CSimSession::ConnectClose(CSimRequest&) {
  log_.info("sim client %u: closed the connection", id_);
  closing_ = true;
}

void CSimSession::ConfigGetAuthAttr(CSimRequest& request) {
  auto* body = request.Body<CNDMPConfigGetAuthAttrRequest>();
  if (body == nullptr) return request.Fail(CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  const CSimServerConfig& config = server_.Config();
  CNDMPConfigGetAuthAttrReply reply;
  const unsigned int type = body->AuthType.getInt32();
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
  request.Reply(reply);
}

}  // namespace com::vx::korvane::ndmpc::tools
