// The snapshot extension (NDMP_SNAP_*): create, delete, rename and recover
// snapshots, list them, read their state, set the space reserve and the
// schedule, and list a snapshot directory; plus the three end notifications.
//
//   CNDMPSnapCreateRequest create;
//   create.PathName = "/export/home";
//   create.SnapName = "before-upgrade";   // answered by a CNDMPSnapCreateReply
//
// Replies without results of their own carry only "NDMP_Error"; the others
// lead with "Error".
#pragma once

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/ndmp/messages/message.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/xdr/xdr_container.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "ndmpc/xdr/xdr_values.h"

namespace com::vx::korvane::ndmpc {

// ---------------------------------------------------------------- records

// One snapshot name in a list of names.
class CNDMPSName : public CXDRContainer {
 public:
  CXDRString Name;

 protected:
  int RegisterMembers() override {
    RegisterMember("Name", &Name);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SNAP_CREATE

class CNDMPSnapCreateRequest : public CNDMPMessageImpl<CNDMPSnapCreateRequest, CNDMPRequestMessage,
                                                       enums::CNDMPMessageCode::NDMP_SNAP_CREATE> {
 public:
  CXDRString PathName;
  CXDRString SnapName;

 protected:
  int RegisterMembers() override {
    RegisterMember("PathName", &PathName);
    RegisterMember("SnapName", &SnapName);
    return 0;
  }
};

class CNDMPSnapCreateReply : public CNDMPMessageImpl<CNDMPSnapCreateReply, CNDMPGenericReply,
                                                     enums::CNDMPMessageCode::NDMP_SNAP_CREATE> {};

// ---------------------------------------------------------------- NDMP_SNAP_DELETE

class CNDMPSnapDeleteRequest : public CNDMPMessageImpl<CNDMPSnapDeleteRequest, CNDMPRequestMessage,
                                                       enums::CNDMPMessageCode::NDMP_SNAP_DELETE> {
 public:
  CXDRString SnapName;

 protected:
  int RegisterMembers() override {
    RegisterMember("SnapName", &SnapName);
    return 0;
  }
};

class CNDMPSnapDeleteReply : public CNDMPMessageImpl<CNDMPSnapDeleteReply, CNDMPGenericReply,
                                                     enums::CNDMPMessageCode::NDMP_SNAP_DELETE> {};

// ---------------------------------------------------------------- NDMP_SNAP_RECOVER

class CNDMPSnapRecoverRequest
    : public CNDMPMessageImpl<CNDMPSnapRecoverRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_RECOVER> {
 public:
  CXDRString SnapName;
  CXDRArray<CNDMPName> NameList;
  CXDRULong Flags;

 protected:
  int RegisterMembers() override {
    RegisterMember("SnapName", &SnapName);
    RegisterMember("NameList", &NameList);
    RegisterMember("Flags", &Flags);
    return 0;
  }
};

class CNDMPSnapRecoverReply : public CNDMPMessageImpl<CNDMPSnapRecoverReply, CNDMPGenericReply,
                                                      enums::CNDMPMessageCode::NDMP_SNAP_RECOVER> {
};

// ---------------------------------------------------------------- NDMP_SNAP_RENAME

class CNDMPSnapRenameRequest : public CNDMPMessageImpl<CNDMPSnapRenameRequest, CNDMPRequestMessage,
                                                       enums::CNDMPMessageCode::NDMP_SNAP_RENAME> {
 public:
  CXDRString OldSnapName;
  CXDRString NewSnapName;

 protected:
  int RegisterMembers() override {
    RegisterMember("OldSnapName", &OldSnapName);
    RegisterMember("NewSnapName", &NewSnapName);
    return 0;
  }
};

class CNDMPSnapRenameReply : public CNDMPMessageImpl<CNDMPSnapRenameReply, CNDMPGenericReply,
                                                     enums::CNDMPMessageCode::NDMP_SNAP_RENAME> {};

// ---------------------------------------------------------------- NDMP_SNAP_GET_SERVER_INFO

class CNDMPSnapGetServerInfoRequest
    : public CNDMPMessageImpl<CNDMPSnapGetServerInfoRequest, CNDMPGenericRequest,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_SERVER_INFO> {};

class CNDMPSnapGetServerInfoReply
    : public CNDMPMessageImpl<CNDMPSnapGetServerInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_SERVER_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRULong CreateSupport;
  CXDRULong RecoverSupport;
  CXDRULong ReserveSupport;
  CXDRULong ScheduleSupport;
  CXDRULong RelocSupport;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("CreateSupport", &CreateSupport);
    RegisterMember("RecoverSupport", &RecoverSupport);
    RegisterMember("ReserveSupport", &ReserveSupport);
    RegisterMember("ScheduleSupport", &ScheduleSupport);
    RegisterMember("RelocSupport", &RelocSupport);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SNAP_GET_SNAPSHOT_NAMES

class CNDMPSnapGetSnapshotNamesRequest
    : public CNDMPMessageImpl<CNDMPSnapGetSnapshotNamesRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_SNAPSHOT_NAMES> {
 public:
  CXDRString Pathname;

 protected:
  int RegisterMembers() override {
    RegisterMember("Pathname", &Pathname);
    return 0;
  }
};

class CNDMPSnapGetSnapshotNamesReply
    : public CNDMPMessageImpl<CNDMPSnapGetSnapshotNamesReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_SNAPSHOT_NAMES> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CNDMPSName> SnapshotNames;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("SnapshotNames", &SnapshotNames);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SNAP_GET_SNAPSHOT_STATE

class CNDMPSnapGetSnapshotStateRequest
    : public CNDMPMessageImpl<CNDMPSnapGetSnapshotStateRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_SNAPSHOT_STATE> {
 public:
  CXDRString PathName;

 protected:
  int RegisterMembers() override {
    RegisterMember("PathName", &PathName);
    return 0;
  }
};

class CNDMPSnapGetSnapshotStateReply
    : public CNDMPMessageImpl<CNDMPSnapGetSnapshotStateReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_SNAPSHOT_STATE> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRULong Unsupported;
  CXDRString Pathname;
  CXDRUShort UsedPercent;
  CXDRUShort TotalPercent;
  CXDRULong Date;
  CXDROpaque SnapID;
  CXDRUShort Busy;
  CXDRUShort Dependency;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("Unsupported", &Unsupported);
    RegisterMember("Pathname", &Pathname);
    RegisterMember("UsedPercent", &UsedPercent);
    RegisterMember("TotalPercent", &TotalPercent);
    RegisterMember("Date", &Date);
    RegisterMember("SnapID", &SnapID);
    RegisterMember("Busy", &Busy);
    RegisterMember("Dependency", &Dependency);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SNAP_GET_CDR_OP_STATE

// Asks for the progress of a running operation, named by its message code
// (NDMP_SNAP_RECOVER, say).
class CNDMPSnapGetCdrOpStateRequest
    : public CNDMPMessageImpl<CNDMPSnapGetCdrOpStateRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_CDR_OP_STATE> {
 public:
  CXDREnumBase<enums::CNDMPMessageCode> OperationType;

 protected:
  int RegisterMembers() override {
    RegisterMember("OperationType", &OperationType);
    return 0;
  }
};

class CNDMPSnapGetCdrOpStateReply
    : public CNDMPMessageImpl<CNDMPSnapGetCdrOpStateReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_CDR_OP_STATE> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRULong Unsupported;
  CNDMPUQuad TotalFiles;
  CNDMPUQuad ProcessedFiles;
  CNDMPUQuad ExceptionFiles;
  CXDRULong Date;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("Unsupported", &Unsupported);
    RegisterMember("TotalFiles", &TotalFiles);
    RegisterMember("ProcessedFiles", &ProcessedFiles);
    RegisterMember("ExceptionFiles", &ExceptionFiles);
    RegisterMember("Date", &Date);
    return 0;
  }
};

// ---------------------------------------------------------------- get snapshot path (0x20500108)

// The code 0x20500108 has no name among the message codes, so the classes
// carry the number itself.
class CNDMPSnapGetSnapshotPathRequest
    : public CNDMPMessageImpl<CNDMPSnapGetSnapshotPathRequest, CNDMPRequestMessage, 0x20500108> {
 public:
  CXDRString PathName;

 protected:
  int RegisterMembers() override {
    RegisterMember("PathName", &PathName);
    return 0;
  }
};

class CNDMPSnapGetSnapshotPathReply
    : public CNDMPMessageImpl<CNDMPSnapGetSnapshotPathReply, CNDMPReplyMessage, 0x20500108> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRUShort MaxSnapshots;
  CXDREnumBase<enums::CNDMPEnumSnapPathType> PathType;
  CXDRString SnapPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("MaxSnapshots", &MaxSnapshots);
    RegisterMember("PathType", &PathType);
    RegisterMember("SnapPath", &SnapPath);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SNAP_SET_RESERVE

class CNDMPSnapSetReserveRequest
    : public CNDMPMessageImpl<CNDMPSnapSetReserveRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_SET_RESERVE> {
 public:
  CXDRString PathName;
  CXDRUShort Percent;

 protected:
  int RegisterMembers() override {
    RegisterMember("PathName", &PathName);
    RegisterMember("Percent", &Percent);
    return 0;
  }
};

class CNDMPSnapSetReserveReply
    : public CNDMPMessageImpl<CNDMPSnapSetReserveReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_SNAP_SET_RESERVE> {};

// ---------------------------------------------------------------- NDMP_SNAP_GET_RESERVE_INFO

class CNDMPSnapGetReserveInfoRequest
    : public CNDMPMessageImpl<CNDMPSnapGetReserveInfoRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_RESERVE_INFO> {
 public:
  CXDRString PathName;

 protected:
  int RegisterMembers() override {
    RegisterMember("PathName", &PathName);
    return 0;
  }
};

class CNDMPSnapGetReserveInfoReply
    : public CNDMPMessageImpl<CNDMPSnapGetReserveInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_RESERVE_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CNDMPUQuad KBAllocated;
  CXDRUShort Percent;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("KBAllocated", &KBAllocated);
    RegisterMember("Percent", &Percent);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SNAP_SET_SCHEDULE

class CNDMPSnapSetScheduleRequest
    : public CNDMPMessageImpl<CNDMPSnapSetScheduleRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_SET_SCHEDULE> {
 public:
  CXDRString PathName;
  CXDRUShort Week;
  CXDRUShort Day;
  CXDRUShort Hour;
  CXDRArray<CXDRUShort> HourList;
  CXDREnumBase<enums::CNDMPEnumSnapDays> DayOfWeek;
  CXDRUShort TimeOfDay;
  CXDRString SnapPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("PathName", &PathName);
    RegisterMember("Week", &Week);
    RegisterMember("Day", &Day);
    RegisterMember("Hour", &Hour);
    RegisterMember("HourList", &HourList);
    RegisterMember("DayOfWeek", &DayOfWeek);
    RegisterMember("TimeOfDay", &TimeOfDay);
    RegisterMember("SnapPath", &SnapPath);
    return 0;
  }
};

