#include "ndmpc/ndmp/messages/snapvault_messages.h"

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "tests/ndmp/messages/round_trip_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

// The overloads below for arrays of unions and nested arrays add to the generic one.
using ::com::vx::korvane::ndmpc::testing::AddTwo;

void AddTwo(CXDRArray<CNDMPSvTcpAddr>& array, unsigned& seed) {
  for (int i = 0; i < 2; ++i) {
    CNDMPSvTcpAddr address = Filled<CNDMPSvTcpAddr>(seed);
    AddTwo(address.PVals, seed);
    array.AddItem(address);
  }
}

template <class Reply>
void AddInfoArrays(Reply& m, unsigned& s) {
  AddTwo(m.RecoverMethods, s);
  AddTwo(m.BackupGranularity, s);
  AddTwo(m.RestoreGranularity, s);
  AddTwo(m.DataAddresses, s);
}

const std::vector<CRoundTripCase>& Catalogue() {
  auto addresses = [](auto& m, unsigned& s) { AddTwo(m.AddressList, s); };
  auto dataAddresses = [](auto& m, unsigned& s) { AddTwo(m.DataAddresses, s); };
  static const std::vector<CRoundTripCase> cases = {
      Record<CNDMPSvTcpAddr>("SvTcpAddr", [](auto& m, unsigned& s) { AddTwo(m.PVals, s); }),
      Record<CNDMPSvStatus>("SvStatus"),
      Record<CNDMPSvsClientStatusItem>("SvsClientStatusItem"),
      Record<CNDMPSvSnapSchedItem>("SvSnapSchedItem"),
      Record<CNDMPSvSnapStatusItem>("SvSnapStatusItem"),
      // Secondary.
      Request<CNDMPSvsCreateRelationshipRequest>("SvsCreateRelationshipRequest", 0x20500300,
                                                 addresses),
      Reply<CNDMPSvsCreateRelationshipReply>("SvsCreateRelationshipReply", 0x20500300),
      Request<CNDMPSvsModifyRelationshipRequest>("SvsModifyRelationshipRequest", 0x20500301,
                                                 addresses),
      Reply<CNDMPSvsModifyRelationshipReply>("SvsModifyRelationshipReply", 0x20500301),
      Request<CNDMPSvsTransferBackupRequest>("SvsTransferBackupRequest", 0x20500302),
      Reply<CNDMPSvsTransferBackupReply>("SvsTransferBackupReply", 0x20500302),
      Request<CNDMPSvsAbortTransferRequest>("SvsAbortTransferRequest", 0x20500303),
      Reply<CNDMPSvsAbortTransferReply>("SvsAbortTransferReply", 0x20500303),
      Request<CNDMPSvsDeleteRelationshipRequest>("SvsDeleteRelationshipRequest", 0x20500304),
      Reply<CNDMPSvsDeleteRelationshipReply>("SvsDeleteRelationshipReply", 0x20500304),
      Request<CNDMPSvsRestartRelationshipRequest>("SvsRestartRelationshipRequest", 0x20500305),
      Reply<CNDMPSvsRestartRelationshipReply>("SvsRestartRelationshipReply", 0x20500305),
      Request<CNDMPSvsSetSnapSchedRequest>("SvsSetSnapSchedRequest", 0x20500306),
      Reply<CNDMPSvsSetSnapSchedReply>("SvsSetSnapSchedReply", 0x20500306),
      Request<CNDMPSvsGetSnapSchedRequest>("SvsGetSnapSchedRequest", 0x20500307),
      Reply<CNDMPSvsGetSnapSchedReply>("SvsGetSnapSchedReply", 0x20500307,
                                       [](auto& m, unsigned& s) { AddTwo(m.SnapSchedules, s); }),
      Request<CNDMPSvsDeleteSnapSchedRequest>("SvsDeleteSnapSchedRequest", 0x20500308),
      Reply<CNDMPSvsDeleteSnapSchedReply>("SvsDeleteSnapSchedReply", 0x20500308),
      Request<CNDMPSvsCreateSnapRequest>("SvsCreateSnapRequest", 0x20500309),
      Reply<CNDMPSvsCreateSnapReply>("SvsCreateSnapReply", 0x20500309),
      Request<CNDMPSvsGetStatusRequest>("SvsGetStatusRequest", 0x2050030A),
      Reply<CNDMPSvsGetStatusReply>("SvsGetStatusReply", 0x2050030A,
                                    [](auto& m, unsigned& s) { AddTwo(m.SvsStatusList, s); }),
      Request<CNDMPSvsGetSnapStatusRequest>("SvsGetSnapStatusRequest", 0x2050030B),
      Reply<CNDMPSvsGetSnapStatusReply>(
          "SvsGetSnapStatusReply", 0x2050030B,
          [](auto& m, unsigned& s) { AddTwo(m.SnapshotStatuses, s); }),
      Request<CNDMPSvsGetClientStatusRequest>("SvsGetClientStatusRequest", 0x2050030C),
      Reply<CNDMPSvsGetClientStatusReply>("SvsGetClientStatusReply", 0x2050030C,
                                          [](auto& m, unsigned& s) { AddTwo(m.ClientStatus, s); }),
      Request<CNDMPSvsGetAccessInfoRequest>("SvsGetAccessInfoRequest", 0x2050030D),
      Reply<CNDMPSvsGetAccessInfoReply>("SvsGetAccessInfoReply", 0x2050030D),
      Request<CNDMPSvsSetAccessInfoRequest>("SvsSetAccessInfoRequest", 0x2050030E),
      Reply<CNDMPSvsSetAccessInfoReply>("SvsSetAccessInfoReply", 0x2050030E),
      Request<CNDMPSvsGetInfoRequest>("SvsGetInfoRequest", 0x2050030F),
      Reply<CNDMPSvsGetInfoReply>("SvsGetInfoReply", 0x2050030F, AddInfoArrays),
      Request<CNDMPSvsAbortSnapRequest>("SvsAbortSnapRequest", 0x20500310),
      Reply<CNDMPSvsAbortSnapReply>("SvsAbortSnapReply", 0x20500310),
      Request<CNDMPSvsReleaseRelationshipRequest>("SvsReleaseRelationshipRequest", 0x20500311),
      Reply<CNDMPSvsReleaseRelationshipReply>("SvsReleaseRelationshipReply", 0x20500311),
      Request<CNDMPSvsGetDataAddressRequest>(
          "SvsGetDataAddressRequest", 0x20500312,
          [](auto& m, unsigned& s) { AddTwo(m.PrimaryAddress, s); }),
      Reply<CNDMPSvsGetDataAddressReply>("SvsGetDataAddressReply", 0x20500312, dataAddresses),
      Post<CNDMPSvsNotifyCreateRelationshipPost>("SvsNotifyCreateRelationshipPost", 0x20500380),
      Post<CNDMPSvsNotifyTransferBackupPost>("SvsNotifyTransferBackupPost", 0x20500381),
      Post<CNDMPSvsNotifyAbortTransferPost>("SvsNotifyAbortTransferPost", 0x20500382),
      Post<CNDMPSvsNotifyDeleteRelationshipPost>("SvsNotifyDeleteRelationshipPost", 0x20500383),
      Post<CNDMPSvsNotifyRestartRelationshipPost>("SvsNotifyRestartRelationshipPost", 0x20500384),
      Post<CNDMPSvsNotifyCreateSnapPost>("SvsNotifyCreateSnapPost", 0x20500385),
      Post<CNDMPSvsNotifyAbortSnapPost>("SvsNotifyAbortSnapPost", 0x20500386),
      Post<CNDMPSvsNotifyReleaseRelationshipPost>("SvsNotifyReleaseRelationshipPost", 0x20500387),
      // Primary.
      Request<CNDMPSvpSetSnapSchedRequest>("SvpSetSnapSchedRequest", 0x20500400),
      Reply<CNDMPSvpSetSnapSchedReply>("SvpSetSnapSchedReply", 0x20500400),
      Request<CNDMPSvpGetSnapSchedRequest>("SvpGetSnapSchedRequest", 0x20500401),
      Reply<CNDMPSvpGetSnapSchedReply>("SvpGetSnapSchedReply", 0x20500401),
      Request<CNDMPSvpGetSnapStatusRequest>("SvpGetSnapStatusRequest", 0x20500402),
      Reply<CNDMPSvpGetSnapStatusReply>("SvpGetSnapStatusReply", 0x20500402),
      Request<CNDMPSvpDeleteSnapSchedRequest>("SvpDeleteSnapSchedRequest", 0x20500403),
      Reply<CNDMPSvpDeleteSnapSchedReply>("SvpDeleteSnapSchedReply", 0x20500403),
      Request<CNDMPSvpCreateSnapRequest>("SvpCreateSnapRequest", 0x20500404),
      Reply<CNDMPSvpCreateSnapReply>("SvpCreateSnapReply", 0x20500404),
      Request<CNDMPSvpGetStatusRequest>("SvpGetStatusRequest", 0x20500405),
      Reply<CNDMPSvpGetStatusReply>("SvpGetStatusReply", 0x20500405,
                                    [](auto& m, unsigned& s) { AddTwo(m.SvpStatusList, s); }),
      Request<CNDMPSvpAbortTransferRequest>("SvpAbortTransferRequest", 0x20500406),
      Reply<CNDMPSvpAbortTransferReply>("SvpAbortTransferReply", 0x20500406),
      Request<CNDMPSvsRecoverBackupRequest>("SvsRecoverBackupRequest", 0x20500407, addresses),
      Reply<CNDMPSvsRecoverBackupReply>("SvsRecoverBackupReply", 0x20500407),
      Request<CNDMPSvpReleaseRelationshipRequest>("SvpReleaseRelationshipRequest", 0x20500408),
      Reply<CNDMPSvpReleaseRelationshipReply>("SvpReleaseRelationshipReply", 0x20500408),
      Request<CNDMPSvpGetAccessInfoRequest>("SvpGetAccessInfoRequest", 0x20500409),
      Reply<CNDMPSvpGetAccessInfoReply>("SvpGetAccessInfoReply", 0x20500409),
      Request<CNDMPSvpSetAccessInfoRequest>("SvpSetAccessInfoRequest", 0x2050040A),
      Reply<CNDMPSvpSetAccessInfoReply>("SvpSetAccessInfoReply", 0x2050040A),
      Request<CNDMPSvpGetInfoRequest>("SvpGetInfoRequest", 0x2050040B),
      Reply<CNDMPSvpGetInfoReply>("SvpGetInfoReply", 0x2050040B, AddInfoArrays),
      Request<CNDMPSvpGetDataAddressRequest>(
          "SvpGetDataAddressRequest", 0x2050040C,
          [](auto& m, unsigned& s) { AddTwo(m.SecondaryAddress, s); }),
      Reply<CNDMPSvpGetDataAddressReply>("SvpGetDataAddressReply", 0x2050040C, dataAddresses),
      Post<CNDMPSvpNotifyCreateSnapPost>("SvpNotifyCreateSnapPost", 0x20500480),
      Post<CNDMPSvpNotifyAbortTransferPost>("SvpNotifyAbortTransferPost", 0x20500481),
      Post<CNDMPSvpNotifyRecoverBackupPost>("SvpNotifyRecoverBackupPost", 0x20500482),
      Post<CNDMPSvpNotifyReleaseRelationshipPost>("SvpNotifyReleaseRelationshipPost", 0x20500483),
  };
  return cases;
}

