// A connection's lifecycle: copies, the address setters, Disconnect and sends
// on an idle connection, connects that find nobody, reconnects, the
// lifecycle driven from callbacks, the serving side's early packets, and
// failures of the log or of writes at awkward moments.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "tests/support/peer_support.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using testing::AnswerOpen;
using testing::AskHost;
using testing::CCapturingLog;
using testing::CRawRecord;
using testing::CScriptPeer;
using testing::HandleTag;
using testing::HostInfoBody;
using testing::kWaitMs;
using testing::PostRecord;
using testing::ReplyRecord;
using testing::ServeHostInfo;
using testing::XdrU32;

std::string Err(const CXDREnumBase<CNDMPError>& error) { return error.ToString(); }

TEST(ConnectionLifecycle, IdleConnectionCopiesSetsAddressesAndRefusesToSend) {
  CCapturingLog log;
  CNDMPConnection source("filer1", "192.0.2.7", log, 10000);
  EXPECT_EQ(source.GetNextSequence(), 1u);
  EXPECT_EQ(source.GetNextSequence(), 2u);
  // A copy starts its own sequence.
  CNDMPConnection c(source);
  EXPECT_EQ(c.GetNextSequence(), 1u);
  EXPECT_EQ(source.GetNextSequence(), 3u);
  EXPECT_EQ(std::string(c.GetHostName()), "filer1");
  EXPECT_EQ(std::string(c.GetIPAddress()), "192.0.2.7");
  EXPECT_EQ(c.GetPort(), 10000u);
  EXPECT_EQ(c.GetProtocolVersion().getInt32(), 4u);
  // The address setters differ on purpose: of the address only the first
  // character's value is assigned.
  EXPECT_EQ(std::string(c.SetHostName("filer2.example")), "filer2.example");
  EXPECT_EQ(std::string(c.GetHostName()), "filer2.example");
  EXPECT_EQ(std::string(c.SetIPAddress("10.1.2.3")), "1");
  EXPECT_EQ(std::string(c.GetIPAddress()), "1");
  EXPECT_EQ(c.SetPort(10001), 10001u);
  EXPECT_EQ(c.GetPort(), 10001u);

  EXPECT_EQ(Err(c.Disconnect()), "NDMP_NO_ERR");
  EXPECT_EQ(Err(c.Disconnect()), "NDMP_NO_ERR");
  EXPECT_FALSE(c.IsConnected());
  EXPECT_EQ(c.getSocket(), nullptr);
  CNDMPConfigGetHostInfoRequest request;
  CNDMPMessage* reply = nullptr;
  EXPECT_EQ(Err(c.SendMessage(request, &reply, 1)), "NDMP_CONNECT_ERR");
  EXPECT_EQ(reply, nullptr);
  CNDMPConfigGetHostInfoReply answer;
  EXPECT_EQ(Err(c.SendMessage(answer, 1)), "NDMP_CONNECT_ERR");
  EXPECT_EQ(c.GetPacketQueue().GetFilledSize(), 0u);
}

