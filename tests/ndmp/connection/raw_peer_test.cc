// A client connection against a raw peer scripted byte by byte to misbehave:
// version refusal, header errors, stale and foreign replies, silence, stalls,
// closes and resets in the middle of a record, unknown codes, trailing bytes,
// records over the maximum size, floods of posts and one-byte fragments. Every wait is bounded; under ASan
// the suite also shows that nothing leaks when a peer breaks off.
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
using testing::HostInfoBody;
using testing::IsHostInfoRequest;
using testing::PostRecord;
using testing::ReplyRecord;
using testing::XdrString;
using testing::XdrU32;

using Clock = std::chrono::steady_clock;

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A log post (version 4 layout) carrying `entry`.
std::vector<unsigned char> LogPostBody(const std::string& entry) {
  return Concat({XdrU32(0), XdrU32(1), XdrString(entry), XdrU32(0), XdrU32(0)});
}

// A fragment that promises 100 bytes and carries 10.
std::vector<unsigned char> HalfFragment() {
  return Concat({FragmentHeader(100, true), std::vector<unsigned char>(10, 7)});
}

bool LineWithSeverity(const CCapturingLog& log, const std::string& text,
                      VxLog::Severity severity) {
  for (const auto& line : log.Lines()) {
    if (line.first == severity && line.second == text) return true;
  }
  return false;
}

class RawPeer : public ::testing::Test {
 protected:
  // Runs `script` on the peer after it has accepted NDMP_CONNECT_OPEN under
  // version 4, and connects the client.
  void Connect(CScriptPeer::Script script) {
    peer.Run([script](CScriptPeer& p) {
      if (AnswerOpen(p) == 4) script(p);
    });
    ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
  }

  std::string AskHost(unsigned int timeout = 10) { return testing::AskHost(client, timeout); }

  void ExpectPromptDisconnect() {
    Clock::time_point start = Clock::now();
    EXPECT_EQ(Err(client.Disconnect()), "NDMP_NO_ERR");
    EXPECT_LT(SecondsSince(start), 5.0);
    EXPECT_FALSE(client.IsConnected());
  }

  std::string Tag() const { return testing::HandleTag(&client); }

  CCapturingLog log;
  VxThreadEvent asked{VxThreadEvent::kManualReset, false};  // set by scripts; outlives the peer
  CScriptPeer peer;
  CPacketRecorder all;  // registered by tests for every packet
  CPacketRecorder one;  // registered by tests for a single code
  CNDMPConnection client{"127.0.0.1", "127.0.0.1", log, peer.port()};
};

