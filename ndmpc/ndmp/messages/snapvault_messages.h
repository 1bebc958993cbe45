// The SnapVault extension: the secondary system's messages (NDMP_SVS_*:
// relationships, transfers, snapshot schedules, status, access, data
// addresses) and the primary system's (NDMP_SVP_*), with their notifications
// and records.
//
//   CNDMPSvsGetStatusRequest status;
//   status.Volume = "/export/vault";  // answered by a CNDMPSvsGetStatusReply
//
// Every reply and every notification leads with "SnapVaultError" and
// "ReturnSequence"; the replies through CNDMPSvGenericReply, the
// notifications through CNDMPSvNotifyPost.
#pragma once

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/message.h"
#include "ndmpc/xdr/xdr_container.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "ndmpc/xdr/xdr_values.h"

namespace com::vx::korvane::ndmpc {

// ---------------------------------------------------------------- records

// An address a system can be reached at for data transfers.
class CNDMPSvTcpAddr : public CXDRContainer {
 public:
  CXDRULong IPAddress;
  // A full word, unlike the 16-bit port of CNDMPTcpAddr; intentional.
  CXDRULong Port;
  CXDRString SymbolicAddress;
  CXDRArray<CNDMPPVal> PVals;

 protected:
  int RegisterMembers() override {
    RegisterMember("IPAddress", &IPAddress);
    RegisterMember("Port", &Port);
    RegisterMember("SymbolicAddress", &SymbolicAddress);
    RegisterMember("PVals", &PVals);
    return 0;
  }
};

// The state of one relationship.
class CNDMPSvStatus : public CXDRContainer {
 public:
  CXDRString SourceSystem;
  CXDRString SourcePath;
  CXDRString DestinationSystem;
  CXDRString DestinationPath;
  CXDREnumBase<enums::CNDMPEnumSvRelState> RelationshipState;
  CXDRULong Lag;
  CXDREnumBase<enums::CNDMPEnumSvRelStatus> RelationshipStatus;
  CNDMPUQuad BytesTransferred;

 protected:
  int RegisterMembers() override {
    RegisterMember("SourceSystem", &SourceSystem);
    RegisterMember("SourcePath", &SourcePath);
    RegisterMember("DestinationSystem", &DestinationSystem);
    RegisterMember("DestinationPath", &DestinationPath);
    RegisterMember("RelationshipState", &RelationshipState);
    RegisterMember("Lag", &Lag);
    RegisterMember("RelationshipStatus", &RelationshipStatus);
    RegisterMember("BytesTransferred", &BytesTransferred);
    return 0;
  }
};

// One relationship as the secondary's client list shows it.
class CNDMPSvsClientStatusItem : public CXDRContainer {
 public:
  CXDRString DestinationPath;
  CXDRString SourceSystem;
  CXDRString SourcePath;
  CXDRULong Throttle;
  CXDRULong Tries;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationPath", &DestinationPath);
    RegisterMember("SourceSystem", &SourceSystem);
    RegisterMember("SourcePath", &SourcePath);
    RegisterMember("Throttle", &Throttle);
    RegisterMember("Tries", &Tries);
    return 0;
  }
};

// One snapshot schedule of a volume.
class CNDMPSvSnapSchedItem : public CXDRContainer {
 public:
  CXDRString Volume;
  CXDRString SnapSet;
  CXDRULong Count;
  CXDRString DayList;
  CXDRString HourList;
  CXDRBool AutoTrans;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSet", &SnapSet);
    RegisterMember("Count", &Count);
    RegisterMember("DayList", &DayList);
    RegisterMember("HourList", &HourList);
    RegisterMember("AutoTrans", &AutoTrans);
    return 0;
  }
};

// The state of one scheduled snapshot set.
class CNDMPSvSnapStatusItem : public CXDRContainer {
 public:
  CXDRString Volume;
  CXDRString SnapSetName;
  CXDREnumBase<enums::CNDMPEnumSvSnapStatus> SnapshotStatus;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSetName", &SnapSetName);
    // The registered name holds a blank; intentional.
    RegisterMember("Snapshot Status", &SnapshotStatus);
    return 0;
  }
};

