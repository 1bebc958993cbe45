// Threads, locks and events of the foundation layer.
//
//   class Worker : public VxThread {
//     int run() override { while (runnable()) { ... } return 0; }
//   };
//   Worker w; w.start(); ... w.stop(false); w.waitUntilStopped(250);
//
// VxThreadMutex is recursive: a callback running under a table's lock may
// register or unregister on the same table.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "ndmpc/foundation/thread_annotations.h"

namespace com::vx::korvane::ndmpc {

// Result of VxThreadEvent::wait when the time ran out.
constexpr unsigned int VX_WAIT_TIMEOUT = 0xC1001000u;
// A wait time meaning "no limit".
constexpr unsigned int VX_INFINITE = 0xFFFFFFFFu;

class NDMPC_CAPABILITY("mutex") VxThreadMutex {
 public:
  // `initiallyOwned` locks the mutex for the constructing thread.
  explicit VxThreadMutex(bool initiallyOwned = false);
  VxThreadMutex(const VxThreadMutex&) : VxThreadMutex(false) {}
  VxThreadMutex& operator=(const VxThreadMutex&) { return *this; }
  virtual ~VxThreadMutex() = default;

  void lock() NDMPC_ACQUIRE();
  void unlock() NDMPC_RELEASE();
  bool tryLock() NDMPC_TRY_ACQUIRE(true);

 private:
  std::recursive_mutex mutex_;
};

// Holds a VxThreadMutex for the guard's scope.
class NDMPC_SCOPED_CAPABILITY VxGuard {
 public:
  explicit VxGuard(VxThreadMutex& mutex) NDMPC_ACQUIRE(mutex) : mutex_(mutex) {
    mutex_.lock();
  }
  ~VxGuard() NDMPC_RELEASE() { mutex_.unlock(); }
  VxGuard(const VxGuard&) = delete;
  VxGuard& operator=(const VxGuard&) = delete;

 private:
  VxThreadMutex& mutex_;
};

// An event that threads wait on. Type 0 resets itself when one waiter is
// released (auto-reset); type 1 stays set until reset (manual-reset).
class VxThreadEvent {
 public:
  enum Type { kAutoReset = 0, kManualReset = 1 };

  explicit VxThreadEvent(int type = kAutoReset, bool initiallySet = false);
  VxThreadEvent(const VxThreadEvent&) = delete;
  VxThreadEvent& operator=(const VxThreadEvent&) = delete;

  void set();
  void reset();
  bool isSet() const;
  // Waits until the event is set: 0 when it was, VX_WAIT_TIMEOUT when
  // `milliseconds` passed first. VX_INFINITE (or -1) waits without limit.
  unsigned int wait(unsigned int milliseconds);

 private:
  const bool manual_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool set_ = false;  // guarded by mutex_
};

// A thread running the subclass's run(). start() launches it; stop() asks
// it to end (run() watches runnable()); the owner must let run() return
// (waitUntilStopped, or the destructor, which waits without limit) before
// the subclass part is destroyed.
class VxThread {
 public:
  explicit VxThread(int flags = 0);
  VxThread(const VxThread&) = delete;
  VxThread& operator=(const VxThread&) = delete;
  virtual ~VxThread();

  // Starts the thread; false when it is already running or cannot start.
  bool start();
  // Starts the thread holding `owner` until run() has returned. An object
  // that owns this thread (directly or not) so stays alive while the thread
  // runs, even when its other owners let go; the last reference may then be
  // dropped on this very thread, which detaches itself.
  bool start(std::shared_ptr<void> owner);
  // True when called on this object's own thread.
  bool isCurrentThread() const;
  // Asks run() to end; with `wait` true also waits until it has.
  void stop(bool wait);
  // True until stop() is called.
  bool runnable() const { return !stopRequested_.load(std::memory_order_acquire); }
  // Waits up to `milliseconds` (VX_INFINITE: no limit) for run() to return;
  // true when it has (or never started).
  bool waitUntilStopped(unsigned int milliseconds);
  bool isRunning() const { return running_.load(std::memory_order_acquire); }

  static void sleep(unsigned int milliseconds);

 protected:
  virtual int run() = 0;

 private:
  void Join();

  std::thread thread_;
  mutable std::mutex idMutex_;
  std::thread::id id_;  // guarded by idMutex_; set by the thread itself
  std::atomic<bool> stopRequested_{false};
  std::atomic<bool> running_{false};
  VxThreadEvent finished_{VxThreadEvent::kManualReset, false};
};

}  // namespace com::vx::korvane::ndmpc
