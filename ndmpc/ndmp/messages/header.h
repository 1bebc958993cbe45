// CNDMPHeader: the 24-byte header in front of every NDMP message body.
//
//   CNDMPHeader h(enums::CNDMPMessageCode::NDMP_CONNECT_OPEN,
//                 enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST, 7);
//   h.ReplySequence = 0;   // fields are public, read and written directly
#pragma once

#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/xdr/xdr_container.h"

namespace com::vx::korvane::ndmpc {

class CNDMPHeader : public CXDRContainer {
 public:
  CXDRULong Sequence;
  CXDRULong TimeStamp;
  CXDREnumBase<enums::CNDMPMessageType> MessageType;
  CXDREnumBase<enums::CNDMPMessageCode> MessageCode;
  CXDRULong ReplySequence;
  CXDREnumBase<enums::CNDMPError> ErrorCode;

  CNDMPHeader() = default;
  explicit CNDMPHeader(CXDRULong sequence) : Sequence(sequence) {}
  // Note the argument order: code, type, sequence.
  CNDMPHeader(CXDREnumBase<enums::CNDMPMessageCode> code,
              CXDREnumBase<enums::CNDMPMessageType> type, CXDRULong sequence)
      : Sequence(sequence), MessageType(type), MessageCode(code) {}
  CNDMPHeader(const CNDMPHeader&) = default;
  ~CNDMPHeader() override = default;

  // A new copy that the caller owns.
  CNDMPHeader* Clone() const;
  // Copies the six fields; returns a copy by value, as the interface has it.
  CNDMPHeader operator=(const CNDMPHeader& other);

 protected:
  int RegisterMembers() override;
};

}  // namespace com::vx::korvane::ndmpc
