// The data interface (NDMP_DATA_*), the mover interface (NDMP_MOVER_*) and
// the CAB data-connection preparation, with the address records that tell a
// data server and a mover where to connect.
//
//   CNDMPMoverListenRequest listen;
//   listen.Mode = enums::CNDMPEnumMoverMode::NDMP_MOVER_MODE_READ;
//   listen.AddressType = enums::CNDMPEnumAddrType::NDMP_ADDR_TCP;
//   // the reply's Address.TcpAddressList (version 4) or Address.TcpAddress
//   // (version 3) says where the mover listens
#pragma once

#include <cstdint>

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/message.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/union_record.h"
#include "ndmpc/xdr/xdr_container.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "ndmpc/xdr/xdr_values.h"

namespace com::vx::korvane::ndmpc {

// ---- Address records ------------------------------------------------------

class CNDMPTcpAddr : public CXDRContainer {
 public:
  CXDRULong IPAddress;
  CXDRUShort Port;
  CXDRArray<CNDMPPVal> AddressEnv;  // on the wire from version 4 only

 protected:
  int RegisterMembers() override {
    RegisterMember("IPAddress", &IPAddress);
    RegisterMember("Port", &Port);
    if (Version() >= 4) RegisterMember("AddressEnv", &AddressEnv);
    return 0;
  }
};

class CNDMPIpcAddr : public CXDRContainer {
 public:
  CXDROpaque CommData;

 protected:
  int RegisterMembers() override {
    RegisterMember("CommData", &CommData);
    return 0;
  }
};

class CNDMPFcAddr : public CXDRContainer {
 public:
  CXDRULong LoopID;

 protected:
  int RegisterMembers() override {
    RegisterMember("LoopID", &LoopID);
    return 0;
  }
};

// An address by type. A TCP address is a list of addresses from version 4
// on (TcpAddressList) and exactly one address before (TcpAddress); both go
// on the wire as "TcpAddress". Local and unknown types carry nothing after
// the type.
class CNDMPAddr : public CNDMPUnionRecord {
 public:
  // The fibre-channel type; the address type enumeration has no name for it.
  static constexpr std::uint32_t kFcAddressType = 4;

  CXDREnumBase<enums::CNDMPEnumAddrType> AddressType;
  CXDRArray<CNDMPTcpAddr> TcpAddressList;  // version 4 and later
  CNDMPTcpAddr TcpAddress;                 // up to version 3
  CNDMPIpcAddr IPCAddress;
  CNDMPFcAddr FcAddress;

 protected:
  const char* DiscriminantName() const override { return "AddressType"; }
  CXDRULong& Discriminant() override { return AddressType; }
  CIXDR* SelectArm(std::uint32_t value, const char** name) override;
};

// ---- Data interface -------------------------------------------------------

class CNDMPDataGetStateRequest
    : public CNDMPMessageImpl<CNDMPDataGetStateRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_DATA_GET_STATE> {};

class CNDMPDataGetStateReply
    : public CNDMPMessageImpl<CNDMPDataGetStateReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_DATA_GET_STATE> {
 public:
  CXDRULong Unsupported;
  CXDREnumBase<enums::CNDMPError> NDMP_Error;
  CXDREnumBase<enums::CNDMPEnumDataOperation> Operation;
  CXDREnumBase<enums::CNDMPEnumDataState> State;
  CXDREnumBase<enums::CNDMPEnumDataHaltReason> HaltReason;
  CNDMPUQuad BytesProcessed;
  CNDMPUQuad EstBytesRemain;
  CXDRULong EstTimeRemain;
  CNDMPAddr DataConnAddress;
  CNDMPUQuad ReadOffset;
  CNDMPUQuad ReadLength;

 protected:
  int RegisterMembers() override {
    RegisterMember("Unsupported", &Unsupported);
    RegisterMember("NDMP_Error", &NDMP_Error);
    RegisterMember("Operation", &Operation);
    RegisterMember("State", &State);
    RegisterMember("HaltReason", &HaltReason);
    RegisterMember("BytesProcessed", &BytesProcessed);
    RegisterMember("EstBytesRemain", &EstBytesRemain);
    RegisterMember("EstTimeRemain", &EstTimeRemain);
    RegisterMember("DataConnAddress", &DataConnAddress);
    RegisterMember("ReadOffset", &ReadOffset);
    RegisterMember("ReadLength", &ReadLength);
    return 0;
  }
};

class CNDMPDataStartBackupRequest
    : public CNDMPMessageImpl<CNDMPDataStartBackupRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_DATA_START_BACKUP> {
 public:
  CXDRString BUTypeName;
  CXDRArray<CNDMPPVal> Environments;

 protected:
  int RegisterMembers() override {
    RegisterMember("BUTypeName", &BUTypeName);
    RegisterMember("Environments", &Environments);
    return 0;
  }
};

class CNDMPDataStartBackupReply
    : public CNDMPMessageImpl<CNDMPDataStartBackupReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_DATA_START_BACKUP> {};

// The body shared by the two recover requests; only the code differs.
class CNDMPStartRecoverRequest : public CNDMPRequestMessage {
 public:
  CXDRArray<CNDMPPVal> Environments;
  CXDRArray<CNDMPName> NameList;
  CXDRString BackupTypeName;

