// Test support for the device helpers: a serving side on 127.0.0.1 built
// from a CNDMPConnection over an accepted socket in server mode, and a client
// connection to it.
//
//   CServingPeer peer([](CServingPeer::Request& r) { r.Reply(CNDMPTapeCloseReply()); });
//   ASSERT_TRUE(peer.ok());
//   CNDMPTapeHelper::TapeClose(&peer.client());
//   EXPECT_EQ(peer.Requests().size(), 1u);
//
// The client connection is also built from a connected socket rather than
// with Connect(): the serving connection starts dispatching as soon as it
// exists, so an NDMP_CONNECT_OPEN sent by Connect() could be dispatched
// before StartServerMode has registered its collector and be lost. Sending
// needs only a live socket, so the helpers run the same either way.
#pragma once

#include <chrono>
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

  explicit CServingPeer(Answer answer);
  ~CServingPeer();
  CServingPeer(const CServingPeer&) = delete;
  CServingPeer& operator=(const CServingPeer&) = delete;

  // True when both sides are up.
  bool ok() const { return client_ != nullptr && ready_; }
  CNDMPConnection& client() { return *client_; }
  // The requests received so far, in order.
  std::vector<Seen> Requests() const;

  // The request body of `seen`, as class T (null when it is another class).
  template <class T>
  static T* Body(const Seen& seen) {
    return dynamic_cast<T*>(seen.packet->GetMessage());
  }

 private:
  void Serve();

  Answer answer_;
  VxLog log_;
  VxTcpListener listener_;
  std::unique_ptr<CNDMPConnection> server_;
  std::unique_ptr<CNDMPConnection> client_;
  bool ready_ = false;
  bool stop_ = false;  // guarded by mutex_
  mutable std::mutex mutex_;
  std::vector<Seen> seen_;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace com::vx::korvane::ndmpc::testing