// ---------------------------------------------------------------- shared bases

// A SnapVault notification: the outcome and the sequence number of the
// request it reports on, then any further members.
class CNDMPSvNotifyPost : public CNDMPRequestMessage {
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

// The end of a snapshot creation, on either system.
class CNDMPSvNotifyCreateSnapPost : public CNDMPSvNotifyPost {
 public:
  CXDRULong TimeValue;
  CXDROpaque SnapID;

 protected:
  int RegisterMembers() override {
    CNDMPSvNotifyPost::RegisterMembers();
    RegisterMember("TimeValue", &TimeValue);
    RegisterMember("SnapID", &SnapID);
    return 0;
  }
};

// The addresses a system offers for data transfers.
class CNDMPSvGetDataAddressReply : public CNDMPSvGenericReply {
 public:
  CXDRArray<CNDMPSvTcpAddr> DataAddresses;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("DataAddresses", &DataAddresses);
    return 0;
  }
};

// ================================================================ secondary (NDMP_SVS_*)

// ---------------------------------------------------------------- NDMP_SVS_CREATE_RELATIONSHIP

class CNDMPSvsCreateRelationshipRequest
    : public CNDMPMessageImpl<CNDMPSvsCreateRelationshipRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_CREATE_RELATIONSHIP> {
 public:
  CXDRString DestinationPath;
  CXDRString SourceFiler;
  CXDRString SourcePath;
  CXDRULong Throttle;
  CXDRULong TryCount;
  CXDRArray<CNDMPSvTcpAddr> AddressList;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationPath", &DestinationPath);
    RegisterMember("SourceFiler", &SourceFiler);
    RegisterMember("SourcePath", &SourcePath);
    RegisterMember("Throttle", &Throttle);
    RegisterMember("TryCount", &TryCount);
    RegisterMember("AddressList", &AddressList);
    return 0;
  }
};

class CNDMPSvsCreateRelationshipReply
    : public CNDMPMessageImpl<CNDMPSvsCreateRelationshipReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_CREATE_RELATIONSHIP> {};

// ---------------------------------------------------------------- NDMP_SVS_MODIFY_RELATIONSHIP

class CNDMPSvsModifyRelationshipRequest
    : public CNDMPMessageImpl<CNDMPSvsModifyRelationshipRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_MODIFY_RELATIONSHIP> {
 public:
  CXDRString DestinationPath;
  CXDRString SourceFiler;
  CXDRString SourcePath;
  CXDRULong Throttle;
  CXDRULong TryCount;
  CXDRArray<CNDMPSvTcpAddr> AddressList;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationPath", &DestinationPath);
    RegisterMember("SourceFiler", &SourceFiler);
    RegisterMember("SourcePath", &SourcePath);
    RegisterMember("Throttle", &Throttle);
    RegisterMember("TryCount", &TryCount);
    RegisterMember("AddressList", &AddressList);
    return 0;
  }
};

class CNDMPSvsModifyRelationshipReply
    : public CNDMPMessageImpl<CNDMPSvsModifyRelationshipReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_MODIFY_RELATIONSHIP> {};

// ---------------------------------------------------------------- NDMP_SVS_TRANSFER_BACKUP

class CNDMPSvsTransferBackupRequest
    : public CNDMPMessageImpl<CNDMPSvsTransferBackupRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_TRANSFER_BACKUP> {
 public:
  CXDRString DestinationPath;
  CXDRULong Throttle;
  CXDRString PrimarySnapName;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationPath", &DestinationPath);
    RegisterMember("Throttle", &Throttle);
    RegisterMember("PrimarySnapName", &PrimarySnapName);
    return 0;
  }
};

class CNDMPSvsTransferBackupReply
    : public CNDMPMessageImpl<CNDMPSvsTransferBackupReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_TRANSFER_BACKUP> {};

// ---------------------------------------------------------------- NDMP_SVS_ABORT_TRANSFER

