// A client connection against raw peers that misbehave on purpose: version
// refusal, header errors, stale and foreign replies, silence, closing in the
// middle of a record or of a wait, unknown codes, trailing bytes, and a
// peer that stalls inside a record.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using testing::AnswerOpen;
using testing::CCapturingLog;
using testing::Concat;
using testing::CPacketRecorder;
using testing::CRawRecord;
using testing::CScriptPeer;
using testing::FragmentHeader;
using testing::HandleTag;
using testing::PostRecord;
using testing::ReplyRecord;
using testing::XdrString;
using testing::XdrU32;

using Clock = std::chrono::steady_clock;

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The body of an NDMP_CONFIG_GET_HOST_INFO reply naming `host`.
std::vector<unsigned char> HostInfoBody(const std::string& host) {
  return Concat({XdrU32(0), XdrString(host), XdrString("KorOS"), XdrString("7.1"),
                 XdrString("0042")});
}

bool IsHostInfoRequest(const CRawRecord& r) {
  return r.complete && r.header.code == CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO &&
         r.header.type == 0;
}

bool LineWithSeverity(const CCapturingLog& log, const std::string& text,
                      VxLog::Severity severity) {
  for (const auto& line : log.Lines()) {
    if (line.first == severity && line.second == text) return true;
  }
  return false;
}

class MisbehavingPeer : public ::testing::Test {
 protected:
  // Runs `script` on the peer after it has accepted NDMP_CONNECT_OPEN, and
  // connects the client.
  void Connect(CScriptPeer::Script script) {
    peer.Run([script](CScriptPeer& p) {
      if (AnswerOpen(p) == 4) script(p);
    });
    ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  }

  // Sends NDMP_CONFIG_GET_HOST_INFO; the host named in the reply, or the
  // error's name.
  std::string AskHost(unsigned int timeout = 10) {
    CNDMPConfigGetHostInfoRequest request;
    CNDMPMessage* reply = nullptr;
    CXDREnumBase<CNDMPError> result = client.SendMessage(request, &reply, timeout);
    if (result != CNDMPError::NDMP_NO_ERR) return Err(result);
    auto* host = dynamic_cast<CNDMPConfigGetHostInfoReply*>(reply);
    std::string name = host != nullptr ? host->hostname.GetString() : "(no body)";
    client.FreeMessage(reply);
    return name;
  }

  std::string Tag() const { return HandleTag(&client); }

  CCapturingLog log;
  VxThreadEvent asked{VxThreadEvent::kManualReset, false};  // set by scripts; outlives the peer
  CScriptPeer peer;
  CPacketRecorder all;     // registered by tests for every packet
  CPacketRecorder halted;  // registered by tests for NDMP_NOTIFY_DATA_HALTED
  CNDMPConnection client{"127.0.0.1", "127.0.0.1", log, peer.port()};
};

TEST_F(MisbehavingPeer, RefusedVersion4ThenVersion3DecodesLaterPacketsUnderVersion3) {
  client.RegisterCallback(&halted, CXDREnumBase<CNDMPMessageCode>(
                                       CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED));
  std::uint32_t first = 0, second = 0, secondSequence = 0;
  peer.Run([&](CScriptPeer& p) {
    first = AnswerOpen(p, CNDMPError::NDMP_ILLEGAL_ARGS_ERR);
    CRawRecord open = p.ReadRecord();
    secondSequence = open.header.sequence;
    if (open.body.size() == 4) second = open.body[3];
    p.Write(ReplyRecord(open.header, XdrU32(0)));
    // A version-3 notification: the text reason is on the wire only up to 3.
    p.Write(PostRecord(CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED,
                       Concat({XdrU32(enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_ABORTED),
                               XdrString("tape full")})));
    p.ReadUntilClosed();
  });
  ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  EXPECT_EQ(client.GetProtocolVersion().getInt32(), 3u);

  ASSERT_EQ(halted.WaitFor(1), 1u);
  EXPECT_EQ(halted.Version(0), 3u);
  auto* post = halted.Body<CNDMPNotifyDataHaltedPost>(0);
  ASSERT_NE(post, nullptr);
  EXPECT_EQ(post->Reason.getInt32(), 2u);
  EXPECT_EQ(post->TextReason.GetString(), "tape full");
  EXPECT_FALSE(log.Contains("bytes discarded"));

  client.Disconnect();
  ASSERT_TRUE(peer.Join());
  EXPECT_EQ(first, 4u);
  EXPECT_EQ(second, 3u);
  EXPECT_EQ(secondSequence, 2u);
}

