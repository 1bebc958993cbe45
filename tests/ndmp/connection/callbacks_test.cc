// The callback table, the standard handlers, the packet queue and the
// dispatch thread, driven directly (no sockets): which registrations a
// packet reaches and in what order, the dispatch thread's drain on stop,
// the blocking handler's waits, the queue's event, and the log handler's
// lines.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ndmpc/ndmp/connection/callbacks.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/connection/message_threads.h"
#include "ndmpc/ndmp/connection/packet_queue.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPMessageCode;
using enums::CNDMPMessageType;
using testing::CCapturingLog;

using Code = CXDREnumBase<CNDMPMessageCode>;
using Version = CXDREnumBase<enums::CNDMPProtocolVersion>;

constexpr std::uint32_t kHostInfo = CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO;
constexpr std::uint32_t kTapeInfo = CNDMPMessageCode::NDMP_CONFIG_GET_TAPE_INFO;
constexpr std::uint32_t kServerInfo = CNDMPMessageCode::NDMP_CONFIG_GET_SERVER_INFO;

// A reply packet as the receive thread would hand it over.
std::unique_ptr<CNDMPMessagePacket> MakePacket(std::uint32_t code, std::uint32_t version,
                                               std::uint32_t replySequence,
                                               std::uint32_t error = 0) {
  auto packet = std::make_unique<CNDMPMessagePacket>(
      Code(code), CXDREnumBase<CNDMPMessageType>(CNDMPMessageType::NDMP_MESSAGE_REPLY),
      Version(version));
  packet->GetHeader().ReplySequence = replySequence;
  packet->GetHeader().ErrorCode = CXDREnumBase<enums::CNDMPError>(error);
  return packet;
}

// Appends its name to a shared list for every packet it is offered; runs
// `then` after the first.
class CNamedHandler : public CINDMPCallback {
 public:
  CNamedHandler(std::string name, std::vector<std::string>& calls,
                std::function<void()> then = nullptr)
      : name_(std::move(name)), calls_(calls), then_(std::move(then)) {}
  unsigned int HandleMessagePacket(CNDMPMessagePacket&) override {
    calls_.push_back(name_);
    if (then_) std::exchange(then_, nullptr)();
    return 1;  // a failure value: it must not stop the offer
  }

 private:
  std::string name_;
  std::vector<std::string>& calls_;
  std::function<void()> then_;
};

struct CDispatchCase {
  std::uint32_t code;
  std::uint32_t version;
  std::uint32_t replySequence;
  std::vector<std::string> reached;
};

TEST(CallbackTable, OffersEachPacketToEveryMatchingRegistrationInOrder) {
  VxLog quiet;
  quiet.setLevel(0);
  // The connection is the table; its own overloads forward to the table's.
  CNDMPConnection table("filer", "192.0.2.1", quiet, 10000);
  std::vector<std::string> calls;
  CNamedHandler code1("code", calls), all("all", calls), codeSeq("code+seq", calls),
      codeVerSeq("code+v3+seq", calls), code2("code again", calls);
  table.RegisterCallback(&code1, Code(kHostInfo));
  table.RegisterCallback(&all);
  table.RegisterCallback(&codeSeq, Code(kHostInfo), 5u);
  static_cast<CNDMPCallbackRegistrationTable&>(table).RegisterCallback(
      &codeVerSeq, Code(kHostInfo), Version(3), CXDRULong(5));
  table.RegisterCallback(&code2, Code(kHostInfo));

  const CDispatchCase cases[] = {
      {kHostInfo, 4, 5, {"code", "all", "code+seq", "code again"}},
      {kHostInfo, 3, 5, {"code", "all", "code+seq", "code+v3+seq", "code again"}},
      {kHostInfo, 3, 6, {"code", "all", "code again"}},
      {kTapeInfo, 3, 5, {"all"}},
  };
  for (const CDispatchCase& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.code << " v" << c.version << " #" << c.replySequence);
    calls.clear();
    auto packet = MakePacket(c.code, c.version, c.replySequence);
    EXPECT_EQ(table.DispatchPacket(*packet), 0);
    EXPECT_EQ(calls, c.reached);
  }
}

TEST(CallbackTable, RegistrationsChangeOnlyTheirOwnTableEvenWhileDispatching) {
  CNDMPCallbackRegistrationTable table, other;
  std::vector<std::string> calls;
  CNamedHandler late("late", calls), theirs("theirs", calls);
  CNamedHandler registering("registering", calls, [&] { table.RegisterCallback(&late); });
  CNDMPCallbackRegistration* mine = table.RegisterCallback(&registering);
  CNDMPCallbackRegistration* foreign = other.RegisterCallback(&theirs);
  auto packet = MakePacket(kHostInfo, 4, 0);
  // The count is read again at every step, so an entry registered by a
  // handler sees the packet being dispatched too.
  table.DispatchPacket(*packet);
  EXPECT_EQ(calls, (std::vector<std::string>{"registering", "late"}));

  EXPECT_FALSE(table.UnregisterCallback(nullptr));
  EXPECT_FALSE(table.UnregisterCallback(foreign));
  EXPECT_TRUE(table.UnregisterCallback(mine));
  calls.clear();
  table.DispatchPacket(*packet);
  other.DispatchPacket(*packet);
  EXPECT_EQ(calls, (std::vector<std::string>{"late", "theirs"}));
}

