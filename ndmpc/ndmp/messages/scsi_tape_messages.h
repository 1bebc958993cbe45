// The SCSI and tape families (NDMP_SCSI_*, NDMP_TAPE_*): opening a device,
// moving and reading/writing a tape, querying state and passing raw CDBs.
// The tape and SCSI helpers fill and read these bodies directly.
//
//   CNDMPTapeMtioRequest mtio;
//   mtio.TapeOp = enums::CNDMPEnumMtioOp::NDMP_MTIO_REW;  mtio.Count = 1;
#pragma once

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/message.h"
#include "ndmpc/xdr/xdr_container.h"

namespace com::vx::korvane::ndmpc {

// ---------------------------------------------------------------------------
// CDB bodies, shared by the SCSI and the tape interface; only the code of the
// concrete class tells them apart.

class CNDMPExecuteCdbRequest : public CNDMPRequestMessage {
 public:
  CXDRULong Flags;
  CXDRULong TimeOut;
  CXDRULong DataInLength;
  CXDROpaque CmdDataBlock;
  CXDROpaque DataOut;

 protected:
  int RegisterMembers() override {
    RegisterMember("Flags", &Flags);
    RegisterMember("TimeOut", &TimeOut);
    RegisterMember("DataInLength", &DataInLength);
    RegisterMember("CmdDataBlock", &CmdDataBlock);
    RegisterMember("DataOut", &DataOut);
    return 0;
  }
};

class CNDMPExecuteCdbReply : public CNDMPReplyMessage {
 public:
  static constexpr unsigned char kGoodStatus[1] = {0};

  CXDREnumBase<enums::CNDMPError> NDMP_Error;
  // The SCSI status byte, an opaque made from one byte of data and so of
  // fixed length 1: one byte and three bytes of padding on the wire.
  CXDROpaque Status{CXDROpaque(kGoodStatus, 1)};
  CXDRULong DataOutLength;
  CXDROpaque DataIn;
  CXDROpaque ExtSenseData;

