#include "tests/ndmp/helpers/serving_peer.h"

#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {

void CServingPeer::Request::ReplyError(unsigned int error) const {
  server->SendNDMPError(enums::CNDMPMessageType::NDMP_MESSAGE_REPLY,
                        CXDREnumBase<enums::CNDMPMessageCode>(Code()),
                        CXDREnumBase<enums::CNDMPError>(error), Sequence());
}

CServingPeer::CServingPeer(Answer answer) : answer_(std::move(answer)), log_(quiet_) {
  quiet_.setLevel(0);
  if (listener_.listen("127.0.0.1", 0) != 0) return;
  VxTcpSocket clientSocket;
  if (clientSocket.connect(VxSocketAddress("127.0.0.1", listener_.port()), kWaitMs) != 0) return;
  VxTcpSocket accepted;
  if (listener_.accept(accepted, kWaitMs) != 0) return;
  server_ = std::make_unique<CNDMPConnection>(accepted, log_);
  server_->StartServerMode();
  client_ = std::make_unique<CNDMPConnection>(clientSocket, log_);
  thread_ = std::thread([this] { Serve(); });
}

CServingPeer::CServingPeer(Answer answer, VxLog& log) : answer_(std::move(answer)), log_(log) {
  if (listener_.listen("127.0.0.1", 0) == 0) thread_ = std::thread([this] { Serve(); });
}

CServingPeer::~CServingPeer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  listener_.close();  // ends a wait for a client that never came
  if (thread_.joinable()) thread_.join();
  client_.reset();
  server_.reset();
}

CNDMPConnection* CServingPeer::WaitServing() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                    [this] { return server_ != nullptr; });
  return server_.get();
}

std::vector<CServingPeer::Seen> CServingPeer::Requests(std::size_t answered) const {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                    [&] { return answered_ >= answered; });
  return seen_;
}

void CServingPeer::Serve() {
  if (server_ == nullptr) {  // only this thread sets it in the second form
    VxTcpSocket accepted;
    if (listener_.accept(accepted, kWaitMs) != 0) return;
    auto serving = std::make_unique<CNDMPConnection>(accepted, log_);
    serving->StartServerMode();
    std::lock_guard<std::mutex> lock(mutex_);
    server_ = std::move(serving);
    changed_.notify_all();
  }
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
      std::lock_guard<std::mutex> lock(mutex_);
      ++answered_;
      changed_.notify_all();
    }
  }
}

}  // namespace com::vx::korvane::ndmpc::testing