class CNDMPSnapSetScheduleReply
    : public CNDMPMessageImpl<CNDMPSnapSetScheduleReply, CNDMPGenericReply,
                              enums::CNDMPMessageCode::NDMP_SNAP_SET_SCHEDULE> {};

// ---------------------------------------------------------------- NDMP_SNAP_GET_SCHEDULE_INFO

class CNDMPSnapGetScheduleInfoRequest
    : public CNDMPMessageImpl<CNDMPSnapGetScheduleInfoRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_SCHEDULE_INFO> {
 public:
  CXDRString PathName;

 protected:
  int RegisterMembers() override {
    RegisterMember("PathName", &PathName);
    return 0;
  }
};

class CNDMPSnapGetScheduleInfoReply
    : public CNDMPMessageImpl<CNDMPSnapGetScheduleInfoReply, CNDMPReplyMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_GET_SCHEDULE_INFO> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRUShort Week;
  CXDRUShort Day;
  CXDRUShort Hour;
  CXDRArray<CXDRUShort> HourList;
  CXDREnumBase<enums::CNDMPEnumSnapDays> DayOfWeek;
  CXDRUShort TimeOfDay;
  CXDRString SnapPath;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("Week", &Week);
    RegisterMember("Day", &Day);
    RegisterMember("Hour", &Hour);
    RegisterMember("HourList", &HourList);
    RegisterMember("DayOfWeek", &DayOfWeek);
    RegisterMember("TimeOfDay", &TimeOfDay);
    RegisterMember("SnapPath", &SnapPath);
    return 0;
  }
};

