// Callbacks: how received packets reach the application.
//
// A callback implements CINDMPCallback and is entered in a connection's
// table with optional filters (message code, protocol version, reply
// sequence). The dispatch thread offers every received packet to each
// matching registration, in registration order:
//
//   class CMyHandler : public CINDMPCallback {
//     unsigned int HandleMessagePacket(CNDMPMessagePacket& p) override { ...; return 0; }
//   };
//   CNDMPCallbackRegistration* r = connection.RegisterCallback(&handler,
//       enums::CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED);
//   ...
//   connection.UnregisterCallback(r);
//
// The packet handed to a callback is destroyed when the dispatch ends; a
// callback that needs it later copies it.
#pragma once

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "ndmpc/foundation/vx_log.h"
#include "ndmpc/foundation/vx_thread.h"
#include "ndmpc/ndmp/messages/message_packet.h"

namespace com::vx::korvane::ndmpc {

class CINDMPCallback {
 public:
  // Called on the dispatch thread for every matching packet; the result is
  // not looked at.
  virtual unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) = 0;
  virtual ~CINDMPCallback() = default;
};

class CNDMPCallbackRegistrationTable;

// One entry of a callback table: the handler and its filters.
class CNDMPCallbackRegistration {
 public:
  CNDMPCallbackRegistration(const CNDMPCallbackRegistration&) = default;
  CNDMPCallbackRegistration& operator=(const CNDMPCallbackRegistration&) = default;
  virtual ~CNDMPCallbackRegistration() = default;

 protected:
  explicit CNDMPCallbackRegistration(CINDMPCallback* handler);
  CNDMPCallbackRegistration(CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code);
  CNDMPCallbackRegistration(CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code,
                            CXDREnumBase<enums::CNDMPProtocolVersion> version);
  CNDMPCallbackRegistration(CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code,
                            CXDREnumBase<enums::CNDMPProtocolVersion> version,
                            CXDRULong sequence);
  CNDMPCallbackRegistration(CINDMPCallback* handler, CXDREnumBase<enums::CNDMPMessageCode> code,
                            CXDRULong sequence);

  CINDMPCallback* GetHandler() { return handler_; }
  CXDREnumBase<enums::CNDMPMessageCode> GetMessageCode() const { return code_; }
  CXDREnumBase<enums::CNDMPProtocolVersion> GetVersion() const { return version_; }
  CXDRULong GetSequence() const { return sequence_; }
  bool IsCheckMessageCode() const { return checkCode_; }
  bool IsCheckProtocolVersion() const { return checkVersion_; }
  bool IsCheckSequence() const { return checkSequence_; }

 private:
  CXDREnumBase<enums::CNDMPMessageCode> code_;
  CXDREnumBase<enums::CNDMPProtocolVersion> version_{
      enums::CNDMPProtocolVersion::PROTOCOL_VERSION_4};
  CXDRULong sequence_;
  bool checkCode_ = false;
  bool checkVersion_ = false;
  bool checkSequence_ = false;
  CINDMPCallback* handler_;

  friend class CNDMPCallbackRegistrationTable;
};

// The callback registrations of a connection, in registration order. The
// table is its own (recursive) lock: registration, unregistration and a
// whole dispatch run under it, so a handler may register or unregister on
// the same table from inside HandleMessagePacket.
class CNDMPCallbackRegistrationTable : public VxThreadMutex {
 public:
  CNDMPCallbackRegistrationTable() : VxThreadMutex(false) {}
  // A copy holds copies of the registrations (same handlers and filters).
  CNDMPCallbackRegistrationTable(const CNDMPCallbackRegistrationTable& other);
  CNDMPCallbackRegistrationTable& operator=(const CNDMPCallbackRegistrationTable& other);
  ~CNDMPCallbackRegistrationTable() override NDMPC_NO_THREAD_SAFETY_ANALYSIS;

  // Each returns the new registration, the key for UnregisterCallback; the
  // table owns it. The handler is not owned and must outlive the registration.
  CNDMPCallbackRegistration* RegisterCallback(const CINDMPCallback* handler);
  CNDMPCallbackRegistration* RegisterCallback(const CINDMPCallback* handler,
                                              CXDREnumBase<enums::CNDMPMessageCode> code);
  CNDMPCallbackRegistration* RegisterCallback(const CINDMPCallback* handler,
                                              CXDREnumBase<enums::CNDMPMessageCode> code,
                                              CXDREnumBase<enums::CNDMPProtocolVersion> version,
                                              CXDRULong sequence);
  CNDMPCallbackRegistration* RegisterCallback(const CINDMPCallback* handler,
                                              CXDREnumBase<enums::CNDMPMessageCode> code,
                                              CXDRULong sequence);
  // False for null or a registration not in the table; else removes and
  // destroys it.
  bool UnregisterCallback(CNDMPCallbackRegistration* registration);
  // Offers the packet to every matching registration in order. Always 0.
  // A handler may destroy the table (its connection): the dispatch then
  // ends at once without touching the table again.
  int DispatchPacket(CNDMPMessagePacket& packet) NDMPC_NO_THREAD_SAFETY_ANALYSIS;

 private:
  friend class CNDMPMessageDispatchThread;
  CNDMPCallbackRegistration* Add(CNDMPCallbackRegistration* registration);
  // False once the table is destroyed; a dispatch thread keeps a copy so
  // that it never offers a packet to a table that is gone.
  std::shared_ptr<const std::atomic<bool>> Alive() const { return alive_; }

  std::vector<CNDMPCallbackRegistration*> registrations_;  // guarded by *this
  std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
  std::thread::id dispatching_;  // the thread inside DispatchPacket; guarded by *this
};

// Lets a thread wait for one packet: the dispatch (or the connection's reply
// path) stores a copy and sets an event that the waiting thread waits on.
class CNDMPBlockingCallbackHandler : public CINDMPCallback {
 public:
  CNDMPBlockingCallbackHandler();
  CNDMPBlockingCallbackHandler(const CNDMPBlockingCallbackHandler&) = delete;
  CNDMPBlockingCallbackHandler& operator=(const CNDMPBlockingCallbackHandler&) = delete;
  ~CNDMPBlockingCallbackHandler() override;

  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override;
  // Waits without limit; the event's result.
  unsigned int WaitForMessage();
  // Waits `timeout` seconds (not milliseconds; the product is formed in 32
  // bits, deliberately); 0 when a packet came, 0xC1001000 on time-out.
  unsigned int WaitForMessage(unsigned int timeout);
  // The held copy; valid until the next packet or the handler's end.
  CNDMPMessagePacket& GetReceivedPacket() const;

 private:
  VxThreadEvent event_{VxThreadEvent::kAutoReset, false};
  std::mutex mutex_;                 // guards packet_ against a late second delivery
  CNDMPMessagePacket* packet_;
};

// Writes every packet it is offered to a log: a one-line summary, or the
// whole packet dump above level 6, for errors, and always for
// NDMP_CONFIG_GET_SERVER_INFO.
class CNDMPLogCallbackHandler : public CINDMPCallback {
 public:
  explicit CNDMPLogCallbackHandler(VxLog& log) : log_(log) {}
  void SetHandle(void* handle) { handle_ = handle; }
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override;

 private:
  VxLog& log_;
  void* handle_ = nullptr;
};

namespace detail {
// The low 32 bits of an object's address: how log lines tell connections apart.
inline unsigned int Handle32(const void* p) {
  return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(p));
}
}  // namespace detail

}  // namespace com::vx::korvane::ndmpc
