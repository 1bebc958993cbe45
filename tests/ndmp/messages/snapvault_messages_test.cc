#include "ndmpc/ndmp/messages/snapvault_messages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

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

TEST(SnapVaultMessages, CreateSnapNotificationsAndTcpAddressesEncodeExactly) {
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
  // The port of a SnapVault TCP address is a full word.
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

  // This member name keeps its blank.
  CNDMPSvSnapStatusItem item;
  item.Volume = "v";
  item.SnapSetName = "daily";
  item.SnapshotStatus = enums::CNDMPEnumSvSnapStatus::SVS_STATUS_ACTIVE;
  EXPECT_EQ(item.DumpContents(0),
            "\nVolume = \"v\"\nSnapSetName = \"daily\"\nSnapshot Status = 0x2:SVS_STATUS_ACTIVE");
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::testing
