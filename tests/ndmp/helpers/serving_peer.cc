#include "tests/ndmp/helpers/serving_peer.h"

#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {

void CServingPeer::Request::ReplyError(unsigned int error) const {
  server->SendNDMPError(enums::CNDMPMessageType::NDMP_MESSAGE_REPLY,
                        CXDREnumBase<enums::CNDMPMessageCode>(Code()),
                        CXDREnumBase<enums::CNDMPError>(error), Sequence());
}

CServingPeer::CServingPeer(Answer answer) : answer_(std::move(answer)) {
  log_.setLevel(0);
  if (listener_.listen("127.0.0.1", 0) != 0) return;
  VxTcpSocket clientSocket;
  if (clientSocket.connect(VxSocketAddress("127.0.0.1", listener_.port()), kWaitMs) != 0) return;
  VxTcpSocket accepted;
  if (listener_.accept(accepted, kWaitMs) != 0) return;
  // Server mode is on before the client side exists, so no request can
  // reach the serving connection ahead of its collector.
  server_ = std::make_unique<CNDMPConnection>(accepted, log_);
  server_->StartServerMode();
  client_ = std::make_unique<CNDMPConnection>(clientSocket, log_);
  ready_ = true;
  thread_ = std::thread([this] { Serve(); });
}

CServingPeer::~CServingPeer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  if (thread_.joinable()) thread_.join();
  client_.reset();
  server_.reset();
}

std::vector<CServingPeer::Seen> CServingPeer::Requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return seen_;
}

void CServingPeer::Serve() {
  CNDMPMessagePacketQueue& queue = server_->GetPacketQueue();
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stop_) return;
    }
    // Bounded so that stopping is noticed; not a synchronisation sleep.
    queue.WaitForPacket(50);
    CNDMPMessagePacket* packet = nullptr;
    while (queue.GetNextPacket(packet)) {
      std::unique_ptr<CNDMPMessagePacket> owned(packet);
      {
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back(Seen{owned->GetHeader().MessageCode.getInt32(),
                             std::chrono::steady_clock::now(),
                             std::make_shared<CNDMPMessagePacket>(*owned)});
      }
      Request request{server_.get(), owned.get()};
      answer_(request);
    }
  }
}

}  // namespace com::vx::korvane::ndmpc::testing
