// What every agent of the simulated server gets from its session: the
// request being answered (with the means to answer it) and the session's
// surroundings (server, log, a way to send posts from any thread).
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/message_packet.h"

namespace com::vx::korvane::ndmpc::tools {

class CNDMPSimServer;

// One request on the session thread, and its reply.
class CSimRequest {
 public:
  CSimRequest(CNDMPConnection& connection, CNDMPMessagePacket& packet)
      : connection_(connection), packet_(packet) {}
  // The decoded body, or null when it is not of type T.
  template <class T>
  T* Body() {
    return dynamic_cast<T*>(packet_.GetMessage());
  }
  void Reply(CNDMPMessage& reply) {
    connection_.SendMessage(reply, packet_.GetHeader().Sequence.getInt32());
  }
  // Answers with a bare error header.
  void Fail(unsigned int error) {
    const CNDMPHeader& header = packet_.GetHeader();
    connection_.SendNDMPError(
        CXDREnumBase<enums::CNDMPMessageType>(enums::CNDMPMessageType::NDMP_MESSAGE_REPLY),
        header.MessageCode, CXDREnumBase<enums::CNDMPError>(error), header.Sequence.getInt32());
  }

 private:
  CNDMPConnection& connection_;
  CNDMPMessagePacket& packet_;
};

// NDMP_DATA_STOP and NDMP_MOVER_STOP: refused unless `halted()`; otherwise the
// finished worker is joined and `reset()` returns the agent to idle, both
// tested and reset under the agent's lock.
template <class Reply, class Halted, class Reset>
void StopWhenHalted(CSimRequest& request, std::mutex& mutex, std::thread& worker, Halted halted,
                    Reset reset) {
  Reply reply;
  std::unique_lock<std::mutex> lock(mutex);
  if (!halted()) {
    reply.NDMP_Error = enums::CNDMPError::NDMP_ILLEGAL_STATE_ERR;
  } else {
    lock.unlock();
    if (worker.joinable()) worker.join();
    lock.lock();
    reset();
  }
  lock.unlock();
  request.Reply(reply);
}

struct CSimAgentContext {
  CNDMPSimServer& server;
  VxLog& log;
  unsigned int id;
  // The address the client reached this server at: data connections listen there.
  std::string localAddress;
  // Sends a post (sequence of its own, no reply) to the client; safe from
  // any thread while the session runs.
  std::function<void(CNDMPMessage&)> post;
};

}  // namespace com::vx::korvane::ndmpc::tools
