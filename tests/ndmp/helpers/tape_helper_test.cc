// The tape helper against our own serving side: what each call sends, what
// it makes of every kind of answer, and the open retry rule.
#include "ndmpc/ndmp/helpers/tape_helper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#include "tests/ndmp/helpers/serving_peer.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPEnumMtioOp;
using enums::CNDMPEnumTapeOpenMode;
using enums::CNDMPMessageCode;
using testing::CServingPeer;

const CXDREnumBase<CNDMPEnumTapeOpenMode> kRdwr(CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE);

// Answers every request with a `Reply` that `fill` sets up.
template <class Reply, class Fill>
CServingPeer::Answer Answer(Fill fill) {
  return [fill](CServingPeer::Request& r) {
    Reply reply;
    fill(reply);
    r.Reply(reply);
  };
}

TEST(TapeHelper, ArgumentErrorsSendNothingAndLeaveOutputs) {
  CServingPeer peer(Answer<CNDMPTapeCloseReply>([](CNDMPTapeCloseReply&) {}));
  ASSERT_TRUE(peer.ok());
  CNDMPConnection* c = &peer.client();
  unsigned char buffer[8] = {};
  unsigned int out = 77;
  const CXDREnumBase<CNDMPEnumMtioOp> rew(CNDMPEnumMtioOp::NDMP_MTIO_REW);
  struct Case {
    const char* name;
    std::function<CXDREnumBase<CNDMPError>()> call;
  };
  const std::vector<Case> cases = {
      {"open without connection", [&] { return CNDMPTapeHelper::TapeOpen(nullptr, "t", kRdwr, true); }},
      {"open without device", [&] { return CNDMPTapeHelper::TapeOpen(c, nullptr, kRdwr, true); }},
      {"close without connection", [&] { return CNDMPTapeHelper::TapeClose(nullptr); }},
      {"mtio without connection", [&] { return CNDMPTapeHelper::TapeMTIO(nullptr, rew, 1, &out); }},
      {"mtio without resid", [&] { return CNDMPTapeHelper::TapeMTIO(c, rew, 1, nullptr); }},
      {"write without connection",
       [&] { return CNDMPTapeHelper::TapeWrite(nullptr, buffer, 8, &out); }},
      {"write without buffer", [&] { return CNDMPTapeHelper::TapeWrite(c, nullptr, 8, &out); }},
      {"write of 0 bytes", [&] { return CNDMPTapeHelper::TapeWrite(c, buffer, 0, &out); }},
      {"read without connection", [&] { return CNDMPTapeHelper::TapeRead(nullptr, buffer, 8, &out); }},
      {"read without buffer", [&] { return CNDMPTapeHelper::TapeRead(c, nullptr, 8, &out); }},
      {"read of 0 bytes", [&] { return CNDMPTapeHelper::TapeRead(c, buffer, 0, &out); }},
      {"read without count", [&] { return CNDMPTapeHelper::TapeRead(c, buffer, 8, nullptr); }},
  };
  for (const Case& k : cases) {
    EXPECT_EQ(k.call(), CNDMPError::NDMP_ILLEGAL_ARGS_ERR) << k.name;
    EXPECT_EQ(out, 77u) << k.name;
  }
  // Requests on one connection arrive in order: if the close is the first
  // one the server saw, none of the calls above sent anything.
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(c), CNDMPError::NDMP_NO_ERR);
  std::vector<CServingPeer::Seen> seen = peer.Requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].code, CNDMPMessageCode::NDMP_TAPE_CLOSE);
}

// The server is busy for the first `busy` tries: without retry, or for a
// name with "..", the open tries once; with retry it tries eleven times in
// all, about a second apart, and stops at the first success.
TEST(TapeHelper, OpenRetriesABusyDeviceUnlessToldNotTo) {
  const struct {
    const char* device;
    bool retry;
    int busy;
    unsigned int error;
    std::size_t requests;
  } cases[] = {{"/tapes/../nst0", true, 99, CNDMPError::NDMP_DEVICE_BUSY_ERR, 1},
               {"..", true, 99, CNDMPError::NDMP_DEVICE_BUSY_ERR, 1},
               {"/dev/nst0", false, 99, CNDMPError::NDMP_DEVICE_BUSY_ERR, 1},
               {"/dev/nst0", true, 2, CNDMPError::NDMP_NO_ERR, 3},
               {"/dev/nst0", true, 99, CNDMPError::NDMP_DEVICE_BUSY_ERR, 11}};
  for (const auto& k : cases) {
    std::atomic<int> answered{0};
    CServingPeer peer(Answer<CNDMPTapeOpenReply>([&answered, &k](CNDMPTapeOpenReply& reply) {
      reply.NDMP_Error = ++answered <= k.busy ? CNDMPError::NDMP_DEVICE_BUSY_ERR : CNDMPError::NDMP_NO_ERR;
    }));
    ASSERT_TRUE(peer.ok());
    EXPECT_EQ(CNDMPTapeHelper::TapeOpen(&peer.client(), k.device,
                                        CNDMPEnumTapeOpenMode::NDMP_TAPE_READ_MODE, k.retry),
              k.error)
        << k.device;
    std::vector<CServingPeer::Seen> seen = peer.Requests();
    ASSERT_EQ(seen.size(), k.requests) << k.device;
    for (std::size_t i = 0; i < seen.size(); ++i) {
      auto* open = CServingPeer::Body<CNDMPTapeOpenRequest>(seen[i]);
      ASSERT_NE(open, nullptr);
      EXPECT_EQ(open->Device.GetString(), k.device);
      EXPECT_EQ(open->Mode, CNDMPEnumTapeOpenMode::NDMP_TAPE_READ_MODE);
      // The client sleeps a full second between a reply and the next try;
      // only this lower bound is asserted.
      EXPECT_TRUE(i == 0 || seen[i].at - seen[i - 1].at >= std::chrono::milliseconds(950)) << i;
    }
  }
}

