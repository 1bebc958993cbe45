// The packet factory against its table, and the packet's own behaviour:
// serialise/deserialise results, dumps, copies.
#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPMessageCode;
using enums::CNDMPMessageType;

struct CExpectedRow {
  unsigned int code;
  const char* request;  // the class for type 0
  const char* reply;    // the class for any other type
};

// The whole table: code, class made for a request, class made for a reply.
const CExpectedRow kExpectedTable[] = {
    {0x100, "CNDMPConfigGetHostInfoRequest", "CNDMPConfigGetHostInfoReply"},
    {0x102, "CNDMPConfigGetConnectionTypeRequest", "CNDMPConfigGetConnectionTypeReply"},
    {0x103, "CNDMPConfigGetAuthAttrRequest", "CNDMPConfigGetAuthAttrReply"},
    {0x104, "CNDMPConfigGetButypeAttrRequest", "CNDMPConfigGetButypeAttrReply"},
    {0x105, "CNDMPConfigGetFsInfoRequest", "CNDMPConfigGetFsInfoReply"},
    {0x106, "CNDMPConfigGetTapeInfoRequest", "CNDMPConfigGetTapeInfoReply"},
    {0x107, "CNDMPConfigGetSCSIInfoRequest", "CNDMPConfigGetSCSIInfoReply"},
    {0x108, "CNDMPConfigGetServerInfoRequest", "CNDMPConfigGetServerInfoReply"},
    {0x109, "CNDMPConfigSetExtListRequest", "CNDMPConfigSetExtListReply"},
    {0x10A, "CNDMPConfigGetExtListRequest", "CNDMPConfigGetExtListReply"},
    {0x200, "CNDMPScsiOpenRequest", "CNDMPScsiOpenReply"},
    {0x201, "CNDMPScsiCloseRequest", "CNDMPScsiCloseReply"},
    {0x202, "CNDMPScsiGetStateRequest", "CNDMPScsiGetStateReply"},
    {0x203, "CNDMPScsiSetTargetRequest", "CNDMPScsiSetTargetReply"},
    {0x204, "CNDMPScsiResetDeviceRequest", "CNDMPScsiResetDeviceReply"},
    {0x205, "CNDMPScsiResetBusRequest", "CNDMPScsiResetBusReply"},
    {0x206, "CNDMPScsiExecuteCdbRequest", "CNDMPScsiExecuteCdbReply"},
    {0x300, "CNDMPTapeOpenRequest", "CNDMPTapeOpenReply"},
    {0x301, "CNDMPTapeCloseRequest", "CNDMPTapeCloseReply"},
    {0x302, "CNDMPTapeGetStateRequest", "CNDMPTapeGetStateReply"},
    {0x303, "CNDMPTapeMtioRequest", "CNDMPTapeMtioReply"},
    {0x304, "CNDMPTapeWriteRequest", "CNDMPTapeWriteReply"},
    {0x305, "CNDMPTapeReadRequest", "CNDMPTapeReadReply"},
    {0x307, "CNDMPTapeExecuteCdbRequest", "CNDMPTapeExecuteCdbReply"},
    {0x400, "CNDMPDataGetStateRequest", "CNDMPDataGetStateReply"},
    {0x401, "CNDMPDataStartBackupRequest", "CNDMPDataStartBackupReply"},
    {0x402, "CNDMPDataStartRecoverRequest", "CNDMPDataStartRecoverReply"},
    {0x403, "CNDMPDataAbortRequest", "CNDMPDataAbortReply"},
    {0x404, "CNDMPDataGetEnvRequest", "CNDMPDataGetEnvReply"},
    {0x407, "CNDMPDataStopRequest", "CNDMPDataStopReply"},
    {0x409, "CNDMPDataListenRequest", "CNDMPDataListenReply"},
    {0x40A, "CNDMPDataConnectRequest", "CNDMPDataConnectReply"},
    {0x40B, "CNDMPDataStartRecoverFilehistRequest", "CNDMPDataStartRecoverFilehistReply"},
    {0x501, "CNDMPNotifyDataHaltedPost", "CNDMPNotifyDataHaltedPost"},
    {0x502, "CNDMPNotifyConnectionStatusPost", "CNDMPNotifyConnectionStatusPost"},
    {0x503, "CNDMPNotifyMoverHaltedPost", "CNDMPNotifyMoverHaltedPost"},
    {0x504, "CNDMPNotifyMoverPausedPost", "CNDMPNotifyMoverPausedPost"},
    {0x505, "CNDMPNotifyDataReadPost", "CNDMPNotifyDataReadPost"},
    {0x602, "CNDMPLogFilePost", "CNDMPLogFilePost"},
    {0x603, "CNDMPLogMessagePost", "CNDMPLogMessagePost"},
    {0x703, "CNDMPFhAddFilePost", "CNDMPFhAddFilePost"},
    {0x704, "CNDMPFhAddDirPost", "CNDMPFhAddDirPost"},
    {0x705, "CNDMPFhAddNodePost", "CNDMPFhAddNodePost"},
    {0x900, "CNDMPConnectOpenRequest", "CNDMPConnectOpenReply"},
    {0x901, "CNDMPConnectClientAuthRequest", "CNDMPConnectClientAuthReply"},
    {0x902, "CNDMPConnectCloseRequest", "CNDMPConnectCloseRequest"},
    {0x903, "CNDMPConnectServerAuthRequest", "CNDMPConnectServerAuthReply"},
    {0xA00, "CNDMPMoverGetStateRequest", "CNDMPMoverGetStateReply"},
    {0xA01, "CNDMPMoverListenRequest", "CNDMPMoverListenReply"},
    {0xA02, "CNDMPMoverContinueRequest", "CNDMPMoverContinueReply"},
    {0xA03, "CNDMPMoverAbortRequest", "CNDMPMoverAbortReply"},
    {0xA04, "CNDMPMoverStopRequest", "CNDMPMoverStopReply"},
    {0xA05, "CNDMPMoverSetWindowRequest", "CNDMPMoverSetWindowReply"},
    {0xA06, "CNDMPMoverReadRequest", "CNDMPMoverReadReply"},
    {0xA07, "CNDMPMoverCloseRequest", "CNDMPMoverCloseReply"},
    {0xA08, "CNDMPMoverSetRecordSizeRequest", "CNDMPMoverSetRecordSizeReply"},
    {0xA09, "CNDMPMoverConnectRequest", "CNDMPMoverConnectReply"},
    {0x2001, "CNDMPConfigUMSGetXCBRequest", "CNDMPConfigUMSGetXCBRequestReply"},
    {0x20500100, "CNDMPSnapCreateRequest", "CNDMPSnapCreateReply"},
    {0x20500101, "CNDMPSnapDeleteRequest", "CNDMPSnapDeleteReply"},
    {0x20500102, "CNDMPSnapRecoverRequest", "CNDMPSnapRecoverReply"},
    {0x20500103, "CNDMPSnapRenameRequest", "CNDMPSnapRenameReply"},
    {0x20500104, "CNDMPSnapGetServerInfoRequest", "CNDMPSnapGetServerInfoReply"},
    {0x20500105, "CNDMPSnapGetSnapshotNamesRequest", "CNDMPSnapGetSnapshotNamesReply"},
    {0x20500106, "CNDMPSnapGetSnapshotStateRequest", "CNDMPSnapGetSnapshotStateReply"},
    {0x20500107, "CNDMPSnapGetCdrOpStateRequest", "CNDMPSnapGetCdrOpStateReply"},
    {0x20500108, "CNDMPSnapGetSnapshotPathRequest", "CNDMPSnapGetSnapshotPathReply"},
    {0x20500109, "CNDMPSnapSetReserveRequest", "CNDMPSnapSetReserveReply"},
    {0x2050010A, "CNDMPSnapGetReserveInfoRequest", "CNDMPSnapGetReserveInfoReply"},
    {0x2050010B, "CNDMPSnapSetScheduleRequest", "CNDMPSnapSetScheduleReply"},
    {0x2050010C, "CNDMPSnapGetScheduleInfoRequest", "CNDMPSnapGetScheduleInfoReply"},
    {0x2050010D, "CNDMPSnapDirListRequest", "CNDMPSnapDirListReply"},
    {0x20500180, "CNDMPSnapNotifyCreateEndPost", "CNDMPSnapNotifyCreateEndPost"},
    {0x20500181, "CNDMPSnapNotifyDeleteEndPost", "CNDMPSnapNotifyDeleteEndPost"},
    {0x20500182, "CNDMPSnapNotifyRecoverEndPost", "CNDMPSnapNotifyRecoverEndPost"},
    {0x20500300, "CNDMPSvsCreateRelationshipRequest", "CNDMPSvsCreateRelationshipReply"},
    {0x20500301, "CNDMPSvsModifyRelationshipRequest", "CNDMPSvsModifyRelationshipReply"},
    {0x20500302, "CNDMPSvsTransferBackupRequest", "CNDMPSvsTransferBackupReply"},
    {0x20500303, "CNDMPSvsAbortTransferRequest", "CNDMPSvsAbortTransferReply"},
    {0x20500304, "CNDMPSvsDeleteRelationshipRequest", "CNDMPSvsDeleteRelationshipReply"},
    {0x20500305, "CNDMPSvsRestartRelationshipRequest", "CNDMPSvsRestartRelationshipReply"},
    {0x20500306, "CNDMPSvsSetSnapSchedRequest", "CNDMPSvsSetSnapSchedReply"},
    {0x20500307, "CNDMPSvsGetSnapSchedRequest", "CNDMPSvsGetSnapSchedReply"},
    {0x20500308, "CNDMPSvsDeleteSnapSchedRequest", "CNDMPSvsDeleteSnapSchedReply"},
    {0x20500309, "CNDMPSvsCreateSnapRequest", "CNDMPSvsCreateSnapReply"},
    {0x2050030A, "CNDMPSvsGetStatusRequest", "CNDMPSvsGetStatusReply"},
    {0x2050030B, "CNDMPSvsGetSnapStatusRequest", "CNDMPSvsGetSnapStatusReply"},
    {0x2050030C, "CNDMPSvsGetClientStatusRequest", "CNDMPSvsGetClientStatusReply"},
    {0x2050030D, "CNDMPSvsGetAccessInfoRequest", "CNDMPSvsGetAccessInfoReply"},
    {0x2050030E, "CNDMPSvsSetAccessInfoRequest", "CNDMPSvsSetAccessInfoReply"},
    {0x2050030F, "CNDMPSvsGetInfoRequest", "CNDMPSvsGetInfoReply"},
    {0x20500310, "CNDMPSvsAbortSnapRequest", "CNDMPSvsAbortSnapReply"},
    {0x20500311, "CNDMPSvsReleaseRelationshipRequest", "CNDMPSvsReleaseRelationshipReply"},
    {0x20500312, "CNDMPSvsGetDataAddressRequest", "CNDMPSvsGetDataAddressReply"},
    {0x20500380, "CNDMPSvsNotifyCreateRelationshipPost", "CNDMPSvsNotifyCreateRelationshipPost"},
    {0x20500381, "CNDMPSvsNotifyTransferBackupPost", "CNDMPSvsNotifyTransferBackupPost"},
    {0x20500382, "CNDMPSvsNotifyAbortTransferPost", "CNDMPSvsNotifyAbortTransferPost"},
    {0x20500383, "CNDMPSvsNotifyDeleteRelationshipPost", "CNDMPSvsNotifyDeleteRelationshipPost"},
    {0x20500384, "CNDMPSvsNotifyRestartRelationshipPost", "CNDMPSvsNotifyRestartRelationshipPost"},
    {0x20500385, "CNDMPSvsNotifyCreateSnapPost", "CNDMPSvsNotifyCreateSnapPost"},
    {0x20500386, "CNDMPSvsNotifyAbortSnapPost", "CNDMPSvsNotifyAbortSnapPost"},
    {0x20500387, "CNDMPSvsNotifyReleaseRelationshipPost", "CNDMPSvsNotifyReleaseRelationshipPost"},
    {0x20500400, "CNDMPSvpSetSnapSchedRequest", "CNDMPSvpSetSnapSchedReply"},
    {0x20500401, "CNDMPSvpGetSnapSchedRequest", "CNDMPSvpGetSnapSchedReply"},
    {0x20500402, "CNDMPSvpGetSnapStatusRequest", "CNDMPSvpGetSnapStatusReply"},
    {0x20500403, "CNDMPSvpDeleteSnapSchedRequest", "CNDMPSvpDeleteSnapSchedReply"},
    {0x20500404, "CNDMPSvpCreateSnapRequest", "CNDMPSvpCreateSnapReply"},
    {0x20500405, "CNDMPSvpGetStatusRequest", "CNDMPSvpGetStatusReply"},
    {0x20500406, "CNDMPSvpAbortTransferRequest", "CNDMPSvpAbortTransferReply"},
    {0x20500407, "CNDMPSvsRecoverBackupRequest", "CNDMPSvsRecoverBackupReply"},
    {0x20500408, "CNDMPSvpReleaseRelationshipRequest", "CNDMPSvpReleaseRelationshipReply"},
    {0x20500409, "CNDMPSvpGetAccessInfoRequest", "CNDMPSvpGetAccessInfoReply"},
    {0x2050040A, "CNDMPSvpSetAccessInfoRequest", "CNDMPSvpSetAccessInfoReply"},
    {0x2050040B, "CNDMPSvpGetInfoRequest", "CNDMPSvpGetInfoReply"},
    {0x2050040C, "CNDMPSvpGetDataAddressRequest", "CNDMPSvpGetDataAddressReply"},
    {0x20500480, "CNDMPSvpNotifyCreateSnapPost", "CNDMPSvpNotifyCreateSnapPost"},
    {0x20500481, "CNDMPSvpNotifyAbortTransferPost", "CNDMPSvpNotifyAbortTransferPost"},
    {0x20500482, "CNDMPSvpNotifyRecoverBackupPost", "CNDMPSvpNotifyRecoverBackupPost"},
    {0x20500483, "CNDMPSvpNotifyReleaseRelationshipPost", "CNDMPSvpNotifyReleaseRelationshipPost"},
    {0x20520001, "CNDMPCabDataConnectPrepareRequest", "CNDMPCabDataConnectPrepareReply"},
    {0x20520002, "CNDMPCabGetFsInfoRequest", "CNDMPCabGetFsInfoReply"},
    {0x20520003, "CNDMPCabGetTapeInfoRequest", "CNDMPCabGetTapeInfoReply"},
};

