// Test support: our own serving side on 127.0.0.1, a CNDMPConnection over an
// accepted socket in server mode, answering each request with a routine the
// test gives, and the client connection it serves.
//
//   CServingPeer peer([](CServingPeer::Request& r) { r.Reply(CNDMPTapeCloseReply()); });
//   ASSERT_TRUE(peer.ok());
//   CNDMPTapeHelper::TapeClose(&peer.client());
//   EXPECT_EQ(peer.Requests().size(), 1u);
//
// Either the peer builds the client itself from a connected socket (ok(),
// client()), or a test's own connection connects to port() with Connect().
// What a client sends before the serving side is in server mode is held by
// the library and handed over in order, so neither way can lose a request.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_socket.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/message_packet.h"

namespace com::vx::korvane::ndmpc::testing {

class CServingPeer {
 public:
  // One received request as the serving side saw it.
  struct Request {
    CNDMPConnection* server;
    CNDMPMessagePacket* packet;
    unsigned int Code() const { return packet->GetHeader().MessageCode.getInt32(); }
    unsigned int Sequence() const { return packet->GetHeader().Sequence.getInt32(); }
    // Answers with `reply` (a reply body) to this request.
    void Reply(CNDMPMessage& reply) const { server->SendMessage(reply, Sequence()); }
    // Answers with a bare header carrying `error`.
    void ReplyError(unsigned int error) const;
  };
  struct Seen {
    unsigned int code;
    std::chrono::steady_clock::time_point at;
    std::shared_ptr<CNDMPMessagePacket> packet;  // a copy of the request
  };
  // Called on the peer's thread for every request; must answer it (or not).
  using Answer = std::function<void(Request&)>;

  // Serves a client connection built here (client()), logging nowhere.
  explicit CServingPeer(Answer answer);
  // Serves the one client that connects to port(); the serving side logs to `log`.
  CServingPeer(Answer answer, VxLog& log);
  ~CServingPeer();
  CServingPeer(const CServingPeer&) = delete;
  CServingPeer& operator=(const CServingPeer&) = delete;

  // True when both sides of the first form are up.
  bool ok() const { return client_ != nullptr; }
  CNDMPConnection& client() { return *client_; }
  unsigned int port() const { return listener_.port(); }
  // Waits (bounded) until the serving connection exists; null if no client came.
  CNDMPConnection* WaitServing();
  // The requests received so far, in order, once at least `answered` of
  // them were answered (bounded wait).
  std::vector<Seen> Requests(std::size_t answered = 0) const;

  // The request body of `seen`, as class T (null when it is another class).
  template <class T>
  static T* Body(const Seen& seen) {
    return dynamic_cast<T*>(seen.packet->GetMessage());
  }

 private:
  void Serve();

  Answer answer_;
  VxLog quiet_;
  VxLog& log_;
  VxTcpListener listener_;
  std::unique_ptr<CNDMPConnection> server_;  // written once, under mutex_, before serving
  std::unique_ptr<CNDMPConnection> client_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool stop_ = false;          // guarded by mutex_
  std::size_t answered_ = 0;   // guarded by mutex_
  std::vector<Seen> seen_;     // guarded by mutex_
  std::thread thread_;
};

}  // namespace com::vx::korvane::ndmpc::testing
