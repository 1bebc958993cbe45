// A client connection against our own serving side over 127.0.0.1: version
// negotiation, sequence numbers, request/reply matching, header errors, how
// the serving side becomes connected, and what both sides write to their logs.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using enums::CNDMPMessageType;
using enums::CNDMPProtocolVersion;
using testing::CCapturingLog;
using testing::CServingSide;
using testing::HandleTag;
using testing::kWaitMs;

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

// Lines of `log` that begin with `prefix` and have `severity`.
int CountLines(const CCapturingLog& log, const std::string& prefix, VxLog::Severity severity) {
  int n = 0;
  for (const auto& line : log.Lines()) {
    if (line.first == severity && line.second.rfind(prefix, 0) == 0) ++n;
  }
  return n;
}

// What the serving side saw of one request, and its own state around the answer.
struct CSeen {
  std::uint32_t code = 0;
  std::uint32_t type = 0;
  std::uint32_t sequence = 0;
  std::uint32_t replySequence = 0;
  std::uint32_t offered = 0;  // NDMP_CONNECT_OPEN: the version offered
  bool connectedBefore = false;
  bool connectedAfter = false;
};

// The serving side's answers: NDMP_CONNECT_OPEN accepted for the versions
// in `accepted` (else refused in the reply body), host and server
// information answered, tape information refused with a header error.
class CServingScript {
 public:
  void SetAccepted(std::vector<std::uint32_t> versions) {
    std::lock_guard<std::mutex> lock(mutex_);
    accepted_ = std::move(versions);
  }

  CServingSide::Responder Responder() {
    return [this](CNDMPConnection& serving, CNDMPMessagePacket& packet) {
      Answer(serving, packet);
    };
  }

  // Waits (bounded) until `count` requests were answered; returns them all.
  std::vector<CSeen> WaitSeen(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    answered_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                       [&] { return seen_.size() >= count; });
    return seen_;
  }

 private:
  void Answer(CNDMPConnection& serving, CNDMPMessagePacket& packet) {
    const CNDMPHeader& header = packet.GetHeader();
    CSeen seen;
    seen.code = header.MessageCode.getInt32();
    seen.type = header.MessageType.getInt32();
    seen.sequence = header.Sequence.getInt32();
    seen.replySequence = header.ReplySequence.getInt32();
    seen.connectedBefore = serving.IsConnected();
    switch (seen.code) {
      case CNDMPMessageCode::NDMP_CONNECT_OPEN: {
        auto* open = dynamic_cast<CNDMPConnectOpenRequest*>(packet.GetMessage());
        seen.offered = open != nullptr ? open->ProtocolVersion.getInt32() : 0;
        bool ok;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          ok = std::find(accepted_.begin(), accepted_.end(), seen.offered) != accepted_.end();
        }
        // Switched before answering: the client's next request may follow at once.
        if (ok) serving.SetProtocolVersion(CXDREnumBase<CNDMPProtocolVersion>(seen.offered));
        CNDMPConnectOpenReply reply;
        reply.NDMP_Error = ok ? CNDMPError::NDMP_NO_ERR : CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
        serving.SendMessage(reply, seen.sequence);
        break;
      }
      case CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO: {
        CNDMPConfigGetHostInfoReply reply;
        reply.hostname = "filer-7";
        reply.OSType = "KorOS";
        serving.SendMessage(reply, seen.sequence);
        break;
      }
      case CNDMPMessageCode::NDMP_CONFIG_GET_SERVER_INFO: {
        CNDMPConfigGetServerInfoReply reply;
        reply.VenderName = "Korvane";
        reply.ProductName = "Filer";
        reply.AuthenticationTypes.AddItem(
            CXDREnumBase<enums::CNDMPEnumAuthType>(enums::CNDMPEnumAuthType::NDMP_AUTH_TEXT));
        serving.SendMessage(reply, seen.sequence);
        break;
      }
      case CNDMPMessageCode::NDMP_CONFIG_GET_TAPE_INFO:
        serving.SendNDMPError(CNDMPMessageType::NDMP_MESSAGE_REPLY, header.MessageCode,
                              CNDMPError::NDMP_NOT_SUPPORTED_ERR, seen.sequence);
        break;
      default:
        break;
    }
    seen.connectedAfter = serving.IsConnected();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      seen_.push_back(seen);
    }
    answered_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable answered_;
  std::vector<std::uint32_t> accepted_{4, 3};  // guarded by mutex_
  std::vector<CSeen> seen_;                     // guarded by mutex_
};

