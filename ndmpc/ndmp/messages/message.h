// Message bodies: the abstract CNDMPMessage, the two direction bases, the
// generic bodies shared by most messages, and CNDMPMessageImpl, which gives
// a concrete class its fixed code and its Clone. A concrete message is its
// members and its registration:
//
//   class CNDMPTapeMtioRequest
//       : public CNDMPMessageImpl<CNDMPTapeMtioRequest, CNDMPRequestMessage,
//                                 enums::CNDMPMessageCode::NDMP_TAPE_MTIO> {
//    public:
//     CXDREnumBase<enums::CNDMPEnumMtioOp> TapeOp;
//     CXDRULong Count;
//    protected:
//     int RegisterMembers() override { ... }
//   };
//
// The code, the type and Clone are not for ordinary callers: the packet, its
// factory and the connection reach them through friendship, and the
// library's own tools and tests through CNDMPMessageAccess
// (message_access.h, which is not installed).
#pragma once

#include <cstdint>

#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/xdr/xdr_container.h"

namespace com::vx::korvane::ndmpc {

class CNDMPConnection;
class CNDMPMessagePacket;
class CNDMPMessageAccess;

class CNDMPMessage : public CXDRContainer {
 public:
  CNDMPMessage() = default;
  CNDMPMessage(const CNDMPMessage&) = default;
  CNDMPMessage& operator=(const CNDMPMessage&) = default;
  ~CNDMPMessage() override = default;

 protected:
  // The message's one fixed code; a request and its reply share it.
  virtual CXDREnumBase<enums::CNDMPMessageCode> GetMessageCode() const = 0;
  // A new copy of the object's own class, owned by the caller. Each concrete
  // class hides this with a Clone that returns a pointer to its own class.
  CNDMPMessage* Clone() const { return CloneMessage(); }

 private:
  // Fixed by the direction base: request (posts included) or reply.
  virtual CXDREnumBase<enums::CNDMPMessageType> GetMessageType() const = 0;
  // The copy behind Clone, supplied by CNDMPMessageImpl.
  virtual CNDMPMessage* CloneMessage() const = 0;

  friend class CNDMPMessagePacket;
  friend class CNDMPConnection;
  friend class CNDMPMessageAccess;
};

class CNDMPRequestMessage : public CNDMPMessage {
 private:
  CXDREnumBase<enums::CNDMPMessageType> GetMessageType() const override {
    return enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST;
  }
};

class CNDMPReplyMessage : public CNDMPMessage {
 private:
  CXDREnumBase<enums::CNDMPMessageType> GetMessageType() const override {
    return enums::CNDMPMessageType::NDMP_MESSAGE_REPLY;
  }
};

// A request without arguments: the packet is the header alone.
class CNDMPGenericRequest : public CNDMPRequestMessage {
 protected:
  int RegisterMembers() override { return 0; }
};

// A reply whose body is only the error.
class CNDMPGenericReply : public CNDMPReplyMessage {
 public:
  CXDREnumBase<enums::CNDMPError> NDMP_Error;

 protected:
  int RegisterMembers() override {
    RegisterMember("NDMP_Error", &NDMP_Error);
    return 0;
  }
};

// A SnapVault reply: a status and a sequence number, then any further members.
class CNDMPSvGenericReply : public CNDMPReplyMessage {
 public:
  CXDREnumBase<enums::CNDMPError> SnapVaultError;
  CXDRULong ReturnSequence;

 protected:
  int RegisterMembers() override {
    RegisterMember("SnapVaultError", &SnapVaultError);
    RegisterMember("ReturnSequence", &ReturnSequence);
    return 0;
  }
};

// Gives a concrete message class its fixed code and its Clone.
template <class Derived, class Base, std::uint32_t Code>
class CNDMPMessageImpl : public Base {
 public:
  using Base::Base;
  static constexpr std::uint32_t kMessageCode = Code;

 protected:
  CXDREnumBase<enums::CNDMPMessageCode> GetMessageCode() const override {
    return CXDREnumBase<enums::CNDMPMessageCode>(Code);
  }
  // Covariant through hiding: a virtual override cannot name Derived in its
  // return type while Derived is still incomplete.
  Derived* Clone() const { return new Derived(static_cast<const Derived&>(*this)); }

 private:
  CNDMPMessage* CloneMessage() const override { return Clone(); }
};

}  // namespace com::vx::korvane::ndmpc