std::string ClassName(const CNDMPMessage& message) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(typeid(message).name(), nullptr, nullptr, &status);
  std::string name = status == 0 ? demangled : typeid(message).name();
  std::free(demangled);
  size_t colon = name.rfind("::");
  return colon == std::string::npos ? name : name.substr(colon + 2);
}

// File-history arrays hold millions of entries: growing them must move the
// entries, not copy them.
static_assert(std::is_nothrow_move_constructible<CNDMPFile>::value, "CNDMPFile moves");
static_assert(std::is_nothrow_move_constructible<CNDMPFileStat>::value, "CNDMPFileStat moves");
static_assert(std::is_nothrow_move_constructible<CNDMPNode>::value, "CNDMPNode moves");
static_assert(std::is_nothrow_move_constructible<CNDMPDir>::value, "CNDMPDir moves");

TEST(MessageFactory, MakesTheTableClassForEveryCodeAndType) {
  for (const CExpectedRow& row : kExpectedTable) {
    for (unsigned int type : {0u, 1u, 2u}) {
      SCOPED_TRACE(::testing::Message() << std::hex << "code 0x" << row.code << " type " << type);
      std::unique_ptr<CNDMPMessage> made(CNDMPMessageAccess::Make(row.code, type));
      ASSERT_NE(made, nullptr);
      EXPECT_EQ(ClassName(*made), type == 0 ? row.request : row.reply);
      EXPECT_EQ(CNDMPMessageAccess::Code(*made).getInt32(), row.code);
      // Posts and NDMP_CONNECT_CLOSE are one class whatever the type; they travel as requests.
      bool single = std::string(row.request) == row.reply;
      unsigned int expectedType = (type == 0 || single) ? 0u : 1u;
      EXPECT_EQ(CNDMPMessageAccess::Type(*made).getInt32(), expectedType);
    }
  }
}