TEST(SnapVaultMessages, EveryClassRoundTrips) { ExpectRoundTrips(Catalogue()); }

TEST(SnapVaultMessages, FactoryCoversExactlyTheSnapVaultCodes) {
  ExpectFactoryCoversExactly(Catalogue(), 0x20500300, 0x205004FF);
}

// Replies and notifications with nothing beyond the status and the sequence
// are exactly those two words.
TEST(SnapVaultMessages, TwoMemberBodiesDecodeFromExactlyEightBytes) {
  const std::vector<unsigned char> body = Bytes({0x20, 0x50, 0x00, 0x01, 0, 0, 0, 0x2A});
  const std::vector<unsigned char> half(body.begin(), body.begin() + 4);
  const struct {
    std::uint32_t code;
    unsigned type;
  } cases[] = {
      {0x20500300, 1}, {0x20500301, 1}, {0x20500302, 1}, {0x20500303, 1}, {0x20500304, 1},
      {0x20500305, 1}, {0x20500306, 1}, {0x20500308, 1}, {0x20500309, 1}, {0x2050030E, 1},
      {0x20500310, 1}, {0x20500311, 1}, {0x20500380, 0}, {0x20500381, 0}, {0x20500382, 0},
      {0x20500383, 0}, {0x20500384, 0}, {0x20500386, 0}, {0x20500387, 0}, {0x20500400, 1},
      {0x20500401, 1}, {0x20500402, 1}, {0x20500403, 1}, {0x20500404, 1}, {0x20500406, 1},
      {0x20500407, 1}, {0x20500408, 1}, {0x20500409, 1}, {0x2050040A, 1}, {0x20500481, 0},
      {0x20500482, 0}, {0x20500483, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.code);
    std::unique_ptr<CNDMPMessage> message(CNDMPMessageAccess::Make(c.code, c.type));
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(DecodeValue(body, *message), 0);
    EXPECT_EQ(message->DumpContents(0),
              "\nSnapVaultError = 0x20500001:NDMP_SV_RPL_GENERIC\nReturnSequence = 42");
    EXPECT_EQ(Hex(EncodeValue(*message)), Hex(body));
    EXPECT_EQ(message->SerializeSize(), 8u);
    std::unique_ptr<CNDMPMessage> cut(CNDMPMessageAccess::Make(c.code, c.type));
    EXPECT_EQ(DecodeValue(half, *cut), XDR_FAILURE);
  }
}

