// A client connection against our own serving side over 127.0.0.1: version
// negotiation, sequence numbers, request/reply matching, header errors, how
// the serving side becomes connected and what both sides log; then requests
// sent while the client's dispatch thread is busy: the data-read handler's
// NDMP_MOVER_READ exchange from inside a callback, an application request
// beside a blocked callback, and Disconnect while a callback waits for a reply.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/connection/data_read_handler.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "tests/ndmp/helpers/serving_peer.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using testing::AskHost;
using testing::CCapturingLog;
using testing::CServingPeer;
using testing::HandleTag;
using testing::kWaitMs;

using Code = CXDREnumBase<CNDMPMessageCode>;

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

// Lines of `log` that begin with `prefix` and have `severity`.
int CountLines(const CCapturingLog& log, const std::string& prefix, VxLog::Severity severity) {
  int n = 0;
  for (const auto& line : log.Lines()) {
    if (line.first == severity && line.second.rfind(prefix, 0) == 0) ++n;
  }
  return n;
}

// How the serving side answers NDMP_MOVER_READ.
enum class MoverAnswer { kAccept, kRefuseInBody, kHeaderError, kSilent };

// The serving side accepts NDMP_CONNECT_OPEN for the versions in `accepted`
// (else refuses it in the reply body), answers host and server information
// and NDMP_MOVER_READ as `mover` says, and refuses anything else with a
// header error.
class ConnectionLoopback : public ::testing::Test {
 protected:
  void Answer(CServingPeer::Request& r) {
    CNDMPConnection& serving = *r.server;
    if (r.Code() == CNDMPMessageCode::NDMP_CONNECT_OPEN) {
      const bool before = serving.IsConnected();
      auto* open = dynamic_cast<CNDMPConnectOpenRequest*>(r.packet->GetMessage());
      const std::uint32_t offered = open != nullptr ? open->ProtocolVersion.getInt32() : 0;
      const bool ok = offered < 32 && ((accepted.load() >> offered) & 1u) != 0;
      // Switched before answering: the client's next request may follow at once.
      if (ok) serving.SetProtocolVersion(CXDREnumBase<enums::CNDMPProtocolVersion>(offered));
      CNDMPConnectOpenReply reply;
      reply.NDMP_Error = ok ? CNDMPError::NDMP_NO_ERR : CNDMPError::NDMP_ILLEGAL_ARGS_ERR;
      r.Reply(reply);
      // Read only after CServingPeer::Requests has seen this answer counted.
      openStates.emplace_back(before, serving.IsConnected());
    } else if (r.Code() == CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO) {
      CNDMPConfigGetHostInfoReply reply;
      reply.hostname = "filer-7";
      r.Reply(reply);
    } else if (r.Code() == CNDMPMessageCode::NDMP_CONFIG_GET_SERVER_INFO) {
      CNDMPConfigGetServerInfoReply reply;
      r.Reply(reply);
    } else if (r.Code() == CNDMPMessageCode::NDMP_MOVER_READ &&
               mover != MoverAnswer::kHeaderError) {
      CNDMPMoverReadReply reply;
      reply.NDMP_Error = mover == MoverAnswer::kRefuseInBody ? CNDMPError::NDMP_ILLEGAL_STATE_ERR
                                                             : CNDMPError::NDMP_NO_ERR;
      if (mover != MoverAnswer::kSilent) r.Reply(reply);
    } else {
      r.ReplyError(CNDMPError::NDMP_NOT_SUPPORTED_ERR);
    }
  }

  std::atomic<unsigned int> accepted{1u << 4 | 1u << 3};  // bit n: version n accepted
  std::atomic<MoverAnswer> mover{MoverAnswer::kAccept};
  std::vector<std::pair<bool, bool>> openStates;  // serving side connected before/after
  CCapturingLog clientLog;
  CCapturingLog servingLog;
  CServingPeer peer{[this](CServingPeer::Request& r) { Answer(r); }, servingLog};
  // Destroyed first: the client disconnects before the serving side stops.
  CNDMPConnection client{"127.0.0.1", "127.0.0.1", clientLog, peer.port()};
};

struct CVersionCase {
  const char* name;
  unsigned int accepted;
  std::vector<std::uint32_t> offered;  // in order
};

class ConnectionLoopbackVersion : public ConnectionLoopback,
                                  public ::testing::WithParamInterface<CVersionCase> {};