class CNDMPSvsAbortTransferRequest
    : public CNDMPMessageImpl<CNDMPSvsAbortTransferRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_ABORT_TRANSFER> {
 public:
  CXDRString DestinationSystem;
  CXDRString DestinationPath;
  CXDRBool NoRestart;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationSystem", &DestinationSystem);
    RegisterMember("DestinationPath", &DestinationPath);
    RegisterMember("NoRestart", &NoRestart);
    return 0;
  }
};

class CNDMPSvsAbortTransferReply
    : public CNDMPMessageImpl<CNDMPSvsAbortTransferReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_ABORT_TRANSFER> {};

// ---------------------------------------------------------------- NDMP_SVS_DELETE_RELATIONSHIP

// A relationship is known on the secondary by its destination path.
class CNDMPSvsDeleteRelationshipRequest
    : public CNDMPMessageImpl<CNDMPSvsDeleteRelationshipRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_DELETE_RELATIONSHIP> {
 public:
  CXDRString DestinationPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationPath", &DestinationPath);
    return 0;
  }
};

class CNDMPSvsDeleteRelationshipReply
    : public CNDMPMessageImpl<CNDMPSvsDeleteRelationshipReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_DELETE_RELATIONSHIP> {};

// ---------------------------------------------------------------- NDMP_SVS_RESTART_RELATIONSHIP

class CNDMPSvsRestartRelationshipRequest
    : public CNDMPMessageImpl<CNDMPSvsRestartRelationshipRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_RESTART_RELATIONSHIP> {
 public:
  CXDRString DestinationPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationPath", &DestinationPath);
    return 0;
  }
};

class CNDMPSvsRestartRelationshipReply
    : public CNDMPMessageImpl<CNDMPSvsRestartRelationshipReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_RESTART_RELATIONSHIP> {};

// ---------------------------------------------------------------- NDMP_SVS_SET_SNAP_SCHED

class CNDMPSvsSetSnapSchedRequest
    : public CNDMPMessageImpl<CNDMPSvsSetSnapSchedRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_SET_SNAP_SCHED> {
 public:
  CNDMPSvSnapSchedItem Schedule;

 protected:
  int RegisterMembers() override {
    RegisterMember("Schedule", &Schedule);
    return 0;
  }
};

class CNDMPSvsSetSnapSchedReply
    : public CNDMPMessageImpl<CNDMPSvsSetSnapSchedReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_SET_SNAP_SCHED> {};

// ---------------------------------------------------------------- NDMP_SVS_GET_SNAP_SCHED

class CNDMPSvsGetSnapSchedRequest
    : public CNDMPMessageImpl<CNDMPSvsGetSnapSchedRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_SNAP_SCHED> {
 public:
  CXDRString Volume;
  CXDRString SnapSetName;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSetName", &SnapSetName);
    return 0;
  }
};

class CNDMPSvsGetSnapSchedReply
    : public CNDMPMessageImpl<CNDMPSvsGetSnapSchedReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_SNAP_SCHED> {
 public:
  CXDRArray<CNDMPSvSnapSchedItem> SnapSchedules;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("SnapSchedules", &SnapSchedules);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SVS_DELETE_SNAP_SCHED

class CNDMPSvsDeleteSnapSchedRequest
    : public CNDMPMessageImpl<CNDMPSvsDeleteSnapSchedRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_DELETE_SNAP_SCHED> {
 public:
  CXDRString Volume;
  CXDRString SnapSetName;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSetName", &SnapSetName);
    return 0;
  }
};

class CNDMPSvsDeleteSnapSchedReply
    : public CNDMPMessageImpl<CNDMPSvsDeleteSnapSchedReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_DELETE_SNAP_SCHED> {};

// ---------------------------------------------------------------- NDMP_SVS_CREATE_SNAP

class CNDMPSvsCreateSnapRequest
    : public CNDMPMessageImpl<CNDMPSvsCreateSnapRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_CREATE_SNAP> {
 public:
  CXDRString Volume;
  CXDRString SnapSetName;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSetName", &SnapSetName);
    return 0;
  }
};