TEST_F(RawPeer, RefusedVersion4ThenVersion3DecodesLaterPacketsUnderVersion3) {
  client.RegisterCallback(&one, CXDREnumBase<CNDMPMessageCode>(
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

  ASSERT_EQ(one.WaitFor(1), 1u);
  EXPECT_EQ(one.Version(0), 3u);
  auto* post = one.Body<CNDMPNotifyDataHaltedPost>(0);
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
  const char* result;  // host name or error name
  int discarded;       // bytes the warning reports; -1: no warning
};

class RawPeerReply : public RawPeer, public ::testing::WithParamInterface<CReplyCase> {};

TEST_P(RawPeerReply, DeliversTheReplyAndDiscardsWhatIsLeft) {
  const CReplyCase& c = GetParam();
  Connect([&c](CScriptPeer& p) {
    CRawRecord request = p.ReadRecord();
    if (IsHostInfoRequest(request)) p.Write(ReplyRecord(request.header, c.body, c.headerError));
    p.ReadUntilClosed();
  });
  EXPECT_EQ(AskHost(), c.result);
  const std::string warning = Tag() + " After receiving Message=NDMP_CONFIG_GET_HOST_INFO, " +
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
    Cases, RawPeerReply,
    ::testing::Values(
        CReplyCase{"TrailingBytes", 0, Concat({HostInfoBody("filer-7"), XdrU32(1), XdrU32(2)}),
                   "filer-7", 8},
        CReplyCase{"HeaderErrorWithBody", CNDMPError::NDMP_DEVICE_BUSY_ERR, XdrU32(0),
                   "NDMP_DEVICE_BUSY_ERR", 4},
        CReplyCase{"HeaderErrorAlone", CNDMPError::NDMP_NOT_SUPPORTED_ERR, {},
                   "NDMP_NOT_SUPPORTED_ERR", -1}),
    [](const ::testing::TestParamInfo<CReplyCase>& param) { return param.param.name; });

// A peer that reads the request, writes `lastWords` and then goes away or
// stalls, while the client waits for the reply.
enum class CEnd { kClose, kReset, kStall };
struct CBreakCase {
  const char* name;
  std::vector<unsigned char> lastWords;
  CEnd end;
  unsigned int timeout;  // seconds the request allows
  bool connectedAfter;   // the connection survives the failed request
  std::size_t packets;   // packets the callbacks saw, the open reply included
  const char* logged;    // a line the break leaves in the log ("" for none)
};

class RawPeerBreak : public RawPeer, public ::testing::WithParamInterface<CBreakCase> {};

TEST_P(RawPeerBreak, PendingRequestEndsInTimeAndDisconnectIsPrompt) {
  const CBreakCase& c = GetParam();
  client.RegisterCallback(&all);
  Connect([&c](CScriptPeer& p) {
    p.ReadRecord();
    if (!c.lastWords.empty()) p.Write(c.lastWords);
    if (c.end == CEnd::kClose) p.Close();
    if (c.end == CEnd::kReset) p.Reset();
    if (c.end == CEnd::kStall) p.ReadUntilClosed();
  });
  Clock::time_point start = Clock::now();
  EXPECT_EQ(AskHost(c.timeout), "NDMP_TIMEOUT_ERR");
  const double waited = SecondsSince(start);
  // A stall waits out the request's time; a broken stream ends the wait far
  // below the 30 s asked for.
  if (c.end == CEnd::kStall) {
    EXPECT_GE(waited, c.timeout - 0.1);
  }
  EXPECT_LT(waited, 10.0);
  EXPECT_EQ(all.WaitFor(c.packets), c.packets);
  if (*c.logged != '\0') {
    EXPECT_TRUE(log.WaitFor(c.logged)) << c.logged;
  }
  EXPECT_EQ(client.IsConnected(), c.connectedAfter);
  if (!c.connectedAfter) {
    EXPECT_EQ(AskHost(), "NDMP_CONNECT_ERR");
  }
  ExpectPromptDisconnect();
  EXPECT_TRUE(log.Contains(Tag() + " Message receive thread closed"));
  EXPECT_TRUE(log.Contains("Dispatch Thread closed"));
  EXPECT_TRUE(peer.Join());
  EXPECT_EQ(all.Count(), c.packets);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RawPeerBreak,
    ::testing::Values(
        CBreakCase{"CloseMidWait", {}, CEnd::kClose, 30, false, 1, ""},
        CBreakCase{"CloseMidRecord", HalfFragment(), CEnd::kClose, 30, false, 1, ""},
        CBreakCase{"ResetMidFragment", HalfFragment(), CEnd::kReset, 30, false, 1,
                   "Error Reading from Socket"},
        // A whole post goes through first; the stalled record never ends.
        CBreakCase{"StallInsideRecord",
                   Concat({PostRecord(CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED,
                                      XdrU32(enums::CNDMPEnumDataHaltReason::
                                                 NDMP_DATA_HALT_SUCCESSFUL)),
                           HalfFragment()}),
                   CEnd::kStall, 2, true, 2, ""}),
    [](const ::testing::TestParamInfo<CBreakCase>& param) { return param.param.name; });

TEST_F(RawPeer, TakesOnlyTheReplyWithItsCodeAndSequence) {
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

TEST_F(RawPeer, SilentPeerTimesOutAndALateReplyIsNotTakenForTheNextRequest) {
  Connect([](CScriptPeer& p) {
    CRawRecord first = p.ReadRecord();
    // Not answered until the client has given up and asks again.
    CRawRecord second = p.ReadRecord();
    if (!IsHostInfoRequest(first) || !IsHostInfoRequest(second)) return;
    p.Write(ReplyRecord(first.header, HostInfoBody("late")));
    p.Write(ReplyRecord(second.header, HostInfoBody("current")));
    p.ReadUntilClosed();
  });
  EXPECT_EQ(AskHost(1), "NDMP_TIMEOUT_ERR");
  EXPECT_TRUE(client.IsConnected());
  EXPECT_EQ(AskHost(), "current");
}

TEST_F(RawPeer, DisconnectFromAnotherThreadEndsAWaitingRequest) {
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

TEST_F(RawPeer, UnknownCodeIsLoggedAndDropped) {
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

// Posts at the record size limit and past it, cut into 1000-byte
// fragments: one byte over is enough to skip a record. A record of twice the
// limit whose text claims a gigabyte must stop being decoded at the limit,
// not read on into the records behind it. Each skipped record leaves one
// error line; the post at the limit and the reply that follows still arrive.
TEST_F(RawPeer, RecordsOverTheMaximumSizeAreSkippedAndLoggedOnce) {
  constexpr std::uint32_t kLimit = 64 * 1024;
  EXPECT_EQ(Err(client.SetMaxRecordSize(CNDMPConnection::kMinRecordSize - 1)),
            "NDMP_ILLEGAL_ARGS_ERR");
  ASSERT_EQ(Err(client.SetMaxRecordSize(kLimit)), "NDMP_NO_ERR");
  client.RegisterCallback(&one, CXDREnumBase<CNDMPMessageCode>(CNDMPMessageCode::NDMP_LOG_MESSAGE));
  auto payload = [](const std::string& entry) {
    return testing::StripRecordMarks(
        PostRecord(CNDMPMessageCode::NDMP_LOG_MESSAGE, LogPostBody(entry)));
  };
  // 24 header bytes and 20 of the post's other fields around the entry.
  const std::string kept(kLimit - 44, 'k');
  auto oneOver = payload(std::string(kLimit - 44, 'o'));
  oneOver.push_back(0);
  auto twice = payload(std::string(2 * kLimit, 't'));
  twice[32] = 0x40;  // the text's length, behind the header and two fields
  ASSERT_EQ(payload(kept).size(), kLimit);
  Connect([&](CScriptPeer& p) {
    p.Write(Concat({testing::MakeRecord(oneOver, 1000), testing::MakeRecord(twice, 1000),
                    testing::MakeRecord(payload(kept), 1000)}));
    CRawRecord request = p.ReadRecord();
    if (IsHostInfoRequest(request)) p.Write(ReplyRecord(request.header, HostInfoBody("filer-7")));
    p.ReadUntilClosed();
  });
  EXPECT_EQ(AskHost(), "filer-7");
  ASSERT_EQ(one.WaitFor(1), 1u);
  EXPECT_EQ(one.Body<CNDMPLogMessagePost>(0)->Entry.GetString(), kept);
  std::vector<std::string> errors;
  for (const auto& line : log.Lines()) {
    if (line.first == VxLog::kError) errors.push_back(line.second);
  }
  const std::string over = " is over the maximum record size of 65536 bytes. Discarded.";
  EXPECT_EQ(errors, (std::vector<std::string>{
                        Tag() + " Message=NDMP_LOG_MESSAGE of 65537 bytes" + over,
                        Tag() + " Message=NDMP_LOG_MESSAGE of 131116 bytes" + over}));
  EXPECT_FALSE(log.Contains("bytes discarded"));
}

// 20000 posts around the reply, then one post in one-byte fragments: the
// reply is found among them, every post arrives in order, the fragmented
// one whole.
TEST_F(RawPeer, FloodOfPostsAndOneByteFragmentsAreAllDecoded) {
  constexpr int kPosts = 20000;
  log.setLevel(0);
  client.RegisterCallback(&one, CXDREnumBase<CNDMPMessageCode>(CNDMPMessageCode::NDMP_LOG_MESSAGE));
  std::string entry;
  for (int i = 0; entry.size() < 100000; ++i) entry += "line " + std::to_string(i) + "\n";
  const auto payload =
      testing::StripRecordMarks(PostRecord(CNDMPMessageCode::NDMP_LOG_MESSAGE, LogPostBody(entry)));
  const auto fragments = testing::MakeRecord(payload, 1);
  ASSERT_EQ(fragments.size(), payload.size() * 5);

  Connect([&fragments](CScriptPeer& p) {
    std::vector<unsigned char> batch;
    for (int i = 0; i < kPosts / 2; ++i) {
      auto post = PostRecord(CNDMPMessageCode::NDMP_LOG_MESSAGE,
                             LogPostBody("post " + std::to_string(i)), 1000 + i);
      batch.insert(batch.end(), post.begin(), post.end());
    }
    p.Write(batch);  // half before the request is even read
    CRawRecord request = p.ReadRecord();
    if (!request.complete) return;
    p.Write(batch);  // the other half ahead of the reply
    p.Write(ReplyRecord(request.header, HostInfoBody("filer")));
    p.Write(fragments);
    p.ReadUntilClosed();
  });
  EXPECT_EQ(AskHost(60), "filer");
  ASSERT_EQ(one.WaitFor(kPosts + 1, 60000), kPosts + 1u);
  for (std::size_t i : {std::size_t{0}, std::size_t{kPosts / 2 - 1}, std::size_t{kPosts - 1}}) {
    EXPECT_EQ(one.Body<CNDMPLogMessagePost>(i)->Entry.GetString(),
              "post " + std::to_string(i % (kPosts / 2)));
  }
  EXPECT_EQ(one.Body<CNDMPLogMessagePost>(kPosts)->Entry.GetString(), entry);
  ExpectPromptDisconnect();
  EXPECT_TRUE(peer.Join());
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