class ConnectionLoopback : public ::testing::Test {
 protected:
  void SetUp() override { server.Start(script.Responder()); }

  CCapturingLog clientLog;
  CCapturingLog servingLog;
  CServingScript script;
  CServingSide server{servingLog};
  // Destroyed first: the client disconnects before the serving side stops.
  CNDMPConnection client{"127.0.0.1", "127.0.0.1", clientLog, server.port()};
};

TEST_F(ConnectionLoopback, NegotiatesVersion4AndMatchesRepliesBySequence) {
  ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  EXPECT_TRUE(client.IsConnected());
  EXPECT_FALSE(client.IsAuthenticated());
  EXPECT_EQ(client.GetProtocolVersion().getInt32(), 4u);

  CNDMPConfigGetHostInfoRequest hostInfo;
  CNDMPMessage* reply = nullptr;
  ASSERT_EQ(Err(client.SendMessage(hostInfo, &reply, 10)), "NDMP_NO_ERR");
  auto* host = dynamic_cast<CNDMPConfigGetHostInfoReply*>(reply);
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(host->hostname.GetString(), "filer-7");
  EXPECT_EQ(host->OSType.GetString(), "KorOS");
  client.FreeMessage(reply);

  // A reply whose header carries an error returns that error and no body.
  CNDMPConfigGetTapeInfoRequest tapeInfo;
  CNDMPConfigGetHostInfoReply untouched;
  reply = &untouched;
  EXPECT_EQ(Err(client.SendMessage(tapeInfo, &reply, 10)), "NDMP_NOT_SUPPORTED_ERR");
  EXPECT_EQ(reply, &untouched);

  std::vector<CSeen> seen = script.WaitSeen(3);
  ASSERT_EQ(seen.size(), 3u);
  const std::uint32_t codes[] = {CNDMPMessageCode::NDMP_CONNECT_OPEN,
                                 CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO,
                                 CNDMPMessageCode::NDMP_CONFIG_GET_TAPE_INFO};
  for (std::size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(seen[i].code, codes[i]);
    EXPECT_EQ(seen[i].type, 0u);
    EXPECT_EQ(seen[i].sequence, i + 1);
    EXPECT_EQ(seen[i].replySequence, 0u);
  }
  EXPECT_EQ(seen[0].offered, 4u);
  EXPECT_EQ(client.GetNextSequence(), 4u);
}

TEST_F(ConnectionLoopback, ServingSideIsConnectedOnlyAfterASuccessfulOpenReply) {
  script.SetAccepted({3});
  ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  std::vector<CSeen> seen = script.WaitSeen(2);
  ASSERT_EQ(seen.size(), 2u);
  // Version 4 refused in the reply body: the serving side stays unconnected.
  EXPECT_EQ(seen[0].offered, 4u);
  EXPECT_FALSE(seen[0].connectedBefore);
  EXPECT_FALSE(seen[0].connectedAfter);
  // Version 3 accepted: sending that reply makes it connected.
  EXPECT_EQ(seen[1].offered, 3u);
  EXPECT_EQ(seen[1].sequence, 2u);
  EXPECT_FALSE(seen[1].connectedBefore);
  EXPECT_TRUE(seen[1].connectedAfter);

  CNDMPConnection* serving = server.WaitConnection();
  ASSERT_NE(serving, nullptr);
  EXPECT_TRUE(serving->IsConnected());
  EXPECT_FALSE(serving->IsAuthenticated());
  EXPECT_EQ(std::string(serving->GetIPAddress()), "127.0.0.1");

  // Both sides now speak version 3.
  EXPECT_EQ(client.GetProtocolVersion().getInt32(), 3u);
  CNDMPConfigGetHostInfoRequest hostInfo;
  CNDMPMessage* reply = nullptr;
  ASSERT_EQ(Err(client.SendMessage(hostInfo, &reply, 10)), "NDMP_NO_ERR");
  auto* host = dynamic_cast<CNDMPConfigGetHostInfoReply*>(reply);
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(host->hostname.GetString(), "filer-7");
  client.FreeMessage(reply);
}