TEST(MessageFactory, TableHasNoRowsBeyondTheExpectedOnes) {
  std::set<unsigned int> expected;
  for (const CExpectedRow& row : kExpectedTable) expected.insert(row.code);
  EXPECT_EQ(NDMPFactoryTable().size(), expected.size());
  for (const CNDMPFactoryEntry& entry : NDMPFactoryTable()) {
    EXPECT_TRUE(expected.count(entry.code)) << std::hex << "unexpected code 0x" << entry.code;
  }
}

TEST(MessageFactory, GivesNullForCodesOutsideTheTable) {
  for (unsigned int code : {0x0u, 0x101u, 0x10Bu, 0x207u, 0x306u, 0x405u, 0x406u, 0x408u, 0x40Cu,
                            0x500u, 0x506u, 0x600u, 0x601u, 0x700u, 0x702u, 0x706u, 0x904u,
                            0xA0Au, 0x2000u, 0x10000u, 0x20000000u, 0x2050010Eu, 0x20500183u,
                            0x20500313u, 0x20500388u, 0x2050040Du, 0x20500484u, 0x20520000u,
                            0x20520004u, 0xFFFFFFFFu}) {
    std::unique_ptr<CNDMPMessage> made(CNDMPMessageAccess::Make(code, 0));
    EXPECT_EQ(made, nullptr) << std::hex << "code 0x" << code;
  }
}

