// Reaches the parts of a message that ordinary callers do not see (its
// code, its type, Clone, the packet factory). For the library's own tools,
// tests and generic code such as the command-line tool's message builder.
#pragma once

#include "ndmpc/ndmp/messages/message_factory.h"
#include "ndmpc/ndmp/messages/message_packet.h"

namespace com::vx::korvane::ndmpc {

class CNDMPMessageAccess {
 public:
  static CXDREnumBase<enums::CNDMPMessageCode> Code(const CNDMPMessage& m) {
    return m.GetMessageCode();
  }
  static CXDREnumBase<enums::CNDMPMessageType> Type(const CNDMPMessage& m) {
    return m.GetMessageType();
  }
  static CNDMPMessage* Clone(const CNDMPMessage& m) { return m.Clone(); }
  // The factory's body for (code, type), owned by the caller; null for a
  // code without classes.
  static CNDMPMessage* Make(unsigned int code, unsigned int type) {
    CXDREnumBase<enums::CNDMPMessageCode> c(code);
    CXDREnumBase<enums::CNDMPMessageType> t(type);
    return CNDMPMessagePacket::GetNDMPMessageObject(c, t);
  }
};

}  // namespace com::vx::korvane::ndmpc
