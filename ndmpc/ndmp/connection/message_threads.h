// The two worker threads of a connection.
//
// CNDMPMessageReceiveThread is the only reader of the connection's stream:
// it decodes each record into a packet and queues it. Before queueing, it
// offers each packet to an optional reply router, so that a thread blocked
// on a request gets its reply at once, without waiting for the dispatch
// thread (which may itself be busy in a callback that sent that request).
// A record over the stream's maximum size is neither decoded whole nor
// queued: its rest is discarded as it arrives and one error line names its
// message and size.
//
// CNDMPMessageDispatchThread is the only consumer of the queue: it offers
// each packet to the callback table, in arrival order, then destroys it.
// When the receive thread ends (the peer closed, or a stop), it closes the
// queue; the dispatch thread then delivers what is left and ends too, and
// calls its end handler, so that a consumer further on learns at once that
// nothing more will come.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_thread.h"
#include "ndmpc/ndmp/connection/packet_queue.h"
#include "ndmpc/xdr/xdr_stream.h"

namespace com::vx::korvane::ndmpc {

// Receives every decoded packet before it is queued (on the receive thread).
class CINDMPReplyRouter {
 public:
  virtual void RoutePacket(CNDMPMessagePacket& packet) = 0;
  virtual ~CINDMPReplyRouter() = default;
};

class CNDMPMessageReceiveThread : public VxThread {
 public:
  // `handle` identifies the owning connection in log lines.
  CNDMPMessageReceiveThread(CXDRStream& stream, CNDMPMessagePacketQueue& queue, VxLog& log,
                            void* handle);
  ~CNDMPMessageReceiveThread() override;

  // The version under which later packets are decoded; returns the member.
  CXDREnumBase<enums::CNDMPProtocolVersion>& SetProtocolVersion(
      CXDREnumBase<enums::CNDMPProtocolVersion>& version);
  void SetReplyRouter(CINDMPReplyRouter* router) { router_ = router; }

 protected:
  int run() override;

 private:
  // Drops the rest of a record over the stream's maximum size and logs it
  // once, with its message code and size.
  void DropOversizedRecord(unsigned int handle, CNDMPMessagePacket& packet);

  CXDRStream& stream_;
  CNDMPMessagePacketQueue& queue_;
  CXDREnumBase<enums::CNDMPProtocolVersion> version_{
      enums::CNDMPProtocolVersion::PROTOCOL_VERSION_4};
  std::atomic<std::uint32_t> sharedVersion_{4};  // what the thread reads
  VxLog& log_;
  void* handle_;
  CINDMPReplyRouter* router_ = nullptr;
};

class CNDMPMessageDispatchThread : public VxThread {
 public:
  CNDMPMessageDispatchThread(CNDMPMessagePacketQueue& queue,
                             CNDMPCallbackRegistrationTable& table, VxLog& log);
  ~CNDMPMessageDispatchThread() override;

  // Called on the dispatch thread after the last packet; set before start.
  void SetEndHandler(std::function<void()> handler) { endHandler_ = std::move(handler); }

 protected:
  int run() override;

 private:
  // Offers the next packet; false once the table is gone.
  bool DispatchNext();

  CNDMPMessagePacketQueue& queue_;
  CNDMPCallbackRegistrationTable& table_;
  // The table may be destroyed by one of its own callbacks: packets still
  // queued then are dropped instead of offered to it.
  const std::shared_ptr<const std::atomic<bool>> tableAlive_;
  VxLog& log_;
  std::function<void()> endHandler_;
};

}  // namespace com::vx::korvane::ndmpc
