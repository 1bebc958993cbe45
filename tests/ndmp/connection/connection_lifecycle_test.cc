// A connection's identity and lifecycle without a server: copies, the
// address setters, Disconnect and sends on an idle connection, and connects
// that find nobody listening.
#include <gtest/gtest.h>

#include <string>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using testing::CCapturingLog;
using testing::HandleTag;

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

TEST(ConnectionLifecycle, CopyOfAnIdleConnectionStartsItsOwnSequence) {
  CCapturingLog log;
  CNDMPConnection source("filer1", "192.0.2.7", log, 10000);
  EXPECT_EQ(source.GetNextSequence(), 1u);
  EXPECT_EQ(source.GetNextSequence(), 2u);
  EXPECT_EQ(source.GetNextSequence(), 3u);

  CNDMPConnection copy(source);
  EXPECT_EQ(copy.GetNextSequence(), 1u);
  EXPECT_EQ(source.GetNextSequence(), 4u);
  EXPECT_EQ(std::string(copy.GetHostName()), "filer1");
  EXPECT_EQ(std::string(copy.GetIPAddress()), "192.0.2.7");
  EXPECT_EQ(copy.GetPort(), 10000u);
  EXPECT_FALSE(copy.IsConnected());
  EXPECT_FALSE(copy.IsAuthenticated());
  EXPECT_EQ(copy.getSocket(), nullptr);
  EXPECT_EQ(copy.GetProtocolVersion().getInt32(), 4u);
}

TEST(ConnectionLifecycle, AddressSettersDifferOnPurpose) {
  CCapturingLog log;
  CNDMPConnection c("", "", log, 0);
  EXPECT_EQ(std::string(c.SetHostName("filer2.example")), "filer2.example");
  EXPECT_EQ(std::string(c.GetHostName()), "filer2.example");
  // Only the first character's value is assigned.
  EXPECT_EQ(std::string(c.SetIPAddress("10.1.2.3")), "1");
  EXPECT_EQ(std::string(c.GetIPAddress()), "1");
  EXPECT_EQ(c.SetPort(10001), 10001u);
  EXPECT_EQ(c.GetPort(), 10001u);
}

TEST(ConnectionLifecycle, IdleConnectionDisconnectsAndRefusesToSend) {
  CCapturingLog log;
  CNDMPConnection c("filer1", "192.0.2.7", log, 10000);
  EXPECT_EQ(Err(c.Disconnect()), "NDMP_NO_ERR");
  EXPECT_EQ(Err(c.Disconnect()), "NDMP_NO_ERR");
  EXPECT_FALSE(c.IsConnected());

  CNDMPConfigGetHostInfoRequest request;
  CNDMPMessage* reply = nullptr;
  EXPECT_EQ(Err(c.SendMessage(request, &reply, 1)), "NDMP_CONNECT_ERR");
  EXPECT_EQ(reply, nullptr);
  CNDMPConfigGetHostInfoReply answer;
  EXPECT_EQ(Err(c.SendMessage(answer, 1)), "NDMP_CONNECT_ERR");
  EXPECT_EQ(c.GetPacketQueue().GetFilledSize(), 0u);
}

// Connects that find nobody listening, by host name and then by address.
class ConnectionRefused : public ::testing::TestWithParam<bool> {};

TEST_P(ConnectionRefused, ReportsConnectError) {
  const bool alternate = GetParam();
  unsigned int port;
  {
    VxTcpListener listener;  // a port that was free a moment ago
    ASSERT_EQ(listener.listen("127.0.0.1", 0), 0u);
    port = listener.port();
  }
  CCapturingLog log;
  CNDMPConnection c("127.0.0.1", "127.0.0.1", log, port);
  EXPECT_EQ(Err(alternate ? c.PAGConnect() : c.Connect()), "NDMP_CONNECT_ERR");
  EXPECT_FALSE(c.IsConnected());
  EXPECT_TRUE(log.Contains("CNDMPConnection using Hostname=127.0.0.1, IPAddress=127.0.0.1, "
                           "PortNumber=" + std::to_string(port)));
  EXPECT_TRUE(log.Contains(HandleTag(&c) + " Failed to establish connection"));
  EXPECT_EQ(Err(c.Disconnect()), "NDMP_NO_ERR");
}

INSTANTIATE_TEST_SUITE_P(Modes, ConnectionRefused, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& param) {
                           return param.param ? "PAGConnect" : "Connect";
                         });

}  // namespace
}  // namespace com::vx::korvane::ndmpc
