// Requests sent while the dispatch thread is busy: the data-read handler's
// NDMP_MOVER_READ exchange from inside a callback, an application request
// while a callback blocks, and Disconnect while a callback waits for a reply.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/connection/data_read_handler.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using enums::CNDMPMessageType;
using testing::CCapturingLog;
using testing::CServingSide;
using testing::kWaitMs;

using Clock = std::chrono::steady_clock;

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// How the serving side answers NDMP_MOVER_READ.
enum class MoverAnswer { kAccept, kRefuseInBody, kHeaderError, kSilent };

// The serving side: accepts version 4, answers host information, and
// answers NDMP_MOVER_READ as configured, noting the window asked for.
class CMoverScript {
 public:
  explicit CMoverScript(MoverAnswer answer) : answer_(answer) {}

  CServingSide::Responder Responder() {
    return [this](CNDMPConnection& serving, CNDMPMessagePacket& packet) {
      const CNDMPHeader& header = packet.GetHeader();
      const unsigned int sequence = header.Sequence.getInt32();
      switch (header.MessageCode.getInt32()) {
        case CNDMPMessageCode::NDMP_CONNECT_OPEN: {
          CNDMPConnectOpenReply reply;
          serving.SendMessage(reply, sequence);
          break;
        }
        case CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO: {
          CNDMPConfigGetHostInfoReply reply;
          reply.hostname = "filer-7";
          serving.SendMessage(reply, sequence);
          break;
        }
        case CNDMPMessageCode::NDMP_MOVER_READ: {
          auto* read = dynamic_cast<CNDMPMoverReadRequest*>(packet.GetMessage());
          {
            std::lock_guard<std::mutex> lock(mutex_);
            if (read != nullptr) windows_.emplace_back(read->Offset, read->Length);
          }
          changed_.notify_all();
          CNDMPMoverReadReply reply;
          if (answer_ == MoverAnswer::kAccept) {
            serving.SendMessage(reply, sequence);
          } else if (answer_ == MoverAnswer::kRefuseInBody) {
            reply.NDMP_Error = CNDMPError::NDMP_ILLEGAL_STATE_ERR;
            serving.SendMessage(reply, sequence);
          } else if (answer_ == MoverAnswer::kHeaderError) {
            serving.SendNDMPError(CNDMPMessageType::NDMP_MESSAGE_REPLY, header.MessageCode,
                                  CNDMPError::NDMP_NOT_SUPPORTED_ERR, sequence);
          }
          break;
        }
        default:
          break;
      }
    };
  }

  // The (offset, length) windows asked for, once at least `count` came.
  std::vector<std::pair<std::uint64_t, std::uint64_t>> WaitWindows(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                      [&] { return windows_.size() >= count; });
    return windows_;
  }

 private:
  const MoverAnswer answer_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> windows_;  // guarded by mutex_
};

// Runs a data-read handler and keeps its result, which the dispatch ignores.
class CResultKeeper : public CINDMPCallback {
 public:
  explicit CResultKeeper(CNDMPConnection& connection) : handler_(connection) {}
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override {
    unsigned int result = handler_.HandleMessagePacket(packet);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      results_.push_back(result);
    }
    returned_.notify_all();
    return result;
  }
  // The handler's results, once at least `count` calls returned.
  std::vector<unsigned int> WaitResults(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    returned_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                       [&] { return results_.size() >= count; });
    return results_;
  }

 private:
  CNDMPDataReadHandler handler_;
  std::mutex mutex_;
  std::condition_variable returned_;
  std::vector<unsigned int> results_;  // guarded by mutex_
};

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

class DataReadExchange : public ::testing::Test {
 protected:
  // Connects the client to a serving side that answers NDMP_MOVER_READ so.
  void Start(MoverAnswer answer) {
    script = std::make_unique<CMoverScript>(answer);
    server.Start(script->Responder());
    ASSERT_EQ(Err(client.Connect()), "NDMP_NO_ERR");
    serving = server.WaitConnection();
    ASSERT_NE(serving, nullptr);
  }

  // The serving side posts NDMP_NOTIFY_DATA_READ for a window beyond 4 GiB.
  void PostDataRead() {
    CNDMPNotifyDataReadPost post;
    post.Offset = CNDMPUQuad(kOffset);
    post.Length = CNDMPUQuad(kLength);
    ASSERT_EQ(Err(serving->SendMessage(post, 0)), "NDMP_NO_ERR");
  }