// ---------------------------------------------------------------- NDMP_SNAP_DIR_LIST

class CNDMPSnapDirListRequest
    : public CNDMPMessageImpl<CNDMPSnapDirListRequest, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_DIR_LIST> {
 public:
  CXDRString PathName;
  CXDRULong Flags;
  CXDRULong MaxEntries;

 protected:
  int RegisterMembers() override {
    RegisterMember("PathName", &PathName);
    RegisterMember("Flags", &Flags);
    RegisterMember("MaxEntries", &MaxEntries);
    return 0;
  }
};

class CNDMPSnapDirListReply : public CNDMPMessageImpl<CNDMPSnapDirListReply, CNDMPReplyMessage,
                                                      enums::CNDMPMessageCode::NDMP_SNAP_DIR_LIST> {
 public:
  CXDREnumBase<enums::CNDMPError> Error;
  CXDRArray<CNDMPFile> DirList;
  CXDRULong Status;

 protected:
  int RegisterMembers() override {
    RegisterMember("Error", &Error);
    RegisterMember("DirList", &DirList);
    RegisterMember("Status", &Status);
    return 0;
  }
};

// ---------------------------------------------------------------- notifications

class CNDMPSnapNotifyCreateEndPost
    : public CNDMPMessageImpl<CNDMPSnapNotifyCreateEndPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_NOTIFY_CREATE_END> {
 public:
  CXDREnumBase<enums::CNDMPEnumSnapEndReason> SnapEndReason;
  CXDREnumBase<enums::CNDMPError> Error;
  CXDROpaque SnapID;

 protected:
  int RegisterMembers() override {
    RegisterMember("SnapEndReason", &SnapEndReason);
    RegisterMember("Error", &Error);
    RegisterMember("SnapID", &SnapID);
    return 0;
  }
};

class CNDMPSnapNotifyDeleteEndPost
    : public CNDMPMessageImpl<CNDMPSnapNotifyDeleteEndPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_NOTIFY_DELETE_END> {
 public:
  CXDREnumBase<enums::CNDMPEnumSnapEndReason> SnapEndReason;
  CXDREnumBase<enums::CNDMPError> Error;

 protected:
  int RegisterMembers() override {
    RegisterMember("SnapEndReason", &SnapEndReason);
    RegisterMember("Error", &Error);
    return 0;
  }
};

class CNDMPSnapNotifyRecoverEndPost
    : public CNDMPMessageImpl<CNDMPSnapNotifyRecoverEndPost, CNDMPRequestMessage,
                              enums::CNDMPMessageCode::NDMP_SNAP_NOTIFY_RECOVER_END> {
 public:
  CXDREnumBase<enums::CNDMPEnumSnapEndReason> SnapEndReason;
  CXDREnumBase<enums::CNDMPError> Error;

 protected:
  int RegisterMembers() override {
    RegisterMember("SnapEndReason", &SnapEndReason);
    RegisterMember("Error", &Error);
    return 0;
  }
};

}  // namespace com::vx::korvane::ndmpc
