#include "ndmpc/ndmp/connection/callbacks.h"

#include <algorithm>

namespace com::vx::korvane::ndmpc {

CNDMPCallbackRegistration::CNDMPCallbackRegistration(CINDMPCallback* handler)
    : handler_(handler) {}

CNDMPCallbackRegistration::CNDMPCallbackRegistration(CINDMPCallback* handler,
                                                     CXDREnumBase<enums::CNDMPMessageCode> code)
    : code_(code), checkCode_(true), handler_(handler) {}

CNDMPCallbackRegistration::CNDMPCallbackRegistration(
    CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code,
    CXDREnumBase<enums::CNDMPProtocolVersion> version)
    : code_(code), version_(version), checkCode_(true), checkVersion_(true), handler_(handler) {}

CNDMPCallbackRegistration::CNDMPCallbackRegistration(
    CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code,
    CXDREnumBase<enums::CNDMPProtocolVersion> version, CXDRULong sequence)
    : code_(code),
      version_(version),
      sequence_(sequence),
      checkCode_(true),
      checkVersion_(true),
      checkSequence_(true),
      handler_(handler) {}

CNDMPCallbackRegistration::CNDMPCallbackRegistration(CINDMPCallback* handler,
                                                     CXDREnumBase<enums::CNDMPMessageCode> code,
                                                     CXDRULong sequence)
    : code_(code), sequence_(sequence), checkCode_(true), checkSequence_(true), handler_(handler) {}

CNDMPCallbackRegistrationTable::CNDMPCallbackRegistrationTable(
    const CNDMPCallbackRegistrationTable& other)
    : VxThreadMutex(false) {
  *this = other;
}

CNDMPCallbackRegistrationTable& CNDMPCallbackRegistrationTable::operator=(
    const CNDMPCallbackRegistrationTable& other) {
  if (this == &other) return *this;
  std::vector<CNDMPCallbackRegistration*> copies;
  {
    VxGuard lock(const_cast<CNDMPCallbackRegistrationTable&>(other));
    for (CNDMPCallbackRegistration* r : other.registrations_) {
      copies.push_back(new CNDMPCallbackRegistration(*r));
    }
  }
  VxGuard lock(*this);
  for (CNDMPCallbackRegistration* r : registrations_) delete r;
  registrations_ = std::move(copies);
  return *this;
}

CNDMPCallbackRegistrationTable::~CNDMPCallbackRegistrationTable() {
  alive_->store(false);
  bool insideDispatch;
  {
    VxGuard lock(*this);
    for (CNDMPCallbackRegistration* r : registrations_) delete r;
    registrations_.clear();
    insideDispatch = dispatching_ == std::this_thread::get_id();
  }
  // Destroyed by one of its own handlers: DispatchPacket returns without
  // releasing the lock it holds, so release it here.
  if (insideDispatch) unlock();
}

CNDMPCallbackRegistration* CNDMPCallbackRegistrationTable::Add(
    CNDMPCallbackRegistration* registration) {
  VxGuard lock(*this);
  registrations_.push_back(registration);
  return registration;
}

CNDMPCallbackRegistration* CNDMPCallbackRegistrationTable::RegisterCallback(
    const CINDMPCallback* handler) {
  return Add(new CNDMPCallbackRegistration(const_cast<CINDMPCallback*>(handler)));
}

CNDMPCallbackRegistration* CNDMPCallbackRegistrationTable::RegisterCallback(
    const CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code) {
  return Add(new CNDMPCallbackRegistration(const_cast<CINDMPCallback*>(handler), code));
}

CNDMPCallbackRegistration* CNDMPCallbackRegistrationTable::RegisterCallback(
    const CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code,
    CXDREnumBase<enums::CNDMPProtocolVersion> version, CXDRULong sequence) {
  return Add(
      new CNDMPCallbackRegistration(const_cast<CINDMPCallback*>(handler), code, version, sequence));
}

CNDMPCallbackRegistration* CNDMPCallbackRegistrationTable::RegisterCallback(
    const CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code,
    CXDRULong sequence) {
  return Add(new CNDMPCallbackRegistration(const_cast<CINDMPCallback*>(handler), code, sequence));
}

bool CNDMPCallbackRegistrationTable::UnregisterCallback(CNDMPCallbackRegistration* registration) {
  if (registration == nullptr) return false;
  VxGuard lock(*this);
  auto it = std::find(registrations_.begin(), registrations_.end(), registration);
  if (it == registrations_.end()) return false;
  registrations_.erase(it);
  delete registration;
  return true;
}

int CNDMPCallbackRegistrationTable::DispatchPacket(CNDMPMessagePacket& packet) {
  const std::shared_ptr<std::atomic<bool>> alive = alive_;
  lock();
  const std::thread::id outer = dispatching_;
  dispatching_ = std::this_thread::get_id();
  const CNDMPHeader& header = packet.GetHeader();
  // The count is read again at every step: a handler may register or
  // unregister on this table while it runs.
  for (std::size_t i = 0; i < registrations_.size(); ++i) {
    CNDMPCallbackRegistration* r = registrations_[i];
    if (r->checkSequence_ && r->sequence_ != header.ReplySequence) continue;
    if (r->checkVersion_ && r->version_ != packet.GetProtocolVersion()) continue;
    if (r->checkCode_ && r->code_ != header.MessageCode) continue;
    // Every matching registration gets the packet; results are ignored on purpose.
    r->handler_->HandleMessagePacket(packet);
    if (!alive->load()) return 0;  // the handler destroyed the table
  }
  dispatching_ = outer;
  unlock();
  return 0;
}

CNDMPBlockingCallbackHandler::CNDMPBlockingCallbackHandler()
    : packet_(new CNDMPMessagePacket()) {
  event_.reset();
}

CNDMPBlockingCallbackHandler::~CNDMPBlockingCallbackHandler() { delete packet_; }

unsigned int CNDMPBlockingCallbackHandler::HandleMessagePacket(CNDMPMessagePacket& packet) {
  auto* copy = new CNDMPMessagePacket(packet);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::swap(packet_, copy);
  }
  delete copy;
  event_.set();
  return 0;
}