// A bare header's error comes back with the outputs zeroed, but the open
// deliberately reports NDMP_UNDEFINED_ERR when no reply body came; without a
// live connection the other calls pass the send's own error on.
TEST(TapeHelper, HeaderOnlyErrorsAndALostConnection) {
  CServingPeer peer([](CServingPeer::Request& r) { r.ReplyError(CNDMPError::NDMP_DEV_NOT_OPEN_ERR); });
  ASSERT_TRUE(peer.ok());
  CNDMPConnection* c = &peer.client();
  unsigned char buffer[4] = {1, 2, 3, 4};
  unsigned int resid = 9, written = 9, read = 9;
  EXPECT_EQ(CNDMPTapeHelper::TapeOpen(c, "/dev/nst0", kRdwr, false), CNDMPError::NDMP_UNDEFINED_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(c, CNDMPEnumMtioOp::NDMP_MTIO_REW, 1, &resid),
            CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeWrite(c, buffer, 4, &written), CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeRead(c, buffer, 4, &read), CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(c), CNDMPError::NDMP_DEV_NOT_OPEN_ERR);
  EXPECT_EQ(resid, 0u);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(read, 0u);
  EXPECT_EQ(peer.Requests().size(), 5u);
  c->Disconnect();
  EXPECT_EQ(CNDMPTapeHelper::TapeOpen(c, "/dev/nst0", kRdwr, false), CNDMPError::NDMP_UNDEFINED_ERR);
  EXPECT_EQ(CNDMPTapeHelper::TapeClose(c), CNDMPError::NDMP_CONNECT_ERR);
}

TEST(TapeHelper, MtioAndWriteSendTheirArgumentsAndCopyCountsEvenOnError) {
  const std::pair<unsigned int, unsigned int> cases[] = {
      {CNDMPError::NDMP_NO_ERR, 5}, {CNDMPError::NDMP_EOF_ERR, 3}, {CNDMPError::NDMP_EOM_ERR, 2}};
  for (const auto& [error, count] : cases) {
    CServingPeer peer([error = error, count = count](CServingPeer::Request& r) {
      CNDMPTapeMtioReply mtio;
      CNDMPTapeWriteReply write;
      mtio.NDMP_Error = error;
      write.NDMP_Error = error;
      mtio.ResidCount = count;
      write.Count = count;
      r.Reply(r.Code() == CNDMPMessageCode::NDMP_TAPE_MTIO ? static_cast<CNDMPMessage&>(mtio)
                                                          : write);
    });
    ASSERT_TRUE(peer.ok());
    std::vector<unsigned char> data = {'a', 'b', 0, 'c', 0xFF};
    unsigned int resid = 99, written = 99;
    EXPECT_EQ(CNDMPTapeHelper::TapeMTIO(&peer.client(), CNDMPEnumMtioOp::NDMP_MTIO_FSF, 7, &resid),
              error);
    EXPECT_EQ(CNDMPTapeHelper::TapeWrite(&peer.client(), data.data(), 5, &written), error);
    EXPECT_EQ(resid, count);
    EXPECT_EQ(written, count);
    std::vector<CServingPeer::Seen> seen = peer.Requests();
    ASSERT_EQ(seen.size(), 2u);
    auto* mtio = CServingPeer::Body<CNDMPTapeMtioRequest>(seen[0]);
    auto* write = CServingPeer::Body<CNDMPTapeWriteRequest>(seen[1]);
    ASSERT_TRUE(mtio != nullptr && write != nullptr);
    EXPECT_EQ(mtio->TapeOp, CNDMPEnumMtioOp::NDMP_MTIO_FSF);
    EXPECT_EQ(mtio->Count, 7u);
    EXPECT_EQ(testing::OpaqueBytes(write->DataOut), data);
  }
}

TEST(TapeHelper, ReadCopiesDataEvenOnErrorAndNeverPastLength) {
  struct Case {
    const char* name;
    unsigned int error;
    std::string data;  // what the server sends
    unsigned int asked;
    std::string expected;  // what lands in the buffer
  };
  const std::vector<Case> cases = {
      {"full", CNDMPError::NDMP_NO_ERR, "abcdef", 6, "abcdef"},
      {"short", CNDMPError::NDMP_NO_ERR, "ab", 6, "ab"},
      {"error with data", CNDMPError::NDMP_EOF_ERR, "xy", 6, "xy"},
      {"no data", CNDMPError::NDMP_EOF_ERR, "", 6, ""},
      {"no data, no error", CNDMPError::NDMP_NO_ERR, "", 6, ""},
      {"longer than asked", CNDMPError::NDMP_NO_ERR, "0123456789", 4, "0123"},
  };
  for (const Case& k : cases) {
    CServingPeer peer(Answer<CNDMPTapeReadReply>([&k](CNDMPTapeReadReply& reply) {
      reply.NDMP_Error = k.error;
      reply.Data.SetData(k.data.data(), k.data.size());
    }));
    ASSERT_TRUE(peer.ok());
    std::vector<unsigned char> buffer(16, '#');
    unsigned int read = 99;
    EXPECT_EQ(CNDMPTapeHelper::TapeRead(&peer.client(), buffer.data(), k.asked, &read), k.error)
        << k.name;
    EXPECT_EQ(read, k.expected.size()) << k.name;
    std::string expectedBuffer = k.expected + std::string(16 - k.expected.size(), '#');
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), expectedBuffer) << k.name;
    std::vector<CServingPeer::Seen> seen = peer.Requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(CServingPeer::Body<CNDMPTapeReadRequest>(seen[0])->Count, k.asked) << k.name;
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
