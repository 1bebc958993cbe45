// The packet factory against its table, and the packet's own behaviour:
// serialise/deserialise results, dumps, copies.
#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tests/ndmp/enums/compact_rows.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPMessageCode;
using enums::CNDMPMessageType;

// The whole factory table, as compact rows (tests/ndmp/enums/compact_rows.h)
// of class stems: a stem ending in "Post" is one class for both types,
// "A/B" names the request and the reply class, and any other stem S gives
// SRequest and SReply (all with the CNDMP prefix).
const char* const kExpectedTable =
    "@100 ConfigGetHostInfo @102 ConfigGetConnectionType ConfigGetAuthAttr ConfigGetButypeAttr "
    "ConfigGetFsInfo ConfigGetTapeInfo ConfigGetSCSIInfo ConfigGetServerInfo ConfigSetExtList "
    "ConfigGetExtList @200 ScsiOpen ScsiClose ScsiGetState ScsiSetTarget ScsiResetDevice "
    "ScsiResetBus ScsiExecuteCdb @300 TapeOpen TapeClose TapeGetState TapeMtio TapeWrite "
    "TapeRead @307 TapeExecuteCdb @400 DataGetState DataStartBackup DataStartRecover DataAbort "
    "DataGetEnv @407 DataStop @409 DataListen DataConnect DataStartRecoverFilehist @501 "
    "NotifyDataHaltedPost NotifyConnectionStatusPost NotifyMoverHaltedPost "
    "NotifyMoverPausedPost NotifyDataReadPost @602 LogFilePost LogMessagePost @703 "
    "FhAddFilePost FhAddDirPost FhAddNodePost @900 ConnectOpen ConnectClientAuth "
    "ConnectCloseRequest/ConnectCloseRequest ConnectServerAuth @A00 MoverGetState MoverListen "
    "MoverContinue MoverAbort MoverStop MoverSetWindow MoverRead MoverClose MoverSetRecordSize "
    "MoverConnect @2001 ConfigUMSGetXCBRequest/ConfigUMSGetXCBRequestReply @20500100 SnapCreate "
    "SnapDelete SnapRecover SnapRename SnapGetServerInfo SnapGetSnapshotNames "
    "SnapGetSnapshotState SnapGetCdrOpState SnapGetSnapshotPath SnapSetReserve "
    "SnapGetReserveInfo SnapSetSchedule SnapGetScheduleInfo SnapDirList @20500180 "
    "SnapNotifyCreateEndPost SnapNotifyDeleteEndPost SnapNotifyRecoverEndPost @20500300 "
    "SvsCreateRelationship SvsModifyRelationship SvsTransferBackup SvsAbortTransfer "
    "SvsDeleteRelationship SvsRestartRelationship SvsSetSnapSched SvsGetSnapSched "
    "SvsDeleteSnapSched SvsCreateSnap SvsGetStatus SvsGetSnapStatus SvsGetClientStatus "
    "SvsGetAccessInfo SvsSetAccessInfo SvsGetInfo SvsAbortSnap SvsReleaseRelationship "
    "SvsGetDataAddress @20500380 SvsNotifyCreateRelationshipPost SvsNotifyTransferBackupPost "
    "SvsNotifyAbortTransferPost SvsNotifyDeleteRelationshipPost "
    "SvsNotifyRestartRelationshipPost SvsNotifyCreateSnapPost SvsNotifyAbortSnapPost "
    "SvsNotifyReleaseRelationshipPost @20500400 SvpSetSnapSched SvpGetSnapSched "
    "SvpGetSnapStatus SvpDeleteSnapSched SvpCreateSnap SvpGetStatus SvpAbortTransfer "
    "SvsRecoverBackup SvpReleaseRelationship SvpGetAccessInfo SvpSetAccessInfo SvpGetInfo "
    "SvpGetDataAddress @20500480 SvpNotifyCreateSnapPost SvpNotifyAbortTransferPost "
    "SvpNotifyRecoverBackupPost SvpNotifyReleaseRelationshipPost @20520001 "
    "CabDataConnectPrepare CabGetFsInfo CabGetTapeInfo";