unsigned int CNDMPBlockingCallbackHandler::WaitForMessage() { return event_.wait(VX_INFINITE); }

unsigned int CNDMPBlockingCallbackHandler::WaitForMessage(unsigned int timeout) {
  return event_.wait(static_cast<unsigned int>(timeout * 1000u));
}

CNDMPMessagePacket& CNDMPBlockingCallbackHandler::GetReceivedPacket() const { return *packet_; }

unsigned int CNDMPLogCallbackHandler::HandleMessagePacket(CNDMPMessagePacket& packet) {
  const CNDMPHeader& header = packet.GetHeader();
  VxString name = header.MessageCode.ToString();
  const unsigned int handle = detail::Handle32(handle_);
  const bool failed = header.ErrorCode.getInt32() != 0;
  // NDMP_CONFIG_GET_SERVER_INFO is always dumped whole, deliberately.
  if (log_.getLevel() <= 6 && name != "NDMP_CONFIG_GET_SERVER_INFO") {
    log_.info("[0x%08X] Received Message %s", handle, name.c_str());
    if (failed && log_.isEnabled(VxLog::kError)) {
      log_.error("[0x%08X] Received Message %s", handle, packet.DumpContents().c_str());
    }
  } else if (failed) {
    if (log_.isEnabled(VxLog::kError)) {
      log_.error("[0x%08X] Received Message %s", handle, packet.DumpContents().c_str());
    }
  } else if (log_.isEnabled(VxLog::kDebug)) {
    log_.debug("[0x%08X] Received Message %s", handle, packet.DumpContents().c_str());
  }
  log_.flush();
  return 0;
}

}  // namespace com::vx::korvane::ndmpc