  static constexpr std::uint64_t kOffset = 0x100001000ull;
  static constexpr std::uint64_t kLength = 65536;

  CCapturingLog clientLog;
  CCapturingLog servingLog;
  std::unique_ptr<CMoverScript> script;
  CServingSide server{servingLog};
  CNDMPConnection* serving = nullptr;
  CNDMPConnection client{"127.0.0.1", "127.0.0.1", clientLog, server.port()};
};

struct CMoverCase {
  const char* name;
  MoverAnswer answer;
  unsigned int result;
};

class DataReadHandler : public DataReadExchange,
                        public ::testing::WithParamInterface<CMoverCase> {};

TEST_P(DataReadHandler, AsksTheMoverForTheSameWindowFromInsideTheDispatch) {
  const CMoverCase& c = GetParam();
  Start(c.answer);
  CResultKeeper keeper(client);
  client.RegisterCallback(&keeper, CXDREnumBase<CNDMPMessageCode>(
                                       CNDMPMessageCode::NDMP_NOTIFY_DATA_READ));
  Clock::time_point start = Clock::now();
  PostDataRead();

  // Bounded far below the handler's own 360 s: the reply must reach it
  // while the dispatch thread is busy inside it.
  EXPECT_EQ(keeper.WaitResults(1), std::vector<unsigned int>{c.result});
  EXPECT_LT(SecondsSince(start), 10.0);
  auto windows = script->WaitWindows(1);
  ASSERT_EQ(windows.size(), 1u);
  EXPECT_EQ(windows[0].first, kOffset);
  EXPECT_EQ(windows[0].second, kLength);
  client.Disconnect();  // before `keeper` goes
}

INSTANTIATE_TEST_SUITE_P(
    Answers, DataReadHandler,
    ::testing::Values(CMoverCase{"Accepted", MoverAnswer::kAccept, 0},
                      CMoverCase{"RefusedInBody", MoverAnswer::kRefuseInBody, 1},
                      CMoverCase{"RefusedInHeader", MoverAnswer::kHeaderError, 1}),
    [](const ::testing::TestParamInfo<CMoverCase>& param) { return param.param.name; });

TEST_F(DataReadExchange, ApplicationRequestCompletesWhileACallbackBlocks) {
  Start(MoverAnswer::kAccept);
  CBlockingCallback blocking;
  client.RegisterCallback(&blocking, CXDREnumBase<CNDMPMessageCode>(
                                         CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED));
  CNDMPNotifyDataHaltedPost halted;
  ASSERT_EQ(Err(serving->SendMessage(halted, 0)), "NDMP_NO_ERR");
  ASSERT_EQ(blocking.entered.wait(kWaitMs), 0u);

  CNDMPConfigGetHostInfoRequest request;
  CNDMPMessage* reply = nullptr;
  EXPECT_EQ(Err(client.SendMessage(request, &reply, 10)), "NDMP_NO_ERR");
  auto* host = dynamic_cast<CNDMPConfigGetHostInfoReply*>(reply);
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(host->hostname.GetString(), "filer-7");
  client.FreeMessage(reply);
  blocking.released.set();
  client.Disconnect();  // the dispatch thread leaves `blocking` before it goes
}

TEST_F(DataReadExchange, DisconnectReturnsPromptlyWhileACallbackWaitsForAReply) {
  Start(MoverAnswer::kSilent);
  CResultKeeper keeper(client);
  client.RegisterCallback(&keeper, CXDREnumBase<CNDMPMessageCode>(
                                       CNDMPMessageCode::NDMP_NOTIFY_DATA_READ));
  PostDataRead();
  ASSERT_EQ(script->WaitWindows(1).size(), 1u);  // the handler now waits for its reply

  Clock::time_point start = Clock::now();
  EXPECT_EQ(Err(client.Disconnect()), "NDMP_NO_ERR");
  EXPECT_LT(SecondsSince(start), 5.0);
  // The wait ended with the connection: the handler reports failure.
  EXPECT_EQ(keeper.WaitResults(1), std::vector<unsigned int>{1u});
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
