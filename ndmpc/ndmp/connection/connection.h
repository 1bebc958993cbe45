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
// destruction), which a callback may also drive (see Disconnect); sends may
// come from any thread, at most one request waiting for its reply at a time.
// A send from another thread during Connect or PAGConnect waits until the
// new connection is up (or has failed).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
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
  // Stops both threads, drops stream and socket. Always NDMP_NO_ERR.
  //
  // Lifecycle rule: Disconnect never waits without limit.
  // - Called from a callback (on the dispatch thread), it stops the
  //   connection and returns at once; the dispatch thread ends once the
  //   callback has returned. Connect and PAGConnect, which disconnect first,
  //   may so be called from a callback too.
  // - Called from another thread, it waits a bounded time (a few seconds
  //   at most) for the threads and a running callback; the connection is
  //   shut down meanwhile, which ends a callback's wait for a reply. A
  //   callback that still does not return is left running: its thread keeps
  //   the stream, socket and queue it uses alive and releases them when it
  //   ends.
  // The destructor disconnects the same way. Called from one of the
  // connection's own callbacks it returns at once, and the dispatch thread
  // drops what is still queued without touching the connection again. From
  // another thread it waits until a callback still running has returned,
  // because callbacks run inside this object's callback table.
  CXDREnumBase<enums::CNDMPError> Disconnect();
  // From now on a copy of every received packet lands in GetPacketQueue().
  // A connection made from an accepted socket holds the packets that arrive
  // before the application registers a callback or calls StartServerMode,
  // at most kEarlyPacketLimit of them (later ones are dropped with a
  // warning), and hands them over here.
  unsigned int StartServerMode();
  static constexpr std::size_t kEarlyPacketLimit = 64;

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
  // The serving side's queue of received packets. It is closed (IsClosed,
  // and its waiters woken) once the connection's input has ended, the peer
  // having closed or the connection being stopped, and every packet
  // received before is in it; a new connection opens it again.
  CNDMPMessagePacketQueue& GetPacketQueue() { return serverQueue_; }
  CXDREnumBase<enums::CNDMPProtocolVersion> GetProtocolVersion() const;
  // Sets the version under which packets are encoded and decoded from now
  // on; the serving side calls it once it has accepted a client's offer.
  void SetProtocolVersion(const CXDREnumBase<enums::CNDMPProtocolVersion>& version);
  // The longest record read from the peer, in payload bytes (default
  // CXDRStream::kDefaultMaxRecordSize, 64 MiB). A longer record is never
  // read into memory nor delivered: its rest is discarded as it arrives, one
  // error line names its message and size, and the next record is read as
  // usual. Values below kMinRecordSize (one NDMP header), 0 included, are
  // refused with NDMP_ILLEGAL_ARGS_ERR and the limit stays. Applies at once,
  // to later connections and to the serving side too; callable from any
  // thread, it may wait for a record being written.
  CXDREnumBase<enums::CNDMPError> SetMaxRecordSize(std::uint32_t bytes);
  std::uint32_t GetMaxRecordSize() const { return maxRecordSize_.load(); }
  static constexpr std::uint32_t kMinRecordSize = 24;
  // The next sequence number: 1, 2, 3 ...
  unsigned int GetNextSequence();
  // Frees a reply body returned by SendMessage; null is ignored.
  void FreeMessage(CNDMPMessage* message);

  // Registering a callback ends the serving side's early holding (see
  // StartServerMode): from then on the application takes the packets.
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
  // Once encoded, the result is NDMP_NO_ERR even when writing the record
  // failed (that is logged); a successful open or auth reply sets the
  // connected or authenticated flag either way.
  CXDREnumBase<enums::CNDMPError> SendMessage(CNDMPMessage& message, unsigned int replySequence);
  // Sends a bare header carrying an error; NDMP_NO_ERR once encoded, also
  // when writing the record failed (that is logged).
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
  // What one transport runs: socket, stream, received-packet queue and the
  // two threads, owned jointly by the connection and by the running threads.
  struct CSession;

  unsigned int InitializeConnection(VxTcpSocket* socket);
  // Ends the serving side's early holding; its packets go to the server
  // queue when `handOver`, else they are dropped.
  void ReleaseEarlyCollector(bool handOver);
  // Stops collecting early packets; what was held stays for StartServerMode.
  void EndEarlyHolding();
  // Opens (or takes over) the socket as the current session's.
  unsigned int OpenSocket(VxTcpSocket* socket);
  void StartThreads();
  // Stops the current session, whatever the flags say, and releases it;
  // threads that do not end within the bounds keep it alive (see Disconnect).
  void StopSession();
  // Closes the server queue when `session` (whose dispatch thread ended) is
  // still the current one.
  void InputEnded(const CSession* session);
  // Logs a record that could not be written.
  void LogFailedWrite(const char* what, bool written);
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

  CNDMPMessagePacketQueue serverQueue_;
  CNDMPMessagePacketCollector* collector_ = nullptr;
  // Serving side: holds what arrives before StartServerMode.
  CNDMPMessagePacketQueue earlyQueue_;
  CINDMPCallback* earlyCollector_ = nullptr;
  CNDMPCallbackRegistration* earlyRegistration_ = nullptr;
  CNDMPLogCallbackHandler logHandler_;
  CNDMPCallbackRegistration* logRegistration_ = nullptr;
  CNDMPCallbackRegistration* serverRegistration_ = nullptr;
  std::atomic<std::uint32_t> version_{4};
  // Written under writeMutex_, with the current stream's own limit.
  std::atomic<std::uint32_t> maxRecordSize_{CXDRStream::kDefaultMaxRecordSize};
  VxLog& log_;
  // The current session, and its stream and socket: replaced only under
  // both sendMutex_ and writeMutex_.
  std::shared_ptr<CSession> session_;
  CXDRStream* stream_ = nullptr;
  VxTcpSocket* socket_ = nullptr;
  // The session whose end closes the server queue.
  std::mutex inputMutex_;
  const CSession* inputSession_ = nullptr;  // guarded by inputMutex_
  // Sessions whose threads were still running when they were stopped.
  std::mutex retiredMutex_;
  std::vector<std::shared_ptr<CSession>> retired_;  // guarded by retiredMutex_
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