TEST_P(ConnectionLoopbackVersion, NegotiatesThenMatchesRepliesBySequence) {
  const CVersionCase& c = GetParam();
  accepted = c.accepted;
  ASSERT_EQ(Err(client.Connect()), c.accepted != 0 ? "NDMP_NO_ERR" : "NDMP_CONNECT_ERR");
  const std::size_t n = c.offered.size();
  std::vector<CServingPeer::Seen> seen = peer.Requests(n);
  std::vector<std::uint32_t> offered;
  for (const auto& s : seen) {
    auto* open = CServingPeer::Body<CNDMPConnectOpenRequest>(s);
    offered.push_back(open != nullptr ? open->ProtocolVersion.getInt32() : 0);
  }
  EXPECT_EQ(offered, c.offered);
  if (c.accepted == 0) {
    // Refusal of both versions disconnects; the refusal itself is not logged.
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(client.getSocket(), nullptr);
    EXPECT_FALSE(clientLog.Contains("Failed to establish connection"));
    EXPECT_EQ(AskHost(client, 1), "NDMP_CONNECT_ERR");
    return;
  }
  EXPECT_EQ(client.GetProtocolVersion().getInt32(), c.offered.back());
  EXPECT_FALSE(client.IsAuthenticated());
  // The serving side is connected only by sending a successful open reply.
  std::vector<std::pair<bool, bool>> states(n, {false, false});
  states.back().second = true;
  EXPECT_EQ(openStates, states);
  CNDMPConnection* serving = peer.WaitServing();
  ASSERT_NE(serving, nullptr);
  EXPECT_TRUE(serving->IsConnected());
  EXPECT_FALSE(serving->IsAuthenticated());
  EXPECT_EQ(std::string(serving->GetIPAddress()), "127.0.0.1");

  // Both sides speak the agreed version.
  EXPECT_EQ(AskHost(client), "filer-7");
  // A reply whose header carries an error returns that error and no body.
  CNDMPConfigGetTapeInfoRequest tapeInfo;
  CNDMPConfigGetHostInfoReply untouched;
  CNDMPMessage* reply = &untouched;
  EXPECT_EQ(Err(client.SendMessage(tapeInfo, &reply, 10)), "NDMP_NOT_SUPPORTED_ERR");
  EXPECT_EQ(reply, &untouched);

  seen = peer.Requests(n + 2);
  ASSERT_EQ(seen.size(), n + 2);
  EXPECT_EQ(seen[n].code, CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO);
  EXPECT_EQ(seen[n + 1].code, CNDMPMessageCode::NDMP_CONFIG_GET_TAPE_INFO);
  for (std::size_t i = 0; i < seen.size(); ++i) {
    const CNDMPHeader& header = seen[i].packet->GetHeader();
    EXPECT_EQ(header.MessageType.getInt32(), 0u) << i;
    EXPECT_EQ(header.Sequence.getInt32(), i + 1) << i;
    EXPECT_EQ(header.ReplySequence.getInt32(), 0u) << i;
  }
  EXPECT_EQ(client.GetNextSequence(), n + 3);
}

INSTANTIATE_TEST_SUITE_P(
    Servers, ConnectionLoopbackVersion,
    ::testing::Values(CVersionCase{"Version4", 1u << 4 | 1u << 3, {4}},
                      CVersionCase{"FallsBackTo3", 1u << 3, {4, 3}},
                      CVersionCase{"BothRefused", 0, {4, 3}}),
    [](const ::testing::TestParamInfo<CVersionCase>& param) { return param.param.name; });

// How the client logs sent and received packets at a summary level (3) and
// at a dump level (7); the serving side never logs its server-information reply.
class ConnectionLoopbackLog : public ConnectionLoopback,
                              public ::testing::WithParamInterface<int> {};

TEST_P(ConnectionLoopbackLog, LogsSentAndReceivedPackets) {
  clientLog.setLevel(GetParam());
  ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  CNDMPConfigGetServerInfoRequest serverInfo;
  CNDMPMessage* reply = nullptr;
  EXPECT_EQ(Err(client.SendMessage(serverInfo, &reply, 10)), "NDMP_NO_ERR");
  client.FreeMessage(reply);
  EXPECT_EQ(AskHost(client), "filer-7");

  ASSERT_EQ(peer.Requests(3).size(), 3u);
  CNDMPConnection* serving = peer.WaitServing();
  ASSERT_NE(serving, nullptr);
  for (const char* name : {"NDMP_CONNECT_OPEN", "NDMP_CONFIG_GET_HOST_INFO"}) {
    EXPECT_EQ(CountLines(servingLog, HandleTag(serving) + " Sending " + name, VxLog::kInfo), 1)
        << name;
  }
  EXPECT_FALSE(servingLog.Contains("Sending NDMP_CONFIG_GET_SERVER_INFO"));

  const std::string tag = HandleTag(&client) + " ";
  // Received packets are logged on the dispatch thread: wait for the last one.
  if (GetParam() > 6) {
    ASSERT_TRUE(clientLog.WaitFor("filer-7"));
    EXPECT_EQ(CountLines(clientLog, tag + "Sending MessagePacket", VxLog::kDebug), 3);
    EXPECT_EQ(CountLines(clientLog, tag + "Received Message MessagePacket", VxLog::kDebug), 3);
    EXPECT_FALSE(clientLog.Contains(tag + "Sending NDMP_"));
    return;
  }
  ASSERT_TRUE(clientLog.WaitFor(tag + "Received Message NDMP_CONFIG_GET_HOST_INFO"));
  for (const char* name :
       {"NDMP_CONNECT_OPEN", "NDMP_CONFIG_GET_SERVER_INFO", "NDMP_CONFIG_GET_HOST_INFO"}) {
    EXPECT_EQ(CountLines(clientLog, tag + "Sending " + name, VxLog::kInfo), 1) << name;
  }
  for (const char* name : {"NDMP_CONNECT_OPEN", "NDMP_CONFIG_GET_HOST_INFO"}) {
    EXPECT_EQ(CountLines(clientLog, tag + "Received Message " + name, VxLog::kInfo), 1) << name;
  }
  EXPECT_FALSE(clientLog.Contains("MessagePacket"));
}