TEST_F(ConnectionLoopback, RefusalOfBothVersionsDisconnects) {
  script.SetAccepted({});
  EXPECT_EQ(Err(client.Connect()), "NDMP_CONNECT_ERR");
  EXPECT_FALSE(client.IsConnected());
  EXPECT_EQ(client.getSocket(), nullptr);
  std::vector<CSeen> seen = script.WaitSeen(2);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].offered, 4u);
  EXPECT_EQ(seen[1].offered, 3u);
  // The refusal itself is not logged.
  EXPECT_FALSE(clientLog.Contains("Failed to establish connection"));
  CNDMPConfigGetHostInfoRequest hostInfo;
  CNDMPMessage* reply = nullptr;
  EXPECT_EQ(Err(client.SendMessage(hostInfo, &reply, 1)), "NDMP_CONNECT_ERR");
}

TEST_F(ConnectionLoopback, ServerInfoReplyIsSentWithoutALogLine) {
  clientLog.setLevel(3);
  ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  for (CNDMPMessage* request : std::vector<CNDMPMessage*>{
           new CNDMPConfigGetServerInfoRequest, new CNDMPConfigGetHostInfoRequest}) {
    CNDMPMessage* reply = nullptr;
    EXPECT_EQ(Err(client.SendMessage(*request, &reply, 10)), "NDMP_NO_ERR");
    client.FreeMessage(reply);
    delete request;
  }
  ASSERT_EQ(script.WaitSeen(3).size(), 3u);
  CNDMPConnection* serving = server.WaitConnection();
  ASSERT_NE(serving, nullptr);
  const std::string servingTag = HandleTag(serving);
  EXPECT_EQ(CountLines(servingLog, servingTag + " Sending NDMP_CONNECT_OPEN", VxLog::kInfo), 1);
  EXPECT_EQ(CountLines(servingLog, servingTag + " Sending NDMP_CONFIG_GET_HOST_INFO",
                       VxLog::kInfo),
            1);
  EXPECT_FALSE(servingLog.Contains("Sending NDMP_CONFIG_GET_SERVER_INFO"));
  // The request side logs the same message as any other.
  EXPECT_EQ(CountLines(clientLog, HandleTag(&client) + " Sending NDMP_CONFIG_GET_SERVER_INFO",
                       VxLog::kInfo),
            1);
}

// How sent and received packets are logged at a summary level and at a
// dump level.
struct CLogCase {
  int level;
  const char* sent;  // after "[0x...] "
  VxLog::Severity sentSeverity;
  const char* received;
  VxLog::Severity receivedSeverity;
};

class ConnectionLoopbackLog : public ConnectionLoopback,
                              public ::testing::WithParamInterface<CLogCase> {};

TEST_P(ConnectionLoopbackLog, LogsSentAndReceivedPackets) {
  const CLogCase& c = GetParam();
  clientLog.setLevel(c.level);
  ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  CNDMPConfigGetHostInfoRequest hostInfo;
  CNDMPMessage* reply = nullptr;
  ASSERT_EQ(Err(client.SendMessage(hostInfo, &reply, 10)), "NDMP_NO_ERR");
  client.FreeMessage(reply);

  const std::string tag = HandleTag(&client) + " ";
  // Received packets are logged on the dispatch thread: wait for the last one.
  ASSERT_TRUE(clientLog.WaitFor(tag + c.received + (c.level > 6 ? "" : "NDMP_CONFIG_GET_HOST_INFO")));
  if (c.level > 6) {
    EXPECT_EQ(CountLines(clientLog, tag + c.sent, c.sentSeverity), 2);
    ASSERT_TRUE(clientLog.WaitFor("filer-7"));
    EXPECT_EQ(CountLines(clientLog, tag + c.received, c.receivedSeverity), 2);
    EXPECT_FALSE(clientLog.Contains(tag + "Sending NDMP_"));
  } else {
    for (const char* name : {"NDMP_CONNECT_OPEN", "NDMP_CONFIG_GET_HOST_INFO"}) {
      EXPECT_EQ(CountLines(clientLog, tag + c.sent + name, c.sentSeverity), 1) << name;
      EXPECT_EQ(CountLines(clientLog, tag + c.received + name, c.receivedSeverity), 1) << name;
    }
    EXPECT_FALSE(clientLog.Contains("MessagePacket"));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Levels, ConnectionLoopbackLog,
    ::testing::Values(CLogCase{3, "Sending ", VxLog::kInfo, "Received Message ", VxLog::kInfo},
                      CLogCase{7, "Sending MessagePacket", VxLog::kDebug,
                               "Received Message MessagePacket", VxLog::kDebug}),
    [](const ::testing::TestParamInfo<CLogCase>& param) {
      return "Level" + std::to_string(param.param.level);
    });

}  // namespace
}  // namespace com::vx::korvane::ndmpc