class CNDMPSvsCreateSnapReply
    : public CNDMPMessageImpl<CNDMPSvsCreateSnapReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_CREATE_SNAP> {};

// ---------------------------------------------------------------- NDMP_SVS_GET_STATUS

class CNDMPSvsGetStatusRequest
    : public CNDMPMessageImpl<CNDMPSvsGetStatusRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_STATUS> {
 public:
  CXDRString Volume;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    return 0;
  }
};

class CNDMPSvsGetStatusReply
    : public CNDMPMessageImpl<CNDMPSvsGetStatusReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_STATUS> {
 public:
  CXDRArray<CNDMPSvStatus> SvsStatusList;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("SvsStatusList", &SvsStatusList);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SVS_GET_SNAP_STATUS

class CNDMPSvsGetSnapStatusRequest
    : public CNDMPMessageImpl<CNDMPSvsGetSnapStatusRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_SNAP_STATUS> {
 public:
  CXDRString Volume;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    return 0;
  }
};

class CNDMPSvsGetSnapStatusReply
    : public CNDMPMessageImpl<CNDMPSvsGetSnapStatusReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_SNAP_STATUS> {
 public:
  CXDRArray<CNDMPSvSnapStatusItem> SnapshotStatuses;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("SnapshotStatuses", &SnapshotStatuses);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SVS_GET_CLIENT_STATUS

class CNDMPSvsGetClientStatusRequest
    : public CNDMPMessageImpl<CNDMPSvsGetClientStatusRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_CLIENT_STATUS> {
 public:
  CXDRString DestinationPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationPath", &DestinationPath);
    return 0;
  }
};