INSTANTIATE_TEST_SUITE_P(Levels, ConnectionLoopbackLog, ::testing::Values(3, 7),
                         [](const ::testing::TestParamInfo<int>& param) {
                           return "Level" + std::to_string(param.param);
                         });

// Runs a data-read handler and keeps its first result, which the dispatch ignores.
class CResultKeeper : public CINDMPCallback {
 public:
  explicit CResultKeeper(CNDMPConnection& connection) : handler_(connection) {}
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override {
    const unsigned int result = handler_.HandleMessagePacket(packet);
    if (!kept_.exchange(true)) result_.set_value(result);
    return result;
  }
  // The first result; -1 when none came in time.
  int WaitResult() {
    std::future<unsigned int> future = result_.get_future();
    if (future.wait_for(std::chrono::milliseconds(kWaitMs)) != std::future_status::ready) return -1;
    return static_cast<int>(future.get());
  }

 private:
  CNDMPDataReadHandler handler_;
  std::promise<unsigned int> result_;
  std::atomic<bool> kept_{false};
};

struct CMoverCase {
  const char* name;
  MoverAnswer answer;
  int result;
};

class DataReadExchange : public ConnectionLoopback {
 protected:
  void SetUp() override {
    ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
    serving = peer.WaitServing();
    ASSERT_NE(serving, nullptr);
  }

  CNDMPConnection* serving = nullptr;
};

class DataReadHandler : public DataReadExchange,
                        public ::testing::WithParamInterface<CMoverCase> {};

TEST_P(DataReadHandler, AsksTheMoverForTheSameWindowFromInsideTheDispatch) {
  const CMoverCase& c = GetParam();
  mover = c.answer;
  CResultKeeper keeper(client);
  client.RegisterCallback(&keeper, Code(CNDMPMessageCode::NDMP_NOTIFY_DATA_READ));
  // However the test ends, the dispatch thread leaves `keeper` before it goes.
  struct CDisconnectFirst {
    CNDMPConnection& c;
    ~CDisconnectFirst() { c.Disconnect(); }
  } disconnectFirst{client};
  // A window beyond 4 GiB.
  CNDMPNotifyDataReadPost post;
  post.Offset = CNDMPUQuad(0x100001000ull);
  post.Length = CNDMPUQuad(65536);
  ASSERT_EQ(Err(serving->SendMessage(post, 0)), "NDMP_NO_ERR");

  std::vector<CServingPeer::Seen> seen = peer.Requests(2);  // the open, then the read
  ASSERT_EQ(seen.size(), 2u);
  auto* read = CServingPeer::Body<CNDMPMoverReadRequest>(seen[1]);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(static_cast<std::uint64_t>(read->Offset), 0x100001000ull);
  EXPECT_EQ(static_cast<std::uint64_t>(read->Length), 65536u);
  if (c.answer == MoverAnswer::kSilent) {
    // The handler waits for its reply: Disconnect ends that wait promptly.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Err(client.Disconnect()), "NDMP_NO_ERR");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  }
  // Bounded far below the handler's own 360 s: a reply must reach it while
  // the dispatch thread is busy inside it.
  EXPECT_EQ(keeper.WaitResult(), c.result);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, DataReadHandler,
    ::testing::Values(CMoverCase{"Accepted", MoverAnswer::kAccept, 0},
                      CMoverCase{"RefusedInBody", MoverAnswer::kRefuseInBody, 1},
                      CMoverCase{"RefusedInHeader", MoverAnswer::kHeaderError, 1},
                      CMoverCase{"NoReplyThenDisconnect", MoverAnswer::kSilent, 1}),
    [](const ::testing::TestParamInfo<CMoverCase>& param) { return param.param.name; });

// Blocks the dispatch thread until released.
class CBlockingCallback : public CINDMPCallback {
 public:
  unsigned int HandleMessagePacket(CNDMPMessagePacket&) override {
    entered.set();
    released.wait(kWaitMs);
    return 0;
  }
  VxThreadEvent entered{VxThreadEvent::kManualReset, false};
  VxThreadEvent released{VxThreadEvent::kManualReset, false};
};

TEST_F(DataReadExchange, ApplicationRequestCompletesWhileACallbackBlocks) {
  CBlockingCallback blocking;
  client.RegisterCallback(&blocking, Code(CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED));
  CNDMPNotifyDataHaltedPost halted;
  ASSERT_EQ(Err(serving->SendMessage(halted, 0)), "NDMP_NO_ERR");
  ASSERT_EQ(blocking.entered.wait(kWaitMs), 0u);
  EXPECT_EQ(AskHost(client), "filer-7");
  blocking.released.set();
  client.Disconnect();  // the dispatch thread leaves `blocking` before it goes
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