TEST(MessageFactory, EveryNamedCodeIsMadeOrDeliberatelyNot) {
  // Names without message classes: the empty code and the extension bases.
  const std::set<unsigned int> deliberatelyNot = {CNDMPMessageCode::NDMP_NO_MESSAGE,
                                                  CNDMPMessageCode::NDMP_EXT_STANDARD_BASE,
                                                  CNDMPMessageCode::NDMP_EXT_PROPRIETARY_BASE};
  const enums::CEnumTable& names = CNDMPMessageCode::Table();
  for (size_t i = 0; i < names.count; ++i) {
    unsigned int code = names.rows[i].value;
    bool made = FindNDMPFactoryEntry(code) != nullptr;
    EXPECT_NE(made, deliberatelyNot.count(code) == 1) << names.rows[i].name;
  }
  // And one code is made although it has no name.
  EXPECT_NE(FindNDMPFactoryEntry(0x20500108), nullptr);
  EXPECT_EQ(CNDMPMessageCode::ToString(0x20500108), "UNKNOWN");
}

// A packet written with Serialize + flushRecord, as the sender does.
std::vector<unsigned char> PacketBytes(CNDMPMessagePacket& packet) {
  return testing::StripRecordMarks(testing::CaptureRecordBytes([&](CXDRStream& stream) {
    packet.Serialize(stream);
    stream.flushRecord();
  }));
}