class CNDMPSvsGetClientStatusReply
    : public CNDMPMessageImpl<CNDMPSvsGetClientStatusReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_CLIENT_STATUS> {
 public:
  CXDRArray<CNDMPSvsClientStatusItem> ClientStatus;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("ClientStatus", &ClientStatus);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SVS_GET_ACCESS_INFO

class CNDMPSvsGetAccessInfoRequest
    : public CNDMPMessageImpl<CNDMPSvsGetAccessInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_ACCESS_INFO> {};

class CNDMPSvsGetAccessInfoReply
    : public CNDMPMessageImpl<CNDMPSvsGetAccessInfoReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_ACCESS_INFO> {
 public:
  CXDRString SnapvaultAccess;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("SnapvaultAccess", &SnapvaultAccess);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SVS_SET_ACCESS_INFO

class CNDMPSvsSetAccessInfoRequest
    : public CNDMPMessageImpl<CNDMPSvsSetAccessInfoRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_SET_ACCESS_INFO> {
 public:
  CXDRString Access;

 protected:
  int RegisterMembers() override {
    RegisterMember("Access", &Access);
    return 0;
  }
};

class CNDMPSvsSetAccessInfoReply
    : public CNDMPMessageImpl<CNDMPSvsSetAccessInfoReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_SET_ACCESS_INFO> {};

// ---------------------------------------------------------------- NDMP_SVS_GET_INFO

class CNDMPSvsGetInfoRequest : public CNDMPMessageImpl<CNDMPSvsGetInfoRequest, CNDMPGenericRequest,
                                                       enums::CNDMPMessageCode::NDMP_SVS_GET_INFO> {
};

class CNDMPSvsGetInfoReply : public CNDMPMessageImpl<CNDMPSvsGetInfoReply, CNDMPSvGenericReply,
                                                     enums::CNDMPMessageCode::NDMP_SVS_GET_INFO> {
 public:
  CXDRBool SvsLicensed;
  CXDRBool SvsEnabled;
  CXDRULong MajorVersion;
  CXDRULong MinorVersion;
  CXDRArray<CXDREnumBase<enums::CNDMPEnumSvRecoverMethod>> RecoverMethods;
  CXDRArray<CXDREnumBase<enums::CNDMPEnumSvGranularity>> BackupGranularity;
  CXDRArray<CXDREnumBase<enums::CNDMPEnumSvGranularity>> RestoreGranularity;
  CXDRArray<CNDMPSvTcpAddr> DataAddresses;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("SvsLicensed", &SvsLicensed);
    RegisterMember("SvsEnabled", &SvsEnabled);
    RegisterMember("MajorVersion", &MajorVersion);
    RegisterMember("MinorVersion", &MinorVersion);
    RegisterMember("RecoverMethods", &RecoverMethods);
    RegisterMember("BackupGranularity", &BackupGranularity);
    RegisterMember("RestoreGranularity", &RestoreGranularity);
    RegisterMember("DataAddresses", &DataAddresses);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SVS_ABORT_SNAP

class CNDMPSvsAbortSnapRequest
    : public CNDMPMessageImpl<CNDMPSvsAbortSnapRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_ABORT_SNAP> {
 public:
  CXDRString Volume;
  CXDRString SnapSetName;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSetName", &SnapSetName);
    return 0;
  }
};

class CNDMPSvsAbortSnapReply
    : public CNDMPMessageImpl<CNDMPSvsAbortSnapReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_ABORT_SNAP> {};

// ---------------------------------------------------------------- NDMP_SVS_RELEASE_RELATIONSHIP

class CNDMPSvsReleaseRelationshipRequest
    : public CNDMPMessageImpl<CNDMPSvsReleaseRelationshipRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_RELEASE_RELATIONSHIP> {
 public:
  CXDRString SecondaryPath;
  CXDRString PrimarySystem;
  CXDRString PrimaryPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("SecondaryPath", &SecondaryPath);
    RegisterMember("PrimarySystem", &PrimarySystem);
    RegisterMember("PrimaryPath", &PrimaryPath);
    return 0;
  }
};

class CNDMPSvsReleaseRelationshipReply
    : public CNDMPMessageImpl<CNDMPSvsReleaseRelationshipReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVS_RELEASE_RELATIONSHIP> {};

// ---------------------------------------------------------------- NDMP_SVS_GET_DATA_ADDR

class CNDMPSvsGetDataAddressRequest
    : public CNDMPMessageImpl<CNDMPSvsGetDataAddressRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_DATA_ADDR> {
 public:
  CXDRArray<CNDMPPVal> PrimaryAddress;

 protected:
  int RegisterMembers() override {
    RegisterMember("PrimaryAddress", &PrimaryAddress);
    return 0;
  }
};

class CNDMPSvsGetDataAddressReply
    : public CNDMPMessageImpl<CNDMPSvsGetDataAddressReply, CNDMPSvGetDataAddressReply,
                              enums::CNDMPMessageCode::NDMP_SVS_GET_DATA_ADDR> {};

// ---------------------------------------------------------------- secondary notifications

class CNDMPSvsNotifyCreateRelationshipPost
    : public CNDMPMessageImpl<CNDMPSvsNotifyCreateRelationshipPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVS_NOTIFY_CREATE_RELATIONSHIP> {};

class CNDMPSvsNotifyTransferBackupPost
    : public CNDMPMessageImpl<CNDMPSvsNotifyTransferBackupPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVS_NOTIFY_TRANSFER_BACKUP> {};

class CNDMPSvsNotifyAbortTransferPost
    : public CNDMPMessageImpl<CNDMPSvsNotifyAbortTransferPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVS_NOTIFY_ABORT_TRANSFER> {};

class CNDMPSvsNotifyDeleteRelationshipPost
    : public CNDMPMessageImpl<CNDMPSvsNotifyDeleteRelationshipPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVS_NOTIFY_DELETE_RELATIONSHIP> {};

class CNDMPSvsNotifyRestartRelationshipPost
    : public CNDMPMessageImpl<CNDMPSvsNotifyRestartRelationshipPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVS_NOTIFY_RESTART_RELATIONSHIP> {};

class CNDMPSvsNotifyCreateSnapPost
    : public CNDMPMessageImpl<CNDMPSvsNotifyCreateSnapPost, CNDMPSvNotifyCreateSnapPost,
                              enums::CNDMPMessageCode::NDMP_SVS_NOTIFY_CREATE_SNAP> {};

class CNDMPSvsNotifyAbortSnapPost
    : public CNDMPMessageImpl<CNDMPSvsNotifyAbortSnapPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVS_NOTIFY_ABORT_SNAP> {};

class CNDMPSvsNotifyReleaseRelationshipPost
    : public CNDMPMessageImpl<CNDMPSvsNotifyReleaseRelationshipPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVS_NOTIFY_RELEASE_RELATIONSHIP> {};

// ================================================================ primary (NDMP_SVP_*)

// ---------------------------------------------------------------- NDMP_SVP_SET_SNAP_SCHED

class CNDMPSvpSetSnapSchedRequest
    : public CNDMPMessageImpl<CNDMPSvpSetSnapSchedRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_SET_SNAP_SCHED> {
 public:
  CNDMPSvSnapSchedItem Schedule;

 protected:
  int RegisterMembers() override {
    RegisterMember("Schedule", &Schedule);
    return 0;
  }
};

class CNDMPSvpSetSnapSchedReply
    : public CNDMPMessageImpl<CNDMPSvpSetSnapSchedReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_SET_SNAP_SCHED> {};

// ---------------------------------------------------------------- NDMP_SVP_GET_SNAP_SCHED

class CNDMPSvpGetSnapSchedRequest
    : public CNDMPMessageImpl<CNDMPSvpGetSnapSchedRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_SNAP_SCHED> {
 public:
  CXDRString Volume;
  CXDRString SnapSetName;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSetName", &SnapSetName);
    return 0;
  }
};