 protected:
  int RegisterMembers() override {
    RegisterMember("NDMP_Error", &NDMP_Error);
    RegisterMember("Status", &Status);
    RegisterMember("DataOutLength", &DataOutLength);
    RegisterMember("DataIn", &DataIn);
    RegisterMember("ExtSenseData", &ExtSenseData);
    return 0;
  }
};

// ---------------------------------------------------------------------------
// SCSI

class CNDMPScsiOpenRequest
    : public CNDMPMessageImpl<CNDMPScsiOpenRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SCSI_OPEN> {
 public:
  CXDRString Device;

 protected:
  int RegisterMembers() override {
    RegisterMember("Device", &Device);
    return 0;
  }
};

class CNDMPScsiOpenReply
    : public CNDMPMessageImpl<CNDMPScsiOpenReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_SCSI_OPEN> {};

class CNDMPScsiCloseRequest
    : public CNDMPMessageImpl<CNDMPScsiCloseRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_SCSI_CLOSE> {};

class CNDMPScsiCloseReply
    : public CNDMPMessageImpl<CNDMPScsiCloseReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_SCSI_CLOSE> {};

class CNDMPScsiGetStateRequest
    : public CNDMPMessageImpl<CNDMPScsiGetStateRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_SCSI_GET_STATE> {};

class CNDMPScsiGetStateReply
    : public CNDMPMessageImpl<CNDMPScsiGetStateReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_SCSI_GET_STATE> {
 public:
  CXDREnumBase<enums::CNDMPError> NDMP_Error;
  CXDRUShort TargetController;
  CXDRUShort TargetID;
  CXDRUShort TargetLun;

 protected:
  int RegisterMembers() override {
    RegisterMember("NDMP_Error", &NDMP_Error);
    RegisterMember("TargetController", &TargetController);
    RegisterMember("TargetID", &TargetID);
    RegisterMember("TargetLun", &TargetLun);
    return 0;
  }
};

class CNDMPScsiSetTargetRequest
    : public CNDMPMessageImpl<CNDMPScsiSetTargetRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SCSI_SET_TARGET> {
 public:
  CXDRString Device;
  CXDRUShort TargetController;
  CXDRUShort TargetID;
  CXDRUShort TargetLun;

 protected:
  int RegisterMembers() override {
    RegisterMember("Device", &Device);
    RegisterMember("TargetController", &TargetController);
    RegisterMember("TargetID", &TargetID);
    RegisterMember("TargetLun", &TargetLun);
    return 0;
  }
};

class CNDMPScsiSetTargetReply
    : public CNDMPMessageImpl<CNDMPScsiSetTargetReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_SCSI_SET_TARGET> {};

class CNDMPScsiResetDeviceRequest
    : public CNDMPMessageImpl<CNDMPScsiResetDeviceRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_SCSI_RESET_DEVICE> {};

class CNDMPScsiResetDeviceReply
    : public CNDMPMessageImpl<CNDMPScsiResetDeviceReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_SCSI_RESET_DEVICE> {};

class CNDMPScsiResetBusRequest
    : public CNDMPMessageImpl<CNDMPScsiResetBusRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_SCSI_RESET_BUS> {};

class CNDMPScsiResetBusReply
    : public CNDMPMessageImpl<CNDMPScsiResetBusReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_SCSI_RESET_BUS> {};

class CNDMPScsiExecuteCdbRequest
    : public CNDMPMessageImpl<CNDMPScsiExecuteCdbRequest, CNDMPExecuteCdbRequest,
                              enums::CNDMPMessageCode::NDMP_SCSI_EXECUTE_CDB> {};

class CNDMPScsiExecuteCdbReply
    : public CNDMPMessageImpl<CNDMPScsiExecuteCdbReply, CNDMPExecuteCdbReply,
                              enums::CNDMPMessageCode::NDMP_SCSI_EXECUTE_CDB> {};

// ---------------------------------------------------------------------------
// Tape

class CNDMPTapeOpenRequest
    : public CNDMPMessageImpl<CNDMPTapeOpenRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_TAPE_OPEN> {
 public:
  CXDRString Device;
  CXDREnumBase<enums::CNDMPEnumTapeOpenMode> Mode;

 protected:
  int RegisterMembers() override {
    RegisterMember("Device", &Device);
    RegisterMember("Mode", &Mode);
    return 0;
  }
};

class CNDMPTapeOpenReply
    : public CNDMPMessageImpl<CNDMPTapeOpenReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_TAPE_OPEN> {};

class CNDMPTapeCloseRequest
    : public CNDMPMessageImpl<CNDMPTapeCloseRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_TAPE_CLOSE> {};

class CNDMPTapeCloseReply
    : public CNDMPMessageImpl<CNDMPTapeCloseReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_TAPE_CLOSE> {};

class CNDMPTapeGetStateRequest
    : public CNDMPMessageImpl<CNDMPTapeGetStateRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_TAPE_GET_STATE> {};

class CNDMPTapeGetStateReply
    : public CNDMPMessageImpl<CNDMPTapeGetStateReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_TAPE_GET_STATE> {
 public:
  CXDRULong Unsupported;
  CXDREnumBase<enums::CNDMPError> NDMP_Error;
  CXDRULong Flags;
  CXDRULong FileNum;
  CXDRULong SoftErrors;
  CXDRULong BlockSize;
  CXDRULong BlockNo;
  CNDMPUQuad TotalSpace;
  CNDMPUQuad SpaceRemaining;
  CXDRULong Partition;  // version 3 only: the version 4 reply ends with SpaceRemaining

 protected:
  int RegisterMembers() override {
    RegisterMember("Unsupported", &Unsupported);
    RegisterMember("NDMP_Error", &NDMP_Error);
    RegisterMember("Flags", &Flags);
    RegisterMember("FileNum", &FileNum);
    RegisterMember("SoftErrors", &SoftErrors);
    RegisterMember("BlockSize", &BlockSize);
    RegisterMember("BlockNo", &BlockNo);
    RegisterMember("TotalSpace", &TotalSpace);
    RegisterMember("SpaceRemaining", &SpaceRemaining);
    if (Version() <= 3) RegisterMember("Partition", &Partition);
    return 0;
  }
};

class CNDMPTapeMtioRequest
    : public CNDMPMessageImpl<CNDMPTapeMtioRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_TAPE_MTIO> {
 public:
  CXDREnumBase<enums::CNDMPEnumMtioOp> TapeOp;
  CXDRULong Count;

 protected:
  int RegisterMembers() override {
    RegisterMember("TapeOp", &TapeOp);
    RegisterMember("Count", &Count);
    return 0;
  }
};

class CNDMPTapeMtioReply
    : public CNDMPMessageImpl<CNDMPTapeMtioReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_TAPE_MTIO> {
 public:
  CXDREnumBase<enums::CNDMPError> NDMP_Error;
  CXDRULong ResidCount;

 protected:
  int RegisterMembers() override {
    RegisterMember("NDMP_Error", &NDMP_Error);
    RegisterMember("ResidCount", &ResidCount);
    return 0;
  }
};

class CNDMPTapeWriteRequest
    : public CNDMPMessageImpl<CNDMPTapeWriteRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_TAPE_WRITE> {
 public:
  CXDROpaque DataOut;

 protected:
  int RegisterMembers() override {
    RegisterMember("DataOut", &DataOut);
    return 0;
  }
};

class CNDMPTapeWriteReply
    : public CNDMPMessageImpl<CNDMPTapeWriteReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_TAPE_WRITE> {
 public:
  CXDREnumBase<enums::CNDMPError> NDMP_Error;
  CXDRULong Count;

 protected:
  int RegisterMembers() override {
    RegisterMember("NDMP_Error", &NDMP_Error);
    RegisterMember("Count", &Count);
    return 0;
  }
};

class CNDMPTapeReadRequest
    : public CNDMPMessageImpl<CNDMPTapeReadRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_TAPE_READ> {
 public:
  CXDRULong Count;

 protected:
  int RegisterMembers() override {
    RegisterMember("Count", &Count);
    return 0;
  }
};

class CNDMPTapeReadReply
    : public CNDMPMessageImpl<CNDMPTapeReadReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_TAPE_READ> {
 public:
  CXDREnumBase<enums::CNDMPError> NDMP_Error;
  CXDROpaque Data;

 protected:
  int RegisterMembers() override {
    RegisterMember("NDMP_Error", &NDMP_Error);
    RegisterMember("Data", &Data);
    return 0;
  }
};

class CNDMPTapeExecuteCdbRequest
    : public CNDMPMessageImpl<CNDMPTapeExecuteCdbRequest, CNDMPExecuteCdbRequest,
                              enums::CNDMPMessageCode::NDMP_TAPE_EXECUTE_CDB> {};

class CNDMPTapeExecuteCdbReply
    : public CNDMPMessageImpl<CNDMPTapeExecuteCdbReply, CNDMPExecuteCdbReply,
                              enums::CNDMPMessageCode::NDMP_TAPE_EXECUTE_CDB> {};

}  // namespace com::vx::korvane::ndmpc