 protected:
  int RegisterMembers() override {
    RegisterMember("Environments", &Environments);
    RegisterMember("NameList", &NameList);
    RegisterMember("BackupTypeName", &BackupTypeName);
    return 0;
  }
};

class CNDMPDataStartRecoverRequest
    : public CNDMPMessageImpl<CNDMPDataStartRecoverRequest, CNDMPStartRecoverRequest,
                              enums::CNDMPMessageCode::NDMP_DATA_START_RECOVER> {};

class CNDMPDataStartRecoverFilehistRequest
    : public CNDMPMessageImpl<CNDMPDataStartRecoverFilehistRequest, CNDMPStartRecoverRequest,
                              enums::CNDMPMessageCode::NDMP_DATA_START_RECOVER_FILEHIST> {};

// The reply shared by the two recover requests: the error alone.
class CNDMPStartRecoverReply : public CNDMPGenericReply {};

class CNDMPDataStartRecoverReply
    : public CNDMPMessageImpl<CNDMPDataStartRecoverReply, CNDMPStartRecoverReply,
                              enums::CNDMPMessageCode::NDMP_DATA_START_RECOVER> {};

class CNDMPDataStartRecoverFilehistReply
    : public CNDMPMessageImpl<CNDMPDataStartRecoverFilehistReply, CNDMPStartRecoverReply,
                              enums::CNDMPMessageCode::NDMP_DATA_START_RECOVER_FILEHIST> {};

class CNDMPDataAbortRequest
    : public CNDMPMessageImpl<CNDMPDataAbortRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_DATA_ABORT> {};

class CNDMPDataAbortReply
    : public CNDMPMessageImpl<CNDMPDataAbortReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_DATA_ABORT> {};

class CNDMPDataGetEnvRequest
    : public CNDMPMessageImpl<CNDMPDataGetEnvRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_DATA_GET_ENV> {};

class CNDMPDataGetEnvReply
    : public CNDMPMessageImpl<CNDMPDataGetEnvReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_DATA_GET_ENV> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CNDMPPVal> Environments;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("Environments", &Environments);
    return 0;
  }
};

class CNDMPDataStopRequest
    : public CNDMPMessageImpl<CNDMPDataStopRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_DATA_STOP> {};

class CNDMPDataStopReply
    : public CNDMPMessageImpl<CNDMPDataStopReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_DATA_STOP> {};

class CNDMPDataListenRequest
    : public CNDMPMessageImpl<CNDMPDataListenRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_DATA_LISTEN> {
 public:
  CXDREnumBase<enums::CNDMPEnumAddrType> AddressType;

 protected:
  int RegisterMembers() override {
    RegisterMember("AddressType", &AddressType);
    return 0;
  }
};

// The error and the address on which the data server listens.
class CNDMPDataListenReply
    : public CNDMPMessageImpl<CNDMPDataListenReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_DATA_LISTEN> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CNDMPAddr DataConnAddress;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("DataConnAddress", &DataConnAddress);
    return 0;
  }
};

class CNDMPDataConnectRequest
    : public CNDMPMessageImpl<CNDMPDataConnectRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_DATA_CONNECT> {
 public:
  CNDMPAddr Address;

 protected:
  int RegisterMembers() override {
    RegisterMember("Address", &Address);
    return 0;
  }
};

class CNDMPDataConnectReply
    : public CNDMPMessageImpl<CNDMPDataConnectReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_DATA_CONNECT> {};

class CNDMPCabDataConnectPrepareRequest
    : public CNDMPMessageImpl<CNDMPCabDataConnectPrepareRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_CAB_DATA_CONN_PREPARE> {
 public:
  CXDREnumBase<enums::CNDMPEnumAddrType> AddressType;
  CXDRString BackupTypeName;
  CXDRArray<CNDMPPVal> Environments;

 protected:
  int RegisterMembers() override {
    RegisterMember("AddressType", &AddressType);
    RegisterMember("BackupTypeName", &BackupTypeName);
    RegisterMember("Environments", &Environments);
    return 0;
  }
};

class CNDMPCabDataConnectPrepareReply
    : public CNDMPMessageImpl<CNDMPCabDataConnectPrepareReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_CAB_DATA_CONN_PREPARE> {};

// ---- Mover interface ------------------------------------------------------

class CNDMPMoverGetStateRequest
    : public CNDMPMessageImpl<CNDMPMoverGetStateRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_MOVER_GET_STATE> {};

