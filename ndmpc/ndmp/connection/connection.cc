#include "ndmpc/ndmp/connection/connection.h"

#include <algorithm>
#include <ctime>
#include <memory>

#include "ndmpc/ndmp/messages/connect_config_messages.h"

namespace com::vx::korvane::ndmpc {

using enums::CNDMPError;
using enums::CNDMPMessageType;
using enums::CNDMPProtocolVersion;

namespace {

// Requests of the connection's own exchanges wait up to six minutes.
constexpr unsigned int kSetupTimeout = 360;
// How long stopping waits for a thread before it shuts the socket down, and
// then how much longer for a callback still running.
constexpr unsigned int kStopWaitMs = 250;
constexpr unsigned int kCallbackGraceMs = 1500;

// Holds copies of the serving side's first packets, at most `limit`.
class CEarlyCollector : public CINDMPCallback {
 public:
  CEarlyCollector(CNDMPMessagePacketQueue& queue, VxLog& log, std::size_t limit)
      : queue_(queue), log_(log), limit_(limit) {}
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override {
    if (queue_.GetFilledSize() < limit_) {
      return static_cast<unsigned int>(queue_.PutMessagePacket(*new CNDMPMessagePacket(packet)));
    }
    if (!warned_) {
      warned_ = true;
      log_.warning("Serving side: more than %d packets before StartServerMode; later ones dropped",
                   static_cast<int>(limit_));
    }
    return 0;
  }

 private:
  CNDMPMessagePacketQueue& queue_;
  VxLog& log_;
  const std::size_t limit_;
  bool warned_ = false;  // only touched on the dispatch thread
};

std::mutex& ProtectorMutex() {
  static std::mutex mutex;
  return mutex;
}

CNDMPCredentialProtector& DefaultProtector() {
  static CNDMPCredentialProtector protector;
  return protector;
}

// Registers a connection's log handler once for the connection's life:
// unregistering would need the table's lock, which a running callback holds.
void RegisterOnce(CNDMPCallbackRegistrationTable& table, CNDMPLogCallbackHandler& handler,
                  CNDMPCallbackRegistration*& registration, void* connection) {
  if (registration != nullptr) return;
  handler.SetHandle(connection);
  registration = table.RegisterCallback(&handler);
}

}  // namespace

struct CNDMPConnection::CSession {
  explicit CSession(std::unique_ptr<VxTcpSocket> s) : socket(std::move(s)) {}
  bool Running() const {
    return (receiveThread && receiveThread->isRunning()) ||
           (dispatchThread && dispatchThread->isRunning());
  }
  // Waits for both threads, except the calling one, which cannot.
  void WaitForThreads() {
    for (VxThread* t : {static_cast<VxThread*>(receiveThread.get()),
                        static_cast<VxThread*>(dispatchThread.get())}) {
      if (t != nullptr && !t->isCurrentThread()) t->waitUntilStopped(VX_INFINITE);
    }
  }