// Replies that carry more than the body, or an error in the header.
struct CReplyCase {
  const char* name;
  std::uint32_t headerError;
  std::vector<unsigned char> body;
  const char* result;     // host name or error name
  int discarded;          // bytes the warning reports; -1: no warning
};

class MisbehavingPeerReply : public MisbehavingPeer,
                             public ::testing::WithParamInterface<CReplyCase> {};

TEST_P(MisbehavingPeerReply, DeliversTheReplyAndDiscardsWhatIsLeft) {
  const CReplyCase& c = GetParam();
  Connect([&c](CScriptPeer& p) {
    CRawRecord request = p.ReadRecord();
    if (IsHostInfoRequest(request)) p.Write(ReplyRecord(request.header, c.body, c.headerError));
    p.ReadUntilClosed();
  });
  EXPECT_EQ(AskHost(), c.result);
  const std::string warning =
      Tag() + " After receiving Message=NDMP_CONFIG_GET_HOST_INFO, " +
      std::to_string(c.discarded) + " bytes discarded.";
  if (c.discarded >= 0) {
    EXPECT_TRUE(LineWithSeverity(log, warning, VxLog::kWarning)) << warning;
  } else {
    EXPECT_FALSE(log.Contains("bytes discarded"));
  }
  // The connection goes on working: the next record starts cleanly.
  EXPECT_FALSE(log.Contains("Error receiving message packet"));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MisbehavingPeerReply,
    ::testing::Values(
        CReplyCase{"TrailingBytes", 0, Concat({HostInfoBody("filer-7"), XdrU32(1), XdrU32(2)}),
                   "filer-7", 8},
        CReplyCase{"HeaderErrorWithBody", CNDMPError::NDMP_DEVICE_BUSY_ERR, XdrU32(0),
                   "NDMP_DEVICE_BUSY_ERR", 4},
        CReplyCase{"HeaderErrorAlone", CNDMPError::NDMP_NOT_SUPPORTED_ERR, {},
                   "NDMP_NOT_SUPPORTED_ERR", -1}),
    [](const ::testing::TestParamInfo<CReplyCase>& param) { return param.param.name; });

TEST_F(MisbehavingPeer, TakesOnlyTheReplyWithItsCodeAndSequence) {
  client.RegisterCallback(&all);
  Connect([](CScriptPeer& p) {
    CRawRecord request = p.ReadRecord();
    if (!IsHostInfoRequest(request)) return;
    const std::uint32_t stale = request.header.sequence + 7;
    p.Write(ReplyRecord(request.header, HostInfoBody("stale"), 0, &stale));
    CRawRecord foreign = request;  // right sequence, another code
    foreign.header.code = CNDMPMessageCode::NDMP_CONFIG_GET_TAPE_INFO;
    p.Write(ReplyRecord(foreign.header, Concat({XdrU32(0), XdrU32(0)})));
    p.Write(ReplyRecord(request.header, HostInfoBody("fresh")));
    p.ReadUntilClosed();
  });
  EXPECT_EQ(AskHost(), "fresh");
  // The others were not taken as the answer, yet every callback still saw them.
  ASSERT_EQ(all.WaitFor(4), 4u);
  EXPECT_EQ(all.Code(1), CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO);
  EXPECT_EQ(all.Packet(1)->GetHeader().ReplySequence.getInt32(), 9u);
  EXPECT_EQ(all.Code(2), CNDMPMessageCode::NDMP_CONFIG_GET_TAPE_INFO);
  EXPECT_EQ(all.Code(3), CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO);
}

TEST_F(MisbehavingPeer, SilentPeerTimesOutAndALateReplyIsNotTakenForTheNextRequest) {
  Connect([](CScriptPeer& p) {
    CRawRecord first = p.ReadRecord();
    // Not answered until the client has given up and asks again.
    CRawRecord second = p.ReadRecord();
    if (!IsHostInfoRequest(first) || !IsHostInfoRequest(second)) return;
    p.Write(ReplyRecord(first.header, HostInfoBody("late")));
    p.Write(ReplyRecord(second.header, HostInfoBody("current")));
    p.ReadUntilClosed();
  });
  Clock::time_point start = Clock::now();
  EXPECT_EQ(AskHost(1), "NDMP_TIMEOUT_ERR");
  const double waited = SecondsSince(start);
  EXPECT_GE(waited, 0.9);
  EXPECT_LT(waited, 10.0);
  EXPECT_TRUE(client.IsConnected());
  EXPECT_EQ(AskHost(), "current");
}

