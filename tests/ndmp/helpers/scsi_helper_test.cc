// The SCSI helper against our own serving side.
#include "ndmpc/ndmp/helpers/scsi_helper.h"

#include <gtest/gtest.h>

#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tests/ndmp/helpers/serving_peer.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using testing::CServingPeer;

// Argument errors send nothing: the open is the first request the server
// sees, and its error comes back after that one request.
TEST(ScsiHelper, ArgumentErrorsSendNothingAndTheServersErrorComesBack) {
  CServingPeer peer([](CServingPeer::Request& r) {
    CNDMPScsiOpenReply open;
    CNDMPScsiCloseReply close;
    open.NDMP_Error = CNDMPError::NDMP_DEVICE_OPENED_ERR;
    r.Reply(r.Code() == CNDMPMessageCode::NDMP_SCSI_OPEN ? static_cast<CNDMPMessage&>(open) : close);
  });
  ASSERT_TRUE(peer.ok());
  EXPECT_EQ(CNDMPScsiHelper::SCSIOpen(&peer.client(), nullptr), CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  EXPECT_EQ(CNDMPScsiHelper::SCSIOpen(nullptr, "/dev/sg0"), CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  EXPECT_EQ(CNDMPScsiHelper::SCSIClose(nullptr), CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
  EXPECT_EQ(CNDMPScsiHelper::SCSIOpen(&peer.client(), "/dev/sg3"),
            CNDMPError::NDMP_DEVICE_OPENED_ERR);
  EXPECT_EQ(CNDMPScsiHelper::SCSIClose(&peer.client()), CNDMPError::NDMP_NO_ERR);
  std::vector<CServingPeer::Seen> seen = peer.Requests();
  ASSERT_EQ(seen.size(), 2u);
  auto* open = CServingPeer::Body<CNDMPScsiOpenRequest>(seen[0]);
  ASSERT_NE(open, nullptr);
  EXPECT_EQ(open->Device.GetString(), "/dev/sg3");
  EXPECT_EQ(seen[1].code, CNDMPMessageCode::NDMP_SCSI_CLOSE);
}

TEST(ScsiHelper, HeaderOnlyErrorAndLostConnectionArePassedOn) {
  CServingPeer peer([](CServingPeer::Request& r) { r.ReplyError(CNDMPError::NDMP_NO_DEVICE_ERR); });
  ASSERT_TRUE(peer.ok());
  EXPECT_EQ(CNDMPScsiHelper::SCSIOpen(&peer.client(), "/dev/sg3"), CNDMPError::NDMP_NO_DEVICE_ERR);
  EXPECT_EQ(CNDMPScsiHelper::SCSIClose(&peer.client()), CNDMPError::NDMP_NO_DEVICE_ERR);
  peer.client().Disconnect();
  EXPECT_EQ(CNDMPScsiHelper::SCSIOpen(&peer.client(), "/dev/sg3"), CNDMPError::NDMP_CONNECT_ERR);
  EXPECT_EQ(peer.Requests().size(), 2u);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