// Blocks on its first packet until released; logs every packet it gets.
class CGateHandler : public CINDMPCallback {
 public:
  explicit CGateHandler(VxLog& log) : log_(log) {}
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override {
    const unsigned int sequence = packet.GetHeader().ReplySequence.getInt32();
    if (sequence == 0) {
      entered.set();
      released.wait(testing::kWaitMs);
    } else {
      log_.debug("delivered %u", sequence);
    }
    return 0;
  }
  VxThreadEvent entered{VxThreadEvent::kManualReset, false};
  VxThreadEvent released{VxThreadEvent::kManualReset, false};

 private:
  VxLog& log_;
};

TEST(DispatchThread, DeliversPacketsQueuedAtTheStopBeforeClosing) {
  CCapturingLog log;
  CNDMPMessagePacketQueue queue;
  CNDMPCallbackRegistrationTable table;
  CGateHandler gate(log);
  table.RegisterCallback(&gate);
  CNDMPMessageDispatchThread thread(queue, table, log);
  ASSERT_TRUE(thread.start());

  queue.PutMessagePacket(*MakePacket(kHostInfo, 4, 0).release());
  ASSERT_EQ(gate.entered.wait(testing::kWaitMs), 0u);
  for (std::uint32_t sequence = 1; sequence <= 3; ++sequence) {
    queue.PutMessagePacket(*MakePacket(kHostInfo, 4, sequence).release());
  }
  thread.stop(false);
  gate.released.set();
  ASSERT_TRUE(thread.waitUntilStopped(testing::kWaitMs));

  std::vector<std::string> texts = log.Texts();
  const std::vector<std::string> expected = {"Dispatch Thread started", "Dispatch Thread closing",
                                             "delivered 1", "delivered 2", "delivered 3",
                                             "Dispatch Thread closed"};
  EXPECT_EQ(texts, expected);
  EXPECT_EQ(queue.GetFilledSize(), 0u);
}

TEST(BlockingCallbackHandler, WaitsInSecondsAndKeepsItsOwnCopyOfTheLatestPacket) {
  CNDMPBlockingCallbackHandler handler;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(handler.WaitForMessage(1), VX_WAIT_TIMEOUT);
  const double waited =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(waited, 0.9);
  EXPECT_LT(waited, 10.0);
  {
    auto packet = MakePacket(kHostInfo, 4, 7);
    CNDMPConfigGetHostInfoReply body;
    body.hostname = "first";
    packet->SetMessage(body);
    EXPECT_EQ(handler.HandleMessagePacket(*packet), 0u);
  }
  // The offered packet is gone; the copy lives on.
  EXPECT_EQ(handler.WaitForMessage(0), 0u);
  CNDMPMessagePacket& held = handler.GetReceivedPacket();
  EXPECT_EQ(held.GetHeader().ReplySequence.getInt32(), 7u);
  auto* body = dynamic_cast<CNDMPConfigGetHostInfoReply*>(held.GetMessage());
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(body->hostname.GetString(), "first");

  // A second packet replaces the first; the event was consumed by the wait.
  EXPECT_EQ(handler.WaitForMessage(0), VX_WAIT_TIMEOUT);
  handler.HandleMessagePacket(*MakePacket(kTapeInfo, 4, 8));
  EXPECT_EQ(handler.WaitForMessage(0), 0u);
  EXPECT_EQ(handler.GetReceivedPacket().GetHeader().MessageCode.getInt32(), kTapeInfo);
  EXPECT_EQ(handler.GetReceivedPacket().GetMessage(), nullptr);
}