struct CExpectedRow {
  unsigned int code;
  std::string request;  // the class for type 0
  std::string reply;    // the class for any other type
};

std::vector<CExpectedRow> ExpectedTable() {
  std::vector<CExpectedRow> rows;
  for (const auto& [code, stem] : testing::CompactRows(kExpectedTable)) {
    const std::size_t slash = stem.find('/');
    if (slash != std::string::npos) {
      rows.push_back({code, "CNDMP" + stem.substr(0, slash), "CNDMP" + stem.substr(slash + 1)});
    } else if (stem.size() > 4 && stem.compare(stem.size() - 4, 4, "Post") == 0) {
      rows.push_back({code, "CNDMP" + stem, "CNDMP" + stem});
    } else {
      rows.push_back({code, "CNDMP" + stem + "Request", "CNDMP" + stem + "Reply"});
    }
  }
  return rows;
}

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

TEST(MessageFactory, MakesTheTableClassForEveryCodeAndTypeAndNoOther) {
  EXPECT_EQ(NDMPFactoryTable().size(), ExpectedTable().size());
  for (const CExpectedRow& row : ExpectedTable()) {
    for (unsigned int type : {0u, 1u, 2u}) {
      SCOPED_TRACE(::testing::Message() << std::hex << "code 0x" << row.code << " type " << type);
      std::unique_ptr<CNDMPMessage> made(CNDMPMessageAccess::Make(row.code, type));
      ASSERT_NE(made, nullptr);
      EXPECT_EQ(ClassName(*made), type == 0 ? row.request : row.reply);
      EXPECT_EQ(CNDMPMessageAccess::Code(*made).getInt32(), row.code);
      // Posts and NDMP_CONNECT_CLOSE are one class whatever the type; they travel as requests.
      bool single = row.request == row.reply;
      unsigned int expectedType = (type == 0 || single) ? 0u : 1u;
      EXPECT_EQ(CNDMPMessageAccess::Type(*made).getInt32(), expectedType);
    }
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

// A packet written with Serialize + flushRecord, as the sender does.
std::vector<unsigned char> PacketBytes(CNDMPMessagePacket& packet) {
  return testing::StripRecordMarks(testing::CaptureRecordBytes([&](CXDRStream& stream) {
    packet.Serialize(stream);
    stream.flushRecord();
  }));
}

// A copy clones the body and starts again at version 4.
TEST(MessagePacket, SerialisesDumpsAndCopiesHeaderThenBody) {
  CNDMPMessagePacket packet(CXDREnumBase<CNDMPMessageCode>(CNDMPMessageCode::NDMP_TAPE_MTIO),
                            CXDREnumBase<CNDMPMessageType>(CNDMPMessageType::NDMP_MESSAGE_REQUEST),
                            CXDREnumBase<enums::CNDMPProtocolVersion>(3u));
  packet.GetHeader().Sequence = 7u;
  CNDMPTapeMtioRequest mtio;
  mtio.TapeOp = enums::CNDMPEnumMtioOp::NDMP_MTIO_REW;
  mtio.Count = 1u;
  packet.SetMessage(mtio);
  EXPECT_EQ(testing::Hex(PacketBytes(packet)),
            "00 00 00 07 00 00 00 00 00 00 00 00 00 00 03 03 00 00 00 00 00 00 00 00 "
            "00 00 00 04 00 00 00 01");
  std::string dump = packet.DumpContents();
  EXPECT_NE(dump.find("\n    }\n    Message\n    {\n        TapeOp = 0x4:NDMP_MTIO_REW\n"
                      "        Count = 1\n    }\n}"),
            std::string::npos)
      << dump;

  CNDMPMessagePacket copy(packet);
  EXPECT_EQ(copy.GetProtocolVersion().getInt32(), 4u);
  EXPECT_EQ(copy.GetHeader().Sequence.getInt32(), 7u);
  ASSERT_NE(copy.GetMessage(), nullptr);
  EXPECT_NE(copy.GetMessage(), packet.GetMessage());
  static_cast<CNDMPTapeMtioRequest*>(packet.GetMessage())->Count = 9u;
  EXPECT_EQ(static_cast<CNDMPTapeMtioRequest*>(copy.GetMessage())->Count.getInt32(), 1u);
}

std::vector<unsigned char> Header(unsigned int code, unsigned int type, unsigned int error) {
  return testing::Words({9u, 0u, type, code, 3u, error});
}

// The result of decoding a packet, the class of the body it made (the
// factory's choice is covered above: the packet must use it) and the code
// left in the header.
TEST(MessagePacket, DeserialisesTheBodyChosenByCodeAndType) {
  auto truncated = Header(0x100, 0, 0);
  truncated.resize(10);
  const struct {
    const char* name;
    std::vector<unsigned char> bytes;
    int result;
    const char* body;  // null: none
    unsigned int code;
  } cases[] = {
      {"reply body", testing::Concat({Header(0x900, 2, 0), {0, 0, 0, 0}}), 0,
       "CNDMPConnectOpenReply", 0x900},
      {"header error: no body read", Header(0x900, 1, 2), 2, nullptr, 0x900},
      {"unknown code", Header(0x101, 0, 0), XDR_FAILURE, nullptr, 0x101},
      {"truncated header clears the code", truncated, XDR_FAILURE, nullptr, 0},
  };
  for (const auto& c : cases) {
    CNDMPMessagePacket packet;
    packet.GetHeader().MessageCode = CNDMPMessageCode::NDMP_TAPE_OPEN;
    EXPECT_EQ(testing::DecodeValue(c.bytes, packet), c.result) << c.name;
    EXPECT_EQ(packet.GetMessage() == nullptr ? "" : ClassName(*packet.GetMessage()),
              c.body == nullptr ? "" : c.body)
        << c.name;
    EXPECT_EQ(packet.GetHeader().MessageCode.getInt32(), c.code) << c.name;
  }
}

TEST(MessagePacket, FreshPacketWritesNothingAndDumpsNoMessagePart) {
  CNDMPMessagePacket packet;
  int result = 0;
  const std::vector<unsigned char> raw =
      testing::CaptureRecordBytes([&](CXDRStream& stream) { result = packet.Serialize(stream); });
  EXPECT_EQ(static_cast<unsigned int>(result), 0xFFFFFFFFu);
  EXPECT_TRUE(raw.empty());
  const std::string header =
      "\n        Sequence = 0\n        TimeStamp = 0\n        MessageType = "
      "0x0:NDMP_MESSAGE_REQUEST\n        MessageCode = 0x0:NDMP_NO_MESSAGE\n        "
      "ReplySequence = 0\n        ErrorCode = 0x0:NDMP_NO_ERR";
  const std::string expected = "MessagePacket\n{\n    Header\n    {" + header + "\n    }\n}";
  EXPECT_EQ(packet.DumpContents(), expected);
  EXPECT_EQ(packet.DumpContents(), expected);  // the buffer is cleared first
}

// Assignment shares the body on purpose; a second SetMessage releases the
// first clone (ASan checks).
TEST(MessagePacket, AssignmentIsShallowAndSetMessageReplacesTheClone) {
  auto* source = new CNDMPMessagePacket();
  CNDMPTapeMtioRequest mtio;
  CNDMPTapeCloseRequest close;
  source->SetMessage(mtio);
  CNDMPMessage& stored = source->SetMessage(close);
  EXPECT_EQ(&stored, source->GetMessage());
  EXPECT_EQ(ClassName(stored), "CNDMPTapeCloseRequest");
  CNDMPMessagePacket target;
  target = *source;
  EXPECT_EQ(target.GetMessage(), source->GetMessage());
  // Only one of the two may be destroyed with the body attached: release the
  // source's pointer by assigning an empty packet over it first.
  CNDMPMessagePacket empty;
  *source = empty;
  delete source;
}

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
