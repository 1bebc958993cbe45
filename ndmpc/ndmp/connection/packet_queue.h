// CNDMPMessagePacketQueue: the hand-over of received packets between
// threads (receive thread -> dispatch thread, and, on the serving side,
// dispatch thread -> application). A FIFO that owns the packets in it, with
// a manual-reset event that is set while it may hold packets.
//
//   CNDMPMessagePacket* p = nullptr;
//   while (queue.GetFilledSize() == 0) queue.WaitForPacket(1000);
//   if (queue.GetNextPacket(p)) { ...; delete p; }
//
// CNDMPMessagePacketCollector is a callback that copies every packet it is
// offered into such a queue.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>

#include "ndmpc/foundation/vx_thread.h"
#include "ndmpc/ndmp/connection/callbacks.h"

namespace com::vx::korvane::ndmpc {

class CNDMPMessagePacketQueue {
 public:
  CNDMPMessagePacketQueue();
  CNDMPMessagePacketQueue(const CNDMPMessagePacketQueue&) = delete;
  CNDMPMessagePacketQueue& operator=(const CNDMPMessagePacketQueue&) = delete;
  // Destroys the packets still queued.
  virtual ~CNDMPMessagePacketQueue();

  // Appends the packet (the queue takes ownership of it) and sets the
  // event; returns the number of packets queued afterwards.
  int PutMessagePacket(CNDMPMessagePacket& packet);
  // Takes the oldest packet (the caller owns it); false when there is none.
  bool GetNextPacket(CNDMPMessagePacket*& out);
  std::size_t GetFilledSize() const { return count_.load(std::memory_order_acquire); }
  // Waits for the event; 0 waits without limit, any other value is in
  // milliseconds. Returns the event's result (0, or 0xC1001000 on time-out).
  // A waiter must look at GetFilledSize again after waking.
  unsigned int WaitForPacket(unsigned int timeout);
  // Wakes the waiters without adding anything (used when stopping).
  void Wake() { event_.set(); }
  // Marks that nothing more will be put (the producer has ended) and wakes
  // the waiters once. A consumer that finds the queue closed and then empty
  // has taken everything; it must not keep waiting on a closed queue.
  void Close();
  // Undoes Close, for a producer that starts again.
  void Reopen() { closed_.store(false, std::memory_order_release); }
  bool IsClosed() const { return closed_.load(std::memory_order_acquire); }

 private:
  VxThreadMutex mutex_{false};
  VxThreadEvent event_{VxThreadEvent::kManualReset, false};
  std::deque<CNDMPMessagePacket*> packets_;  // guarded by mutex_
  std::atomic<std::size_t> count_{0};
  std::atomic<bool> closed_{false};
};

class CNDMPMessagePacketCollector : public CINDMPCallback {
 public:
  explicit CNDMPMessagePacketCollector(CNDMPMessagePacketQueue& queue) : queue_(queue) {}
  CNDMPMessagePacketCollector(const CNDMPMessagePacketCollector&) = default;
  // Queues a copy of the packet; returns the queue's new size.
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override;

 private:
  CNDMPMessagePacketQueue& queue_;
};

}  // namespace com::vx::korvane::ndmpc