class CNDMPMoverGetStateReply
    : public CNDMPMessageImpl<CNDMPMoverGetStateReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_MOVER_GET_STATE> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDREnumBase<enums::CNDMPEnumMoverMode> Mode;  // on the wire from version 4 only
  CXDREnumBase<enums::CNDMPEnumMoverState> State;
  CXDREnumBase<enums::CNDMPEnumMoverPauseReason> PauseReason;
  CXDREnumBase<enums::CNDMPEnumMoverHaltReason> HaltReason;
  CXDRULong RecordSize;
  CXDRULong RecordNum;
  CNDMPUQuad BytesMoved;
  CNDMPUQuad SeekPosition;
  CNDMPUQuad BytesLeftToRead;
  CNDMPUQuad WindowOffset;
  CNDMPUQuad WindowLength;
  CNDMPAddr DataConnAddress;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    if (Version() >= 4) RegisterMember("Mode", &Mode);
    RegisterMember("State", &State);
    RegisterMember("PauseReason", &PauseReason);
    RegisterMember("HaltReason", &HaltReason);
    RegisterMember("RecordSize", &RecordSize);
    RegisterMember("RecordNum", &RecordNum);
    RegisterMember("BytesMoved", &BytesMoved);
    RegisterMember("SeekPosition", &SeekPosition);
    RegisterMember("BytesLeftToRead", &BytesLeftToRead);
    RegisterMember("WindowOffset", &WindowOffset);
    RegisterMember("WindowLength", &WindowLength);
    RegisterMember("DataConnAddress", &DataConnAddress);
    return 0;
  }
};

class CNDMPMoverListenRequest
    : public CNDMPMessageImpl<CNDMPMoverListenRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_MOVER_LISTEN> {
 public:
  CXDREnumBase<enums::CNDMPEnumMoverMode> Mode;
  CXDREnumBase<enums::CNDMPEnumAddrType> AddressType;

 protected:
  int RegisterMembers() override {
    RegisterMember("Mode", &Mode);
    RegisterMember("AddressType", &AddressType);
    return 0;
  }
};

class CNDMPMoverListenReply
    : public CNDMPMessageImpl<CNDMPMoverListenReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_MOVER_LISTEN> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CNDMPAddr Address;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("Address", &Address);
    return 0;
  }
};

class CNDMPMoverContinueRequest
    : public CNDMPMessageImpl<CNDMPMoverContinueRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_MOVER_CONTINUE> {};

class CNDMPMoverContinueReply
    : public CNDMPMessageImpl<CNDMPMoverContinueReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_MOVER_CONTINUE> {};

class CNDMPMoverAbortRequest
    : public CNDMPMessageImpl<CNDMPMoverAbortRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_MOVER_ABORT> {};

class CNDMPMoverAbortReply
    : public CNDMPMessageImpl<CNDMPMoverAbortReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_MOVER_ABORT> {};

class CNDMPMoverStopRequest
    : public CNDMPMessageImpl<CNDMPMoverStopRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_MOVER_STOP> {};

class CNDMPMoverStopReply
    : public CNDMPMessageImpl<CNDMPMoverStopReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_MOVER_STOP> {};

class CNDMPMoverSetWindowRequest
    : public CNDMPMessageImpl<CNDMPMoverSetWindowRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_MOVER_SET_WINDOW> {
 public:
  CNDMPUQuad Offset;
  CNDMPUQuad Length;

 protected:
  int RegisterMembers() override {
    RegisterMember("Offset", &Offset);
    RegisterMember("Length", &Length);
    return 0;
  }
};

class CNDMPMoverSetWindowReply
    : public CNDMPMessageImpl<CNDMPMoverSetWindowReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_MOVER_SET_WINDOW> {};

class CNDMPMoverReadRequest
    : public CNDMPMessageImpl<CNDMPMoverReadRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_MOVER_READ> {
 public:
  CNDMPUQuad Offset;
  CNDMPUQuad Length;

 protected:
  int RegisterMembers() override {
    RegisterMember("Offset", &Offset);
    RegisterMember("Length", &Length);
    return 0;
  }
};

class CNDMPMoverReadReply
    : public CNDMPMessageImpl<CNDMPMoverReadReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_MOVER_READ> {};

class CNDMPMoverCloseRequest
    : public CNDMPMessageImpl<CNDMPMoverCloseRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_MOVER_CLOSE> {};

class CNDMPMoverCloseReply
    : public CNDMPMessageImpl<CNDMPMoverCloseReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_MOVER_CLOSE> {};

class CNDMPMoverSetRecordSizeRequest
    : public CNDMPMessageImpl<CNDMPMoverSetRecordSizeRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_MOVER_SET_RECORD_SIZE> {
 public:
  CXDRULong RecordLength;

 protected:
  int RegisterMembers() override {
    RegisterMember("RecordLength", &RecordLength);
    return 0;
  }
};

class CNDMPMoverSetRecordSizeReply
    : public CNDMPMessageImpl<CNDMPMoverSetRecordSizeReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_MOVER_SET_RECORD_SIZE> {};

class CNDMPMoverConnectRequest
    : public CNDMPMessageImpl<CNDMPMoverConnectRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_MOVER_CONNECT> {
 public:
  CXDREnumBase<enums::CNDMPEnumMoverMode> Mode;
  CNDMPAddr Address;

 protected:
  int RegisterMembers() override {
    RegisterMember("Mode", &Mode);
    RegisterMember("Address", &Address);
    return 0;
  }
};

class CNDMPMoverConnectReply
    : public CNDMPMessageImpl<CNDMPMoverConnectReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_MOVER_CONNECT> {};

}  // namespace com::vx::korvane::ndmpc