// Carries the status and the sequence only, no schedule list; intentional.
class CNDMPSvpGetSnapSchedReply
    : public CNDMPMessageImpl<CNDMPSvpGetSnapSchedReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_SNAP_SCHED> {};

// ---------------------------------------------------------------- NDMP_SVP_GET_SNAP_STATUS

class CNDMPSvpGetSnapStatusRequest
    : public CNDMPMessageImpl<CNDMPSvpGetSnapStatusRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_SNAP_STATUS> {
 public:
  CXDRString Volume;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    return 0;
  }
};

// Carries the status and the sequence only, no status list; intentional.
class CNDMPSvpGetSnapStatusReply
    : public CNDMPMessageImpl<CNDMPSvpGetSnapStatusReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_SNAP_STATUS> {};

// ---------------------------------------------------------------- NDMP_SVP_DELETE_SNAP_SCHED

class CNDMPSvpDeleteSnapSchedRequest
    : public CNDMPMessageImpl<CNDMPSvpDeleteSnapSchedRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_DELETE_SNAP_SCHED> {
 public:
  CXDRString Volume;
  CXDRString SnapSetName;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSetName", &SnapSetName);
    return 0;
  }
};

class CNDMPSvpDeleteSnapSchedReply
    : public CNDMPMessageImpl<CNDMPSvpDeleteSnapSchedReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_DELETE_SNAP_SCHED> {};

// ---------------------------------------------------------------- NDMP_SVP_CREATE_SNAP

class CNDMPSvpCreateSnapRequest
    : public CNDMPMessageImpl<CNDMPSvpCreateSnapRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_CREATE_SNAP> {
 public:
  CXDRString Volume;
  CXDRString SnapSetName;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    RegisterMember("SnapSetName", &SnapSetName);
    return 0;
  }
};

class CNDMPSvpCreateSnapReply
    : public CNDMPMessageImpl<CNDMPSvpCreateSnapReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_CREATE_SNAP> {};

// ---------------------------------------------------------------- NDMP_SVP_GET_STATUS

class CNDMPSvpGetStatusRequest
    : public CNDMPMessageImpl<CNDMPSvpGetStatusRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_STATUS> {
 public:
  CXDRString Volume;

 protected:
  int RegisterMembers() override {
    RegisterMember("Volume", &Volume);
    return 0;
  }
};

