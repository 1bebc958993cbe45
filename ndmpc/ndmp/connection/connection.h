// CNDMPConnection: one control connection to an NDMP server, or the serving
// side of a connection the application accepted.
//
// Client:
//   VxLog log;
//   CNDMPConnection c("filer1", "192.0.2.7", log, 10000);
//   if (c.Connect() == enums::CNDMPError::NDMP_NO_ERR &&
//       c.Authenticate("ndmp", "secret") == enums::CNDMPError::NDMP_NO_ERR) {
//     CNDMPConfigGetHostInfoRequest request;
//     CNDMPMessage* reply = nullptr;
//     if (c.SendMessage(request, &reply, 30) == enums::CNDMPError::NDMP_NO_ERR) { ... }
//     c.FreeMessage(reply);
//   }
//
// Serving side: CNDMPConnection(acceptedSocket, log), StartServerMode(), then
// take requests from GetPacketQueue() and answer with
// SendMessage(reply, request's sequence) or SendNDMPError.
//
// Each connection runs a receive thread and a dispatch thread; callbacks run
// on the dispatch thread. One thread owns the lifecycle (Connect, Disconnect,
// destruction); sends may come from any thread, at most one request waiting
// for its reply at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_socket.h"
#include "ndmpc/foundation/vx_thread.h"
#include "ndmpc/ndmp/connection/callbacks.h"
#include "ndmpc/ndmp/connection/message_threads.h"
#include "ndmpc/ndmp/connection/packet_queue.h"
#include "ndmpc/ndmp/messages/message_packet.h"
#include "ndmpc/xdr/xdr_stream.h"

namespace com::vx::korvane::ndmpc {

// Transforms a credential field of the alternate login in place. The
// routine belongs to the application (the library does not contain it);
// returns false when it could not protect the field.
using CNDMPCredentialProtector = std::function<bool(unsigned char* field, unsigned int length)>;

class CNDMPConnection : public CNDMPCallbackRegistrationTable, private CINDMPReplyRouter {
 public:
  // Client side; nothing is opened until Connect.
  CNDMPConnection(const char* hostName, const char* ipAddress, VxLog& log, unsigned int port);
  // Serving side: takes over the accepted socket (its connection moves into
  // a socket the connection owns; `socket` is left closed) and starts the
  // threads at once.
  CNDMPConnection(VxTcpSocket& socket, VxLog& log);
  // A new connection to the same server with the same credentials; when the
  // source is connected the copy connects (same version) and authenticates.
  CNDMPConnection(const CNDMPConnection& other);
  CNDMPConnection& operator=(const CNDMPConnection&) = delete;
  ~CNDMPConnection() override;

  // Connects and negotiates version 4, then 3. NDMP_CONNECT_ERR when the
  // server cannot be reached or refuses both.
  CXDREnumBase<enums::CNDMPError> Connect();
  // Connects and offers exactly `version`.
  CXDREnumBase<enums::CNDMPError> Connect(const CXDREnumBase<enums::CNDMPProtocolVersion>& version);
  // Stops both threads, drops stream and socket. Always NDMP_NO_ERR. Must
  // not be called from a callback.
  CXDREnumBase<enums::CNDMPError> Disconnect();
  // From now on a copy of every received packet lands in GetPacketQueue().
  unsigned int StartServerMode();

  bool IsConnected() const;
  bool IsAuthenticated() const { return authenticated_.load(); }
  const char* GetHostName() const { return hostName_.c_str(); }
  const char* GetIPAddress() const { return ipAddress_.c_str(); }
  const char* GetUserName() const { return userName_.c_str(); }
  const char* GetPassword() const { return password_.c_str(); }
  unsigned int GetPort() const { return port_; }
  const char* SetHostName(const char* hostName);
  // Deliberately assigns only the character value of the argument's first
  // character (a string assigned from an integer); the rest is ignored.
  const char* SetIPAddress(const char* ipAddress);
  unsigned int SetPort(unsigned int port) const;
  const VxTcpSocket* getSocket() const { return socket_; }
  // The serving side's queue of received packets.
  CNDMPMessagePacketQueue& GetPacketQueue() { return serverQueue_; }
  CXDREnumBase<enums::CNDMPProtocolVersion> GetProtocolVersion() const;
  // Sets the version under which packets are encoded and decoded from now
  // on; the serving side calls it once it has accepted a client's offer.
  void SetProtocolVersion(const CXDREnumBase<enums::CNDMPProtocolVersion>& version);
  // The next sequence number: 1, 2, 3 ...
  unsigned int GetNextSequence();
  // Frees a reply body returned by SendMessage; null is ignored.
  void FreeMessage(CNDMPMessage* message);

  CNDMPCallbackRegistration* RegisterCallback(CINDMPCallback* handler);
  CNDMPCallbackRegistration* RegisterCallback(CINDMPCallback* handler,
                                              CXDREnumBase<enums::CNDMPMessageCode> code);
  CNDMPCallbackRegistration* RegisterCallback(CINDMPCallback* handler,
                                              CXDREnumBase<enums::CNDMPMessageCode> code,
                                              unsigned int sequence);
  bool UnregisterCallback(CNDMPCallbackRegistration* registration);