TEST(MessagePacket, SerialisesHeaderThenBody) {
  CNDMPMessagePacket packet(CXDREnumBase<CNDMPMessageCode>(CNDMPMessageCode::NDMP_TAPE_MTIO),
                            CXDREnumBase<CNDMPMessageType>(CNDMPMessageType::NDMP_MESSAGE_REQUEST),
                            CXDREnumBase<enums::CNDMPProtocolVersion>(4u));
  packet.GetHeader().Sequence = 7u;
  CNDMPTapeMtioRequest mtio;
  mtio.TapeOp = enums::CNDMPEnumMtioOp::NDMP_MTIO_REW;
  mtio.Count = 1u;
  packet.SetMessage(mtio);
  EXPECT_EQ(testing::Hex(PacketBytes(packet)),
            "00 00 00 07 00 00 00 00 00 00 00 00 00 00 03 03 00 00 00 00 00 00 00 00 "
            "00 00 00 04 00 00 00 01");
}

TEST(MessagePacket, WithoutBodyWritesNothing) {
  CNDMPMessagePacket packet;
  std::vector<unsigned char> raw;
  int result = 0;
  raw = testing::CaptureRecordBytes([&](CXDRStream& stream) { result = packet.Serialize(stream); });
  EXPECT_EQ(static_cast<unsigned int>(result), 0xFFFFFFFFu);
  EXPECT_TRUE(raw.empty());
}

