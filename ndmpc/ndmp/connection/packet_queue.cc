#include "ndmpc/ndmp/connection/packet_queue.h"

namespace com::vx::korvane::ndmpc {

CNDMPMessagePacketQueue::CNDMPMessagePacketQueue() { event_.reset(); }

CNDMPMessagePacketQueue::~CNDMPMessagePacketQueue() {
  VxGuard lock(mutex_);
  for (CNDMPMessagePacket* p : packets_) delete p;
  packets_.clear();
}

int CNDMPMessagePacketQueue::PutMessagePacket(CNDMPMessagePacket& packet) {
  VxGuard lock(mutex_);
  packets_.push_back(&packet);
  count_.store(packets_.size(), std::memory_order_release);
  event_.set();
  return static_cast<int>(packets_.size());
}

bool CNDMPMessagePacketQueue::GetNextPacket(CNDMPMessagePacket*& out) {
  CNDMPMessagePacket* taken = nullptr;
  bool empty;
  {
    VxGuard lock(mutex_);
    if (!packets_.empty()) {
      taken = packets_.front();
      packets_.pop_front();
    }
    count_.store(packets_.size(), std::memory_order_release);
    empty = packets_.empty();
    // Reset while still holding the lock, so that a put racing with this
    // take can never leave a packet queued behind a reset event.
    if (empty) event_.reset();
  }
  if (taken == nullptr) return false;
  out = taken;
  return true;
}

void CNDMPMessagePacketQueue::Close() {
  {
    // Under the lock, so that a consumer seeing the flag also sees every
    // packet put before it.
    VxGuard lock(mutex_);
    closed_.store(true, std::memory_order_release);
  }
  event_.set();
}

unsigned int CNDMPMessagePacketQueue::WaitForPacket(unsigned int timeout) {
  return event_.wait(timeout == 0 ? VX_INFINITE : timeout);
}

unsigned int CNDMPMessagePacketCollector::HandleMessagePacket(CNDMPMessagePacket& packet) {
  auto* copy = new CNDMPMessagePacket(packet);
  return static_cast<unsigned int>(queue_.PutMessagePacket(*copy));
}

}  // namespace com::vx::korvane::ndmpc
