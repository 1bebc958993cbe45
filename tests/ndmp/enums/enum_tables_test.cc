// Every enumeration class against its expected table: each number has its
// exact text, no class has rows beyond these, and numbers without a row
// (including the gaps inside runs) give "UNKNOWN".
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/xdr/xdr_enum.h"

namespace com::vx::korvane::ndmpc::enums {
namespace {

struct CExpectedRow {
  std::uint32_t value;
  const char* text;
};

// clang-format off
const CExpectedRow kProtocolVersion[] = {
    {3, "PROTOCOL_VERSION_3"}, {4, "PROTOCOL_VERSION_4"}, {50, "PROTOCOL_VERSION_50"},
};
const CExpectedRow kMessageType[] = {
    {0, "NDMP_MESSAGE_REQUEST"}, {1, "NDMP_MESSAGE_REPLY"},
};
const CExpectedRow kMessageCode[] = {
    {0, "NDMP_NO_MESSAGE"}, {0x100, "NDMP_CONFIG_GET_HOST_INFO"},
    {0x102, "NDMP_CONFIG_GET_CONNECTION_TYPE"}, {0x103, "NDMP_CONFIG_GET_AUTH_ATTR"},
    {0x104, "NDMP_CONFIG_GET_BUTYPE_INFO"}, {0x105, "NDMP_CONFIG_GET_FS_INFO"},
    {0x106, "NDMP_CONFIG_GET_TAPE_INFO"}, {0x107, "NDMP_CONFIG_GET_SCSI_INFO"},
    {0x108, "NDMP_CONFIG_GET_SERVER_INFO"}, {0x109, "NDMP_CONFIG_SET_EXT_LIST"},
    {0x10A, "NDMP_CONFIG_GET_EXT_LIST"}, {0x200, "NDMP_SCSI_OPEN"}, {0x201, "NDMP_SCSI_CLOSE"},
    {0x202, "NDMP_SCSI_GET_STATE"}, {0x203, "NDMP_SCSI_SET_TARGET"},
    {0x204, "NDMP_SCSI_RESET_DEVICE"}, {0x205, "NDMP_SCSI_RESET_BUS"},
    {0x206, "NDMP_SCSI_EXECUTE_CDB"}, {0x300, "NDMP_TAPE_OPEN"}, {0x301, "NDMP_TAPE_CLOSE"},
    {0x302, "NDMP_TAPE_GET_STATE"}, {0x303, "NDMP_TAPE_MTIO"}, {0x304, "NDMP_TAPE_WRITE"},
    {0x305, "NDMP_TAPE_READ"}, {0x307, "NDMP_TAPE_EXECUTE_CDB"}, {0x400, "NDMP_DATA_GET_STATE"},
    {0x401, "NDMP_DATA_START_BACKUP"}, {0x402, "NDMP_DATA_START_RECOVER"},
    {0x403, "NDMP_DATA_ABORT"}, {0x404, "NDMP_DATA_GET_ENV"}, {0x407, "NDMP_DATA_STOP"},
    {0x409, "NDMP_DATA_LISTEN"}, {0x40A, "NDMP_DATA_CONNECT"},
    {0x40B, "NDMP_DATA_START_RECOVER_FILEHIST"}, {0x501, "NDMP_NOTIFY_DATA_HALTED"},
    {0x502, "NDMP_NOTIFY_CONNECTION_STATUS"}, {0x503, "NDMP_NOTIFY_MOVER_HALTED"},
    {0x504, "NDMP_NOTIFY_MOVER_PAUSED"}, {0x505, "NDMP_NOTIFY_DATA_READ"},
    {0x602, "NDMP_LOG_FILE"}, {0x603, "NDMP_LOG_MESSAGE"}, {0x703, "NDMP_FH_ADD_FILE"},
    {0x704, "NDMP_FH_ADD_DIR"}, {0x705, "NDMP_FH_ADD_NODE"}, {0x900, "NDMP_CONNECT_OPEN"},
    {0x901, "NDMP_CONNECT_CLIENT_AUTH"}, {0x902, "NDMP_CONNECT_CLOSE"},
    {0x903, "NDMP_CONNECT_SERVER_AUTH"}, {0xA00, "NDMP_MOVER_GET_STATE"},
    {0xA01, "NDMP_MOVER_LISTEN"}, {0xA02, "NDMP_MOVER_CONTINUE"}, {0xA03, "NDMP_MOVER_ABORT"},
    {0xA04, "NDMP_MOVER_STOP"}, {0xA05, "NDMP_MOVER_SET_WINDOW"}, {0xA06, "NDMP_MOVER_READ"},
    {0xA07, "NDMP_MOVER_CLOSE"}, {0xA08, "NDMP_MOVER_SET_RECORD_SIZE"},
    {0xA09, "NDMP_MOVER_CONNECT"}, {0x2001, "NDMP_CONFIG_UMS_GETXCB"},
    {0x10000, "NDMP_EXT_STANDARD_BASE"}, {0x20000000, "NDMP_EXT_PROPRIETARY_BASE"},
    {0x20500100, "NDMP_SNAP_CREATE"}, {0x20500101, "NDMP_SNAP_DELETE"},
    {0x20500102, "NDMP_SNAP_RECOVER"}, {0x20500103, "NDMP_SNAP_RENAME"},
    {0x20500104, "NDMP_SNAP_GET_SERVER_INFO"}, {0x20500105, "NDMP_SNAP_GET_SNAPSHOT_NAMES"},
    {0x20500106, "NDMP_SNAP_GET_SNAPSHOT_STATE"}, {0x20500107, "NDMP_SNAP_GET_CDR_OP_STATE"},
    {0x20500109, "NDMP_SNAP_SET_RESERVE"}, {0x2050010A, "NDMP_SNAP_GET_RESERVE_INFO"},
    {0x2050010B, "NDMP_SNAP_SET_SCHEDULE"}, {0x2050010C, "NDMP_SNAP_GET_SCHEDULE_INFO"},
    {0x2050010D, "NDMP_SNAP_DIR_LIST"}, {0x20500180, "NDMP_SNAP_NOTIFY_CREATE_END"},
    {0x20500181, "NDMP_SNAP_NOTIFY_DELETE_END"}, {0x20500182, "NDMP_SNAP_NOTIFY_RECOVER_END"},
    {0x20500300, "NDMP_SVS_CREATE_RELATIONSHIP"}, {0x20500301, "NDMP_SVS_MODIFY_RELATIONSHIP"},
    {0x20500302, "NDMP_SVS_TRANSFER_BACKUP"}, {0x20500303, "NDMP_SVS_ABORT_TRANSFER"},
    {0x20500304, "NDMP_SVS_DELETE_RELATIONSHIP"}, {0x20500305, "NDMP_SVS_RESTART_RELATIONSHIP"},
    {0x20500306, "NDMP_SVS_SET_SNAP_SCHED"}, {0x20500307, "NDMP_SVS_GET_SNAP_SCHED"},
    {0x20500308, "NDMP_SVS_DELETE_SNAP_SCHED"}, {0x20500309, "NDMP_SVS_CREATE_SNAP"},
    {0x2050030A, "NDMP_SVS_GET_STATUS"}, {0x2050030B, "NDMP_SVS_GET_SNAP_STATUS"},
    {0x2050030C, "NDMP_SVS_GET_CLIENT_STATUS"}, {0x2050030D, "NDMP_SVS_GET_ACCESS_INFO"},
    {0x2050030E, "NDMP_SVS_SET_ACCESS_INFO"}, {0x2050030F, "NDMP_SVS_GET_INFO"},
    {0x20500310, "NDMP_SVS_ABORT_SNAP"}, {0x20500311, "NDMP_SVS_RELEASE_RELATIONSHIP"},
    {0x20500312, "NDMP_SVS_GET_DATA_ADDR"}, {0x20500380, "NDMP_SVS_NOTIFY_CREATE_RELATIONSHIP"},
    {0x20500381, "NDMP_SVS_NOTIFY_TRANSFER_BACKUP"},
    {0x20500382, "NDMP_SVS_NOTIFY_ABORT_TRANSFER"},
    {0x20500383, "NDMP_SVS_NOTIFY_DELETE_RELATIONSHIP"},
    {0x20500384, "NDMP_SVS_NOTIFY_RESTART_RELATIONSHIP"},
    {0x20500385, "NDMP_SVS_NOTIFY_CREATE_SNAP"}, {0x20500386, "NDMP_SVS_NOTIFY_ABORT_SNAP"},
    {0x20500387, "NDMP_SVS_NOTIFY_RELEASE_RELATIONSHIP"}, {0x20500400, "NDMP_SVP_SET_SNAP_SCHED"},
    {0x20500401, "NDMP_SVP_GET_SNAP_SCHED"}, {0x20500402, "NDMP_SVP_GET_SNAP_STATUS"},
    {0x20500403, "NDMP_SVP_DELETE_SNAP_SCHED"}, {0x20500404, "NDMP_SVP_CREATE_SNAP"},
    {0x20500405, "NDMP_SVP_GET_STATUS"}, {0x20500406, "NDMP_SVP_ABORT_TRANSFER"},
    {0x20500407, "NDMP_SVP_RECOVER_BACKUP"}, {0x20500408, "NDMP_SVP_RELEASE_RELATIONSHIP"},
    {0x20500409, "NDMP_SVP_GET_ACCESS_INFO"}, {0x2050040A, "NDMP_SVP_SET_ACCESS_INFO"},
    {0x2050040B, "NDMP_SVP_GET_INFO"}, {0x2050040C, "NDMP_SVP_GET_DATA_ADDR"},
    {0x20500480, "NDMP_SVP_NOTIFY_CREATE_SNAP"}, {0x20500481, "NDMP_SVP_NOTIFY_ABORT_TRANSFER"},
    {0x20500482, "NDMP_SVP_NOTIFY_RECOVER_BACKUP"},
    {0x20500483, "NDMP_SVP_NOTIFY_RELEASE_RELATIONSHIP"},
    {0x20520001, "NDMP_CAB_DATA_CONN_PREPARE"}, {0x20520002, "NDMP_CAB_GET_FS_INFO"},
    {0x20520003, "NDMP_CAB_GET_TAPE_INFO"},
};
const CExpectedRow kError[] = {
    {0, "NDMP_NO_ERR"}, {1, "NDMP_NOT_SUPPORTED_ERR"}, {2, "NDMP_DEVICE_BUSY_ERR"},
    {3, "NDMP_DEVICE_OPENED_ERR"}, {4, "NDMP_NOT_AUTHORIZED_ERR"}, {5, "NDMP_PERMISSION_ERR"},
    {6, "NDMP_DEV_NOT_OPEN_ERR"}, {7, "NDMP_IO_ERR"}, {8, "NDMP_TIMEOUT_ERR"},
    {9, "NDMP_ILLEGAL_ARGS_ERR"}, {10, "NDMP_NO_TAPE_LOADED_ERR"}, {11, "NDMP_WRITE_PROTECT_ERR"},
    {12, "NDMP_EOF_ERR"}, {13, "NDMP_EOM_ERR"}, {14, "NDMP_FILE_NOT_FOUND_ERR"},
    {15, "NDMP_BAD_FILE_ERR"}, {16, "NDMP_NO_DEVICE_ERR"}, {17, "NDMP_NO_BUS_ERR"},
    {18, "NDMP_XDR_DECODE_ERR"}, {19, "NDMP_ILLEGAL_STATE_ERR"}, {20, "NDMP_UNDEFINED_ERR"},
    {21, "NDMP_XDR_ENCODE_ERR"}, {22, "NDMP_NO_MEM_ERR"}, {23, "NDMP_CONNECT_ERR"},
    {24, "NDMP_SEQUENCE_NUM_ERR"}, {25, "NDMP_READ_IN_PROGRESS_ERR"},
    {26, "NDMP_PRECONDITION_ERR"}, {27, "NDMP_CLASS_NOT_SUPPORTED_ERR"},
    {28, "NDMP_VERSION_NOT_SUPPORTED_ERR"}, {29, "NDMP_EXT_DUPL_CLASSES_ERR"},
    {30, "NDMP_EXT_DANDN_ILLEGAL_ERR"}, {0x10003, "NDMP_UMS_SYSTEM_ERR"},
    {0x20500000, "NDMP_SV_RPL_SUCCESS"}, {0x20500001, "NDMP_SV_RPL_GENERIC"},
    {0x20500002, "NDMP_SV_RPL_PATHNAME"}, {0x20500003, "NDMP_SV_RPL_NETWORK"},
    {0x20500004, "NDMP_SV_RPL_NEGOTIATION"}, {0x20500005, "NDMP_SV_RPL_PRE_XFER"},
    {0x20500006, "NDMP_SV_RPL_XFER"}, {0x20500007, "NDMP_SV_RPL_POST_XFER"},
    {0x20500008, "NDMP_SV_RPL_CLEANUP"}, {0x20500009, "NDMP_SV_RPL_VOL_STATE"},
    {0x2050000A, "NDMP_SV_RPL_REGISTRY"}, {0x2050000B, "NDMP_SV_RPL_CMDS"},
    {0x2050000C, "NDMP_SV_RPL_SNAPSHOT"}, {0x2050000D, "NDMP_SV_RPL_CONFIG"},
    {0x2050000E, "NDMP_SV_RPL_LRD_GENERIC"}, {0x2050000F, "NDMP_SV_RPL_LRD_SETUP"},
    {0x20500010, "NDMP_SV_RPL_LRD_ACL"}, {0x20500011, "NDMP_SV_RPL_LRD_DIRENTS"},
    {0x20500012, "NDMP_SV_RPL_LRD_RENAME"}, {0x20500013, "NDMP_SV_RPL_LRD_DIROPS"},
    {0x20500014, "NDMP_SV_RPL_LRD_FILE"}, {0x20500015, "NDMP_SV_RPL_LRS"},
    {0x20500016, "NDMP_SV_RPL_LRD_EXTATTR"}, {0x20500017, "NDMP_SV_RPL_SVE_CONFIG"},
    {0x20500100, "NDMP_SNAP_EXISTS_ERR"}, {0x20500101, "NDMP_SNAP_NOT_FOUND_ERR"},
    {0x20500102, "NDMP_SNAP_READ_ONLY_FS_ERR"}, {0x20500103, "NDMP_SNAP_INVALID_PATH_ERR"},
    {0x20500104, "NDMP_SNAP_NO_SPACE_ERR"}, {0x20500105, "NDMP_SNAP_BUSY_ERR"},
    {0x20500106, "NDMP_SNAP_INTERNAL_ERR"}, {0x20500107, "NDMP_SNAP_NO_DISK_SPACE"},
    {0x20500300, "NDMP_SV_MISC_T"}, {0x20500301, "NDMP_SV_NOT_LICENSED"},
    {0x20500302, "NDMP_SV_OFF"}, {0x20500303, "NDMP_SV_INTERNAL_ERROR"},
    {0x20500304, "NDMP_SV_ABORT_FAILED"}, {0x20500305, "NDMP_SV_NOT_FOUND_ERR"},
    {0x20500306, "NDMP_SV_NO_REL"}, {0x20500307, "NDMP_SV_NO_SNAPS"},
    {0x20500308, "NDMP_SV_NOT_DONE_YET"},
};
const CExpectedRow kEnumAuthType[] = {
    {0, "NDMP_AUTH_NONE"}, {1, "NDMP_AUTH_TEXT"}, {2, "NDMP_AUTH_MD5"},
};
const CExpectedRow kEnumAddrType[] = {
    {0, "NDMP_ADDR_LOCAL"}, {1, "NDMP_ADDR_TCP"}, {2, "NDMP_ADDR_RESERVED"}, {3, "NDMP_ADDR_IPC"},
};
const CExpectedRow kEnumFSType[] = {
    {0, "NDMP_FS_UNIX"}, {1, "NDMP_FS_NT"}, {2, "NDMP_FS_OTHER"},
};
const CExpectedRow kEnumFileType[] = {
    {0, "NDMP_FILE_DIR"}, {1, "NDMP_FILE_FIFO"}, {2, "NDMP_FILE_CSPEC"}, {3, "NDMP_FILE_BSPEC"},
    {4, "NDMP_FILE_REG"}, {5, "NDMP_FILE_SLINK"}, {6, "NDMP_FILE_SOCK"},
    {7, "NDMP_FILE_REGISTRY"}, {8, "NDMP_FILE_OTHER"},
};
const CExpectedRow kEnumSvRelState[] = {
    {0, "SV_STATE_UNINITIALIZED"}, {1, "SV_STATE_SNAPVAULTED"}, {2, "SV_STATE_BROKEN_OFF"},
    {3, "SV_STATE_QUIESCED"}, {4, "SV_STATE_SOURCE"}, {5, "SV_STATE_UNKNOWN"},
};
const CExpectedRow kEnumSvRelStatus[] = {
    {0, "SV_STATUS_IDLE"}, {1, "SV_STATUS_TRANSFERRING"}, {2, "SV_STATUS_PENDING"},
    {3, "SV_STATUS_ABORTING"}, {4, "SV_STATUS_MIGRATING"}, {5, "SV_STATUS_QUIESCING"},
    {6, "SV_STATUS_RESYNCING"}, {7, "SV_STATUS_WAITING"},
};
const CExpectedRow kEnumSvSnapStatus[] = {
    {0, "SVS_STATUS_IDLE"}, {1, "SVS_STATUS_QUEUED"}, {2, "SVS_STATUS_ACTIVE"},
    {3, "SVS_STATUS_ABORTING"},
};
const CExpectedRow kEnumConnectionStatusReason[] = {
    {0, "NDMP_CONNECTED"}, {1, "NDMP_SHUTDOWN"}, {2, "NDMP_REFUSED"},
};
const CExpectedRow kEnumDataHaltReason[] = {
    {0, "NDMP_DATA_HALT_NA"}, {1, "NDMP_DATA_HALT_SUCCESSFUL"}, {2, "NDMP_DATA_HALT_ABORTED"},
    {3, "NDMP_DATA_HALT_INTERNAL_ERROR"}, {4, "NDMP_DATA_HALT_CONNECT_ERROR"},
};
const CExpectedRow kEnumMoverHaltReason[] = {
    {0, "NDMP_MOVER_HALT_NA"}, {1, "NDMP_MOVER_HALT_CONNECTION_CLOSED"},
    {2, "NDMP_MOVER_HALT_ABORTED"}, {3, "NDMP_MOVER_HALT_INTERNAL_ERROR"},
    {4, "NDMP_MOVER_HALT_CONNECT_ERROR"}, {5, "NDMP_MOVER_HALT_MEDIA_ERROR"},
};
const CExpectedRow kEnumMoverPauseReason[] = {
    {0, "NDMP_MOVER_PAUSE_NA"}, {1, "NDMP_MOVER_PAUSE_EOM"}, {2, "NDMP_MOVER_PAUSE_EOF"},
    {3, "NDMP_MOVER_PAUSE_SEEK"}, {4, "NDMP_MOVER_PAUSE_MEDIA_ERROR"},
    {5, "NDMP_MOVER_PAUSE_EOW"},
};
const CExpectedRow kEnumSnapEndReason[] = {
    {0, "NDMP_SNAP_END_REASON_NA"}, {1, "NDMP_SNAP_END_REASON_SUCCESS"},
    {2, "NDMP_SNAP_END_REASON_EXCEPTIONS"}, {3, "NDMP_SNAP_END_REASON_FAILURE"},
    {4, "NDMP_SNAP_END_REASON_INTERNAL_ERROR"},
};
const CExpectedRow kEnumMoverMode[] = {
    {0, "NDMP_MOVER_MODE_READ"}, {1, "NDMP_MOVER_MODE_WRITE"}, {2, "NDMP_MOVER_MODE_NOACTION"},
};
const CExpectedRow kEnumMoverState[] = {
    {0, "NDMP_MOVER_STATE_IDLE"}, {1, "NDMP_MOVER_STATE_LISTEN"}, {2, "NDMP_MOVER_STATE_ACTIVE"},
    {3, "NDMP_MOVER_STATE_PAUSED"}, {4, "NDMP_MOVER_STATE_HALTED"},
};
const CExpectedRow kEnumTapeOpenMode[] = {
    {0, "NDMP_TAPE_READ_MODE"}, {1, "NDMP_TAPE_RDWR_MODE"}, {2, "NDMP_TAPE_RAW_MODE"},
    {0x7FFFFFFF, "NDMP_TAPE_RAW_MODE_OLD"},
};
const CExpectedRow kEnumMtioOp[] = {
    {0, "NDMP_MTIO_FSF"}, {1, "NDMP_MTIO_BSF"}, {2, "NDMP_MTIO_FSR"}, {3, "NDMP_MTIO_BSR"},
    {4, "NDMP_MTIO_REW"}, {5, "NDMP_MTIO_EOF"}, {6, "NDMP_MTIO_OFF"}, {7, "NDMP_MTIO_TUR"},
};
const CExpectedRow kEnumHasAssociatedMessage[] = {
    {0, "NDMP_NO_ASSOCIATED_MESSAGE"}, {1, "NDMP_HAS_ASSOCIATED_MESSAGE"},
};
const CExpectedRow kEnumLogType[] = {
    {0, "NDMP_LOG_NORMAL"}, {1, "NDMP_LOG_DEBUG"}, {2, "NDMP_LOG_ERROR"}, {3, "NDMP_LOG_WARNING"},
};
const CExpectedRow kEnumRecoveryStatus[] = {
    {0, "NDMP_RECOVERY_SUCCESSFUL"}, {1, "NDMP_RECOVERY_FAILED_PERMISSION"},
    {2, "NDMP_RECOVERY_FAILED_NOT_FOUND"}, {3, "NDMP_RECOVERY_FAILED_NO_DIRECTORY"},
    {4, "NDMP_RECOVERY_FAILED_OUT_OF_MEMORY"}, {5, "NDMP_RECOVERY_FAILED_IO_ERROR"},
    {6, "NDMP_RECOVERY_FAILED_UNDEFINED_ERROR"}, {7, "NDMP_RECOVERY_FAILED_FILE_PATH_EXISTS"},
};
const CExpectedRow kEnumDataOperation[] = {
    {0, "NDMP_DATA_OP_NOACTION"}, {1, "NDMP_DATA_OP_BACKUP"}, {2, "NDMP_DATA_OP_RECOVER"},
    {3, "NDMP_DATA_OP_RECOVER_FILEHIST"},
};
const CExpectedRow kEnumDataState[] = {
    {0, "NDMP_DATA_STATE_IDLE"}, {1, "NDMP_DATA_STATE_ACTIVE"}, {2, "NDMP_DATA_STATE_HALTED"},
    {3, "NDMP_DATA_STATE_LISTEN"}, {4, "NDMP_DATA_STATE_CONNECTED"},
};
const CExpectedRow kEnumSnapPathType[] = {
    {1, "NDMP_SNAP_PATH_TYPE_UNCONSTRAINED"}, {2, "NDMP_SNAP_PATH_TYPE_PARTIALLY_CONSTRAINED"},
    {3, "NDMP_SNAP_PATH_TYPE_FULLY_CONSTRAINED"},
};
const CExpectedRow kEnumSnapDays[] = {
    {0, "NDMP_SNAP_SCHED_CREATE_NA"}, {1, "NDMP_SNAP_SCHED_CREATE_SUNDAY"},
    {2, "NDMP_SNAP_SCHED_CREATE_MONDAY"}, {3, "NDMP_SNAP_SCHED_CREATE_TUESDAY"},
    {4, "NDMP_SNAP_SCHED_CREATE_WEDNESDAY"}, {5, "NDMP_SNAP_SCHED_CREATE_THURSDAY"},
    {6, "NDMP_SNAP_SCHED_CREATE_FRIDAY"}, {7, "NDMP_SNAP_SCHED_CREATE_SATURDAY"},
};
const CExpectedRow kEnumSvRecoverMethod[] = {
    {0, "SV_RECOVER_METHOD_ATOMIC"}, {1, "SV_RECOVER_METHOD_ONDEMAND"},
};
const CExpectedRow kEnumSvGranularity[] = {
    {0, "SV_GRANULARITY_VOLUME"}, {1, "SV_GRANULARITY_SUBVOLUME"},
    {2, "SV_GRANULARITY_SNAP_DRIVE"}, {3, "SV_GRANULARITY_DIRECTORY"}, {4, "SV_GRANULARITY_FILE"},
    {5, "SV_GRANULARITY_OTHER"}, {16, "SV_BACKUP_LOCATION_TOP"},
    {17, "SV_BACKUP_LOCATION_TOPDIR"}, {18, "SV_BACKUP_LOCATION_DIR"},
    {19, "SV_BACKUP_LOCATION_FILE"}, {20, "SV_RECOVER_LOCATION_TOP"},
    {21, "SV_RECOVER_LOCATION_TOPDIR"}, {22, "SV_RECOVER_LOCATION_DIR"},
    {23, "SV_RECOVER_LOCATION_FILE"}, {24, "SV_BACKUP_GRANULARITY_FULL"},
    {25, "SV_BACKUP_GRANULARITY_SUBTREE"}, {26, "SV_BACKUP_GRANULARITY_DIR"},
    {27, "SV_BACKUP_GRANULARITY_FILE"}, {28, "SV_RECOVER_GRANULARITY_FULL"},
    {29, "SV_RECOVER_GRANULARITY_SUBTREE"}, {30, "SV_RECOVER_GRANULARITY_DIR"},
    {31, "SV_RECOVER_GRANULARITY_FILE"},
};
// clang-format on

struct CEnumCase {
  const char* name;
  const CEnumTable& (*table)();
  VxString (*toString)(std::uint32_t);
  VxString (*dump)(std::uint32_t);  // through CXDREnumBase<E>
  const CExpectedRow* rows;
  std::size_t count;
  std::vector<std::uint32_t> gaps;  // numbers known to have no text
};

template <class E>
VxString DumpThroughWrapper(std::uint32_t value) {
  return CXDREnumBase<E>(value).DumpContents(0);
}

#define ENUM_CASE(cls, rows, ...)                                                      \
  CEnumCase {                                                                          \
#cls, &cls::Table, &cls::ToString, &DumpThroughWrapper < cls>,                     \
        rows, std::size(rows), std::vector < std::uint32_t> __VA_ARGS__              \
  }

const CEnumCase kCases[] = {
    ENUM_CASE(CNDMPProtocolVersion, kProtocolVersion, {0, 1, 2, 5, 49, 51}),
    ENUM_CASE(CNDMPMessageType, kMessageType, {2}),
    ENUM_CASE(CNDMPMessageCode, kMessageCode,
              {0x101, 0x306, 0x405, 0x406, 0x408, 0x500, 0x600, 0x601, 0x700, 0x701, 0x702,
               0x20500108, 0x2050010E, 0x20520000}),
    ENUM_CASE(CNDMPError, kError, {31, 0x10002, 0x10004, 0x20500018, 0x20500108, 0x20500309}),
    ENUM_CASE(CNDMPEnumAuthType, kEnumAuthType, {}),
    ENUM_CASE(CNDMPEnumAddrType, kEnumAddrType, {}),
    ENUM_CASE(CNDMPEnumFSType, kEnumFSType, {}),
    ENUM_CASE(CNDMPEnumFileType, kEnumFileType, {}),
    ENUM_CASE(CNDMPEnumSvRelState, kEnumSvRelState, {6}),
    ENUM_CASE(CNDMPEnumSvRelStatus, kEnumSvRelStatus, {}),
    ENUM_CASE(CNDMPEnumSvSnapStatus, kEnumSvSnapStatus, {}),
    ENUM_CASE(CNDMPEnumConnectionStatusReason, kEnumConnectionStatusReason, {}),
    ENUM_CASE(CNDMPEnumDataHaltReason, kEnumDataHaltReason, {}),
    ENUM_CASE(CNDMPEnumMoverHaltReason, kEnumMoverHaltReason, {}),
    ENUM_CASE(CNDMPEnumMoverPauseReason, kEnumMoverPauseReason, {}),
    ENUM_CASE(CNDMPEnumSnapEndReason, kEnumSnapEndReason, {}),
    ENUM_CASE(CNDMPEnumMoverMode, kEnumMoverMode, {}),
    ENUM_CASE(CNDMPEnumMoverState, kEnumMoverState, {}),
    ENUM_CASE(CNDMPEnumTapeOpenMode, kEnumTapeOpenMode, {3, 0x7FFFFFFE, 0x80000000}),
    ENUM_CASE(CNDMPEnumMtioOp, kEnumMtioOp, {}),
    ENUM_CASE(CNDMPEnumHasAssociatedMessage, kEnumHasAssociatedMessage, {}),
    ENUM_CASE(CNDMPEnumLogType, kEnumLogType, {}),
    ENUM_CASE(CNDMPEnumRecoveryStatus, kEnumRecoveryStatus, {}),
    ENUM_CASE(CNDMPEnumDataOperation, kEnumDataOperation, {}),
    ENUM_CASE(CNDMPEnumDataState, kEnumDataState, {}),
    ENUM_CASE(CNDMPEnumSnapPathType, kEnumSnapPathType, {0, 4}),
    ENUM_CASE(CNDMPEnumSnapDays, kEnumSnapDays, {}),
    ENUM_CASE(CNDMPEnumSvRecoverMethod, kEnumSvRecoverMethod, {}),
    ENUM_CASE(CNDMPEnumSvGranularity, kEnumSvGranularity, {6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 32}),
};

class EnumTables : public ::testing::TestWithParam<CEnumCase> {};

// Each expected number has its exact text (also as dumped through the XDR
// wrapper), the class has no other rows, and every other number probed (the
// listed gaps, the neighbours of each named number, 0xFFFFFFFF) is "UNKNOWN".
TEST_P(EnumTables, MatchesItsExpectedTableExactly) {
  const CEnumCase& c = GetParam();
  auto dumped = [](std::uint32_t v, const std::string& text) {
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%X:", v);
    return hex + text;
  };
  std::map<std::uint32_t, std::string> expected;
  for (std::size_t i = 0; i < c.count; ++i) {
    const CExpectedRow& row = c.rows[i];
    expected[row.value] = row.text;
    EXPECT_EQ(c.toString(row.value), row.text) << c.name << " " << row.value;
    EXPECT_EQ(c.dump(row.value), dumped(row.value, row.text)) << c.name;
  }
  ASSERT_EQ(expected.size(), c.count) << "expected table of " << c.name << " repeats a number";

  const CEnumTable& table = c.table();
  ASSERT_EQ(table.count, c.count) << c.name;
  std::set<std::uint32_t> seen;
  for (std::size_t i = 0; i < table.count; ++i) {
    const CEnumName& row = table.rows[i];
    EXPECT_TRUE(seen.insert(row.value).second) << c.name << " repeats " << row.value;
    EXPECT_EQ(expected.count(row.value) ? expected[row.value] : "<none>", row.name)
        << c.name << " " << row.value;
  }

  std::vector<std::uint32_t> probes = c.gaps;
  for (const auto& [v, text] : expected) {
    probes.insert(probes.end(), {v + 1, v - 1});
  }
  probes.push_back(0xFFFFFFFFu);
  for (std::uint32_t v : probes) {
    if (expected.count(v) != 0) {
      EXPECT_FALSE(std::find(c.gaps.begin(), c.gaps.end(), v) != c.gaps.end())
          << c.name << " gap " << v << " has a row";
      continue;
    }
    EXPECT_EQ(c.toString(v), "UNKNOWN") << c.name << " " << v;
    EXPECT_EQ(c.dump(v), dumped(v, "UNKNOWN")) << c.name;
  }
}

INSTANTIATE_TEST_SUITE_P(AllClasses, EnumTables, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<CEnumCase>& param) {
                           return std::string(param.param.name);
                         });

TEST(EnumCatalogue, CoversEveryClassAndEnumeratorsCarryTheWireNumbers) {
  EXPECT_EQ(std::size(kCases), 29u);
  EXPECT_EQ(CNDMPMessageCode::NDMP_SNAP_DIR_LIST, 0x2050010Du);
  EXPECT_EQ(CNDMPEnumTapeOpenMode::NDMP_TAPE_RAW_MODE_OLD, 0x7FFFFFFFu);
  CXDREnumBase<CNDMPError> error = CNDMPError::NDMP_CONNECT_ERR;
  EXPECT_EQ(error.ToString(), "NDMP_CONNECT_ERR");
  EXPECT_EQ(error.getInt32(), 23u);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::enums