TEST(SnapVaultMessages, CreateSnapNotificationsFollowTheLeadingWords) {
  CNDMPSvsNotifyCreateSnapPost secondary;
  CNDMPSvpNotifyCreateSnapPost primary;
  const unsigned char id[] = {1, 2, 3, 4, 5};
  for (CNDMPSvNotifyCreateSnapPost* post :
       std::initializer_list<CNDMPSvNotifyCreateSnapPost*>{&secondary, &primary}) {
    post->SnapVaultError = enums::CNDMPError::NDMP_SV_RPL_GENERIC;
    post->ReturnSequence = 9;
    post->TimeValue = 0x5F000000;
    post->SnapID.SetData(id, sizeof id);
    EXPECT_EQ(Hex(EncodeValue(*post)),
              "20 50 00 01 00 00 00 09 5F 00 00 00 00 00 00 05 01 02 03 04 05 00 00 00");
  }
}

TEST(SnapVaultMessages, TcpAddressCarriesAFullWordPort) {
  CNDMPSvTcpAddr address;
  address.IPAddress = 0x7F000001;
  address.Port = 0x12345;
  address.SymbolicAddress = "h";
  address.PVals.AddItem(CNDMPPVal("k", "v"));
  EXPECT_EQ(Hex(EncodeValue(address)),
            "7F 00 00 01 00 01 23 45 00 00 00 01 68 00 00 00 "
            "00 00 00 01 00 00 00 01 6B 00 00 00 00 00 00 01 76 00 00 00");
}