std::vector<unsigned char> Header(unsigned int code, unsigned int type, unsigned int error) {
  std::vector<unsigned char> out;
  for (unsigned int v : {9u, 0u, type, code, 3u, error}) {
    for (int shift : {24, 16, 8, 0}) out.push_back(static_cast<unsigned char>(v >> shift));
  }
  return out;
}

// The factory's choice itself is covered above; here the packet must use it.
TEST(MessagePacket, DeserialisesBodyChosenByCodeAndType) {
  std::vector<unsigned char> bytes = Header(0x900, 2, 0);
  bytes.resize(bytes.size() + 4, 0);
  CNDMPMessagePacket packet;
  EXPECT_EQ(testing::DecodeValue(bytes, packet), 0);
  ASSERT_NE(packet.GetMessage(), nullptr);
  EXPECT_EQ(ClassName(*packet.GetMessage()), "CNDMPConnectOpenReply");
}

TEST(MessagePacket, HeaderErrorIsTheResultAndNoBodyIsRead) {
  CNDMPMessagePacket packet;
  EXPECT_EQ(testing::DecodeValue(Header(0x900, 1, 2), packet), 2);
  EXPECT_EQ(packet.GetMessage(), nullptr);
}

TEST(MessagePacket, UnknownCodeFailsWithoutBody) {
  CNDMPMessagePacket packet;
  EXPECT_EQ(testing::DecodeValue(Header(0x101, 0, 0), packet), XDR_FAILURE);
  EXPECT_EQ(packet.GetMessage(), nullptr);
  EXPECT_EQ(packet.GetHeader().MessageCode.getInt32(), 0x101u);
}

TEST(MessagePacket, TruncatedHeaderFailsAndClearsTheCode) {
  std::vector<unsigned char> bytes = Header(0x100, 0, 0);
  bytes.resize(10);
  CNDMPMessagePacket packet;
  packet.GetHeader().MessageCode = CNDMPMessageCode::NDMP_TAPE_OPEN;
  EXPECT_EQ(testing::DecodeValue(bytes, packet), XDR_FAILURE);
  EXPECT_EQ(packet.GetHeader().MessageCode.getInt32(), 0u);
}

TEST(MessagePacket, DumpOfAFreshPacketHasNoMessagePart) {
  CNDMPMessagePacket packet;
  const std::string header =
      "\n        Sequence = 0\n        TimeStamp = 0\n        MessageType = "
      "0x0:NDMP_MESSAGE_REQUEST\n        MessageCode = 0x0:NDMP_NO_MESSAGE\n        "
      "ReplySequence = 0\n        ErrorCode = 0x0:NDMP_NO_ERR";
  const std::string expected = "MessagePacket\n{\n    Header\n    {" + header + "\n    }\n}";
  EXPECT_EQ(packet.DumpContents(), expected);
  EXPECT_EQ(packet.DumpContents(), expected);  // the buffer is cleared first
}