  // Sends a request and waits up to `timeout` seconds (0: 9999) for the
  // reply with its sequence. On NDMP_NO_ERR `*reply` is a new body the
  // caller frees with FreeMessage. May be called from a callback.
  CXDREnumBase<enums::CNDMPError> SendMessage(CNDMPMessage& message, CNDMPMessage** reply,
                                              unsigned int timeout);
  // Sends without waiting: replies (answering `replySequence`) and posts.
  CXDREnumBase<enums::CNDMPError> SendMessage(CNDMPMessage& message, unsigned int replySequence);
  // Sends a bare header carrying an error.
  CXDREnumBase<enums::CNDMPError> SendNDMPError(CXDREnumBase<enums::CNDMPMessageType> type,
                                                CXDREnumBase<enums::CNDMPMessageCode> code,
                                                CXDREnumBase<enums::CNDMPError> error,
                                                unsigned int replySequence);

  // Authenticates with MD5 challenge, then plain text, then none, as the
  // server offers them.
  CXDREnumBase<enums::CNDMPError> Authenticate(const char* user, const char* password);

  // Alternate login: a fixed binary handshake instead of NDMP_CONNECT_OPEN,
  // then one login record; no version negotiation.
  CXDREnumBase<enums::CNDMPError> PAGConnect();
  CXDREnumBase<enums::CNDMPError> PAGAuthenticate(const char* first, const char* second,
                                                  const char* third);
  // The routine that protects the alternate login's credential fields, for
  // this connection or (static) for every connection without its own.
  void SetCredentialProtector(CNDMPCredentialProtector protector);
  static void SetDefaultCredentialProtector(CNDMPCredentialProtector protector);

 private:
  unsigned int InitializeConnection(VxTcpSocket* socket);
  // Ends the serving side's early holding; its packets go to the server
  // queue when `handOver`, else they are dropped.
  void ReleaseEarlyCollector(bool handOver);
  unsigned int OpenSocket(VxTcpSocket* socket);
  void StartThreads();
  CXDREnumBase<enums::CNDMPError> SetupProtocolVersion(
      const CXDREnumBase<enums::CNDMPProtocolVersion>& version);
  CXDREnumBase<enums::CNDMPError> ConnectWith(
      const std::vector<enums::CNDMPProtocolVersion::enum_value>& offers);
  CXDREnumBase<enums::CNDMPError> MD5Authenticate(const char* user, const char* password);
  // One NDMP_CONNECT_CLIENT_AUTH exchange of type text or none; on success
  // the credentials are stored.
  CXDREnumBase<enums::CNDMPError> TryAuthRequest(int type, const char* user, const char* password);
  unsigned int PAGInitializeConnection(VxTcpSocket* socket);
  // This connection's protector, else the default one (may be empty).
  CNDMPCredentialProtector CurrentProtector() const;
  void LogSendMessage(CNDMPMessagePacket& packet);
  // Writes one packet as a record; false when the stream failed.
  bool WritePacket(CNDMPMessagePacket& packet, int* serialized);
  unsigned int Handle() const { return detail::Handle32(this); }

  // Reply routing (receive thread): a request waiting for its reply gets it
  // straight from the receive thread.
  void RoutePacket(CNDMPMessagePacket& packet) override;
  struct CWaiter {
    std::uint32_t code;
    std::uint32_t sequence;
    CNDMPBlockingCallbackHandler* handler;
  };

  CNDMPMessagePacketQueue receivedQueue_;
  CNDMPMessagePacketQueue serverQueue_;
  CNDMPMessagePacketCollector* collector_ = nullptr;
  // Serving side: holds what arrives before StartServerMode.
  CNDMPMessagePacketQueue earlyQueue_;
  CNDMPMessagePacketCollector* earlyCollector_ = nullptr;
  CNDMPCallbackRegistration* earlyRegistration_ = nullptr;
  CNDMPMessageReceiveThread* receiveThread_ = nullptr;
  CNDMPMessageDispatchThread* dispatchThread_ = nullptr;
  CNDMPLogCallbackHandler logHandler_;
  CNDMPCallbackRegistration* logRegistration_ = nullptr;
  CNDMPCallbackRegistration* serverRegistration_ = nullptr;
  std::atomic<std::uint32_t> version_{4};
  VxLog& log_;
  CXDRStream* stream_ = nullptr;
  VxTcpSocket* socket_ = nullptr;
  VxString hostName_;
  VxString ipAddress_;
  VxString userName_;
  VxString password_;
  std::atomic<std::uint32_t> sequence_{0};
  mutable unsigned int port_ = 0;
  std::atomic<bool> connected_{false};
  std::atomic<bool> authenticated_{false};
  VxThreadMutex sendMutex_{false};   // one request waiting for its reply at a time
  VxThreadMutex writeMutex_{false};  // one record being written at a time
  bool alternateMode_ = false;
  CNDMPCredentialProtector protector_;

  std::mutex waitersMutex_;
  std::vector<CWaiter> waiters_;  // guarded by waitersMutex_
};

}  // namespace com::vx::korvane::ndmpc
