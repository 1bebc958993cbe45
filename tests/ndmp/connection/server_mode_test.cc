// The serving side keeps what a client sends before StartServerMode.
#include <gtest/gtest.h>

#include <chrono>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

TEST(ServerMode, RequestsSentBeforeStartServerModeAreHandedOverInOrder) {
  VxTcpListener listener;
  ASSERT_EQ(listener.listen("127.0.0.1", 0), 0u);
  testing::CCapturingLog log;
  log.setLevel(3);  // info: the log handler's "Received Message" lines
  CNDMPConnection client("127.0.0.1", "127.0.0.1", log, listener.port());

  VxTcpSocket accepted;
  VxTcpSocket clientSocket;
  ASSERT_EQ(clientSocket.connect(VxSocketAddress("127.0.0.1", listener.port())), 0u);
  ASSERT_EQ(listener.accept(accepted, testing::kWaitMs), 0u);
  CNDMPConnection server(accepted, log);

  // Two requests written straight to the socket, before the serving code
  // has asked for anything.
  CXDRStream stream(clientSocket, log);
  for (unsigned int sequence : {1u, 2u}) {
    CNDMPMessagePacket packet(
        CXDREnumBase<enums::CNDMPMessageCode>(enums::CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO),
        CXDREnumBase<enums::CNDMPMessageType>(enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST),
        CXDREnumBase<enums::CNDMPProtocolVersion>(4u));
    packet.GetHeader().Sequence = sequence;
    packet.SetMessage(CNDMPConfigGetHostInfoRequest());
    packet.Serialize(stream);
    ASSERT_EQ(stream.flushRecord(), 0);
  }
  // Both have been dispatched (and logged) before StartServerMode is called.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(testing::kWaitMs);
  while (log.Count("Received Message NDMP_CONFIG_GET_HOST_INFO") < 2) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    log.WaitFor("no such line", 20);
  }
  EXPECT_EQ(server.GetPacketQueue().GetFilledSize(), 0u);  // nothing before StartServerMode

  server.StartServerMode();
  CNDMPMessagePacket* first = nullptr;
  CNDMPMessagePacket* second = nullptr;
  ASSERT_TRUE(server.GetPacketQueue().GetNextPacket(first));
  ASSERT_TRUE(server.GetPacketQueue().GetNextPacket(second));
  EXPECT_EQ(first->GetHeader().Sequence.getInt32(), 1u);
  EXPECT_EQ(second->GetHeader().Sequence.getInt32(), 2u);
  delete first;
  delete second;
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