// Connects that find nobody listening, in both modes.
TEST(ConnectionLifecycle, ConnectToNobodyReportsConnectError) {
  for (bool alternate : {false, true}) {
    SCOPED_TRACE(alternate ? "PAGConnect" : "Connect");
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
}

// ---- Lifecycle under stress: reconnects, callbacks, hostile timing ----

// A serving-side connection, threads running, not yet connected.
struct CServing {
  CCapturingLog log;
  testing::CLoopbackTcp tcp;
  CNDMPConnection server{tcp.socket, log};
};

// A serving-side connection that connects elsewhere stops what runs first.
TEST(ConnectionLifecycle, ReconnectedServingSideStopsWhatRunsBeforeConnectingAnew) {
  for (bool alternate : {false, true}) {
    SCOPED_TRACE(alternate ? "PAGConnect" : "Connect");
    CServing s;
    ASSERT_TRUE(s.tcp.peer >= 0);
    CScriptPeer peer;
    peer.Run([alternate](CScriptPeer& p) { ServeHostInfo(p, alternate); });
    s.server.SetPort(peer.port());
    ASSERT_EQ(Err(alternate ? s.server.PAGConnect() : s.server.Connect()), "NDMP_NO_ERR");
    if (!alternate) {
      EXPECT_EQ(AskHost(s.server), "filer-7");
    }
    // The accepted connection was shut down, not left to a running reader.
    EXPECT_TRUE(s.tcp.PeerReadAll().empty());
    s.server.Disconnect();
    EXPECT_TRUE(peer.Join());
  }
}

// Runs an action once, on the dispatch thread, for the first packet offered.
class CActionCallback : public CINDMPCallback {
 public:
  explicit CActionCallback(std::function<void()> action) : action_(std::move(action)) {}
  unsigned int HandleMessagePacket(CNDMPMessagePacket&) override {
    if (!ran_.exchange(true)) {
      entered_.set_value();
      action_();
      done_.set_value();
    }
    return 0;
  }
  static bool Wait(std::promise<void>& p) {
    return p.get_future().wait_for(std::chrono::milliseconds(kWaitMs)) ==
           std::future_status::ready;
  }
  std::promise<void> entered_, done_;

 private:
  std::function<void()> action_;
  std::atomic<bool> ran_{false};
};

// The lifecycle driven from a callback, and Disconnect next to a callback
// that does not return. A connection whose Disconnect hangs is leaked, so
// that a failing case ends instead of hanging the suite.
enum class Drive {
  kDisconnectInCallback,
  kConnectInCallback,
  kDestroyInCallback,
  kDisconnectBesideBlockedCallback
};

class LifecycleFromCallbacks : public ::testing::TestWithParam<Drive> {};

TEST_P(LifecycleFromCallbacks, NeverWaitsForItself) {
  const Drive drive = GetParam();
  CCapturingLog log;
  CScriptPeer first, second;
  first.Run([](CScriptPeer& p) {
    // The post comes once the connection is up and has asked something.
    AnswerOpen(p);
    CRawRecord request = p.ReadRecord();
    p.Write(ReplyRecord(request.header, HostInfoBody("first")));
    p.Write(PostRecord(CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED, XdrU32(1)));
    p.ReadUntilClosed();
  });
  if (drive == Drive::kConnectInCallback) second.Run([](CScriptPeer& p) { ServeHostInfo(p); });
  auto* c = new CNDMPConnection("127.0.0.1", "127.0.0.1", log, first.port());
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  CActionCallback callback([&] {
    if (drive == Drive::kDisconnectInCallback) c->Disconnect();
    if (drive == Drive::kDestroyInCallback) {
      delete c;
      c = nullptr;
    }
    if (drive == Drive::kConnectInCallback) {
      c->SetPort(second.port());
      EXPECT_EQ(Err(c->Connect()), "NDMP_NO_ERR");
    }
    if (drive == Drive::kDisconnectBesideBlockedCallback) {
      opened.wait_for(std::chrono::milliseconds(3 * kWaitMs));
    }
  });
  c->RegisterCallback(&callback, CXDREnumBase<CNDMPMessageCode>(
                                     CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED));
  ASSERT_EQ(Err(c->Connect()), "NDMP_NO_ERR");
  ASSERT_EQ(AskHost(*c), "first");
  if (drive == Drive::kDisconnectBesideBlockedCallback) {
    ASSERT_TRUE(CActionCallback::Wait(callback.entered_));
    auto stopped = std::async(std::launch::async, [c] { c->Disconnect(); });
    ASSERT_EQ(stopped.wait_for(std::chrono::milliseconds(kWaitMs)), std::future_status::ready);
    gate.set_value();
  }
  ASSERT_TRUE(CActionCallback::Wait(callback.done_));
  if (drive == Drive::kDestroyInCallback) return;
  EXPECT_EQ(c->IsConnected(), drive == Drive::kConnectInCallback);
  if (drive == Drive::kConnectInCallback) {
    EXPECT_EQ(AskHost(*c), "filer-7");
  }
  delete c;
}

INSTANTIATE_TEST_SUITE_P(Drives, LifecycleFromCallbacks,
                         ::testing::Values(Drive::kDisconnectInCallback,
                                           Drive::kConnectInCallback, Drive::kDestroyInCallback,
                                           Drive::kDisconnectBesideBlockedCallback));

// The serving side holds what arrives before StartServerMode, in order,
// until the application takes over with a callback, and never more than
// the limit.
TEST(ConnectionLifecycle, EarlyPacketsAreHeldBoundedUntilTheApplicationTakesOver) {
  for (bool registers : {false, true}) {
    SCOPED_TRACE(registers ? "registers a callback" : "registers nothing");
    testing::CPacketRecorder recorder;  // outlives the connection that offers it packets
    CServing s;
    if (registers) s.server.RegisterCallback(&recorder);
    for (std::uint32_t i = 1; i <= 100; ++i) {
      ASSERT_TRUE(
          s.tcp.PeerWrite(PostRecord(CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED, XdrU32(1), i)));
    }
    // Dispatched in order: once the last one is logged, all went by.
    ASSERT_TRUE(s.tcp.PeerWrite(
        PostRecord(CNDMPMessageCode::NDMP_NOTIFY_CONNECTION_STATUS,
                   testing::Concat({XdrU32(0), XdrU32(4), testing::XdrString("")}))));
    ASSERT_TRUE(s.log.WaitFor("Received Message NDMP_NOTIFY_CONNECTION_STATUS"));
    CNDMPMessagePacketQueue& queue = s.server.GetPacketQueue();
    EXPECT_EQ(queue.GetFilledSize(), 0u);
    s.server.StartServerMode();
    EXPECT_EQ(queue.GetFilledSize(), registers ? 0u : CNDMPConnection::kEarlyPacketLimit);
    EXPECT_EQ(recorder.WaitFor(registers ? 101 : 0), registers ? 101u : 0u);
    CNDMPMessagePacket* p = nullptr;
    for (std::uint32_t i = 1; queue.GetNextPacket(p); ++i) {
      std::unique_ptr<CNDMPMessagePacket> held(p);
      ASSERT_EQ(held->GetHeader().Sequence.getInt32(), i);
    }
  }
}

// A log whose flush throws once, on the thread that armed it.
class CThrowingLog : public CCapturingLog {
 public:
  void Arm() {
    owner_ = std::this_thread::get_id();
    armed_ = true;
  }
  void flush() override {
    if (armed_.load() && owner_ == std::this_thread::get_id() && armed_.exchange(false)) {
      throw std::runtime_error("log down");
    }
  }

 private:
  std::thread::id owner_;
  std::atomic<bool> armed_{false};
};

TEST(ConnectionLifecycle, ReplyWaiterGoesWhenTheLogThrows) {
  CThrowingLog log;
  CScriptPeer peer;
  peer.Run([&log](CScriptPeer& p) {
    AnswerOpen(p);
    // The request that threw never left: answer it late (and wait until it
    // went through), then the next one.
    CRawRecord next = p.ReadRecord();
    testing::CRawHeader lost = next.header;
    --lost.sequence;
    p.Write(ReplyRecord(lost, HostInfoBody("stale")));
    log.WaitFor("Received Message NDMP_CONFIG_GET_HOST_INFO");
    p.Write(ReplyRecord(next.header, HostInfoBody("filer")));
    p.ReadUntilClosed();
  });
  CNDMPConnection c("127.0.0.1", "127.0.0.1", log, peer.port());
  ASSERT_EQ(Err(c.Connect()), "NDMP_NO_ERR");
  log.Arm();
  EXPECT_THROW(AskHost(c), std::runtime_error);
  EXPECT_EQ(AskHost(c), "filer");
  c.Disconnect();
  EXPECT_TRUE(peer.Join());
}

TEST(ConnectionLifecycle, SendsDuringConnectWaitForTheOpen) {
  CCapturingLog log;
  CScriptPeer peer;
  std::vector<std::uint32_t> codes;
  peer.Run([&codes](CScriptPeer& p) {
    for (CRawRecord r = p.ReadRecord(); r.complete; r = p.ReadRecord()) {
      codes.push_back(r.header.code);
      if (r.header.code == CNDMPMessageCode::NDMP_CONNECT_OPEN) {
        p.Write(ReplyRecord(r.header, XdrU32(0)));
      }
    }
  });
  CNDMPConnection c("127.0.0.1", "127.0.0.1", log, peer.port());
  std::atomic<bool> connected{false};
  std::thread sender([&] {
    CNDMPConfigGetHostInfoReply answer;  // a reply goes out without waiting
    for (;;) {
      const bool last = connected.load();
      if (c.SendMessage(answer, 1) == CNDMPError::NDMP_NO_ERR || last) break;
    }
  });
  EXPECT_EQ(Err(c.Connect()), "NDMP_NO_ERR");
  connected = true;
  sender.join();
  c.Disconnect();
  ASSERT_TRUE(peer.Join());
  ASSERT_EQ(codes.size(), 2u);
  EXPECT_EQ(codes[0], static_cast<std::uint32_t>(CNDMPMessageCode::NDMP_CONNECT_OPEN));
}

// Replies whose record cannot be written were made all the same: the
// result and the flags follow the reply, and the failure is logged.
TEST(ConnectionLifecycle, RepliesAfterAFailedWriteCountAndAreLogged) {
  CNDMPConnectOpenReply open;
  CNDMPConnectClientAuthReply auth;
  const struct {
    CNDMPMessage* reply;  // null: a bare header with an error
    bool connected, authenticated;
  } cases[] = {{&open, true, false}, {&auth, false, true}, {nullptr, false, false}};
  for (const auto& k : cases) {
    SCOPED_TRACE(&k - cases);
    CServing s;
    ASSERT_EQ(::shutdown(s.server.getSocket()->descriptor(), SHUT_WR), 0);
    EXPECT_EQ(
        Err(k.reply != nullptr
                ? s.server.SendMessage(*k.reply, 1)
                : s.server.SendNDMPError(
                      CXDREnumBase<enums::CNDMPMessageType>(
                          enums::CNDMPMessageType::NDMP_MESSAGE_REPLY),
                      CXDREnumBase<CNDMPMessageCode>(CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO),
                      CXDREnumBase<CNDMPError>(CNDMPError::NDMP_NOT_SUPPORTED_ERR), 1)),
        "NDMP_NO_ERR");
    EXPECT_EQ(s.server.IsConnected(), k.connected);
    EXPECT_EQ(s.server.IsAuthenticated(), k.authenticated);
    EXPECT_TRUE(s.log.Contains(HandleTag(&s.server) + " Failed to write"));
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
