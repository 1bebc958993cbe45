#include "ndmpc/ndmp/messages/header.h"

namespace com::vx::korvane::ndmpc {

CNDMPHeader* CNDMPHeader::Clone() const {
  auto* copy = new CNDMPHeader(Sequence);
  copy->MessageType = MessageType;
  copy->MessageCode = MessageCode;
  copy->TimeStamp = TimeStamp;
  copy->ReplySequence = ReplySequence;
  copy->ErrorCode = ErrorCode;
  return copy;
}

CNDMPHeader CNDMPHeader::operator=(const CNDMPHeader& other) {
  CXDRContainer::operator=(other);
  Sequence = other.Sequence;
  MessageType = other.MessageType;
  MessageCode = other.MessageCode;
  TimeStamp = other.TimeStamp;
  ReplySequence = other.ReplySequence;
  ErrorCode = other.ErrorCode;
  return *this;
}

int CNDMPHeader::RegisterMembers() {
  RegisterMember("Sequence", &Sequence);
  RegisterMember("TimeStamp", &TimeStamp);
  RegisterMember("MessageType", &MessageType);
  RegisterMember("MessageCode", &MessageCode);
  RegisterMember("ReplySequence", &ReplySequence);
  RegisterMember("ErrorCode", &ErrorCode);
  return 0;
}

}  // namespace com::vx::korvane::ndmpc