class CNDMPSvpGetStatusReply
    : public CNDMPMessageImpl<CNDMPSvpGetStatusReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_STATUS> {
 public:
  CXDRArray<CNDMPSvStatus> SvpStatusList;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("SvpStatusList", &SvpStatusList);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SVP_ABORT_TRANSFER

class CNDMPSvpAbortTransferRequest
    : public CNDMPMessageImpl<CNDMPSvpAbortTransferRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_ABORT_TRANSFER> {
 public:
  CXDRString DestinationSystem;
  CXDRString DestinationPath;
  CXDRBool NoRestart;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationSystem", &DestinationSystem);
    RegisterMember("DestinationPath", &DestinationPath);
    RegisterMember("NoRestart", &NoRestart);
    return 0;
  }
};

class CNDMPSvpAbortTransferReply
    : public CNDMPMessageImpl<CNDMPSvpAbortTransferReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_ABORT_TRANSFER> {};

// ---------------------------------------------------------------- NDMP_SVP_RECOVER_BACKUP

// Sent to the primary although its classes carry the secondary's prefix;
// intentional.
class CNDMPSvsRecoverBackupRequest
    : public CNDMPMessageImpl<CNDMPSvsRecoverBackupRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_RECOVER_BACKUP> {
 public:
  CXDRString DestinationPath;
  CXDRString SourceSystem;
  CXDRString SourcePath;
  CXDRString SecondarySnapName;
  CXDRULong Throttle;
  CXDREnumBase<enums::CNDMPEnumSvRecoverMethod> RecoverMethod;
  CXDREnumBase<enums::CNDMPEnumSvGranularity> Granularity;
  CXDRArray<CNDMPSvTcpAddr> AddressList;

 protected:
  int RegisterMembers() override {
    RegisterMember("DestinationPath", &DestinationPath);
    RegisterMember("SourceSystem", &SourceSystem);
    RegisterMember("SourcePath", &SourcePath);
    RegisterMember("SecondarySnapName", &SecondarySnapName);
    RegisterMember("Throttle", &Throttle);
    RegisterMember("RecoverMethod", &RecoverMethod);
    RegisterMember("Granularity", &Granularity);
    RegisterMember("AddressList", &AddressList);
    return 0;
  }
};

class CNDMPSvsRecoverBackupReply
    : public CNDMPMessageImpl<CNDMPSvsRecoverBackupReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_RECOVER_BACKUP> {};

// ---------------------------------------------------------------- NDMP_SVP_RELEASE_RELATIONSHIP

class CNDMPSvpReleaseRelationshipRequest
    : public CNDMPMessageImpl<CNDMPSvpReleaseRelationshipRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_RELEASE_RELATIONSHIP> {
 public:
  CXDRString PrimaryPath;
  CXDRString SecondarySystem;
  CXDRString SecondaryPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("PrimaryPath", &PrimaryPath);
    RegisterMember("SecondarySystem", &SecondarySystem);
    RegisterMember("SecondaryPath", &SecondaryPath);
    return 0;
  }
};

class CNDMPSvpReleaseRelationshipReply
    : public CNDMPMessageImpl<CNDMPSvpReleaseRelationshipReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_RELEASE_RELATIONSHIP> {};

// ---------------------------------------------------------------- NDMP_SVP_GET_ACCESS_INFO

class CNDMPSvpGetAccessInfoRequest
    : public CNDMPMessageImpl<CNDMPSvpGetAccessInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_ACCESS_INFO> {};

// Carries the status and the sequence only, no access text; intentional.
class CNDMPSvpGetAccessInfoReply
    : public CNDMPMessageImpl<CNDMPSvpGetAccessInfoReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_ACCESS_INFO> {};

// ---------------------------------------------------------------- NDMP_SVP_SET_ACCESS_INFO

class CNDMPSvpSetAccessInfoRequest
    : public CNDMPMessageImpl<CNDMPSvpSetAccessInfoRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_SET_ACCESS_INFO> {
 public:
  CXDRString Access;

 protected:
  int RegisterMembers() override {
    RegisterMember("Access", &Access);
    return 0;
  }
};

