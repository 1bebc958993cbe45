// Test support: peers for connection tests on 127.0.0.1.
//
// CScriptPeer is a raw-socket peer that a test scripts byte by byte: it
// accepts one client, reads its records (record marks and the 24-byte
// header parsed here, independently of the library) and writes whatever
// bytes the script gives it, well-formed or not:
//
//   CScriptPeer peer;
//   peer.Run([](CScriptPeer& p) {
//     CRawRecord open = p.ReadRecord();
//     p.Write(ReplyRecord(open.header, XdrU32(0)));
//   });
//   CNDMPConnection c("127.0.0.1", "127.0.0.1", log, peer.port());
//
// Our own serving side is CServingPeer (tests/ndmp/helpers/serving_peer.h).
//
// Every wait here is bounded (kWaitMs); destroying a peer ends its threads.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_socket.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {

// The six words of an NDMP header, as they travel.
struct CRawHeader {
  std::uint32_t sequence = 0;
  std::uint32_t timeStamp = 0;
  std::uint32_t type = 0;
  std::uint32_t code = 0;
  std::uint32_t replySequence = 0;
  std::uint32_t error = 0;
};

// One record as a peer read it.
struct CRawRecord {
  CRawHeader header;                // zero when the record was shorter than 24 bytes
  std::vector<unsigned char> body;  // the bytes after the header
  bool complete = false;            // false: end of data or time-out before the last fragment
};

// XDR pieces for building bodies by hand.
std::vector<unsigned char> XdrU32(std::uint32_t value);
// Length word, bytes, zero padding to a multiple of four.
std::vector<unsigned char> XdrString(const std::string& text);
// The 24 header bytes.
std::vector<unsigned char> HeaderBytes(const CRawHeader& header);
// A reply to `request` as one record: type 1, the request's code, reply
// sequence = the request's sequence (or `replySequence` when given), the
// header error `error`, then `body`.
std::vector<unsigned char> ReplyRecord(const CRawHeader& request,
                                       const std::vector<unsigned char>& body,
                                       std::uint32_t error = 0,
                                       const std::uint32_t* replySequence = nullptr);
// A post (type 0) with `code` and `body` as one record.
std::vector<unsigned char> PostRecord(std::uint32_t code, const std::vector<unsigned char>& body,
                                      std::uint32_t sequence = 500);

class CScriptPeer;

// The body of an NDMP_CONFIG_GET_HOST_INFO reply naming `host`.
std::vector<unsigned char> HostInfoBody(const std::string& host = "filer-7");
// Answers NDMP_CONNECT_OPEN (with `alternate`, the alternate handshake
// instead), then every request with HostInfoBody(), until the client closes.
void ServeHostInfo(CScriptPeer& peer, bool alternate = false);
// Sends NDMP_CONFIG_GET_HOST_INFO on `c`; the host named in the reply, or
// the error's name.
std::string AskHost(CNDMPConnection& c, unsigned int timeout = 10);

// "[0x%08X]" with the low 32 bits of `object`'s address: how a connection
// marks its log lines.
std::string HandleTag(const void* object);

// A callback that keeps a copy of every packet it is offered, with the
// version the packet came under, and lets a test wait for them.
class CPacketRecorder : public CINDMPCallback {
 public:
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override;
  // Waits up to `timeoutMs` until `count` packets came; the number that did.
  std::size_t WaitFor(std::size_t count, int timeoutMs = kWaitMs);
  std::size_t Count() const;
  // The i-th packet (a copy) and the protocol version it was offered under.
  std::shared_ptr<CNDMPMessagePacket> Packet(std::size_t i) const;
  std::uint32_t Version(std::size_t i) const;
  std::uint32_t Code(std::size_t i) const { return Packet(i)->GetHeader().MessageCode.getInt32(); }
  // The i-th body as class T; null when it is another class or absent.
  template <class T>
  T* Body(std::size_t i) const {
    return dynamic_cast<T*>(Packet(i)->GetMessage());
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable added_;
  std::vector<std::shared_ptr<CNDMPMessagePacket>> packets_;  // guarded by mutex_
  std::vector<std::uint32_t> versions_;                       // guarded by mutex_
};

// True for a complete NDMP_CONFIG_GET_HOST_INFO request.
bool IsHostInfoRequest(const CRawRecord& r);
// Reads the client's NDMP_CONNECT_OPEN and answers it with `error` in the
// reply body. The offered version, or 0 when no complete request came.
std::uint32_t AnswerOpen(CScriptPeer& peer, std::uint32_t error = 0);

class CScriptPeer {
 public:
  using Script = std::function<void(CScriptPeer&)>;

  // Listens on 127.0.0.1 at a free port.
  CScriptPeer();
  // Shuts the connection down (so a script still reading ends at once),
  // waits for the script, closes everything.
  ~CScriptPeer();
  CScriptPeer(const CScriptPeer&) = delete;
  CScriptPeer& operator=(const CScriptPeer&) = delete;

  unsigned int port() const { return port_; }
  // Accepts one client on the peer's thread (waiting up to kWaitMs), then
  // runs `script` there. A script that finds no client is not run.
  void Run(Script script);
  // Waits up to `timeoutMs` for the script to return; true when it has.
  bool Join(int timeoutMs = 2 * kWaitMs);

  // For scripts. Reads one whole record; incomplete on end of data or after
  // `timeoutMs` without progress.
  CRawRecord ReadRecord(int timeoutMs = kWaitMs);
  // Reads exactly `count` bytes; fewer on end of data or time-out.
  std::vector<unsigned char> ReadBytes(std::size_t count, int timeoutMs = kWaitMs);
  // Everything until the client closes (bounded by `timeoutMs` without data).
  std::vector<unsigned char> ReadUntilClosed(int timeoutMs = kWaitMs);
  bool Write(const std::vector<unsigned char>& bytes);
  // Ends the connection in both directions: the client reads end of data.
  void Close();
  // Closes with SO_LINGER 0: the client sees a reset.
  void Reset();

 private:
  VxTcpListener listener_;
  unsigned int port_ = 0;
  std::atomic<int> fd_{-1};
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  bool finished_ = false;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace com::vx::korvane::ndmpc::testing