TEST(PacketQueue, CollectorQueuesCopiesAndTheEventFollowsTheFill) {
  CNDMPMessagePacketQueue queue;
  CNDMPMessagePacketCollector collector(queue);
  EXPECT_EQ(queue.WaitForPacket(10), VX_WAIT_TIMEOUT);
  {
    auto packet = MakePacket(kHostInfo, 4, 1);
    CNDMPConfigGetHostInfoReply body;
    body.hostname = "copied";
    packet->SetMessage(body);
    EXPECT_EQ(collector.HandleMessagePacket(*packet), 1u);
    packet->GetHeader().ReplySequence = 2;
    EXPECT_EQ(collector.HandleMessagePacket(*packet), 2u);
  }
  EXPECT_EQ(queue.GetFilledSize(), 2u);
  EXPECT_EQ(queue.WaitForPacket(10), 0u);

  // The offered packet is gone; the copies live on, in order.
  CNDMPMessagePacket* p = nullptr;
  ASSERT_TRUE(queue.GetNextPacket(p));
  std::unique_ptr<CNDMPMessagePacket> first(p);
  EXPECT_EQ(first->GetHeader().ReplySequence.getInt32(), 1u);
  auto* body = dynamic_cast<CNDMPConfigGetHostInfoReply*>(first->GetMessage());
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(body->hostname.GetString(), "copied");
  EXPECT_EQ(queue.WaitForPacket(10), 0u);  // one left: still set
  ASSERT_TRUE(queue.GetNextPacket(p));
  std::unique_ptr<CNDMPMessagePacket> second(p);
  EXPECT_EQ(second->GetHeader().ReplySequence.getInt32(), 2u);
  EXPECT_EQ(queue.WaitForPacket(10), VX_WAIT_TIMEOUT);

  CNDMPMessagePacket* untouched = second.get();
  EXPECT_FALSE(queue.GetNextPacket(untouched));
  EXPECT_EQ(untouched, second.get());
  // Packets still queued belong to the queue and go with it.
  collector.HandleMessagePacket(*first);
}

TEST(PacketQueue, ConsumerOnAnotherThreadGetsEveryPacketInOrder) {
  CNDMPMessagePacketQueue queue;
  constexpr std::uint32_t kCount = 2000;
  std::vector<std::uint32_t> got;
  unsigned int firstWait = 1;
  std::thread consumer([&] {
    firstWait = queue.WaitForPacket(0);  // zero: waits until a packet comes
    // The dispatch thread's pattern: bounded waits, then look again.
    while (got.size() < kCount) {
      if (queue.GetFilledSize() == 0 && queue.WaitForPacket(testing::kWaitMs) != 0) break;
      CNDMPMessagePacket* p = nullptr;
      if (queue.GetNextPacket(p)) {
        got.push_back(p->GetHeader().ReplySequence.getInt32());
        delete p;
      }
    }
  });
  for (std::uint32_t i = 1; i <= kCount; ++i) {
    queue.PutMessagePacket(*MakePacket(kHostInfo, 4, i).release());
  }
  consumer.join();
  EXPECT_EQ(firstWait, 0u);
  ASSERT_EQ(got.size(), kCount);
  for (std::uint32_t i = 0; i < kCount; ++i) ASSERT_EQ(got[i], i + 1);
}

// What the log handler writes for one packet.
struct CLogHandlerCase {
  const char* name;
  int level;
  std::uint32_t code;
  std::uint32_t error;
  std::vector<std::pair<VxLog::Severity, std::string>> lines;  // texts after the tag
};

class LogCallbackHandler : public ::testing::TestWithParam<CLogHandlerCase> {};

TEST_P(LogCallbackHandler, WritesSummaryOrDump) {
  const CLogHandlerCase& c = GetParam();
  CCapturingLog log;
  log.setLevel(c.level);
  CNDMPLogCallbackHandler handler(log);
  void* handle = reinterpret_cast<void*>(static_cast<std::uintptr_t>(0x1234ABCDEF01ull));
  handler.SetHandle(handle);
  auto packet = MakePacket(c.code, 4, 9, c.error);
  EXPECT_EQ(handler.HandleMessagePacket(*packet), 0u);

  std::vector<std::pair<VxLog::Severity, std::string>> expected;
  for (const auto& line : c.lines) {
    std::string text = line.second;
    if (text == "dump") text = "Received Message " + packet->DumpContents();
    // The low 32 bits of the handle.
    expected.emplace_back(line.first, "[0xABCDEF01] " + text);
  }
  EXPECT_EQ(log.Lines(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LogCallbackHandler,
    ::testing::Values(
        CLogHandlerCase{"SummaryAtInfo", 3, kHostInfo, 0,
                        {{VxLog::kInfo, "Received Message NDMP_CONFIG_GET_HOST_INFO"}}},
        CLogHandlerCase{"ErrorAddsDump", 6, kHostInfo, 1,
                        {{VxLog::kInfo, "Received Message NDMP_CONFIG_GET_HOST_INFO"},
                         {VxLog::kError, "dump"}}},
        CLogHandlerCase{"DumpAbove6", 7, kHostInfo, 0, {{VxLog::kDebug, "dump"}}},
        CLogHandlerCase{"ErrorDumpAbove6", 7, kHostInfo, 1, {{VxLog::kError, "dump"}}},
        CLogHandlerCase{"ServerInfoAlwaysDumped", 4, kServerInfo, 0, {{VxLog::kDebug, "dump"}}},
        CLogHandlerCase{"ServerInfoDumpNeedsDebug", 3, kServerInfo, 0, {}}),
    [](const ::testing::TestParamInfo<CLogHandlerCase>& param) { return param.param.name; });

}  // namespace
}  // namespace com::vx::korvane::ndmpc