class CNDMPSvpSetAccessInfoReply
    : public CNDMPMessageImpl<CNDMPSvpSetAccessInfoReply, CNDMPSvGenericReply,
                              enums::CNDMPMessageCode::NDMP_SVP_SET_ACCESS_INFO> {};

// ---------------------------------------------------------------- NDMP_SVP_GET_INFO

class CNDMPSvpGetInfoRequest : public CNDMPMessageImpl<CNDMPSvpGetInfoRequest, CNDMPGenericRequest,
                                                       enums::CNDMPMessageCode::NDMP_SVP_GET_INFO> {
};

class CNDMPSvpGetInfoReply : public CNDMPMessageImpl<CNDMPSvpGetInfoReply, CNDMPSvGenericReply,
                                                     enums::CNDMPMessageCode::NDMP_SVP_GET_INFO> {
 public:
  CXDRBool SvpLicensed;
  CXDRBool SvpEnabled;
  CXDRULong MajorVersion;
  CXDRULong MinorVersion;
  CXDRArray<CXDREnumBase<enums::CNDMPEnumSvRecoverMethod>> RecoverMethods;
  CXDRArray<CXDREnumBase<enums::CNDMPEnumSvGranularity>> BackupGranularity;
  CXDRArray<CXDREnumBase<enums::CNDMPEnumSvGranularity>> RestoreGranularity;
  CXDRArray<CNDMPSvTcpAddr> DataAddresses;

 protected:
  int RegisterMembers() override {
    CNDMPSvGenericReply::RegisterMembers();
    RegisterMember("SvpLicensed", &SvpLicensed);
    RegisterMember("SvpEnabled", &SvpEnabled);
    RegisterMember("MajorVersion", &MajorVersion);
    RegisterMember("MinorVersion", &MinorVersion);
    RegisterMember("RecoverMethods", &RecoverMethods);
    RegisterMember("BackupGranularity", &BackupGranularity);
    RegisterMember("RestoreGranularity", &RestoreGranularity);
    RegisterMember("DataAddresses", &DataAddresses);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SVP_GET_DATA_ADDR

class CNDMPSvpGetDataAddressRequest
    : public CNDMPMessageImpl<CNDMPSvpGetDataAddressRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_DATA_ADDR> {
 public:
  CXDRArray<CNDMPPVal> SecondaryAddress;

 protected:
  int RegisterMembers() override {
    RegisterMember("SecondaryAddress", &SecondaryAddress);
    return 0;
  }
};

class CNDMPSvpGetDataAddressReply
    : public CNDMPMessageImpl<CNDMPSvpGetDataAddressReply, CNDMPSvGetDataAddressReply,
                              enums::CNDMPMessageCode::NDMP_SVP_GET_DATA_ADDR> {};

// ---------------------------------------------------------------- primary notifications

class CNDMPSvpNotifyCreateSnapPost
    : public CNDMPMessageImpl<CNDMPSvpNotifyCreateSnapPost, CNDMPSvNotifyCreateSnapPost,
                              enums::CNDMPMessageCode::NDMP_SVP_NOTIFY_CREATE_SNAP> {};

class CNDMPSvpNotifyAbortTransferPost
    : public CNDMPMessageImpl<CNDMPSvpNotifyAbortTransferPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVP_NOTIFY_ABORT_TRANSFER> {};

class CNDMPSvpNotifyRecoverBackupPost
    : public CNDMPMessageImpl<CNDMPSvpNotifyRecoverBackupPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVP_NOTIFY_RECOVER_BACKUP> {};

class CNDMPSvpNotifyReleaseRelationshipPost
    : public CNDMPMessageImpl<CNDMPSvpNotifyReleaseRelationshipPost, CNDMPSvNotifyPost,
                              enums::CNDMPMessageCode::NDMP_SVP_NOTIFY_RELEASE_RELATIONSHIP> {};

}  // namespace com::vx::korvane::ndmpc