TEST(SnapVaultMessages, DumpsAStatusReply) {
  CNDMPSvStatus status;
  status.SourceSystem = "pri";
  status.SourcePath = "/p";
  status.DestinationSystem = "sec";
  status.DestinationPath = "/s";
  status.RelationshipState = enums::CNDMPEnumSvRelState::SV_STATE_SNAPVAULTED;
  status.Lag = 30;
  status.RelationshipStatus = enums::CNDMPEnumSvRelStatus::SV_STATUS_TRANSFERRING;
  status.BytesTransferred = CNDMPUQuad(0x100000002);
  CNDMPSvsGetStatusReply reply;
  reply.ReturnSequence = 7;
  reply.SvsStatusList.AddItem(status);

  EXPECT_EQ(reply.DumpContents(0),
            "\nSnapVaultError = 0x0:NDMP_NO_ERR"
            "\nReturnSequence = 7"
            "\nSvsStatusList = "
            "\n{"
            "\n    Item 0"
            "\n    {"
            "\n        SourceSystem = \"pri\""
            "\n        SourcePath = \"/p\""
            "\n        DestinationSystem = \"sec\""
            "\n        DestinationPath = \"/s\""
            "\n        RelationshipState = 0x1:SV_STATE_SNAPVAULTED"
            "\n        Lag = 30"
            "\n        RelationshipStatus = 0x1:SV_STATUS_TRANSFERRING"
            "\n        BytesTransferred = "
            "\n        {"
            "\n            High = 1"
            "\n            Low = 2"
            "\n        }"
            "\n    }"
            "\n}");
}

TEST(SnapVaultMessages, SnapStatusItemNameKeepsItsBlank) {
  CNDMPSvSnapStatusItem item;
  item.Volume = "v";
  item.SnapSetName = "daily";
  item.SnapshotStatus = enums::CNDMPEnumSvSnapStatus::SVS_STATUS_ACTIVE;
  EXPECT_EQ(item.DumpContents(0),
            "\nVolume = \"v\"\nSnapSetName = \"daily\"\nSnapshot Status = 0x2:SVS_STATUS_ACTIVE");
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
