// Every enumeration class against its expected table: each number has its
// exact text, no class has rows beyond these, and numbers without a row
// (including the gaps inside runs) give "UNKNOWN".
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "ndmpc/ndmp/enums/field_enums.h"
#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "tests/ndmp/enums/compact_rows.h"

namespace com::vx::korvane::ndmpc::enums {
namespace {

struct CEnumCase {
  const char* name;
  const CEnumTable& (*table)();
  VxString (*toString)(std::uint32_t);
  VxString (*dump)(std::uint32_t);  // through CXDREnumBase<E>
  const char* rows;  // compact text, see compact_rows.h
  std::vector<std::uint32_t> gaps;  // numbers known to have no text
};

template <class E>
VxString DumpThroughWrapper(std::uint32_t value) {
  return CXDREnumBase<E>(value).DumpContents(0);
}

#define ENUM_CASE(cls, rows, ...)                                                      \
  CEnumCase {                                                                          \
#cls, &cls::Table, &cls::ToString, &DumpThroughWrapper < cls>,                     \
        rows, std::vector < std::uint32_t> __VA_ARGS__                                   \
  }

// clang-format off
const CEnumCase kCases[] = {
    ENUM_CASE(CNDMPProtocolVersion, "@3 =PROTOCOL_VERSION_ 3 4 @32 50", {0, 1, 2, 5, 49, 51}),
    ENUM_CASE(CNDMPMessageType, "=NDMP_MESSAGE_ REQUEST REPLY", {2}),
    ENUM_CASE(CNDMPMessageCode,
              "=NDMP_ NO_MESSAGE @100 =NDMP_CONFIG_GET_ HOST_INFO @102 CONNECTION_TYPE AUTH_ATTR "
              "BUTYPE_INFO FS_INFO TAPE_INFO SCSI_INFO SERVER_INFO =NDMP_CONFIG_ SET_EXT_LIST GET_EXT_LIST "
              "@200 =NDMP_SCSI_ OPEN CLOSE GET_STATE SET_TARGET =NDMP_SCSI_RESET_ DEVICE BUS =NDMP_ "
              "SCSI_EXECUTE_CDB @300 =NDMP_TAPE_ OPEN CLOSE GET_STATE MTIO WRITE READ @307 EXECUTE_CDB @400 "
              "=NDMP_DATA_ GET_STATE =NDMP_DATA_START_ BACKUP RECOVER =NDMP_DATA_ ABORT GET_ENV @407 STOP "
              "@409 LISTEN CONNECT START_RECOVER_FILEHIST @501 =NDMP_NOTIFY_ DATA_HALTED CONNECTION_STATUS "
              "=NDMP_NOTIFY_MOVER_ HALTED PAUSED =NDMP_ NOTIFY_DATA_READ @602 =NDMP_LOG_ FILE MESSAGE @703 "
              "=NDMP_FH_ADD_ FILE DIR NODE @900 =NDMP_CONNECT_ OPEN CLIENT_AUTH CLOSE SERVER_AUTH @A00 "
              "=NDMP_MOVER_ GET_STATE LISTEN CONTINUE ABORT STOP SET_WINDOW READ CLOSE SET_RECORD_SIZE "
              "CONNECT @2001 =NDMP_ CONFIG_UMS_GETXCB @10000 =NDMP_EXT_ STANDARD_BASE @20000000 "
              "PROPRIETARY_BASE @20500100 =NDMP_SNAP_ CREATE DELETE RECOVER RENAME =NDMP_SNAP_GET_ "
              "SERVER_INFO =NDMP_SNAP_GET_SNAPSHOT_ NAMES STATE =NDMP_SNAP_ GET_CDR_OP_STATE @20500109 "
              "SET_RESERVE GET_RESERVE_INFO SET_SCHEDULE GET_SCHEDULE_INFO DIR_LIST @20500180 "
              "=NDMP_SNAP_NOTIFY_ CREATE_END DELETE_END RECOVER_END @20500300 =NDMP_SVS_ "
              "CREATE_RELATIONSHIP MODIFY_RELATIONSHIP TRANSFER_BACKUP ABORT_TRANSFER DELETE_RELATIONSHIP "
              "RESTART_RELATIONSHIP SET_SNAP_SCHED GET_SNAP_SCHED DELETE_SNAP_SCHED CREATE_SNAP "
              "=NDMP_SVS_GET_ STATUS SNAP_STATUS CLIENT_STATUS ACCESS_INFO =NDMP_SVS_ SET_ACCESS_INFO "
              "GET_INFO ABORT_SNAP RELEASE_RELATIONSHIP GET_DATA_ADDR @20500380 =NDMP_SVS_NOTIFY_ "
              "CREATE_RELATIONSHIP TRANSFER_BACKUP ABORT_TRANSFER DELETE_RELATIONSHIP RESTART_RELATIONSHIP "
              "CREATE_SNAP ABORT_SNAP RELEASE_RELATIONSHIP @20500400 =NDMP_SVP_ SET_SNAP_SCHED "
              "=NDMP_SVP_GET_SNAP_ SCHED STATUS =NDMP_SVP_ DELETE_SNAP_SCHED CREATE_SNAP GET_STATUS "
              "ABORT_TRANSFER RECOVER_BACKUP RELEASE_RELATIONSHIP GET_ACCESS_INFO SET_ACCESS_INFO "
              "=NDMP_SVP_GET_ INFO DATA_ADDR @20500480 =NDMP_SVP_NOTIFY_ CREATE_SNAP ABORT_TRANSFER "
              "RECOVER_BACKUP RELEASE_RELATIONSHIP @20520001 =NDMP_CAB_ DATA_CONN_PREPARE =NDMP_CAB_GET_ "
              "FS_INFO TAPE_INFO", {0x101, 0x306, 0x405, 0x406, 0x408, 0x500, 0x600, 0x601, 0x700, 0x701, 0x702,
               0x20500108, 0x2050010E, 0x20520000}),
    ENUM_CASE(CNDMPError,
              "=NDMP_ NO_ERR NOT_SUPPORTED_ERR =NDMP_DEVICE_ BUSY_ERR OPENED_ERR =NDMP_ "
              "NOT_AUTHORIZED_ERR PERMISSION_ERR DEV_NOT_OPEN_ERR IO_ERR TIMEOUT_ERR ILLEGAL_ARGS_ERR "
              "NO_TAPE_LOADED_ERR WRITE_PROTECT_ERR EOF_ERR EOM_ERR FILE_NOT_FOUND_ERR BAD_FILE_ERR "
              "NO_DEVICE_ERR NO_BUS_ERR XDR_DECODE_ERR ILLEGAL_STATE_ERR UNDEFINED_ERR XDR_ENCODE_ERR "
              "NO_MEM_ERR CONNECT_ERR SEQUENCE_NUM_ERR READ_IN_PROGRESS_ERR PRECONDITION_ERR "
              "CLASS_NOT_SUPPORTED_ERR VERSION_NOT_SUPPORTED_ERR =NDMP_EXT_ DUPL_CLASSES_ERR "
              "DANDN_ILLEGAL_ERR @10003 =NDMP_ UMS_SYSTEM_ERR @20500000 =NDMP_SV_RPL_ SUCCESS GENERIC "
              "PATHNAME NETWORK NEGOTIATION PRE_XFER XFER POST_XFER CLEANUP VOL_STATE REGISTRY CMDS "
              "SNAPSHOT CONFIG =NDMP_SV_RPL_LRD_ GENERIC SETUP ACL DIRENTS RENAME DIROPS FILE =NDMP_SV_RPL_ "
              "LRS LRD_EXTATTR SVE_CONFIG @20500100 =NDMP_SNAP_ EXISTS_ERR NOT_FOUND_ERR READ_ONLY_FS_ERR "
              "INVALID_PATH_ERR NO_SPACE_ERR BUSY_ERR INTERNAL_ERR NO_DISK_SPACE @20500300 =NDMP_SV_ MISC_T "
              "NOT_LICENSED OFF INTERNAL_ERROR ABORT_FAILED NOT_FOUND_ERR NO_REL NO_SNAPS NOT_DONE_YET", {31, 0x10002, 0x10004, 0x20500018, 0x20500108, 0x20500309}),
    ENUM_CASE(CNDMPEnumAuthType, "=NDMP_AUTH_ NONE TEXT MD5", {}),
    ENUM_CASE(CNDMPEnumAddrType, "=NDMP_ADDR_ LOCAL TCP RESERVED IPC", {}),
    ENUM_CASE(CNDMPEnumFSType, "=NDMP_FS_ UNIX NT OTHER", {}),
    ENUM_CASE(CNDMPEnumFileType,
              "=NDMP_FILE_ DIR FIFO CSPEC BSPEC REG SLINK SOCK REGISTRY OTHER", {}),
    ENUM_CASE(CNDMPEnumSvRelState,
              "=SV_STATE_ UNINITIALIZED SNAPVAULTED BROKEN_OFF QUIESCED SOURCE UNKNOWN", {6}),
    ENUM_CASE(CNDMPEnumSvRelStatus,
              "=SV_STATUS_ IDLE TRANSFERRING PENDING ABORTING MIGRATING QUIESCING RESYNCING WAITING", {}),
    ENUM_CASE(CNDMPEnumSvSnapStatus, "=SVS_STATUS_ IDLE QUEUED ACTIVE ABORTING", {}),
    ENUM_CASE(CNDMPEnumConnectionStatusReason, "=NDMP_ CONNECTED SHUTDOWN REFUSED", {}),
    ENUM_CASE(CNDMPEnumDataHaltReason,
              "=NDMP_DATA_HALT_ NA SUCCESSFUL ABORTED INTERNAL_ERROR CONNECT_ERROR", {}),
    ENUM_CASE(CNDMPEnumMoverHaltReason,
              "=NDMP_MOVER_HALT_ NA CONNECTION_CLOSED ABORTED INTERNAL_ERROR CONNECT_ERROR MEDIA_ERROR", {}),
    ENUM_CASE(CNDMPEnumMoverPauseReason, "=NDMP_MOVER_PAUSE_ NA EOM EOF SEEK MEDIA_ERROR EOW", {}),
    ENUM_CASE(CNDMPEnumSnapEndReason,
              "=NDMP_SNAP_END_REASON_ NA SUCCESS EXCEPTIONS FAILURE INTERNAL_ERROR", {}),
    ENUM_CASE(CNDMPEnumMoverMode, "=NDMP_MOVER_MODE_ READ WRITE NOACTION", {}),
    ENUM_CASE(CNDMPEnumMoverState, "=NDMP_MOVER_STATE_ IDLE LISTEN ACTIVE PAUSED HALTED", {}),
    ENUM_CASE(CNDMPEnumTapeOpenMode,
              "=NDMP_TAPE_ READ_MODE RDWR_MODE =NDMP_TAPE_RAW_ MODE @7FFFFFFF MODE_OLD", {3, 0x7FFFFFFE, 0x80000000}),
    ENUM_CASE(CNDMPEnumMtioOp, "=NDMP_MTIO_ FSF BSF FSR BSR REW EOF OFF TUR", {}),
    ENUM_CASE(CNDMPEnumHasAssociatedMessage,
              "=NDMP_ NO_ASSOCIATED_MESSAGE HAS_ASSOCIATED_MESSAGE", {}),
    ENUM_CASE(CNDMPEnumLogType, "=NDMP_LOG_ NORMAL DEBUG ERROR WARNING", {}),
    ENUM_CASE(CNDMPEnumRecoveryStatus,
              "=NDMP_RECOVERY_ SUCCESSFUL =NDMP_RECOVERY_FAILED_ PERMISSION NOT_FOUND NO_DIRECTORY "
              "OUT_OF_MEMORY IO_ERROR UNDEFINED_ERROR FILE_PATH_EXISTS", {}),
    ENUM_CASE(CNDMPEnumDataOperation,
              "=NDMP_DATA_OP_ NOACTION BACKUP RECOVER RECOVER_FILEHIST", {}),
    ENUM_CASE(CNDMPEnumDataState, "=NDMP_DATA_STATE_ IDLE ACTIVE HALTED LISTEN CONNECTED", {}),
    ENUM_CASE(CNDMPEnumSnapPathType,
              "@1 =NDMP_SNAP_PATH_TYPE_ UNCONSTRAINED PARTIALLY_CONSTRAINED FULLY_CONSTRAINED", {0, 4}),
    ENUM_CASE(CNDMPEnumSnapDays,
              "=NDMP_SNAP_SCHED_CREATE_ NA SUNDAY MONDAY TUESDAY WEDNESDAY THURSDAY FRIDAY SATURDAY", {}),
    ENUM_CASE(CNDMPEnumSvRecoverMethod, "=SV_RECOVER_METHOD_ ATOMIC ONDEMAND", {}),
    ENUM_CASE(CNDMPEnumSvGranularity,
              "=SV_GRANULARITY_ VOLUME SUBVOLUME SNAP_DRIVE DIRECTORY FILE OTHER @10 "
              "=SV_BACKUP_LOCATION_ TOP TOPDIR DIR FILE =SV_RECOVER_LOCATION_ TOP TOPDIR DIR FILE "
              "=SV_BACKUP_GRANULARITY_ FULL SUBTREE DIR FILE =SV_RECOVER_GRANULARITY_ FULL SUBTREE DIR FILE", {6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 32}),
};
// clang-format on

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
  const auto rows = testing::CompactRows(c.rows);
  for (const auto& [value, text] : rows) {
    expected[value] = text;
    EXPECT_EQ(c.toString(value), text) << c.name << " " << value;
    EXPECT_EQ(c.dump(value), dumped(value, text)) << c.name;
  }
  ASSERT_EQ(expected.size(), rows.size()) << "expected table of " << c.name << " repeats a number";

  const CEnumTable& table = c.table();
  std::map<std::uint32_t, std::string> actual;
  for (std::size_t i = 0; i < table.count; ++i) actual[table.rows[i].value] = table.rows[i].name;
  EXPECT_EQ(actual.size(), table.count) << c.name << " repeats a number";
  EXPECT_EQ(actual, expected) << c.name;

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
