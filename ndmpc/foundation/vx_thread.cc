#include "ndmpc/foundation/vx_thread.h"

#include <chrono>

namespace com::vx::korvane::ndmpc {

VxThreadMutex::VxThreadMutex(bool initiallyOwned) {
  if (initiallyOwned) mutex_.lock();
}

void VxThreadMutex::lock() { mutex_.lock(); }
void VxThreadMutex::unlock() { mutex_.unlock(); }
bool VxThreadMutex::tryLock() { return mutex_.try_lock(); }

VxThreadEvent::VxThreadEvent(int type, bool initiallySet)
    : manual_(type == kManualReset), set_(initiallySet) {}

void VxThreadEvent::set() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = true;
  }
  if (manual_) {
    changed_.notify_all();
  } else {
    changed_.notify_one();
  }
}

void VxThreadEvent::reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  set_ = false;
}

bool VxThreadEvent::isSet() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return set_;
}

unsigned int VxThreadEvent::wait(unsigned int milliseconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (milliseconds == VX_INFINITE) {
    changed_.wait(lock, [this] { return set_; });
  } else if (!changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                [this] { return set_; })) {
    return VX_WAIT_TIMEOUT;
  }
  if (!manual_) set_ = false;
  return 0;
}

VxThread::VxThread(int /*flags*/) {}

VxThread::~VxThread() {
  stop(false);
  Join();
}

bool VxThread::start() { return start(nullptr); }

bool VxThread::start(std::shared_ptr<void> owner) {
  if (running_.load(std::memory_order_acquire)) return false;
  Join();  // collects a run that returned by itself and was never waited for
  stopRequested_.store(false, std::memory_order_release);
  finished_.reset();
  running_.store(true, std::memory_order_release);
  try {
    thread_ = std::thread([this, owner = std::move(owner)]() mutable {
      {
        std::lock_guard<std::mutex> lock(idMutex_);
        id_ = std::this_thread::get_id();
      }
      run();
      running_.store(false, std::memory_order_release);
      finished_.set();
      // May destroy this object: nothing of it is touched afterwards.
      owner.reset();
    });
  } catch (const std::system_error&) {
    running_.store(false, std::memory_order_release);
    finished_.set();
    return false;
  }
  return true;
}

void VxThread::stop(bool wait) {
  stopRequested_.store(true, std::memory_order_release);
  if (wait) Join();
}

bool VxThread::waitUntilStopped(unsigned int milliseconds) {
  if (!thread_.joinable()) return true;
  if (finished_.wait(milliseconds) != 0) return false;
  Join();
  return true;
}

bool VxThread::isCurrentThread() const {
  std::lock_guard<std::mutex> lock(idMutex_);
  return id_ == std::this_thread::get_id();
}

void VxThread::Join() {
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // a thread ending its own object cannot join itself
  } else {
    thread_.join();
  }
}

void VxThread::sleep(unsigned int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace com::vx::korvane::ndmpc