TEST(MessagePacket, DumpShowsTheBody) {
  CNDMPMessagePacket packet(CXDREnumBase<CNDMPMessageCode>(CNDMPMessageCode::NDMP_TAPE_MTIO),
                            CXDREnumBase<CNDMPMessageType>(CNDMPMessageType::NDMP_MESSAGE_REQUEST),
                            CXDREnumBase<enums::CNDMPProtocolVersion>(4u));
  CNDMPTapeMtioRequest mtio;
  mtio.Count = 3u;
  packet.SetMessage(mtio);
  std::string dump = packet.DumpContents();
  EXPECT_NE(dump.find("\n    }\n    Message\n    {\n        TapeOp = 0x0:NDMP_MTIO_FSF\n"
                      "        Count = 3\n    }\n}"),
            std::string::npos)
      << dump;
}

TEST(MessagePacket, CopyResetsTheVersionAndClonesTheBody) {
  CNDMPMessagePacket packet(CXDREnumBase<CNDMPMessageCode>(CNDMPMessageCode::NDMP_TAPE_MTIO),
                            CXDREnumBase<CNDMPMessageType>(CNDMPMessageType::NDMP_MESSAGE_REQUEST),
                            CXDREnumBase<enums::CNDMPProtocolVersion>(3u));
  packet.GetHeader().Sequence = 5u;
  CNDMPTapeMtioRequest mtio;
  mtio.Count = 3u;
  packet.SetMessage(mtio);
  CNDMPMessagePacket copy(packet);
  EXPECT_EQ(copy.GetProtocolVersion().getInt32(), 4u);
  EXPECT_EQ(copy.GetHeader().Sequence.getInt32(), 5u);
  ASSERT_NE(copy.GetMessage(), nullptr);
  EXPECT_NE(copy.GetMessage(), packet.GetMessage());
  static_cast<CNDMPTapeMtioRequest*>(packet.GetMessage())->Count = 9u;
  EXPECT_EQ(static_cast<CNDMPTapeMtioRequest*>(copy.GetMessage())->Count.getInt32(), 3u);
}

TEST(MessagePacket, AssignmentIsShallowOnPurpose) {
  auto* source = new CNDMPMessagePacket();
  CNDMPTapeMtioRequest mtio;
  source->SetMessage(mtio);
  CNDMPMessagePacket target;
  target = *source;
  EXPECT_EQ(target.GetMessage(), source->GetMessage());
  // Only one of the two may be destroyed with the body attached: release the
  // source's pointer by assigning an empty packet over it first.
  CNDMPMessagePacket empty;
  *source = empty;
  delete source;
}

TEST(MessagePacket, SetMessageTwiceReplacesTheClone) {
  CNDMPMessagePacket packet;
  CNDMPTapeMtioRequest first;
  CNDMPTapeCloseRequest second;
  packet.SetMessage(first);
  CNDMPMessage& stored = packet.SetMessage(second);
  EXPECT_EQ(&stored, packet.GetMessage());
  EXPECT_EQ(ClassName(stored), "CNDMPTapeCloseRequest");  // the first clone is released (ASan checks)
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc

namespace com::vx::korvane::ndmpc {
namespace {

// Clone is reachable from a derived class only; there it returns the
// class's own type.
struct CCloneProbe : CNDMPTapeOpenRequest {
  using CNDMPTapeOpenRequest::Clone;
};
static_assert(std::is_same_v<decltype(std::declval<const CCloneProbe&>().Clone()),
                             CNDMPTapeOpenRequest*>,
              "Clone returns the concrete class");

}  // namespace
}  // namespace com::vx::korvane::ndmpc