  // Destroyed in reverse order: the threads before what they use.
  std::unique_ptr<VxTcpSocket> socket;
  std::unique_ptr<CXDRStream> stream;
  CNDMPMessagePacketQueue queue;
  std::unique_ptr<CNDMPMessageReceiveThread> receiveThread;
  std::unique_ptr<CNDMPMessageDispatchThread> dispatchThread;
};

CNDMPConnection::CNDMPConnection(const char* hostName, const char* ipAddress, VxLog& log,
                                 unsigned int port)
    : logHandler_(log),
      log_(log),
      hostName_(hostName != nullptr ? hostName : ""),
      ipAddress_(ipAddress != nullptr ? ipAddress : ""),
      port_(port) {}

CNDMPConnection::CNDMPConnection(VxTcpSocket& socket, VxLog& log) : logHandler_(log), log_(log) {
  auto* owned = new VxTcpSocket();
  int fd = socket.release();
  if (fd >= 0) owned->adopt(fd);
  // The threads start here, but the application calls StartServerMode only
  // afterwards: packets of that gap are held and handed over then, so that a
  // client's first request is never lost.
  earlyCollector_ = new CEarlyCollector(earlyQueue_, log_, kEarlyPacketLimit);
  earlyRegistration_ = CNDMPCallbackRegistrationTable::RegisterCallback(earlyCollector_);
  InitializeConnection(owned);  // the result is ignored on the serving side
}

CNDMPConnection::CNDMPConnection(const CNDMPConnection& other)
    : CNDMPCallbackRegistrationTable(),
      CINDMPReplyRouter(),
      logHandler_(other.log_),
      log_(other.log_),
      hostName_(other.hostName_),
      ipAddress_(other.ipAddress_),
      userName_(other.userName_),
      password_(other.password_),
      port_(other.port_) {
  maxRecordSize_ = other.GetMaxRecordSize();  // before Connect: the copy reads with it
  if (other.connected_.load()) {
    if (Connect(other.GetProtocolVersion()) == CNDMPError::NDMP_NO_ERR) {
      connected_ = true;
      // Retried with the stored credentials whether or not the source was authenticated.
      authenticated_ = Authenticate(other.userName_.c_str(), other.password_.c_str()) ==
                       CNDMPError::NDMP_NO_ERR;
    }
  }
}

CNDMPConnection::~CNDMPConnection() {
  Disconnect();
  // Callbacks still running dispatch through this object's table.
  std::vector<std::shared_ptr<CSession>> retired;
  {
    std::lock_guard<std::mutex> lock(retiredMutex_);
    retired.swap(retired_);
  }
  for (const std::shared_ptr<CSession>& session : retired) {
    session->WaitForThreads();
    // Destroyed from one of its callbacks, the dispatch thread still holds
    // the session: its reader has ended, so the stream (which logs to the
    // application's log) goes now rather than after the application's log.
    session->stream.reset();
  }
  ReleaseEarlyCollector(false);
  if (serverRegistration_ != nullptr) {
    UnregisterCallback(serverRegistration_);
    serverRegistration_ = nullptr;
  }
  delete collector_;
  collector_ = nullptr;
}

unsigned int CNDMPConnection::OpenSocket(VxTcpSocket* socket) {
  const bool accepted = socket != nullptr;
  auto session = std::make_shared<CSession>(
      std::unique_ptr<VxTcpSocket>(accepted ? socket : new VxTcpSocket(1)));
  {
    VxGuard sending(sendMutex_);
    VxGuard lock(writeMutex_);
    socket_ = session->socket.get();
    session_ = session;
  }
  if (accepted) {
    hostName_ = ipAddress_ = socket->getRemoteAddress().toIPAddress();
    return 0;
  }
  log_.debug("CNDMPConnection using Hostname=%s, IPAddress=%s, PortNumber=%d", hostName_.c_str(),
             ipAddress_.c_str(), static_cast<int>(port_));
  // A socket that could not connect stays (as getSocket) until Disconnect:
  // that is how a caller tells an unreachable server from a refusal.
  if (socket_->connect(VxSocketAddress(hostName_, port_, 1)) == 0) return 0;
  if (socket_->connect(VxSocketAddress(ipAddress_, port_, 1)) == 0) return 0;
  return CNDMPError::NDMP_CONNECT_ERR;
}

void CNDMPConnection::StartThreads() {
  std::shared_ptr<CSession> session = session_;
  {
    VxGuard sending(sendMutex_);
    VxGuard lock(writeMutex_);
    session->stream = std::make_unique<CXDRStream>(*session->socket, log_);
    session->stream->SetMaxRecordSize(maxRecordSize_.load());
    stream_ = session->stream.get();
  }
  session->receiveThread =
      std::make_unique<CNDMPMessageReceiveThread>(*session->stream, session->queue, log_, this);
  CXDREnumBase<CNDMPProtocolVersion> version = GetProtocolVersion();
  session->receiveThread->SetProtocolVersion(version);
  session->receiveThread->SetReplyRouter(this);
  session->dispatchThread =
      std::make_unique<CNDMPMessageDispatchThread>(session->queue, *this, log_);
  session->dispatchThread->SetEndHandler([this, s = session.get()] { InputEnded(s); });
  {
    std::lock_guard<std::mutex> lock(inputMutex_);
    inputSession_ = session.get();
    serverQueue_.Reopen();
  }
  RegisterOnce(*this, logHandler_, logRegistration_, this);
  // Each thread holds the session while it runs (see StopSession).
  session->receiveThread->start(session);
  session->dispatchThread->start(session);
}

unsigned int CNDMPConnection::InitializeConnection(VxTcpSocket* socket) {
  unsigned int r = OpenSocket(socket);
  if (r != 0) return r;
  StartThreads();
  return 0;
}

CXDREnumBase<CNDMPError> CNDMPConnection::SetupProtocolVersion(
    const CXDREnumBase<CNDMPProtocolVersion>& version) {
  CNDMPConnectOpenRequest request;
  request.ProtocolVersion = version;
  CNDMPMessage* reply = nullptr;
  CXDREnumBase<CNDMPError> result = SendMessage(request, &reply, kSetupTimeout);
  if (result != CNDMPError::NDMP_NO_ERR) return result;
  if (reply == nullptr) return CNDMPError::NDMP_UNDEFINED_ERR;
  auto* open = dynamic_cast<CNDMPConnectOpenReply*>(reply);
  result = open != nullptr ? open->NDMP_Error
                           : CXDREnumBase<CNDMPError>(CNDMPError::NDMP_UNDEFINED_ERR);
  FreeMessage(reply);
  return result;
}

CXDREnumBase<CNDMPError> CNDMPConnection::ConnectWith(
    const std::vector<CNDMPProtocolVersion::enum_value>& offers) {
  Disconnect();
  // The table's lock is never taken under the send lock: a callback (which
  // runs under the table's lock) may send or disconnect.
  RegisterOnce(*this, logHandler_, logRegistration_, this);
  {
    // Sends of other threads wait until the connection is up or has failed.
    VxGuard sending(sendMutex_);
    if (InitializeConnection(nullptr) != 0) {
      log_.error("[0x%08X] Failed to establish connection", Handle());
      return CNDMPError::NDMP_CONNECT_ERR;
    }
    for (CNDMPProtocolVersion::enum_value offer : offers) {
      CXDREnumBase<CNDMPProtocolVersion> version(offer);
      // A server that accepts this offer may post messages right behind its
      // reply, in the offered version; the receive thread reads them before
      // the reply has reached this thread, so it decodes so from the offer on.
      session_->receiveThread->SetProtocolVersion(version);
      if (SetupProtocolVersion(version) == CNDMPError::NDMP_NO_ERR) {
        version_ = version.getInt32();
        connected_ = true;
        authenticated_ = false;
        return CNDMPError::NDMP_NO_ERR;
      }
    }
  }
  Disconnect();
  return CNDMPError::NDMP_CONNECT_ERR;
}

CXDREnumBase<CNDMPError> CNDMPConnection::Connect() {
  return ConnectWith({CNDMPProtocolVersion::PROTOCOL_VERSION_4,
                      CNDMPProtocolVersion::PROTOCOL_VERSION_3});
}

CXDREnumBase<CNDMPError> CNDMPConnection::Connect(
    const CXDREnumBase<CNDMPProtocolVersion>& version) {
  return ConnectWith({static_cast<CNDMPProtocolVersion::enum_value>(version.getInt32())});
}

CXDREnumBase<CNDMPError> CNDMPConnection::SetMaxRecordSize(std::uint32_t bytes) {
  if (bytes < kMinRecordSize) return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  VxGuard lock(writeMutex_);
  maxRecordSize_ = bytes;
  if (stream_ != nullptr) stream_->SetMaxRecordSize(bytes);
  return CNDMPError::NDMP_NO_ERR;
}

CXDREnumBase<CNDMPError> CNDMPConnection::Disconnect() {
  StopSession();
  connected_ = false;
  authenticated_ = false;
  // A login that was not sent before the disconnect must not be sent on the
  // next, ordinary connection.
  alternateMode_ = false;
  return CNDMPError::NDMP_NO_ERR;
}

void CNDMPConnection::StopSession() {
  std::shared_ptr<CSession> session = session_;
  if (session) {
    VxTcpSocket& socket = *session->socket;
    if (CNDMPMessageReceiveThread* reader = session->receiveThread.get()) {
      reader->stop(false);
      // The reader is most likely polling for input: end that poll now.
      socket.interruptWait();
      // A peer that stalls inside a record keeps the reader blocked: shut the
      // connection down so that stopping never depends on the peer.
      if (!reader->waitUntilStopped(kStopWaitMs)) {
        socket.close();
        reader->waitUntilStopped(kCallbackGraceMs);
      }
    }
    if (CNDMPMessageDispatchThread* dispatcher = session->dispatchThread.get()) {
      dispatcher->stop(false);
      session->queue.Wake();
      // On the dispatch thread (a callback stopping its own connection)
      // there is nothing to wait for: the thread ends after the callback.
      if (!dispatcher->isCurrentThread() && !dispatcher->waitUntilStopped(kStopWaitMs)) {
        // A callback is still waiting for a reply: ending the connection
        // ends that wait.
        socket.close();
        dispatcher->waitUntilStopped(kCallbackGraceMs);
      }
    }
    // A request of another thread may still be waiting for its reply: the
    // closed socket ends that wait within a second, and the send mutex
    // taken below waits for it.
    socket.close();
  }
  {
    VxGuard sending(sendMutex_);
    VxGuard lock(writeMutex_);
    stream_ = nullptr;
    socket_ = nullptr;
    session_.reset();
  }
  std::lock_guard<std::mutex> lock(retiredMutex_);
  retired_.erase(std::remove_if(retired_.begin(), retired_.end(),
                                [](const std::shared_ptr<CSession>& s) { return !s->Running(); }),
                 retired_.end());
  // Threads still running hold the session themselves; it is kept here
  // only so that the destructor can wait for them.
  if (session && session->Running()) retired_.push_back(std::move(session));
}

void CNDMPConnection::InputEnded(const CSession* session) {
  // A stopped session whose threads end late must not close the queue of
  // the connection made since.
  std::lock_guard<std::mutex> lock(inputMutex_);
  if (session == inputSession_) serverQueue_.Close();
}

void CNDMPConnection::EndEarlyHolding() {
  VxGuard lock(*this);
  if (earlyRegistration_ == nullptr) return;
  CNDMPCallbackRegistrationTable::UnregisterCallback(earlyRegistration_);
  earlyRegistration_ = nullptr;
}

unsigned int CNDMPConnection::StartServerMode() {
  // Under the table's lock no packet is being dispatched: the held packets
  // move over first, in order, and every later one goes to the collector.
  VxGuard lock(*this);
  if (collector_ == nullptr) {
    collector_ = new CNDMPMessagePacketCollector(serverQueue_);
    serverRegistration_ = CNDMPCallbackRegistrationTable::RegisterCallback(collector_);
  }
  ReleaseEarlyCollector(true);
  return 0;
}

void CNDMPConnection::ReleaseEarlyCollector(bool handOver) {
  if (earlyRegistration_ != nullptr) {
    CNDMPCallbackRegistrationTable::UnregisterCallback(earlyRegistration_);
    earlyRegistration_ = nullptr;
  }
  delete earlyCollector_;
  earlyCollector_ = nullptr;
  CNDMPMessagePacket* held = nullptr;
  while (earlyQueue_.GetNextPacket(held)) {
    if (handOver) {
      serverQueue_.PutMessagePacket(*held);
    } else {
      delete held;
    }
  }
}

bool CNDMPConnection::IsConnected() const {
  return connected_.load() && socket_ != nullptr && socket_->isConnected();
}

const char* CNDMPConnection::SetHostName(const char* hostName) {
  hostName_ = hostName != nullptr ? hostName : "";
  return hostName_.c_str();
}

const char* CNDMPConnection::SetIPAddress(const char* ipAddress) {
  // Intentionally the string's assignment from one character value.
  if (ipAddress != nullptr) {
    ipAddress_ = *ipAddress;
  } else {
    ipAddress_.clear();
  }
  return ipAddress_.c_str();
}

unsigned int CNDMPConnection::SetPort(unsigned int port) const {
  port_ = port;
  return port_;
}

CXDREnumBase<CNDMPProtocolVersion> CNDMPConnection::GetProtocolVersion() const {
  return CXDREnumBase<CNDMPProtocolVersion>(version_.load());
}

void CNDMPConnection::SetProtocolVersion(const CXDREnumBase<CNDMPProtocolVersion>& version) {
  version_ = version.getInt32();
  std::shared_ptr<CSession> session;
  {
    VxGuard lock(writeMutex_);
    session = session_;
  }
  if (session && session->receiveThread) {
    CXDREnumBase<CNDMPProtocolVersion> copy(version);
    session->receiveThread->SetProtocolVersion(copy);
  }
}

unsigned int CNDMPConnection::GetNextSequence() { return ++sequence_; }

void CNDMPConnection::FreeMessage(CNDMPMessage* message) { delete message; }

CNDMPCallbackRegistration* CNDMPConnection::RegisterCallback(CINDMPCallback* handler) {
  EndEarlyHolding();
  return CNDMPCallbackRegistrationTable::RegisterCallback(handler);
}

CNDMPCallbackRegistration* CNDMPConnection::RegisterCallback(
    CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code) {
  EndEarlyHolding();
  return CNDMPCallbackRegistrationTable::RegisterCallback(handler, code);
}

CNDMPCallbackRegistration* CNDMPConnection::RegisterCallback(
    CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code, unsigned int sequence) {
  EndEarlyHolding();
  return CNDMPCallbackRegistrationTable::RegisterCallback(handler, code, CXDRULong(sequence));
}

bool CNDMPConnection::UnregisterCallback(CNDMPCallbackRegistration* registration) {
  return CNDMPCallbackRegistrationTable::UnregisterCallback(registration);
}

void CNDMPConnection::RoutePacket(CNDMPMessagePacket& packet) {
  const CNDMPHeader& header = packet.GetHeader();
  std::lock_guard<std::mutex> lock(waitersMutex_);
  for (const CWaiter& w : waiters_) {
    if (w.code == header.MessageCode.getInt32() && w.sequence == header.ReplySequence.getInt32()) {
      w.handler->HandleMessagePacket(packet);
    }
  }
}

void CNDMPConnection::LogSendMessage(CNDMPMessagePacket& packet) {
  if (log_.getLevel() > 6) {
    if (log_.isEnabled(VxLog::kDebug)) {
      log_.debug("[0x%08X] Sending %s", Handle(), packet.DumpContents().c_str());
    }
  } else if (log_.isEnabled(VxLog::kInfo)) {
    log_.info("[0x%08X] Sending %s", Handle(),
              packet.GetHeader().MessageCode.ToString().c_str());
  }
  log_.flush();
}

bool CNDMPConnection::WritePacket(CNDMPMessagePacket& packet, int* serialized) {
  VxGuard lock(writeMutex_);
  if (stream_ == nullptr) {
    *serialized = 0;
    return false;
  }
  *serialized = packet.Serialize(*stream_);
  if (static_cast<unsigned int>(*serialized) == 0xFFFFFFFFu) return false;
  return stream_->flushRecord() == 0;
}

CXDREnumBase<CNDMPError> CNDMPConnection::SendMessage(CNDMPMessage& message, CNDMPMessage** reply,
                                                      unsigned int timeout) {
  VxGuard lock(sendMutex_);
  if (socket_ == nullptr || !socket_->isConnected()) return CNDMPError::NDMP_CONNECT_ERR;
  CXDREnumBase<CNDMPProtocolVersion> version = GetProtocolVersion();
  CNDMPMessagePacket packet(message.GetMessageCode(), message.GetMessageType(), version);
  CNDMPHeader& header = packet.GetHeader();
  header.Sequence = GetNextSequence();
  header.TimeStamp = static_cast<unsigned int>(std::time(nullptr));

  // Registered before anything is written, so that a reply arriving at once
  // cannot be missed; removed when this call ends, however it ends (a log
  // or an encoder may throw), so that no reply reaches a dead handler.
  CNDMPBlockingCallbackHandler handler;
  struct CWaiterEntry {
    CNDMPConnection& connection;
    CNDMPBlockingCallbackHandler& handler;
    CWaiterEntry(CNDMPConnection& c, CNDMPBlockingCallbackHandler& h, CWaiter waiter)
        : connection(c), handler(h) {
      std::lock_guard<std::mutex> lock(connection.waitersMutex_);
      connection.waiters_.push_back(waiter);
    }
    ~CWaiterEntry() {
      std::lock_guard<std::mutex> lock(connection.waitersMutex_);
      auto& waiters = connection.waiters_;
      waiters.erase(std::remove_if(waiters.begin(), waiters.end(),
                                   [this](const CWaiter& w) { return w.handler == &handler; }),
                    waiters.end());
    }
    CWaiterEntry(const CWaiterEntry&) = delete;
    CWaiterEntry& operator=(const CWaiterEntry&) = delete;
  } entry(*this, handler,
          CWaiter{header.MessageCode.getInt32(), header.Sequence.getInt32(), &handler});

  message.SetProtocolVersion(version);
  packet.AttachMessage(message);
  packet.SetProtocolVersion(version);
  LogSendMessage(packet);

  int serialized = 0;
  bool written = WritePacket(packet, &serialized);
  if (static_cast<unsigned int>(serialized) == 0xFFFFFFFFu) {
    log_.error("[0x%08X] Failed to send message. Serial Size = %d", Handle(), serialized);
    return CNDMPError::NDMP_XDR_ENCODE_ERR;
  }
  log_.flush();

  unsigned int status = VX_WAIT_TIMEOUT;
  if (written) {
    unsigned int waits = timeout == 0 ? 9999 : timeout;
    for (;;) {
      status = handler.WaitForMessage(1);
      if (status != VX_WAIT_TIMEOUT) break;
      if (--waits == 0) break;
      CXDRStream* stream = stream_;
      if (stream == nullptr || !stream->IsConnected()) break;
    }
  }
  log_.flush();
  if (status != 0) return CNDMPError::NDMP_TIMEOUT_ERR;

  CNDMPMessagePacket& received = handler.GetReceivedPacket();
  CXDREnumBase<CNDMPError> error = received.GetHeader().ErrorCode;
  if (error != CNDMPError::NDMP_NO_ERR) return error;
  if (reply == nullptr) {
    log_.error(
        "[0x%08X] Unable to assign reply to passed parameter. Please check function call "
        "arguments",
        Handle());
    return CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
  }
  *reply = received.ReleaseMessage();
  return CNDMPError::NDMP_NO_ERR;
}

CXDREnumBase<CNDMPError> CNDMPConnection::SendMessage(CNDMPMessage& message,
                                                      unsigned int replySequence) {
  VxGuard lock(sendMutex_);
  if (socket_ == nullptr || !socket_->isConnected()) return CNDMPError::NDMP_CONNECT_ERR;
  CXDREnumBase<CNDMPProtocolVersion> version = GetProtocolVersion();
  const bool isReply = message.GetMessageType() == CNDMPMessageType::NDMP_MESSAGE_REPLY;
  CNDMPMessagePacket packet(message.GetMessageCode(), message.GetMessageType(), version);
  CNDMPHeader& header = packet.GetHeader();
  header.Sequence = GetNextSequence();
  header.TimeStamp = static_cast<unsigned int>(std::time(nullptr));
  header.ReplySequence = isReply ? replySequence : 0u;
  message.SetProtocolVersion(version);
  packet.AttachMessage(message);
  packet.SetProtocolVersion(version);
  // The server-information reply is deliberately sent without a log line.
  if (header.MessageCode.ToString() != "NDMP_CONFIG_GET_SERVER_INFO") LogSendMessage(packet);

  int serialized = 0;
  bool written = WritePacket(packet, &serialized);
  if (static_cast<unsigned int>(serialized) == 0xFFFFFFFFu) {
    log_.error("[0x%08X] Failed to send message. Serial Size = %d", Handle(), serialized);
    return CNDMPError::NDMP_XDR_ENCODE_ERR;
  }
  LogFailedWrite(header.MessageCode.ToString().c_str(), written);
  if (isReply) {
    // How the serving side becomes connected and authenticated (also when
    // the write failed: the reply was made, and the next read shows the end).
    auto* generic = dynamic_cast<CNDMPGenericReply*>(&message);
    const bool ok = generic != nullptr && generic->NDMP_Error == CNDMPError::NDMP_NO_ERR;
    const unsigned int code = header.MessageCode.getInt32();
    if (ok && code == enums::CNDMPMessageCode::NDMP_CONNECT_OPEN) connected_ = true;
    if (ok && code == enums::CNDMPMessageCode::NDMP_CONNECT_CLIENT_AUTH) authenticated_ = true;
  }
  log_.flush();
  return CNDMPError::NDMP_NO_ERR;
}

void CNDMPConnection::LogFailedWrite(const char* what, bool written) {
  if (!written) log_.error("[0x%08X] Failed to write %s", Handle(), what);
}

CXDREnumBase<CNDMPError> CNDMPConnection::SendNDMPError(
    CXDREnumBase<CNDMPMessageType> type, CXDREnumBase<enums::CNDMPMessageCode> code,
    CXDREnumBase<CNDMPError> error, unsigned int replySequence) {
  CNDMPHeader header{CXDRULong(GetNextSequence())};
  header.TimeStamp = static_cast<unsigned int>(std::time(nullptr));
  header.ErrorCode = error;
  header.MessageType = type;
  header.MessageCode = code;
  header.ReplySequence = replySequence;
  VxGuard lock(writeMutex_);
  if (stream_ == nullptr) return CNDMPError::NDMP_CONNECT_ERR;
  if (static_cast<unsigned int>(header.Serialize(*stream_)) == 0xFFFFFFFFu) {
    return CNDMPError::NDMP_XDR_ENCODE_ERR;
  }
  LogFailedWrite(header.MessageCode.ToString().c_str(), stream_->flushRecord() == 0);
  return CNDMPError::NDMP_NO_ERR;
}

void CNDMPConnection::SetCredentialProtector(CNDMPCredentialProtector protector) {
  std::lock_guard<std::mutex> lock(ProtectorMutex());
  protector_ = std::move(protector);
}

CNDMPCredentialProtector CNDMPConnection::CurrentProtector() const {
  std::lock_guard<std::mutex> lock(ProtectorMutex());
  return protector_ ? protector_ : DefaultProtector();
}

void CNDMPConnection::SetDefaultCredentialProtector(CNDMPCredentialProtector protector) {
  std::lock_guard<std::mutex> lock(ProtectorMutex());
  DefaultProtector() = std::move(protector);
}

}  // namespace com::vx::korvane::ndmpc