// Peers that go away while the client waits for a reply.
struct CCloseCase {
  const char* name;
  std::vector<unsigned char> lastWords;  // written before closing
};

class MisbehavingPeerClose : public MisbehavingPeer,
                             public ::testing::WithParamInterface<CCloseCase> {};

TEST_P(MisbehavingPeerClose, WaitEndsSoonAfterThePeerCloses) {
  const CCloseCase& c = GetParam();
  Connect([&c](CScriptPeer& p) {
    p.ReadRecord();
    if (!c.lastWords.empty()) p.Write(c.lastWords);
    p.Close();
  });
  Clock::time_point start = Clock::now();
  EXPECT_EQ(AskHost(30), "NDMP_TIMEOUT_ERR");
  // Far below the 30 s asked for: the wait ends once the stream is down.
  EXPECT_LT(SecondsSince(start), 10.0);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_EQ(AskHost(), "NDMP_CONNECT_ERR");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MisbehavingPeerClose,
    ::testing::Values(CCloseCase{"MidWait", {}},
                      CCloseCase{"MidRecord", Concat({FragmentHeader(100, true),
                                                      std::vector<unsigned char>(10, 0)})}),
    [](const ::testing::TestParamInfo<CCloseCase>& param) { return param.param.name; });

TEST_F(MisbehavingPeer, DisconnectFromAnotherThreadEndsAWaitingRequest) {
  Connect([this](CScriptPeer& p) {
    if (IsHostInfoRequest(p.ReadRecord())) asked.set();
    p.ReadUntilClosed();
  });
  std::string answer;
  std::thread sender([&] { answer = AskHost(30); });
  ASSERT_EQ(asked.wait(testing::kWaitMs), 0u);
  // The request now waits for a reply that will never come.
  Clock::time_point start = Clock::now();
  EXPECT_EQ(Err(client.Disconnect()), "NDMP_NO_ERR");
  sender.join();
  EXPECT_LT(SecondsSince(start), 10.0);
  EXPECT_EQ(answer, "NDMP_TIMEOUT_ERR");
  EXPECT_EQ(AskHost(), "NDMP_CONNECT_ERR");
}

TEST_F(MisbehavingPeer, UnknownCodeIsLoggedAndDropped) {
  client.RegisterCallback(&all);
  Connect([](CScriptPeer& p) {
    p.Write(PostRecord(0x7777, XdrU32(1)));
    CRawRecord request = p.ReadRecord();
    if (IsHostInfoRequest(request)) p.Write(ReplyRecord(request.header, HostInfoBody("filer-7")));
    p.ReadUntilClosed();
  });
  EXPECT_EQ(AskHost(), "filer-7");
  EXPECT_TRUE(LineWithSeverity(log, Tag() + " Error receiving message packet. Ret=-805306369",
                               VxLog::kError));
  EXPECT_TRUE(LineWithSeverity(log, Tag() + " After receiving Message=UNKNOWN, 4 bytes discarded.",
                               VxLog::kWarning));
  // Only the open reply and the host reply reached the callbacks.
  ASSERT_EQ(all.WaitFor(2), 2u);
  EXPECT_EQ(all.Code(0), CNDMPMessageCode::NDMP_CONNECT_OPEN);
  EXPECT_EQ(all.Code(1), CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO);
}

TEST_F(MisbehavingPeer, DisconnectReturnsPromptlyWhileThePeerStallsInsideARecord) {
  client.RegisterCallback(&halted, CXDREnumBase<CNDMPMessageCode>(
                                       CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED));
  Connect([](CScriptPeer& p) {
    // A whole post, then a record that promises 100 bytes and delivers 10.
    p.Write(Concat({PostRecord(CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED,
                               XdrU32(enums::CNDMPEnumDataHaltReason::NDMP_DATA_HALT_SUCCESSFUL)),
                    FragmentHeader(100, true), std::vector<unsigned char>(10, 0)}));
    p.ReadUntilClosed();
  });
  ASSERT_EQ(halted.WaitFor(1), 1u);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(Err(client.Disconnect()), "NDMP_NO_ERR");
  EXPECT_LT(SecondsSince(start), 5.0);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_TRUE(log.Contains(Tag() + " Message receive thread closed"));
  EXPECT_TRUE(log.Contains("Dispatch Thread closed"));
  EXPECT_TRUE(peer.Join());
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
