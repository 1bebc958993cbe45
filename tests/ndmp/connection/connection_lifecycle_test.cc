// A connection's identity and lifecycle without a server: copies, the
// address setters, Disconnect and sends on an idle connection, and connects
// that find nobody listening.
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

using testing::AskHost;
using testing::HostInfoBody;

using enums::CNDMPError;
using enums::CNDMPMessageCode;
using testing::AnswerOpen;
using testing::CCapturingLog;
using testing::CLoopbackTcp;
using testing::CRawHeader;
using testing::CRawRecord;
using testing::CScriptPeer;
using testing::HandleTag;
using testing::kWaitMs;
using testing::PostRecord;
using testing::ReplyRecord;
using testing::XdrString;
using testing::XdrU32;

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

// ---- Lifecycle under stress: reconnects, callbacks, hostile timing ----

// A peer that answers the open (or the alternate handshake), then every
// host-information request with "filer".
void AnswerAll(CScriptPeer& p, bool alternate) {
  if (alternate) {
    p.ReadBytes(8);
    p.Write(testing::Bytes({0, 0, 0x53, 0, 0, 0, 0, 0}));
  } else {
    AnswerOpen(p);
  }
  for (CRawRecord r = p.ReadRecord(); r.complete; r = p.ReadRecord()) {
    p.Write(ReplyRecord(r.header, HostInfoBody("filer")));
  }
}

// A serving-side connection, threads running, not yet connected.
struct CServing {
  CCapturingLog log;
  CLoopbackTcp tcp;
  CNDMPConnection server{tcp.socket, log};
};

class ReconnectServingSide : public ::testing::TestWithParam<bool> {};

TEST_P(ReconnectServingSide, StopsWhatRunsBeforeConnectingAnew) {
  const bool alternate = GetParam();
  CServing s;
  ASSERT_TRUE(s.tcp.peer >= 0);
  CScriptPeer peer;
  peer.Run([alternate](CScriptPeer& p) { AnswerAll(p, alternate); });
  s.server.SetPort(peer.port());
  ASSERT_EQ(Err(alternate ? s.server.PAGConnect() : s.server.Connect()), "NDMP_NO_ERR");
  if (!alternate) {
    EXPECT_EQ(AskHost(s.server), "filer");
  }
  // The accepted connection was shut down, not left to a running reader.
  EXPECT_TRUE(s.tcp.PeerReadAll().empty());
  s.server.Disconnect();
  EXPECT_TRUE(peer.Join());
}

INSTANTIATE_TEST_SUITE_P(Modes, ReconnectServingSide, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& param) {
                           return param.param ? "PAGConnect" : "Connect";
                         });

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
  if (drive == Drive::kConnectInCallback) second.Run([](CScriptPeer& p) { AnswerAll(p, false); });
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
    EXPECT_EQ(AskHost(*c), "filer");
  }
  delete c;
}

INSTANTIATE_TEST_SUITE_P(Drives, LifecycleFromCallbacks,
                         ::testing::Values(Drive::kDisconnectInCallback,
                                           Drive::kConnectInCallback, Drive::kDestroyInCallback,
                                           Drive::kDisconnectBesideBlockedCallback));

// The serving side holds early packets only until the application takes
// over with a callback, and never more than the limit.
class EarlyHolding : public ::testing::TestWithParam<bool> {};

TEST_P(EarlyHolding, IsBoundedAndEndsWithTheFirstCallback) {
  const bool registers = GetParam();
  CServing s;
  testing::CPacketRecorder recorder;
  if (registers) s.server.RegisterCallback(&recorder);
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(s.tcp.PeerWrite(PostRecord(CNDMPMessageCode::NDMP_NOTIFY_DATA_HALTED, XdrU32(1))));
  }
  // Dispatched in order: once the last one is logged, all went by.
  ASSERT_TRUE(s.tcp.PeerWrite(PostRecord(CNDMPMessageCode::NDMP_NOTIFY_CONNECTION_STATUS,
                                         testing::Concat({XdrU32(0), XdrU32(4), XdrString("")}))));
  ASSERT_TRUE(s.log.WaitFor("Received Message NDMP_NOTIFY_CONNECTION_STATUS"));
  s.server.StartServerMode();
  EXPECT_EQ(s.server.GetPacketQueue().GetFilledSize(),
            registers ? 0u : CNDMPConnection::kEarlyPacketLimit);
}

INSTANTIATE_TEST_SUITE_P(Application, EarlyHolding, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& param) {
                           return param.param ? "RegistersACallback" : "RegistersNothing";
                         });

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
    CRawHeader lost = next.header;
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
  struct CCase {
    const char* name;
    std::function<CXDREnumBase<CNDMPError>(CNDMPConnection&)> send;
    bool connected, authenticated;
  };
  const CCase cases[] = {
      {"open", [](CNDMPConnection& c) {
         CNDMPConnectOpenReply reply;
         return c.SendMessage(reply, 1);
       }, true, false},
      {"auth", [](CNDMPConnection& c) {
         CNDMPConnectClientAuthReply reply;
         return c.SendMessage(reply, 1);
       }, false, true},
      {"error", [](CNDMPConnection& c) {
         return c.SendNDMPError(
             CXDREnumBase<enums::CNDMPMessageType>(enums::CNDMPMessageType::NDMP_MESSAGE_REPLY),
             CXDREnumBase<CNDMPMessageCode>(CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO),
             CXDREnumBase<CNDMPError>(CNDMPError::NDMP_NOT_SUPPORTED_ERR), 1);
       }, false, false},
  };
  for (const CCase& k : cases) {
    SCOPED_TRACE(k.name);
    CServing s;
    ASSERT_EQ(::shutdown(s.server.getSocket()->descriptor(), SHUT_WR), 0);
    EXPECT_EQ(Err(k.send(s.server)), "NDMP_NO_ERR");
    EXPECT_EQ(s.server.IsConnected(), k.connected);
    EXPECT_EQ(s.server.IsAuthenticated(), k.authenticated);
    EXPECT_TRUE(s.log.Contains(HandleTag(&s.server) + " Failed to write"));
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
